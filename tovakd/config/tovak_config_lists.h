// The list fields of dm.cfg: how each list's text is split and converted,
// the objects that hold the lists with the limits that travel with them, and
// the text written back.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#define TOVAK_EVENT_ID_LIMIT_BUILTIN 2166
#define TOVAK_EQUIPMENT_ID_COUNT 16
#define TOVAK_MSG_RANGE_MAX 50
#define TOVAK_MSG_RANGE_BUILTIN_COUNT 23

struct tovak_event_list {
    std::set<uint16_t> ids;
    // Number of event ids the modem supports.
    uint16_t limit = 0;
};

struct tovak_log_list {
    std::set<uint16_t> codes;
    // Last valid item number per equipment id (a code's top four bits).
    uint32_t last_items[TOVAK_EQUIPMENT_ID_COUNT] = {};
};

struct tovak_msg_range {
    uint16_t first;
    uint16_t last;
};

struct tovak_msg_list {
    // SSID to level mask; bit n stands for level n.
    std::map<uint16_t, uint32_t> masks;
    tovak_msg_range ranges[TOVAK_MSG_RANGE_MAX] = {};
    uint32_t range_count = 0;
};

struct tovak_if_list {
    std::set<uint16_t> ids;
};

extern const uint32_t TOVAK_LOG_LAST_ITEMS_BUILTIN[TOVAK_EQUIPMENT_ID_COUNT];
extern const tovak_msg_range TOVAK_MSG_RANGES_BUILTIN[TOVAK_MSG_RANGE_BUILTIN_COUNT];

// List splitter (blanks, tabs, line breaks, form feed and comma) and
// sequence splitter (comma alone); neither yields empty tokens.
std::vector<std::string_view> tovak_config_split_list(std::string_view text);
std::vector<std::string_view> tovak_config_split_sequence(std::string_view text);

// True when text holds both "0x" and "0X": the test that picks the base.
bool tovak_config_has_both_prefixes(std::string_view text);
// One number as a stream reads it: leading white space, an optional sign, in
// hexadecimal an optional "0x"/"0X", then digits up to the first character
// that can't belong. No digits gives 0; a magnitude above max gives max; a
// negative value wraps as unsigned arithmetic does.
uint64_t tovak_config_read_number(std::string_view token, bool hex, uint64_t max);

// Builders; modem values take the place of the built-in limits when known.
std::unique_ptr<tovak_event_list> tovak_event_list_create(std::string_view text, uint16_t modem_event_count);
std::unique_ptr<tovak_log_list> tovak_log_list_create(std::string_view text,
                                                      const std::vector<uint32_t>& modem_last_items);
std::unique_ptr<tovak_msg_list> tovak_msg_list_create(std::string_view text, const std::vector<uint32_t>& modem_ranges);
std::unique_ptr<tovak_if_list> tovak_if_list_create(std::string_view text);
std::vector<uint16_t> tovak_config_categories_create(std::string_view text);
std::vector<uint32_t> tovak_config_sizes_create(std::string_view text);

// Written forms, as they stand between the tags.
std::string tovak_event_list_text(const tovak_event_list& list);
std::string tovak_log_list_text(const tovak_log_list& list);
std::string tovak_msg_list_text(const tovak_msg_list& list);
std::string tovak_if_list_text(const tovak_if_list& list);
std::string tovak_config_categories_text(const std::vector<uint16_t>& values);
std::string tovak_config_sizes_text(const std::vector<uint32_t>& values);
