#include "config/tovak_config_lists.h"

#include <cstdio>

#include "common/tovak_log.h"

#define U16_MAX 0xffffu
#define U32_MAX 0xffffffffu

// clang-format off
const uint32_t TOVAK_LOG_LAST_ITEMS_BUILTIN[TOVAK_EQUIPMENT_ID_COUNT] = {
    3003, 1425, 3003, 3003, 2328, 1064, 3003, 2910,
    3003, 3003,  914,  521, 3003,    0,    0,    0,
};

const tovak_msg_range TOVAK_MSG_RANGES_BUILTIN[TOVAK_MSG_RANGE_BUILTIN_COUNT] = {
    {     0,    88 }, {   500,   506 }, {  1000,  1007 }, {  2000,  2008 },
    {  3000,  3014 }, {  4000,  4010 }, {  4500,  4526 }, {  4600,  4611 },
    {  5000,  5029 }, {  5500,  5515 }, {  6000,  6072 }, {  6500,  6521 },
    {  7000,  7003 }, {  7100,  7111 }, {  7200,  7201 }, {  8000,  8000 },
    {  8500,  8523 }, {  9000,  9008 }, {  9500,  9509 }, { 10200, 10210 },
    { 10251, 10255 }, { 10300, 10300 }, { 50000, 50000 },
};
// clang-format on

static bool is_space(char c)
{
    return c == ' ' || c == '\t' || c == '\v' || c == '\n' || c == '\r' || c == '\f';
}

static std::vector<std::string_view> split(std::string_view text, bool (*is_sep)(char))
{
    std::vector<std::string_view> tokens;
    size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && is_sep(text[i]))
            i++;
        size_t start = i;
        while (i < text.size() && !is_sep(text[i]))
            i++;
        if (i > start)
            tokens.push_back(text.substr(start, i - start));
    }
    return tokens;
}

std::vector<std::string_view> tovak_config_split_list(std::string_view text)
{
    return split(text, [](char c) { return c == ',' || is_space(c); });
}

std::vector<std::string_view> tovak_config_split_sequence(std::string_view text)
{
    return split(text, [](char c) { return c == ','; });
}

bool tovak_config_has_both_prefixes(std::string_view text)
{
    return text.find("0x") != std::string_view::npos && text.find("0X") != std::string_view::npos;
}

static int digit_value(char c, bool hex)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (!hex)
        return -1;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

uint64_t tovak_config_read_number(std::string_view token, bool hex, uint64_t max)
{
    size_t i = 0;
    size_t n = token.size();
    while (i < n && is_space(token[i]))
        i++;
    bool negative = false;
    if (i < n && (token[i] == '+' || token[i] == '-')) {
        negative = token[i] == '-';
        i++;
    }
    if (hex && i + 1 < n && token[i] == '0' && (token[i + 1] == 'x' || token[i + 1] == 'X'))
        i += 2;
    const uint64_t base = hex ? 16 : 10;
    uint64_t value = 0;
    bool too_large = false;
    for (int d; i < n && (d = digit_value(token[i], hex)) >= 0; i++) {
        // Keep consuming digits after the value is out of range; it is
        // clamped once at the end.
        if (value > (max - uint64_t(d)) / base)
            too_large = true;
        else
            value = value * base + uint64_t(d);
    }
    if (too_large)
        return max;
    // max is the field's all-ones value, so the mask wraps within the field.
    return negative ? (0 - value) & max : value;
}

static uint16_t read_u16(std::string_view token, bool hex)
{
    return uint16_t(tovak_config_read_number(token, hex, U16_MAX));
}

static uint32_t read_u32(std::string_view token, bool hex)
{
    return uint32_t(tovak_config_read_number(token, hex, U32_MAX));
}

std::unique_ptr<tovak_event_list> tovak_event_list_create(std::string_view text, uint16_t modem_event_count)
{
    auto list = std::make_unique<tovak_event_list>();
    for (std::string_view token : tovak_config_split_list(text))
        list->ids.insert(read_u16(token, tovak_config_has_both_prefixes(token)));
    list->limit = modem_event_count != 0 ? modem_event_count : TOVAK_EVENT_ID_LIMIT_BUILTIN;
    return list;
}

std::unique_ptr<tovak_log_list> tovak_log_list_create(std::string_view text,
                                                      const std::vector<uint32_t>& modem_last_items)
{
    auto list = std::make_unique<tovak_log_list>();
    // Log codes are hexadecimal unless the token holds both prefixes.
    for (std::string_view token : tovak_config_split_list(text))
        list->codes.insert(read_u16(token, !tovak_config_has_both_prefixes(token)));
    if (modem_last_items.empty()) {
        for (int q = 0; q < TOVAK_EQUIPMENT_ID_COUNT; q++)
            list->last_items[q] = TOVAK_LOG_LAST_ITEMS_BUILTIN[q];
    } else {
        // Equipment ids the modem did not report stay 0: no mask for them.
        for (size_t q = 0; q < modem_last_items.size() && q < TOVAK_EQUIPMENT_ID_COUNT; q++)
            list->last_items[q] = modem_last_items[q];
    }
    return list;
}

