#include "modem.h"

#include <algorithm>
#include <cstring>

#include "hdlc.h"
#include "le.h"
#include "sim_link.h"

ModemRanges default_modem_ranges()
{
    ModemRanges r;
    r.event_count = 2200;
    // clang-format off
    r.log_last_items = { 3003, 1800, 3003, 3003, 2328, 1064, 3003, 2400,
                         3003, 3003,  914, 2560, 3003,    0,    0,    0 };
    r.ssid_ranges = {
        {     0,   120 }, {   500,   506 }, {  1000,  1007 }, {  2000,  2008 }, {  3000,  3014 },
        {  4000,  4010 }, {  4500,  4526 }, {  4600,  4611 }, {  5000,  5035 }, {  5500,  5515 },
        {  6000,  6072 }, {  6500,  6521 }, {  7000,  7003 }, {  7100,  7111 }, {  7200,  7201 },
        {  8000,  8000 }, {  8500,  8523 }, {  9000,  9008 }, {  9500,  9509 }, { 10200, 10210 },
        { 10251, 10253 }, { 10300, 10300 }, { 10350, 10360 }, { 10400, 10415 }, { 50000, 50000 },
    };
    // clang-format on
    return r;
}

std::vector<DplIface> default_dpl_ifaces()
{
    return {
        { 1, "rmnet0", false },       { 2, "rmnet1", false },       { 15, "rmnet_ipa0", false },
        { 19, "rmnet_data0", false }, { 20, "rmnet_data1", false },
    };
}

uint64_t diag_timestamp(uint64_t unix_ns)
{
    const uint64_t gps_epoch_ns = 315964800ull * 1000000000ull;
    uint64_t since = unix_ns > gps_epoch_ns ? unix_ns - gps_epoch_ns : 0;
    return (since / 1250000ull) << 16;
}

Modem::Modem(ModemRanges ranges)
    : dpl_(default_dpl_ifaces())
{
    set_ranges(std::move(ranges));
}

void Modem::set_ranges(ModemRanges ranges)
{
    ranges_ = std::move(ranges);
    clear_masks();
    event_reporting_ = false;
}

void Modem::clear_masks()
{
    events_.assign(ranges_.event_count, false);
    for (size_t q = 0; q < 16; q++)
        log_masks_[q].assign(ranges_.log_last_items[q] ? ranges_.log_last_items[q] + 1 : 0, false);
    msg_masks_.clear();
}

static std::vector<uint8_t> error_answer(uint8_t code, const std::vector<uint8_t>& req)
{
    std::vector<uint8_t> a = { code };
    a.insert(a.end(), req.begin(), req.end());
    return a;
}

std::vector<uint8_t> Modem::handle(const std::vector<uint8_t>& req)
{
    if (req.empty())
        return {};
    switch (req[0]) {
    case DIAG_EVENT_REPORT_F:
        if (req.size() != 2)
            return error_answer(DIAG_BAD_LEN_F, req);
        if (req[1] > 1)
            return error_answer(DIAG_BAD_PARM_F, req);
        event_reporting_ = req[1] == 1;
        return { DIAG_EVENT_REPORT_F, 0, 0 };
    case DIAG_LOG_CONFIG_F:
        return log_config(req);
    case DIAG_EXT_MSG_CONFIG_F:
        return ext_msg_config(req);
    case DIAG_EVENT_MASK_GET_F:
        if (req.size() != 4)
            return error_answer(DIAG_BAD_LEN_F, req);
        return event_mask_answer(DIAG_EVENT_MASK_GET_F, 0);
    case DIAG_EVENT_MASK_SET_F:
        return event_mask_set(req);
    case DIAG_SUBSYS_CMD:
        if (req.size() >= 2 && req[1] == DIAG_SUBSYS_DPL)
            return dpl(req);
        return error_answer(DIAG_BAD_CMD_F, req);
    default:
        return error_answer(DIAG_BAD_CMD_F, req);
    }
}

