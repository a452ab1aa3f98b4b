// Request builders and reply decoders for every client command, over the
// shared frame and byte buffer. No I/O here.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "protocol/tovak_pkt.h"

// Replies carry no status word: a verdict is read from what the command
// left in the reply frame.
enum class TovakVerdict {
    done,       // the reply has the command's success shape
    refused,    // the reply has the command's refusal shape
    unknown,    // this command answers alike whether it worked or not
    unexpected, // no version of the command answers like this
};

const char* tovak_verdict_text(TovakVerdict verdict);

// What one reply shows.
struct TovakShown {
    TovakVerdict verdict = TovakVerdict::unexpected;
    // Why the verdict is not plainly done, for people; empty when done.
    std::string note;
};

struct TovakMsgEntry {
    uint16_t ssid;
    uint32_t mask; // the daemon lists only the low 16 bits
};

struct TovakDplIface {
    uint8_t id;
    std::string desc;
};

// Largest texts that travel with a u16 count that includes the zero byte.
#define TOVAK_CONFIG_NAME_MAX 98 // 0x11: count at most 99
#define TOVAK_SYSTEM_TEXT_MAX 198 // 0x13: count at most 199
#define TOVAK_MSISDN_MAX 18 // 0x48: count at most 19
// 0x04 copies at most 99 characters and drops the rest.
#define TOVAK_OUT_PATH_MAX 99

// 0x47 kinds.
#define TOVAK_MODEM_DATA_PHANTOM 0u
#define TOVAK_MODEM_DATA_STATISTICS 1u

// Builders fill the whole request frame (cmd, len, payload; the rest zero)
// and return false, leaving a frame with len 0, when the arguments do not fit
// the command's fields.
bool tovak_req_plain(tovak_pkt* req, uint32_t cmd);
bool tovak_req_u16(tovak_pkt* req, uint32_t cmd, uint16_t value);
bool tovak_req_u32(tovak_pkt* req, uint32_t cmd, uint32_t value);
bool tovak_req_u32_pair(tovak_pkt* req, uint32_t cmd, uint32_t first, uint32_t second);
// 0x0c: u16 SSID, u32 level mask.
bool tovak_req_add_msg(tovak_pkt* req, uint16_t ssid, uint32_t mask);
// Text and its zero byte (0x04); at most max characters.
bool tovak_req_text(tovak_pkt* req, uint32_t cmd, const std::string& text, size_t max);
// u16 count, then the text and its zero byte, counted (0x11, 0x13, 0x48);
// at most max characters.
bool tovak_req_counted_text(tovak_pkt* req, uint32_t cmd, const std::string& text, size_t max);
// Any payload as it stands.
bool tovak_req_raw(tovak_pkt* req, uint32_t cmd, const std::vector<uint8_t>& payload);

// Decoders, one per reply shape. Outputs are written only when the verdict
// is done (or unknown, where the reply still holds a well-formed answer).

// Length 0 on success, untouched on refusal.
TovakShown tovak_decode_empty(const tovak_pkt& rsp);
// Commands that never write their reply: untouched either way.
TovakShown tovak_decode_no_reply(const tovak_pkt& rsp);
// 0x00, 0x01: four zero bytes whatever happened.
TovakShown tovak_decode_zero4(const tovak_pkt& rsp);
// 0x32: length 0 whatever happened once the capture gate is open.
TovakShown tovak_decode_capture_commit(const tovak_pkt& rsp);
// 0x03: the size the platform took, or -1.
TovakShown tovak_decode_log_size(const tovak_pkt& rsp, int32_t* size);
// 0x04: 0, or -1.
TovakShown tovak_decode_status_i32(const tovak_pkt& rsp);
// One u32.
TovakShown tovak_decode_u32(const tovak_pkt& rsp, uint32_t* value);
// One u32 that is 0 or 1.
TovakShown tovak_decode_flag(const tovak_pkt& rsp, bool* on);
// Two u32.
TovakShown tovak_decode_u32_pair(const tovak_pkt& rsp, uint32_t* first, uint32_t* second);
// 0x08, 0x0b: u16 ids, ascending, no count.
TovakShown tovak_decode_u16_list(const tovak_pkt& rsp, std::vector<uint16_t>* ids);
// 0x0e: 8-byte message entries.
TovakShown tovak_decode_msgs(const tovak_pkt& rsp, std::vector<TovakMsgEntry>* msgs);
// 0x12: u16 count, the path and its zero byte.
TovakShown tovak_decode_config_name(const tovak_pkt& rsp, std::string* path);
// 0x38: u32 0 or 1 per category.
TovakShown tovak_decode_categories(const tovak_pkt& rsp, std::vector<bool>* enabled);
// 0x3a: comma-separated names and a zero byte.
TovakShown tovak_decode_category_names(const tovak_pkt& rsp, std::vector<std::string>* names);
// 0x52: u32 count, then u8 id, u8 text length, text per interface.
TovakShown tovak_decode_dpl_ifaces(const tovak_pkt& rsp, std::vector<TovakDplIface>* ifaces);
// 0x53: u32 count, then u16 ids.
TovakShown tovak_decode_dpl_ids(const tovak_pkt& rsp, std::vector<uint16_t>* ids);

// "0a1b..." of len bytes.
std::string tovak_hex(const uint8_t* data, size_t len);
// Hex digits, blanks and colons between bytes allowed; false on anything else
// or an odd number of digits.
bool tovak_parse_hex(const std::string& text, std::vector<uint8_t>* out);
