// Each command's request and reply layout, and the limits the daemon sets on
// its fields, written once for the daemon, the client library and the tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

#include "protocol/tovak_cmd_ids.h"

// Limits.

// 0x04: the path and its zero byte fill at most 100 bytes; a path with this
// many '/' leaves no capture directory.
#define TOVAK_OUT_PATH_MAX 99
#define TOVAK_OUT_PATH_MAX_SLASHES 6
// 0x11: the u16 count (zero byte included) reaches at most 99, and the name
// itself must fit a 92-byte property value.
#define TOVAK_CONFIG_NAME_COUNT_MAX 99
#define TOVAK_CONFIG_NAME_MAX 91
// 0x13 and 0x48: the largest u16 count, zero byte included.
#define TOVAK_SYSTEM_TEXT_COUNT_MAX 199
#define TOVAK_MSISDN_COUNT_MAX 19
// 0x3b to 0x3d: capture category slots; sizes are clamped into the limits.
#define TOVAK_CAPTURE_CATEGORY_MAX 10
#define TOVAK_CAPTURE_SIZE_MIN 500000
#define TOVAK_CAPTURE_SIZE_MAX 20000000
// 0x47: the kinds of modem data.
#define TOVAK_MODEM_DATA_PHANTOM 0u
#define TOVAK_MODEM_DATA_STATISTICS 1u
// 0x0e: u16 SSID, 2 bytes of zeros, u32 mask of which the low 16 bits are set.
#define TOVAK_MSG_ENTRY_SIZE 8

// The categories every phone has, in their fixed slots 0 to 3.
inline constexpr const char* tovak_capture_category_names[] = { "main", "radio", "events", "system" };
inline constexpr int TOVAK_CAPTURE_STANDARD_CATEGORIES = int(std::size(tovak_capture_category_names));

// The table.

// Which start-up step must have worked for the daemon to run a command:
// none, the logging handlers' or the capture core's.
enum class tovak_gate : uint8_t { none, logging, capture };

// How a request is laid out, little-endian and packed.
enum class tovak_request_layout : uint8_t {
    none,
    u16,          // a u16 key (event id, log code, SSID, DPL interface)
    u32,          // a u32 value
    u16_u32,      // u16 SSID, u32 level mask
    u32_u32,      // u32 category, u32 size
    text,         // the text and its zero byte
    counted_text, // u16 count (zero byte included), the text and its zero byte
};

// How a reply is laid out. A refused command leaves its reply untouched, at
// its preset length of 5120 over stale bytes, unless said here.
enum class tovak_reply_layout : uint8_t {
    none,         // never written, done or not
    empty,        // length 0
    zero,         // u32 0, done or refused alike
    status,       // i32 0, or -1 when refused
    size,         // i32 size taken, or -1 when refused
    u32,          // one u32
    pair,         // two u32
    ids,          // u16 ids, ascending, no count
    msgs,         // message entries, TOVAK_MSG_ENTRY_SIZE bytes each
    counted_text, // u16 count, the text and its zero byte
    u32s,         // one u32 per capture category
    text,         // one text and its zero byte
    dpl_ifaces,   // u32 count, then per interface u8 id, u8 length, description
    counted_ids,  // u32 count, then u16 ids, ascending
};

// What a refused command leaves in its reply, which follows from its layout.
enum class tovak_refusal : uint8_t { untouched, zero, minus_one };
constexpr tovak_refusal tovak_refusal_of(tovak_reply_layout reply)
{
    return reply == tovak_reply_layout::zero                                          ? tovak_refusal::zero
           : reply == tovak_reply_layout::status || reply == tovak_reply_layout::size ? tovak_refusal::minus_one
                                                                                      : tovak_refusal::untouched;
}

struct tovak_layout {
    uint32_t id;
    tovak_gate gate;
    tovak_request_layout request;
    // Longest text, or largest size, the daemon takes; 0 where nothing is limited.
    uint64_t limit;
    tovak_reply_layout reply;
};

// clang-format off
#define TOVAK_LAYOUT(id, gate, request, limit, reply) \
    tovak_layout{ id, tovak_gate::gate, tovak_request_layout::request, limit, tovak_reply_layout::reply }
