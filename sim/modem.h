// The simulated modem's diag service: its canned ranges, the masks that
// requests set, data-path logging interfaces and the traffic it produces in
// memory-buffer mode. Requests and answers here are unframed packets.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

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

struct SsidRange {
    uint16_t first;
    uint16_t last;
    bool operator==(const SsidRange&) const = default;
};

// What a modem supports. Deliberately unlike the daemon's built-in tables
// so that tests can tell which the daemon used.
struct ModemRanges {
    uint16_t event_count;
    std::array<uint32_t, 16> log_last_items;
    std::vector<SsidRange> ssid_ranges;
};
ModemRanges default_modem_ranges();

struct DplIface {
    uint8_t id;
    std::string name;
    bool logging;
};
std::vector<DplIface> default_dpl_ifaces();

// Diag timestamp: 1.25 ms units since 1980-01-06 in the upper 48 bits.
uint64_t diag_timestamp(uint64_t unix_ns);

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

    // Appends count packets, HDLC-framed, for the enabled items in turn,
    // dropping the oldest to stay within limit bytes.
    void produce(size_t count, uint64_t unix_ns, size_t limit);
    // Drops the oldest frames until the buffer fits limit bytes.
    void trim(size_t limit);
    // The buffered stream, oldest first; take_traffic empties it.
    std::vector<uint8_t> traffic() const;
    std::vector<uint8_t> take_traffic();
    size_t traffic_bytes() const { return traffic_bytes_; }
    size_t traffic_frames() const { return traffic_.size(); }
    uint64_t produced() const { return produced_; }
    uint64_t dropped() const { return dropped_; }

private:
    std::vector<uint8_t> log_config(const std::vector<uint8_t>& req);
    std::vector<uint8_t> ext_msg_config(const std::vector<uint8_t>& req);
    std::vector<uint8_t> event_mask_set(const std::vector<uint8_t>& req);
    std::vector<uint8_t> event_mask_answer(uint8_t cmd, uint8_t error) const;
    std::vector<uint8_t> dpl(const std::vector<uint8_t>& req);
    const SsidRange* range_of(uint16_t first, uint16_t last) const;
    void clear_masks();
    void add_frame(const std::vector<uint8_t>& pkt, size_t limit);

    ModemRanges ranges_;
    std::vector<bool> events_;                      // by event id
    std::array<std::vector<bool>, 16> log_masks_;   // by equipment id, then item
    std::map<uint16_t, uint32_t> msg_masks_;        // SSID -> level mask
    bool event_reporting_ = false;
    std::vector<DplIface> dpl_;

    std::deque<std::vector<uint8_t>> traffic_;      // framed packets, oldest first
    size_t traffic_bytes_ = 0;
    uint64_t produced_ = 0;
    uint64_t dropped_ = 0;
    uint64_t cursor_ = 0;                           // next item in the round of enabled ones
};