std::unique_ptr<tovak_msg_list> tovak_msg_list_create(std::string_view text, const std::vector<uint32_t>& modem_ranges)
{
    auto list = std::make_unique<tovak_msg_list>();
    for (std::string_view token : tovak_config_split_list(text)) {
        size_t slash = token.find('/');
        if (slash == std::string_view::npos)
            continue;
        std::string_view ssid_text = token.substr(0, slash);
        std::string_view level_text = token.substr(slash + 1);
        uint16_t ssid = read_u16(ssid_text, tovak_config_has_both_prefixes(ssid_text));
        uint32_t level = read_u32(level_text, tovak_config_has_both_prefixes(level_text));
        uint32_t bit = level < 32 ? 1u << level : 0;
        list->masks[ssid] |= bit;
    }
    if (modem_ranges.empty()) {
        for (int i = 0; i < TOVAK_MSG_RANGE_BUILTIN_COUNT; i++)
            list->ranges[i] = TOVAK_MSG_RANGES_BUILTIN[i];
        list->range_count = TOVAK_MSG_RANGE_BUILTIN_COUNT;
    } else {
        uint32_t kept = 0;
        for (uint32_t range : modem_ranges) {
            if (kept == TOVAK_MSG_RANGE_MAX)
                break;
            list->ranges[kept++] = { uint16_t(range & 0xffff), uint16_t(range >> 16) };
        }
        list->range_count = kept;
        TLOG("Total ssid Range cnt input %d, result %d\n", int(modem_ranges.size()), int(kept));
    }
    return list;
}

std::unique_ptr<tovak_if_list> tovak_if_list_create(std::string_view text)
{
    auto list = std::make_unique<tovak_if_list>();
    for (std::string_view token : tovak_config_split_list(text))
        list->ids.insert(read_u16(token, tovak_config_has_both_prefixes(token)));
    return list;
}

std::vector<uint16_t> tovak_config_categories_create(std::string_view text)
{
    std::vector<uint16_t> values;
    for (std::string_view token : tovak_config_split_sequence(text))
        values.push_back(read_u16(token, false));
    return values;
}

std::vector<uint32_t> tovak_config_sizes_create(std::string_view text)
{
    std::vector<uint32_t> values;
    for (std::string_view token : tovak_config_split_sequence(text))
        values.push_back(read_u32(token, false));
    return values;
}

// Each item followed by sep, the last sep then dropped.
template <typename Container, typename Format>
static std::string join(const Container& items, const char* sep, Format format)
{
    std::string text;
    char item[32];
    for (const auto& value : items) {
        format(item, sizeof item, value);
        text += item;
        text += sep;
    }
    std::string_view s(sep);
    if (text.size() >= s.size())
        text.resize(text.size() - s.size());
    return text;
}

std::string tovak_event_list_text(const tovak_event_list& list)
{
    return join(list.ids, ", ", [](char* out, size_t room, uint16_t id) { snprintf(out, room, "%05d", int(id)); });
}

std::string tovak_log_list_text(const tovak_log_list& list)
{
    return join(list.codes, ", ",
                [](char* out, size_t room, uint16_t code) { snprintf(out, room, "0x%04x", unsigned(code)); });
}

std::string tovak_if_list_text(const tovak_if_list& list)
{
    return join(list.ids, ", ", [](char* out, size_t room, uint16_t id) { snprintf(out, room, "%d", int(id)); });
}

std::string tovak_msg_list_text(const tovak_msg_list& list)
{
    // One item per set bit; a mask of 0 writes nothing.
    std::vector<std::pair<uint16_t, int>> items;
    for (const auto& [ssid, mask] : list.masks) {
        for (int level = 0; level < 32; level++) {
            if (mask & (1u << level))
                items.emplace_back(ssid, level);
        }
    }
    return join(items, ",", [](char* out, size_t room, const std::pair<uint16_t, int>& item) {
        snprintf(out, room, "%05d/%02d", int(item.first), item.second);
    });
}

std::string tovak_config_categories_text(const std::vector<uint16_t>& values)
{
    return join(values, ",", [](char* out, size_t room, uint16_t v) { snprintf(out, room, "%u", unsigned(v)); });
}

std::string tovak_config_sizes_text(const std::vector<uint32_t>& values)
{
    return join(values, ",", [](char* out, size_t room, uint32_t v) { snprintf(out, room, "%u", unsigned(v)); });
}