inline constexpr tovak_layout tovak_layouts[] = {
    TOVAK_LAYOUT(CMD_LOG_ON,                   logging, none,         0,                               zero),
    TOVAK_LAYOUT(CMD_LOG_OFF,                  logging, none,         0,                               zero),
    TOVAK_LAYOUT(CMD_DISCONNECT,               none,    none,         0,                               none),
    TOVAK_LAYOUT(CMD_LOG_SIZE,                 logging, u32,          INT32_MAX,                       size),
    TOVAK_LAYOUT(CMD_OUT_PATH,                 logging, text,         TOVAK_OUT_PATH_MAX,              status),
    TOVAK_LAYOUT(CMD_COMMIT_LOG,               logging, none,         0,                               empty),
    TOVAK_LAYOUT(CMD_ADD_EVENT,                logging, u16,          0,                               empty),
    TOVAK_LAYOUT(CMD_RM_EVENT,                 logging, u16,          0,                               empty),
    TOVAK_LAYOUT(CMD_GET_EVENTS,               logging, none,         0,                               ids),
    TOVAK_LAYOUT(CMD_ADD_LOG,                  logging, u16,          0,                               empty),
    TOVAK_LAYOUT(CMD_RM_LOG,                   logging, u16,          0,                               empty),
    TOVAK_LAYOUT(CMD_GET_LOGS,                 logging, none,         0,                               ids),
    TOVAK_LAYOUT(CMD_ADD_MSG,                  logging, u16_u32,      0,                               empty),
    TOVAK_LAYOUT(CMD_RM_MSG,                   logging, u16,          0,                               empty),
    TOVAK_LAYOUT(CMD_GET_MSG,                  logging, none,         0,                               msgs),
    TOVAK_LAYOUT(CMD_GET_BUFFER_SIZE,          logging, none,         0,                               u32),
    TOVAK_LAYOUT(CMD_GET_LOG_STATE,            logging, none,         0,                               u32),
    TOVAK_LAYOUT(CMD_SET_CONFIG_FILE,          logging, counted_text, TOVAK_CONFIG_NAME_MAX,           none),
    TOVAK_LAYOUT(CMD_GET_CONFIG_FILE,          logging, none,         0,                               counted_text),
    TOVAK_LAYOUT(CMD_SYSTEM_COMMAND,           logging, counted_text, TOVAK_SYSTEM_TEXT_COUNT_MAX - 1, none),
    TOVAK_LAYOUT(CMD_GET_RANGE,                logging, none,         0,                               pair),
    TOVAK_LAYOUT(CMD_ADBLOG_ON,                capture, none,         0,                               empty),
    TOVAK_LAYOUT(CMD_ADBLOG_OFF,               capture, none,         0,                               empty),
    TOVAK_LAYOUT(CMD_ADBLOG_COMMIT,            capture, none,         0,                               empty),
    TOVAK_LAYOUT(CMD_ADBLOG_GET_STATE,         capture, none,         0,                               u32),
    TOVAK_LAYOUT(CMD_ADBLOG_ADD_CATEGORY,      capture, u32,          0,                               none),
    TOVAK_LAYOUT(CMD_ADBLOG_RM_CATEGORY,       capture, u32,          0,                               none),
    TOVAK_LAYOUT(CMD_ADBLOG_GET_CATEGORIES,    capture, none,         0,                               u32s),
    TOVAK_LAYOUT(CMD_ADBLOG_SET_CATEGORIES,    capture, none,         0,                               none),
    TOVAK_LAYOUT(CMD_ADBLOG_GET_CATEGORY_NAME, none,    none,         0,                               text),
    TOVAK_LAYOUT(CMD_ADBLOG_SET_SIZE,          capture, u32_u32,      UINT32_MAX,                      none),
    TOVAK_LAYOUT(CMD_ADBLOG_GET_SIZE,          capture, u32,          0,                               u32),
    TOVAK_LAYOUT(CMD_ADBLOG_GET_SIZE_LIMITS,   logging, none,         0,                               pair),
    TOVAK_LAYOUT(CMD_SET_AUTOSAVE,             logging, u32,          0,                               empty),
    TOVAK_LAYOUT(CMD_SAVE_MODEM_DATA,          logging, u32,          0,                               empty),
    TOVAK_LAYOUT(CMD_SET_MSISDN,               logging, counted_text, TOVAK_MSISDN_COUNT_MAX - 1,      empty),
    TOVAK_LAYOUT(CMD_GET_AUTOSAVE,             logging, none,         0,                               u32),
    TOVAK_LAYOUT(CMD_DPL_SET_STATE,            logging, u32,          0,                               empty),
    TOVAK_LAYOUT(CMD_DPL_GET_STATE,            logging, none,         0,                               u32),
    TOVAK_LAYOUT(CMD_DPL_GET_ALL_IF_LIST,      logging, none,         0,                               dpl_ifaces),
    TOVAK_LAYOUT(CMD_DPL_GET_IF_LIST,          logging, none,         0,                               counted_ids),
    TOVAK_LAYOUT(CMD_DPL_SET_IF,               logging, u16,          0,                               empty),
    TOVAK_LAYOUT(CMD_DPL_RESET,                logging, none,         0,                               none),
};
#undef TOVAK_LAYOUT
// clang-format on