std::vector<uint8_t> Modem::log_config(const std::vector<uint8_t>& req)
{
    if (req.size() < 8)
        return error_answer(DIAG_BAD_LEN_F, req);
    uint32_t op = get_u32(&req[4]);
    std::vector<uint8_t> a(req.begin(), req.begin() + 8);
    switch (op) {
    case 0: // disable all
        if (req.size() != 8)
            return error_answer(DIAG_BAD_LEN_F, req);
        for (auto& m : log_masks_)
            std::fill(m.begin(), m.end(), false);
        put_u32(a, LOG_CONFIG_SUCCESS);
        return a;
    case 1: // retrieve id ranges
        if (req.size() != 8)
            return error_answer(DIAG_BAD_LEN_F, req);
        put_u32(a, LOG_CONFIG_SUCCESS);
        for (uint32_t last : ranges_.log_last_items)
            put_u32(a, last);
        return a;
    case 3: { // set mask
        if (req.size() < 16)
            return error_answer(DIAG_BAD_LEN_F, req);
        uint32_t equip = get_u32(&req[8]);
        uint32_t bits = get_u32(&req[12]);
        if (equip > 15 || ranges_.log_last_items[equip] == 0) {
            put_u32(a, LOG_CONFIG_INVALID_EQUIP_ID);
            return a;
        }
        if (bits > ranges_.log_last_items[equip] + 1) {
            put_u32(a, LOG_CONFIG_INVALID_RANGE);
            return a;
        }
        if (req.size() != 16 + (size_t(bits) + 7) / 8)
            return error_answer(DIAG_BAD_LEN_F, req);
        std::vector<bool>& m = log_masks_[equip];
        for (size_t i = 0; i < m.size(); i++)
            m[i] = i < bits && (req[16 + i / 8] >> (i % 8) & 1);
        put_u32(a, LOG_CONFIG_SUCCESS);
        return a;
    }
    default:
        return error_answer(DIAG_BAD_PARM_F, req);
    }
}

const SsidRange* Modem::range_of(uint16_t first, uint16_t last) const
{
    for (const SsidRange& r : ranges_.ssid_ranges) {
        if (r.first <= first && last <= r.last)
            return &r;
    }
    return nullptr;
}

std::vector<uint8_t> Modem::ext_msg_config(const std::vector<uint8_t>& req)
{
    if (req.size() < 2)
        return error_answer(DIAG_BAD_LEN_F, req);
    switch (req[1]) {
    case 1: { // SSID ranges
        if (req.size() != 2)
            return error_answer(DIAG_BAD_LEN_F, req);
        std::vector<uint8_t> a = { DIAG_EXT_MSG_CONFIG_F, 1, 1, 0 };
        put_u32(a, uint32_t(ranges_.ssid_ranges.size()));
        for (const SsidRange& r : ranges_.ssid_ranges) {
            put_u16(a, r.first);
            put_u16(a, r.last);
        }
        return a;
    }
    case 4: { // run-time masks of one range
        if (req.size() < 8)
            return error_answer(DIAG_BAD_LEN_F, req);
        uint16_t first = get_u16(&req[2]);
        uint16_t last = get_u16(&req[4]);
        if (first > last)
            return error_answer(DIAG_BAD_PARM_F, req);
        size_t n = size_t(last) - first + 1;
        if (req.size() != 8 + 4 * n)
            return error_answer(DIAG_BAD_LEN_F, req);
        bool ok = range_of(first, last) != nullptr;
        std::vector<uint8_t> a = { DIAG_EXT_MSG_CONFIG_F, 4 };
        put_u16(a, first);
        put_u16(a, last);
        put_u8(a, ok ? 1 : 0);
        put_u8(a, 0);
        for (size_t i = 0; i < n; i++) {
            uint32_t mask = get_u32(&req[8 + 4 * i]);
            uint16_t ssid = uint16_t(first + i);
            if (ok) {
                if (mask)
                    msg_masks_[ssid] = mask;
                else
                    msg_masks_.erase(ssid);
            }
            auto it = msg_masks_.find(ssid);
            put_u32(a, it == msg_masks_.end() ? 0 : it->second);
        }
        return a;
    }
    case 5: { // all masks
        if (req.size() != 8)
            return error_answer(DIAG_BAD_LEN_F, req);
        uint32_t mask = get_u32(&req[4]);
        msg_masks_.clear();
        if (mask) {
            for (const SsidRange& r : ranges_.ssid_ranges)
                for (uint32_t s = r.first; s <= r.last; s++)
                    msg_masks_[uint16_t(s)] = mask;
        }
        std::vector<uint8_t> a = { DIAG_EXT_MSG_CONFIG_F, 5, 1, 0 };
        put_u32(a, mask);
        return a;
    }
    default:
        return error_answer(DIAG_BAD_PARM_F, req);
    }
}

