// The simulated modem's diag service: its canned ranges, the masks that
// requests set, data-path logging interfaces and the traffic it produces in
// memory-buffer mode. Requests and answers here are unframed packets.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "canned.h"
#include "modem_traffic.h"

// Diag command codes the modem serves or answers with.
enum diag_cmd : uint8_t {
    DIAG_LOG_F = 0x10,
    DIAG_BAD_CMD_F = 0x13,
    DIAG_BAD_PARM_F = 0x14,
    DIAG_BAD_LEN_F = 0x15,
    DIAG_EVENT_REPORT_F = 0x60,
    DIAG_LOG_CONFIG_F = 0x73,
    DIAG_EXT_MSG_F = 0x79,
    DIAG_EXT_MSG_CONFIG_F = 0x7D,
    DIAG_EVENT_MASK_GET_F = 0x81,
    DIAG_EVENT_MASK_SET_F = 0x82,
};

// 0x73 statuses.
#define LOG_CONFIG_SUCCESS 0u
#define LOG_CONFIG_INVALID_EQUIP_ID 1u
#define LOG_CONFIG_INVALID_RANGE 2u

class Modem {
public:
    explicit Modem(ModemRanges ranges = default_modem_ranges());

    // The answer to one request; empty when the modem stays silent.
    std::vector<uint8_t> handle(const std::vector<uint8_t>& req);

    // New ranges clear every mask: the modem starts over.
    void set_ranges(ModemRanges ranges);
    const ModemRanges& ranges() const { return ranges_; }

    std::vector<uint16_t> enabled_events() const;
    std::vector<uint16_t> enabled_log_codes() const;
    // SSID -> level mask, non-zero masks only.
    const std::map<uint16_t, uint32_t>& msg_masks() const { return msg_masks_; }
    bool event_reporting() const { return event_reporting_; }
    const std::vector<DplIface>& dpl_ifaces() const { return dpl_; }
    // True when some traffic could be produced.
    bool has_enabled_items() const;

    // Adds the packets owed after elapsed_s (each item at its own rate, or
    // fixed_rate a second when that is not negative), HDLC-framed, dropping
    // the oldest to stay within limit bytes.
    void produce(double elapsed_s, double fixed_rate, uint64_t unix_ns, size_t limit);
    void trim(size_t limit) { buffer_.trim(limit); }
    // The buffered stream, oldest first; take_traffic empties it.
    std::vector<uint8_t> traffic() const { return buffer_.bytes(); }
    std::vector<uint8_t> take_traffic() { return buffer_.take(); }
    size_t traffic_bytes() const { return buffer_.held(); }
    size_t traffic_frames() const { return buffer_.frames(); }
    uint64_t produced() const { return source_.produced(); }
    uint64_t dropped() const { return buffer_.dropped(); }
    // Packets a second the enabled items call for.
    double natural_rate();

private:
    std::vector<uint8_t> log_config(const std::vector<uint8_t>& req);
    std::vector<uint8_t> ext_msg_config(const std::vector<uint8_t>& req);
    std::vector<uint8_t> event_mask_set(const std::vector<uint8_t>& req);
    std::vector<uint8_t> event_mask_answer(uint8_t cmd, uint8_t error) const;
    std::vector<uint8_t> dpl(const std::vector<uint8_t>& req);
    const SsidRange* range_of(uint16_t first, uint16_t last) const;
    void clear_masks();
    void refresh_items() const;

    ModemRanges ranges_;
    std::vector<bool> events_;                    // by event id
    std::array<std::vector<bool>, 16> log_masks_; // by equipment id, then item
    std::map<uint16_t, uint32_t> msg_masks_;      // SSID -> level mask
    bool event_reporting_ = false;
    std::vector<DplIface> dpl_;

    FrameBuffer buffer_;
    // The enabled items, remade lazily after the masks change.
    mutable TrafficSource source_;
    mutable bool items_stale_ = true;
};
