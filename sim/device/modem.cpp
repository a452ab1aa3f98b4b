#include "modem.h"

#include <algorithm>
#include <cstring>

#include "le.h"
#include "sim_link.h"

Modem::Modem(ModemRanges ranges) : dpl_(default_dpl_ifaces())
{
    set_ranges(std::move(ranges));
}

void Modem::set_ranges(ModemRanges ranges)
{
    ranges_ = std::move(ranges);
    clear_masks();
    event_reporting_ = false;
    items_stale_ = true;
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
    std::vector<uint8_t> a(req.size() + 1);
    a[0] = code;
    std::copy(req.begin(), req.end(), a.begin() + 1);
    return a;
}

std::vector<uint8_t> Modem::handle(const std::vector<uint8_t>& req)
{
    if (req.empty())
        return {};
    items_stale_ = true;
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
    a.reserve(4 + 3 + 256); // room for the longest answer, a description
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
    refresh_items();
    return !source_.empty();
}

void Modem::refresh_items() const
{
    if (!items_stale_)
        return;
    items_stale_ = false;
    std::vector<TrafficItem> items;
    for (uint16_t code : enabled_log_codes())
        items.push_back({ ItemKind::log, code, 0, log_layout(code).rate });
    if (event_reporting_) {
        for (uint16_t e : enabled_events()) {
            const EventLayout* l = event_layout(e);
            items.push_back({ ItemKind::event, e, 0, l ? l->rate : 0.2 });
        }
    }
    for (const auto& [ssid, mask] : msg_masks_)
        for (uint8_t level = 0; level < 32; level++)
            if (mask >> level & 1)
                items.push_back({ ItemKind::message, ssid, level, 1 });
    for (const DplIface& i : dpl_)
        if (i.logging)
            items.push_back({ ItemKind::dpl, i.id, 0, log_layout(DPL_LOG_CODE).rate });
    source_.set_items(std::move(items));
}

double Modem::natural_rate()
{
    refresh_items();
    return source_.natural_rate();
}

void Modem::produce(double elapsed_s, double fixed_rate, uint64_t unix_ns, size_t limit)
{
    refresh_items();
    source_.produce(elapsed_s, fixed_rate, unix_ns, buffer_, limit);
}
