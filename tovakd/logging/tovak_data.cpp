// The modem's ranges, the mask packets built from the configuration, and the
// store that logging on sends them from.
#include "logging/tovak_data.h"

#include <algorithm>
#include <cstring>

#include "common/tovak_log.h"
#include "common/tovak_mutex.h"
#include "logging/tovak_diag.h"
#include "platform/diag.h"
#include "protocol/tovak_layouts.h"

#define LOG_MODULE "tovak_handler"

// Answer layouts.
#define LOG_RANGES_HEADER 12 // command, 3 reserved, operation, status
#define LOG_RANGES_MIN_SIZE 16
#define LOG_RANGES_MIN_COUNT 10
#define SSID_RANGES_HEADER 8 // command, subcommand, status, reserved, count
#define SSID_RANGES_MIN_SIZE 8
#define SSID_RANGES_MIN_WITH_RANGES 10
#define EVENT_MASK_MIN_SIZE 6

// clang-format off
static const uint8_t QUERY_LOG_RANGES[] = { DIAG_CMD_LOG_CONFIG, 0, 0, 0, LOG_CONFIG_OP_RETRIEVE_ID_RANGES, 0, 0, 0 };
static const uint8_t QUERY_SSID_RANGES[] = { DIAG_CMD_EXT_MSG_CONFIG, EXT_MSG_RETRIEVE_SSID_RANGES };
static const uint8_t QUERY_EVENT_MASK[] = { DIAG_CMD_EVENT_MASK_GET, 0, 0, 0 };
// clang-format on

bool tovak_data_take_log_ranges(const std::vector<uint8_t>& answer, tovak_config& c)
{
    if (answer.size() < LOG_RANGES_MIN_SIZE) {
        TLOG("Critical Error: size error in logging config req\n");
        return false;
    }
    uint32_t status = tovak_get_u32(answer.data() + 8);
    if (status != 0) {
        TLOG("Critical Error: Can't get successful logging config rsp\n");
        return false;
    }
    size_t count = (answer.size() - LOG_RANGES_HEADER) / 4;
    TLOG("status = %d, totoal size = %d\n", int(status), int(count));
    if (count < LOG_RANGES_MIN_COUNT) {
        TLOG("Critical Error: size error in logging config req\n");
        return false;
    }
    for (size_t i = 0; i < count; i++)
        c.log_last_items.push_back(tovak_get_u32(answer.data() + LOG_RANGES_HEADER + 4 * i));
    return true;
}

bool tovak_data_take_ssid_ranges(const std::vector<uint8_t>& answer, tovak_config& c)
{
    if (answer.size() < SSID_RANGES_MIN_SIZE) {
        TLOG("Critical Error: size error in msg config req\n");
        return false;
    }
    if (answer[2] == 0) {
        TLOG("Critical Error: failure in extendedMsgRptConfig request\n");
        return false;
    }
    uint32_t count = tovak_get_u32(answer.data() + 4);
    if (answer.size() < SSID_RANGES_MIN_WITH_RANGES) {
        TLOG("Critical Error: size error in extended msg range\n");
        return false;
    }
    // The count is the modem's word; the answer's end is ours.
    size_t present = (answer.size() - SSID_RANGES_HEADER) / 4;
    size_t taken = std::min<size_t>(count, present);
    for (size_t i = 0; i < taken; i++) {
        uint32_t range = tovak_get_u32(answer.data() + SSID_RANGES_HEADER + 4 * i);
        TLOG("msg range %d = 0x%08x\n", int(i), range);
        c.msg_ssid_ranges.push_back(range);
    }
    return true;
}

bool tovak_data_take_event_count(const std::vector<uint8_t>& answer, tovak_config& c)
{
    if (answer.size() < EVENT_MASK_MIN_SIZE) {
        TLOG("Critical Error: size error in event mask req\n");
        return false;
    }
    c.event_id_count = tovak_get_u16(answer.data() + 4);
    TLOG("Number of event ID = %d\n", int(c.event_id_count));
    return true;
}

// Only one range query at a time: two would both append their answers.
static tovak_mutex query_mutex;

int getVariousInfoOnEventLogMessage()
{
    TLOG(">> getVariousInfoOnEventLogMessage\n");
    tovak_lock one_query(query_mutex);
    {
        tovak_config_locked c;
        if (c->ranges_known)
            return 1;
    }
    if (diag_init() < 0) {
        TLOG("Critical Error: Can't initiate diag object\n");
        return 0;
    }
    // clang-format off
    static const struct {
        const uint8_t* packet;
        uint32_t len;
        bool (*take)(const std::vector<uint8_t>&, tovak_config&);
    } queries[] = {
        { QUERY_LOG_RANGES, sizeof QUERY_LOG_RANGES, tovak_data_take_log_ranges },
        { QUERY_SSID_RANGES, sizeof QUERY_SSID_RANGES, tovak_data_take_ssid_ranges },
        { QUERY_EVENT_MASK, sizeof QUERY_EVENT_MASK, tovak_data_take_event_count },
    };
    // clang-format on
    for (size_t i = 0; i < sizeof queries / sizeof *queries; i++) {
        std::vector<uint8_t> answer;
        if (!tovak_diag_query(queries[i].packet, queries[i].len, &answer)) {
            TLOG("Critical Error: Error in send diag packet Case %d\n", int(i + 1));
            return 0;
        }
        // The configuration lock is taken only to store each answer: the
        // queries may wait seconds for the modem while clients edit.
        tovak_config_locked c;
        if (!queries[i].take(answer, *c))
            return 0;
    }
    tovak_config_locked c;
    c->ranges_known = 1;
    return 1;
}

