#include "logging/tovak_packets.h"

#include <algorithm>

#include "common/tovak_log.h"
#include "protocol/tovak_layouts.h"

#define LOG_MODULE "tovak_handler"

tovak_packet tovak_build_event_mask_packet(const std::vector<uint16_t>& ids, uint16_t n)
{
    tovak_packet p = { DIAG_CMD_EVENT_MASK_SET, 0 };
    tovak_put_u16(&p, 0);
    tovak_put_u16(&p, n);
    // One byte more than needed when n is a multiple of 8; the modem has
    // always been sent this length.
    const size_t mask_len = (size_t(n) >> 3) + 1;
    const size_t mask_at = p.size();
    p.resize(mask_at + mask_len, 0);
    for (uint16_t id : ids) {
        size_t byte = id >> 3;
        if (byte < mask_len)
            p[mask_at + byte] |= uint8_t(1u << (id & 7));
    }
    return p;
}

std::vector<tovak_packet> tovak_build_log_mask_packets(const std::vector<uint16_t>& codes,
                                                       const uint32_t last_items[TOVAK_EQUIPMENT_ID_COUNT])
{
    std::vector<uint16_t> sorted(codes);
    std::sort(sorted.begin(), sorted.end());
    std::vector<tovak_packet> out;
    for (uint32_t q = 0; q < TOVAK_EQUIPMENT_ID_COUNT; q++) {
        const uint32_t last = last_items[q];
        auto first = std::lower_bound(sorted.begin(), sorted.end(), uint16_t(q << 12));
        if (last == 0 || first == sorted.end() || (*first >> 12) != q)
            continue;
        const uint64_t mask_len = (uint64_t(last) + 7) >> 3;
        if (16 + mask_len > TOVAK_MAX_PACKET_SIZE) {
            // No such modem; the frame could not carry it anyway.
            TLOG_ERR("log code range too wide for one mask packet");
            continue;
        }
        tovak_packet p = { DIAG_CMD_LOG_CONFIG, 0, 0, 0 };
        tovak_put_u32(&p, LOG_CONFIG_OP_SET_MASK);
        tovak_put_u32(&p, q);
        tovak_put_u32(&p, last);
        const size_t mask_at = p.size();
        p.resize(mask_at + size_t(mask_len), 0);
        for (auto it = first; it != sorted.end() && (*it >> 12) == q; ++it) {
            uint32_t item = uint32_t(*it) - q * 4096;
            if (item >= last)
                break;
            p[mask_at + (item >> 3)] |= uint8_t(1u << (item & 7));
        }
        out.push_back(std::move(p));
    }
    return out;
}

std::vector<tovak_packet> tovak_build_msg_mask_packets(const std::vector<std::pair<uint16_t, uint32_t>>& masks,
                                                       const std::vector<tovak_msg_range>& ranges)
{
    std::vector<std::pair<uint16_t, uint32_t>> sorted(masks);
    std::sort(sorted.begin(), sorted.end());
    std::vector<tovak_packet> out;
    for (const tovak_msg_range& r : ranges) {
        if (r.last < r.first) {
            TLOG_ERR("message range ends before it starts"); // a range that is no range
            continue;
        }
        const size_t count = size_t(r.last) - r.first + 1;
        if (8 + count * 4 > TOVAK_MAX_PACKET_SIZE) {
            TLOG_ERR("message range too wide for one mask packet");
            continue;
        }
        tovak_packet p = { DIAG_CMD_EXT_MSG_CONFIG, EXT_MSG_SET_RT_MASK };
        tovak_put_u16(&p, r.first);
        tovak_put_u16(&p, r.last);
        tovak_put_u16(&p, 0);
        auto it = std::lower_bound(sorted.begin(), sorted.end(), std::make_pair(r.first, uint32_t(0)));
        for (uint32_t ssid = r.first; ssid <= r.last; ssid++) {
            uint32_t mask = 0;
            if (it != sorted.end() && it->first == ssid) {
                mask = it->second;
                ++it;
            }
            tovak_put_u32(&p, mask);
        }
        out.push_back(std::move(p));
    }
    return out;
}
