// Helpers for the configuration tests: the record is process-wide, so every
// test starts from a zeroed one and compares records field by field.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "config/tovak_config.h"

// Back to the state before the first load, file-name buffer and modem
// ranges included.
inline void reset_config()
{
    tovak_config_locked c;
    *c = tovak_config{};
    c.file_name()[0] = '\0';
}

// Every file-backed field of the record, comparable as a whole.
struct ConfigSnapshot {
    bool has_lists = false;
    std::vector<uint16_t> events;
    uint16_t event_limit = 0;
    std::vector<uint16_t> log_codes;
    std::vector<uint32_t> log_last_items;
    std::map<uint16_t, uint32_t> messages;
    std::vector<std::pair<uint16_t, uint16_t>> msg_ranges;
    std::vector<uint16_t> dpl_ifs;
    uint32_t log_state = 0;
    uint32_t dpl_state = 0;
    uint32_t buffer_size = 0;
    std::vector<uint16_t> categories;
    uint32_t adblog_state = 0;
    std::vector<uint32_t> sizes;

    bool operator==(const ConfigSnapshot&) const = default;
};

inline ConfigSnapshot config_snapshot()
{
    tovak_config_locked c;
    ConfigSnapshot s;
    s.has_lists = c->events && c->log_codes && c->messages && c->dpl_ifs;
    if (s.has_lists) {
        s.events.assign(c->events->ids.begin(), c->events->ids.end());
        s.event_limit = c->events->limit;
        s.log_codes.assign(c->log_codes->codes.begin(), c->log_codes->codes.end());
        s.log_last_items.assign(c->log_codes->last_items, c->log_codes->last_items + TOVAK_EQUIPMENT_ID_COUNT);
        s.messages = c->messages->masks;
        for (uint32_t i = 0; i < c->messages->range_count; i++)
            s.msg_ranges.emplace_back(c->messages->ranges[i].first, c->messages->ranges[i].last);
        s.dpl_ifs.assign(c->dpl_ifs->ids.begin(), c->dpl_ifs->ids.end());
    }
    s.log_state = c->log_state;
    s.dpl_state = c->dpl_state;
    s.buffer_size = c->buffer_size;
    s.categories = c->adblog_categories;
    s.adblog_state = c->adblog_state;
    s.sizes = c->adblog_sizes;
    return s;
}

// The first six lines of every file the daemon writes.
#define CONFIG_FILE_HEAD                                  \
    "#KVD Configuration File\n"                           \
    "#\n"                                                 \
    "#history\n"                                          \
    "#ver. 1.2 20120716 rtkan add dpl information\n"      \
    "#ver. 1.1 20120521 rtkan add LogState and BufferSize\n" \
    "\n"

// The whole default configuration as the daemon writes it.
inline const char* const DEFAULT_CONFIG_FILE_TEXT =
    CONFIG_FILE_HEAD
    "<LogState>off</LogState>\n"
    "<BufferSize>50000000</BufferSize>\n"
    "\n"
    "<EventIDs>\n"
    "01498, 01499, 01501, 01503, 01606, 01607, 01608, 01611, 01612, 01613, 01685, 01970, 01971, 01972\n"
    "</EventIDs>\n"
    "\n"
    "<LogCodes>\n"
    "0x412f, 0x713f, 0x7140, 0x7143, 0x7144, 0xb061, 0xb062, 0xb0c0, 0xb0e2, 0xb0e3, 0xb0ec, 0xb0ed, 0xb167, "
    "0xb168, 0xb169, 0xb16a\n"
    "</LogCodes>\n"
    "\n"
    "<MessageLevels>\n"
    "00005/03,00005/04,00015/03,00015/04,00020/03,00020/04,03006/03,03006/04,03007/03,03007/04,03008/03,03008/04,"
    "03010/03,03010/04\n"
    "</MessageLevels>\n"
    "\n"
    "<AdbLogState>off</AdbLogState>\n"
    "\n"
    "<Category>\n"
    "1,1,0,1\n"
    "</Category>\n"
    "\n"
    "<AdbSizeInfo>\n"
    "10000000,10000000,5000000,20000000\n"
    "</AdbSizeInfo>\n"
    "<DplState>off</DplState>\n"
    "\n"
    "<IfIDs>\n"
    "1, 15, 19\n"
    "</IfIDs>\n";