// Found by index and handed out by value, so that every compiler takes them
// in a constant expression (with sanitizers too).

// Where a command id's layout stands, or std::size(tovak_layouts) for an id
// no command has.
constexpr size_t tovak_layout_index(uint32_t id)
{
    size_t i = 0;
    while (i < std::size(tovak_layouts) && tovak_layouts[i].id != id)
        i++;
    return i;
}

constexpr bool tovak_is_command(uint32_t id)
{
    return tovak_layout_index(id) < std::size(tovak_layouts);
}

// The layout of a command id; one no command has takes nothing, answers
// nothing and waits for nothing.
constexpr tovak_layout tovak_layout_of(uint32_t id)
{
    return tovak_is_command(id)
               ? tovak_layouts[tovak_layout_index(id)]
               : tovak_layout{ id, tovak_gate::none, tovak_request_layout::none, 0, tovak_reply_layout::none };
}

// Packing and unpacking. Nothing here logs or refuses: the daemon reads and
// writes through its lenient byte buffer, and the client checks limits first.

using tovak_bytes = std::vector<uint8_t>;

void tovak_put_u16(tovak_bytes* out, uint16_t v);
void tovak_put_u32(tovak_bytes* out, uint32_t v);
uint16_t tovak_get_u16(const uint8_t* at);
uint32_t tovak_get_u32(const uint8_t* at);

// Request payloads, whatever their values: tests send what the daemon refuses.
tovak_bytes tovak_pack_u16(uint16_t v);
tovak_bytes tovak_pack_u32(uint32_t v);
tovak_bytes tovak_pack_u16_u32(uint16_t key, uint32_t value);
tovak_bytes tovak_pack_u32_u32(uint32_t first, uint32_t second);
tovak_bytes tovak_pack_text(const std::string& text);
// The count is the text's length and its zero byte unless given.
tovak_bytes tovak_pack_counted_text(const std::string& text, int32_t count = -1);

// One 0x0e entry appended to a listing.
void tovak_pack_msg_entry(tovak_bytes* out, uint16_t ssid, uint32_t mask);

struct tovak_wire_msg {
    uint16_t ssid;
    uint32_t mask;
};
struct tovak_wire_dpl_iface {
    uint8_t id;
    std::string desc;
};

// Reply payloads of len bytes. Each is false when the bytes do not have the
// layout's shape; what was read before the fault is kept.
bool tovak_unpack_u32s(const uint8_t* data, uint32_t len, std::vector<uint32_t>* values);
bool tovak_unpack_ids(const uint8_t* data, uint32_t len, std::vector<uint16_t>* ids);
bool tovak_unpack_counted_ids(const uint8_t* data, uint32_t len, std::vector<uint16_t>* ids);
bool tovak_unpack_msgs(const uint8_t* data, uint32_t len, std::vector<tovak_wire_msg>* entries);
bool tovak_unpack_counted_text(const uint8_t* data, uint32_t len, std::string* text);
bool tovak_unpack_text(const uint8_t* data, uint32_t len, std::string* text);
bool tovak_unpack_dpl_ifaces(const uint8_t* data, uint32_t len, std::vector<tovak_wire_dpl_iface>* ifaces);