std::vector<uint8_t> Modem::event_mask_answer(uint8_t cmd, uint8_t error) const
{
    std::vector<uint8_t> a = { cmd, error, 0, 0 };
    put_u16(a, ranges_.event_count);
    std::vector<uint8_t> mask((ranges_.event_count + 7) / 8, 0);
    for (size_t e = 0; e < events_.size(); e++)
        if (events_[e])
            mask[e / 8] |= uint8_t(1 << (e % 8));
    a.insert(a.end(), mask.begin(), mask.end());
    return a;
}

std::vector<uint8_t> Modem::event_mask_set(const std::vector<uint8_t>& req)
{
    if (req.size() < 6)
        return error_answer(DIAG_BAD_LEN_F, req);
    uint16_t n = get_u16(&req[4]);
    if (req.size() < 6 + (size_t(n) + 7) / 8)
        return error_answer(DIAG_BAD_LEN_F, req);
    if (n > ranges_.event_count)
        return event_mask_answer(DIAG_EVENT_MASK_SET_F, 1);
    for (size_t e = 0; e < events_.size(); e++)
        events_[e] = e < n && (req[6 + e / 8] >> (e % 8) & 1);
    return event_mask_answer(DIAG_EVENT_MASK_SET_F, 0);
}

std::vector<uint8_t> Modem::dpl(const std::vector<uint8_t>& req)
{
    if (req.size() < 4)
        return error_answer(DIAG_BAD_LEN_F, req);
    std::vector<uint8_t> a(req.begin(), req.begin() + 4);
    auto find = [&](uint8_t id) -> DplIface* {
        for (DplIface& i : dpl_)
            if (i.id == id)
                return &i;
        return nullptr;
    };
    switch (get_u16(&req[2])) {
    case DPL_RESET:
        if (req.size() != 4)
            return error_answer(DIAG_BAD_LEN_F, req);
        for (DplIface& i : dpl_)
            i.logging = false;
        put_u8(a, 0);
        return a;
    case DPL_LIST_IFACES:
        if (req.size() != 4)
            return error_answer(DIAG_BAD_LEN_F, req);
        put_u8(a, uint8_t(dpl_.size()));
        for (const DplIface& i : dpl_)
            put_u8(a, i.id);
        return a;
    case DPL_IFACE_DESC: {
        if (req.size() != 5)
            return error_answer(DIAG_BAD_LEN_F, req);
        const DplIface* i = find(req[4]);
        put_u8(a, req[4]);
        put_u8(a, i ? 0 : 1);
        std::string name = i ? i->name : "";
        put_u8(a, uint8_t(name.size()));
        a.insert(a.end(), name.begin(), name.end());
        return a;
    }
    case DPL_SET_IFACE_LOGGING: {
        // The record: u8 interface id, u8 entry count, 6 bytes, then entries
        // of 16 bytes, of which the last needs only its first 12.
        if (req.size() < 4 + 8)
            return error_answer(DIAG_BAD_LEN_F, req);
        const uint8_t* rec = &req[4];
        uint8_t id = rec[0];
        size_t n = rec[1];
        if (n == 0 || n > 8)
            return error_answer(DIAG_BAD_PARM_F, req);
        if (req.size() < 4 + 8 + 16 * (n - 1) + 12)
            return error_answer(DIAG_BAD_LEN_F, req);
        for (size_t k = 0; k < n; k++) {
            const uint8_t* e = rec + 8 + 16 * k;
            uint32_t kind = get_u32(e);
            if ((kind != 1 && kind != 2) || e[4] != id || e[6] > 1)
                return error_answer(DIAG_BAD_PARM_F, req);
        }
        DplIface* i = find(id);
        if (i)
            i->logging = true;
        put_u8(a, id);
        put_u8(a, i ? 0 : 1);
        return a;
    }
    default:
        return error_answer(DIAG_BAD_PARM_F, req);
    }
}