// ---- Packets

// The limits the lists would carry if they were parsed now. The modem's
// values take the place of the lists' own once known: the start-up lists
// are parsed before the modem is first asked, and a reload that finds no
// file keeps them.
std::vector<tovak_packet> tovak_data_build_packets(const tovak_config& c)
{
    std::vector<tovak_packet> packets;
    if (!c.events && !c.log_codes)
        return packets;

    if (c.events) {
        uint16_t n = c.event_id_count != 0 ? c.event_id_count : c.events->limit;
        std::vector<uint16_t> ids(c.events->ids.begin(), c.events->ids.end());
        packets.push_back(tovak_build_event_mask_packet(ids, n));
    }
    if (c.log_codes) {
        uint32_t last[TOVAK_EQUIPMENT_ID_COUNT];
        memcpy(last, c.log_codes->last_items, sizeof last);
        size_t known = std::min<size_t>(c.log_last_items.size(), TOVAK_EQUIPMENT_ID_COUNT);
        std::copy_n(c.log_last_items.begin(), known, last);
        std::vector<uint16_t> codes(c.log_codes->codes.begin(), c.log_codes->codes.end());
        for (tovak_packet& p : tovak_build_log_mask_packets(codes, last))
            packets.push_back(std::move(p));
    }
    if (c.messages) {
        std::vector<tovak_msg_range> ranges;
        if (c.msg_ssid_ranges.empty()) {
            uint32_t count = std::min<uint32_t>(c.messages->range_count, TOVAK_MSG_RANGE_MAX);
            ranges.assign(c.messages->ranges, c.messages->ranges + count);
        } else {
            for (uint32_t range : c.msg_ssid_ranges) {
                if (ranges.size() == TOVAK_MSG_RANGE_MAX)
                    break;
                ranges.push_back({ uint16_t(range & 0xffff), uint16_t(range >> 16) });
            }
        }
        std::vector<std::pair<uint16_t, uint32_t>> masks(c.messages->masks.begin(), c.messages->masks.end());
        for (tovak_packet& p : tovak_build_msg_mask_packets(masks, ranges))
            packets.push_back(std::move(p));
    }
    return packets;
}

// ---- Store

struct tovak_dm_packet {
    uint16_t length;
    uint8_t* bytes;
};

// Guards the store below: logging on reads it on a client's thread while
// another client's log on may be rebuilding it. Readers get copies.
static tovak_mutex store_mutex;

// The packets to send, each a separate allocation.
static tovak_dm_packet* tovak_dm_packets GUARDED_BY(store_mutex);
// Entries of tovak_dm_packets that are filled.
static uint32_t tovak_dm_packet_count GUARDED_BY(store_mutex);

static void free_store() REQUIRES(store_mutex)
{
    for (uint32_t i = 0; i < tovak_dm_packet_count; i++)
        free(tovak_dm_packets[i].bytes);
    free(tovak_dm_packets);
    tovak_dm_packets = nullptr;
    tovak_dm_packet_count = 0;
}

bool tovak_data_store_packets(const std::vector<tovak_packet>& packets, void* (*alloc)(size_t))
{
    tovak_lock lock(store_mutex);
    free_store();
    if (packets.empty())
        return true;
    auto* store = static_cast<tovak_dm_packet*>(alloc(packets.size() * sizeof(tovak_dm_packet)));
    if (store == nullptr) {
        TLOG_ERR("out of memory for the mask packets");
        return false;
    }
    tovak_dm_packets = store;
    for (const tovak_packet& p : packets) {
        auto* copy = static_cast<uint8_t*>(alloc(p.size()));
        if (copy == nullptr) {
            TLOG_ERR("out of memory for a mask packet");
            return false;
        }
        memcpy(copy, p.data(), p.size());
        // The builders make nothing longer than 16 bits can say.
        store[tovak_dm_packet_count] = { uint16_t(p.size()), copy };
        tovak_dm_packet_count++;
    }
    return true;
}

int tovak_data_load_dm_packet()
{
    bool parsed;
    {
        tovak_config_locked c;
        parsed = c->events || c->log_codes;
    }
    std::vector<tovak_packet> packets;
    if (parsed) {
        getVariousInfoOnEventLogMessage();
        tovak_config_locked c;
        packets = tovak_data_build_packets(*c);
    }
    TLOG("  tovak_data_load_dm_packet(), total packet_cnt %d\n", int(packets.size()));
    return tovak_data_store_packets(packets) ? 0 : -1;
}

std::optional<tovak_packet> tovak_data_get_dm_packet(uint32_t index)
{
    tovak_lock lock(store_mutex);
    if (index >= tovak_dm_packet_count)
        return std::nullopt;
    const tovak_dm_packet& p = tovak_dm_packets[index];
    return tovak_packet(p.bytes, p.bytes + p.length);
}

uint32_t tovak_data_dm_packet_count()
{
    tovak_lock lock(store_mutex);
    return tovak_dm_packet_count;
}