std::vector<uint16_t> Modem::enabled_events() const
{
    std::vector<uint16_t> ids;
    for (size_t e = 0; e < events_.size(); e++)
        if (events_[e])
            ids.push_back(uint16_t(e));
    return ids;
}

std::vector<uint16_t> Modem::enabled_log_codes() const
{
    std::vector<uint16_t> codes;
    for (size_t q = 0; q < 16; q++)
        for (size_t i = 0; i < log_masks_[q].size(); i++)
            if (log_masks_[q][i])
                codes.push_back(uint16_t(q << 12 | i));
    return codes;
}

bool Modem::has_enabled_items() const
{
    if (!msg_masks_.empty())
        return true;
    for (const auto& m : log_masks_)
        if (std::find(m.begin(), m.end(), true) != m.end())
            return true;
    return event_reporting_ && std::find(events_.begin(), events_.end(), true) != events_.end();
}

void Modem::trim(size_t limit)
{
    while (!traffic_.empty() && traffic_bytes_ > limit) {
        traffic_bytes_ -= traffic_.front().size();
        traffic_.pop_front();
        dropped_++;
    }
}

void Modem::add_frame(const std::vector<uint8_t>& pkt, size_t limit)
{
    std::vector<uint8_t> frame = hdlc_frame(pkt);
    traffic_bytes_ += frame.size();
    traffic_.push_back(std::move(frame));
    produced_++;
    trim(limit);
}

void Modem::produce(size_t count, uint64_t unix_ns, size_t limit)
{
    if (count == 0 || !has_enabled_items())
        return;
    struct Item {
        uint8_t kind; // 0 log, 1 event, 2 message
        uint16_t id;
        uint8_t level;
    };
    std::vector<Item> items;
    for (uint16_t code : enabled_log_codes())
        items.push_back({ 0, code, 0 });
    if (event_reporting_)
        for (uint16_t e : enabled_events())
            items.push_back({ 1, e, 0 });
    for (const auto& [ssid, mask] : msg_masks_)
        for (uint8_t level = 0; level < 32; level++)
            if (mask >> level & 1)
                items.push_back({ 2, ssid, level });
    if (items.empty())
        return;
    const uint64_t ts = diag_timestamp(unix_ns);
    for (size_t k = 0; k < count; k++) {
        const Item& it = items[cursor_++ % items.size()];
        uint32_t seq = uint32_t(produced_);
        std::vector<uint8_t> p;
        switch (it.kind) {
        case 0: {
            const uint16_t payload = 8;
            p = { DIAG_LOG_F, 0 };
            put_u16(p, 12 + payload);
            put_u16(p, 12 + payload);
            put_u16(p, it.id);
            put_u64(p, ts);
            put_u32(p, seq);
            put_u32(p, 0x4B564F54); // "TOVK"
            break;
        }
        case 1:
            p = { DIAG_EVENT_REPORT_F };
            put_u16(p, 10);
            put_u16(p, uint16_t(it.id & 0x0FFF));
            put_u64(p, ts);
            break;
        default: {
            static const char fmt[] = "devsim message %u";
            static const char file[] = "devsim_modem.c";
            p = { DIAG_EXT_MSG_F, 0, 1, 0 };
            put_u64(p, ts);
            put_u16(p, uint16_t(100 + it.level));
            put_u16(p, it.id);
            put_u32(p, uint32_t(1) << it.level);
            put_u32(p, seq);
            p.insert(p.end(), fmt, fmt + sizeof fmt);
            p.insert(p.end(), file, file + sizeof file);
            break;
        }
        }
        add_frame(p, limit);
    }
}

std::vector<uint8_t> Modem::traffic() const
{
    std::vector<uint8_t> out;
    out.reserve(traffic_bytes_);
    for (const auto& f : traffic_)
        out.insert(out.end(), f.begin(), f.end());
    return out;
}

std::vector<uint8_t> Modem::take_traffic()
{
    std::vector<uint8_t> out = traffic();
    traffic_.clear();
    traffic_bytes_ = 0;
    return out;
}
