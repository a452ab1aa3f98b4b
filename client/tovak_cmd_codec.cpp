#include "tovak_cmd_codec.h"

#include <cstring>

#include "protocol/byte_buffer.h"
#include "protocol/tovak_cmd_ids.h"

// A reply the handler never touched keeps the length the session preset.
#define UNTOUCHED_LEN TOVAK_PKT_DATA_SIZE

static const char* const untouched_note = "the daemon left the reply untouched (len 5120)";

const char* tovak_verdict_text(TovakVerdict verdict)
{
    switch (verdict) {
    case TovakVerdict::done:
        return "done";
    case TovakVerdict::refused:
        return "refused";
    case TovakVerdict::unknown:
        return "unknown";
    case TovakVerdict::unexpected:
        return "unexpected reply";
    }
    return "?";
}

namespace {

// The byte buffer prints a line on stdout when it refuses, which would land
// in a client's own output; so every access is bounds-checked here first and
// the buffer is never asked for more than there is.
class Writer {
public:
    explicit Writer(tovak_pkt* req) : req_(req)
    {
        byte_buffer_init(&bb_, req->data, TOVAK_PKT_DATA_SIZE);
    }
    uint32_t room() const { return TOVAK_PKT_DATA_SIZE - byte_buffer_length(&bb_); }
    bool u8(uint8_t v) { return room() >= 1 && byte_buffer_write_u8(&bb_, v); }
    bool u16(uint16_t v) { return room() >= 2 && byte_buffer_write_u16(&bb_, v); }
    bool u32(uint32_t v) { return room() >= 4 && byte_buffer_write_u32(&bb_, v); }
    bool bytes(const void* p, size_t n)
    {
        return n <= room() && (n == 0 || byte_buffer_write_bytes(&bb_, p, uint32_t(n)));
    }
    bool finish(bool ok)
    {
        req_->len = ok ? byte_buffer_length(&bb_) : 0;
        return ok;
    }

private:
    tovak_pkt* req_;
    byte_buffer bb_;
};

class Reader {
public:
    explicit Reader(const tovak_pkt& rsp) : len_(rsp.len > TOVAK_PKT_DATA_SIZE ? TOVAK_PKT_DATA_SIZE : rsp.len)
    {
        // Read only: the buffer's pointer is not const.
        if (len_ != 0)
            byte_buffer_init(&bb_, const_cast<uint8_t*>(rsp.data), len_);
    }
    uint32_t left() const { return len_ == 0 ? 0 : len_ - byte_buffer_length(&bb_); }
    bool u8(uint8_t* v) { return left() >= 1 && byte_buffer_read_bytes(&bb_, v, 1); }
    bool u16(uint16_t* v) { return left() >= 2 && byte_buffer_read_u16(&bb_, v); }
    bool u32(uint32_t* v) { return left() >= 4 && byte_buffer_read_u32(&bb_, v); }
    bool bytes(void* p, uint32_t n) { return n <= left() && (n == 0 || byte_buffer_read_bytes(&bb_, p, n)); }

private:
    uint32_t len_;
    byte_buffer bb_ = {};
};

Writer start(tovak_pkt* req, uint32_t cmd)
{
    memset(req, 0, sizeof *req);
    req->cmd = cmd;
    return Writer(req);
}

TovakShown done()
{
    return { TovakVerdict::done, "" };
}

TovakShown refused(const std::string& note)
{
    return { TovakVerdict::refused, note };
}

TovakShown unknown(const std::string& note)
{
    return { TovakVerdict::unknown, note };
}

TovakShown unexpected(const tovak_pkt& rsp, const std::string& what)
{
    return { TovakVerdict::unexpected, "unexpected reply of " + std::to_string(rsp.len) + " bytes: " + what };
}

// Fixed-size replies: the success length, else untouched means refused.
bool fixed_len(const tovak_pkt& rsp, uint32_t want, TovakShown* shown)
{
    if (rsp.len == want)
        return true;
    if (rsp.len == UNTOUCHED_LEN)
        *shown = refused(untouched_note);
    else
        *shown = unexpected(rsp, "expected " + std::to_string(want));
    return false;
}

// No handler writes past the payload; a longer len is a broken daemon.
bool too_long(const tovak_pkt& rsp, TovakShown* shown)
{
    if (rsp.len <= UNTOUCHED_LEN)
        return false;
    *shown = unexpected(rsp, "longer than a frame's payload");
    return true;
}

// A list reply can fill the frame exactly; then only its content tells it
// from an untouched frame, and not for sure.
TovakShown full_list(bool well_formed, const char* what)
{
    if (!well_formed)
        return refused(untouched_note);
    return unknown(std::string("len 5120 holds a well-formed list of ") + what +
                   ", but an untouched reply could look the same");
}

} // namespace

bool tovak_req_plain(tovak_pkt* req, uint32_t cmd)
{
    return start(req, cmd).finish(true);
}

bool tovak_req_u16(tovak_pkt* req, uint32_t cmd, uint16_t value)
{
    Writer w = start(req, cmd);
    return w.finish(w.u16(value));
}

bool tovak_req_u32(tovak_pkt* req, uint32_t cmd, uint32_t value)
{
    Writer w = start(req, cmd);
    return w.finish(w.u32(value));
}

bool tovak_req_u32_pair(tovak_pkt* req, uint32_t cmd, uint32_t first, uint32_t second)
{
    Writer w = start(req, cmd);
    return w.finish(w.u32(first) && w.u32(second));
}

bool tovak_req_add_msg(tovak_pkt* req, uint16_t ssid, uint32_t mask)
{
    Writer w = start(req, CMD_ADD_MSG);
    return w.finish(w.u16(ssid) && w.u32(mask));
}

bool tovak_req_text(tovak_pkt* req, uint32_t cmd, const std::string& text, size_t max)
{
    Writer w = start(req, cmd);
    bool ok = text.size() <= max && text.find('\0') == std::string::npos && w.bytes(text.c_str(), text.size() + 1);
    return w.finish(ok);
}

bool tovak_req_counted_text(tovak_pkt* req, uint32_t cmd, const std::string& text, size_t max)
{
    Writer w = start(req, cmd);
    size_t n = text.size() + 1;
    bool ok = text.size() <= max && n <= 0x7fff && text.find('\0') == std::string::npos && w.u16(uint16_t(n)) &&
              w.bytes(text.c_str(), n);
    return w.finish(ok);
}

bool tovak_req_raw(tovak_pkt* req, uint32_t cmd, const std::vector<uint8_t>& payload)
{
    Writer w = start(req, cmd);
    return w.finish(w.bytes(payload.data(), payload.size()));
}

TovakShown tovak_decode_empty(const tovak_pkt& rsp)
{
    TovakShown shown;
    return fixed_len(rsp, 0, &shown) ? done() : shown;
}

TovakShown tovak_decode_no_reply(const tovak_pkt& rsp)
{
    TovakShown shown;
    if (too_long(rsp, &shown))
        return shown;
    if (rsp.len == UNTOUCHED_LEN)
        return unknown("the daemon never writes a reply to this command, so the reply cannot tell whether it worked");
    return unexpected(rsp, "this command never writes its reply");
}

TovakShown tovak_decode_zero4(const tovak_pkt& rsp)
{
    TovakShown shown;
    if (!fixed_len(rsp, 4, &shown))
        return shown;
    uint32_t v = 1;
    Reader(rsp).u32(&v);
    if (v != 0)
        return unexpected(rsp, "expected 4 zero bytes");
    return unknown("the daemon answers 4 zero bytes whether or not it worked; `state` tells whether logging runs");
}

TovakShown tovak_decode_capture_commit(const tovak_pkt& rsp)
{
    TovakShown shown;
    if (!fixed_len(rsp, 0, &shown))
        return shown;
    return unknown("the daemon answers an empty reply whether or not it committed");
}

TovakShown tovak_decode_log_size(const tovak_pkt& rsp, int32_t* size)
{
    TovakShown shown;
    if (!fixed_len(rsp, 4, &shown))
        return shown;
    uint32_t v = 0;
    Reader(rsp).u32(&v);
    if (int32_t(v) == -1)
        return refused("the daemon answered -1");
    *size = int32_t(v);
    return done();
}

TovakShown tovak_decode_status_i32(const tovak_pkt& rsp)
{
    TovakShown shown;
    if (!fixed_len(rsp, 4, &shown))
        return shown;
    uint32_t v = 0;
    Reader(rsp).u32(&v);
    if (v == 0)
        return done();
    if (int32_t(v) == -1)
        return refused("the daemon answered -1");
    return unexpected(rsp, "expected 0 or -1, got " + std::to_string(int32_t(v)));
}

TovakShown tovak_decode_u32(const tovak_pkt& rsp, uint32_t* value)
{
    TovakShown shown;
    if (!fixed_len(rsp, 4, &shown))
        return shown;
    Reader(rsp).u32(value);
    return done();
}

TovakShown tovak_decode_flag(const tovak_pkt& rsp, bool* on)
{
    uint32_t v = 0;
    TovakShown shown = tovak_decode_u32(rsp, &v);
    if (shown.verdict != TovakVerdict::done)
        return shown;
    if (v > 1)
        return unexpected(rsp, "expected 0 or 1, got " + std::to_string(v));
    *on = v == 1;
    return shown;
}

TovakShown tovak_decode_u32_pair(const tovak_pkt& rsp, uint32_t* first, uint32_t* second)
{
    TovakShown shown;
    if (!fixed_len(rsp, 8, &shown))
        return shown;
    Reader r(rsp);
    r.u32(first);
    r.u32(second);
    return done();
}

// Ids strictly ascending: the daemon lists a set.
static bool ascending(const std::vector<uint16_t>& ids)
{
    for (size_t i = 1; i < ids.size(); i++)
        if (ids[i - 1] >= ids[i])
            return false;
    return true;
}

static std::vector<uint16_t> read_u16s(Reader& r, uint32_t count)
{
    std::vector<uint16_t> ids(count);
    for (uint16_t& id : ids)
        r.u16(&id);
    return ids;
}

TovakShown tovak_decode_u16_list(const tovak_pkt& rsp, std::vector<uint16_t>* ids)
{
    if (rsp.len > UNTOUCHED_LEN || rsp.len % 2 != 0)
        return unexpected(rsp, "not a whole number of 2-byte ids");
    Reader r(rsp);
    std::vector<uint16_t> list = read_u16s(r, rsp.len / 2);
    bool well_formed = ascending(list);
    if (rsp.len == UNTOUCHED_LEN) {
        TovakShown full = full_list(well_formed, "2560 ids");
        if (full.verdict == TovakVerdict::unknown)
            *ids = std::move(list);
        return full;
    }
    if (!well_formed)
        return unexpected(rsp, "ids not in ascending order");
    *ids = std::move(list);
    return done();
}

TovakShown tovak_decode_msgs(const tovak_pkt& rsp, std::vector<TovakMsgEntry>* msgs)
{
    if (rsp.len > UNTOUCHED_LEN || rsp.len % 8 != 0)
        return unexpected(rsp, "not a whole number of 8-byte entries");
    Reader r(rsp);
    std::vector<TovakMsgEntry> list(rsp.len / 8);
    bool well_formed = true;
    for (size_t i = 0; i < list.size(); i++) {
        uint16_t pad;
        r.u16(&list[i].ssid);
        r.u16(&pad); // not written by the daemon
        r.u32(&list[i].mask);
        if ((i > 0 && list[i - 1].ssid >= list[i].ssid) || list[i].mask > 0xffff)
            well_formed = false;
    }
    if (rsp.len == UNTOUCHED_LEN) {
        TovakShown full = full_list(well_formed, "640 entries");
        if (full.verdict == TovakVerdict::unknown)
            *msgs = std::move(list);
        return full;
    }
    if (!well_formed)
        return unexpected(rsp, "entries not in ascending order, or a mask above 16 bits");
    *msgs = std::move(list);
    return done();
}

TovakShown tovak_decode_config_name(const tovak_pkt& rsp, std::string* path)
{
    TovakShown shown;
    if (too_long(rsp, &shown))
        return shown;
    if (rsp.len == UNTOUCHED_LEN)
        return refused(untouched_note);
    Reader r(rsp);
    uint16_t n = 0;
    if (!r.u16(&n) || n == 0 || n != r.left())
        return unexpected(rsp, "expected a u16 count and that many bytes");
    std::string text(n, '\0');
    r.bytes(text.data(), n);
    if (text.back() != '\0' || text.find('\0') != n - 1u)
        return unexpected(rsp, "the path is not one zero-terminated text");
    text.pop_back();
    *path = std::move(text);
    return done();
}

TovakShown tovak_decode_categories(const tovak_pkt& rsp, std::vector<bool>* enabled)
{
    TovakShown shown;
    if (too_long(rsp, &shown))
        return shown;
    if (rsp.len == UNTOUCHED_LEN)
        return refused(untouched_note);
    if (rsp.len % 4 != 0)
        return unexpected(rsp, "not a whole number of u32 values");
    Reader r(rsp);
    std::vector<bool> list;
    for (uint32_t i = 0; i < rsp.len / 4; i++) {
        uint32_t v = 0;
        r.u32(&v);
        if (v > 1)
            return unexpected(rsp, "category value " + std::to_string(v) + " is neither 0 nor 1");
        list.push_back(v == 1);
    }
    *enabled = std::move(list);
    return done();
}

TovakShown tovak_decode_category_names(const tovak_pkt& rsp, std::vector<std::string>* names)
{
    TovakShown shown;
    if (too_long(rsp, &shown))
        return shown;
    if (rsp.len == UNTOUCHED_LEN)
        return refused(untouched_note);
    if (rsp.len == 0 || rsp.data[rsp.len - 1] != '\0')
        return unexpected(rsp, "expected a zero-terminated text");
    std::string text(reinterpret_cast<const char*>(rsp.data), rsp.len - 1);
    if (text.find('\0') != std::string::npos)
        return unexpected(rsp, "a zero byte inside the names");
    std::vector<std::string> list;
    size_t from = 0;
    while (!text.empty()) {
        size_t comma = text.find(',', from);
        list.push_back(text.substr(from, comma == std::string::npos ? std::string::npos : comma - from));
        if (comma == std::string::npos)
            break;
        from = comma + 1;
    }
    *names = std::move(list);
    return done();
}

// True when the payload is exactly one well-formed interface list.
static bool parse_dpl_ifaces(const tovak_pkt& rsp, std::vector<TovakDplIface>* out)
{
    Reader r(rsp);
    uint32_t count = 0;
    if (!r.u32(&count))
        return false;
    std::vector<TovakDplIface> list;
    for (uint32_t i = 0; i < count; i++) {
        TovakDplIface iface;
        uint8_t n = 0;
        if (!r.u8(&iface.id) || !r.u8(&n) || n > r.left())
            return false;
        iface.desc.resize(n);
        r.bytes(iface.desc.data(), n);
        list.push_back(std::move(iface));
    }
    if (r.left() != 0)
        return false;
    *out = std::move(list);
    return true;
}

TovakShown tovak_decode_dpl_ifaces(const tovak_pkt& rsp, std::vector<TovakDplIface>* ifaces)
{
    TovakShown shown;
    if (too_long(rsp, &shown))
        return shown;
    std::vector<TovakDplIface> list;
    bool well_formed = parse_dpl_ifaces(rsp, &list);
    if (rsp.len == UNTOUCHED_LEN) {
        TovakShown full = full_list(well_formed, "interfaces");
        if (full.verdict == TovakVerdict::unknown)
            *ifaces = std::move(list);
        return full;
    }
    if (!well_formed)
        return unexpected(rsp, "the interface list is cut short or overlong (too many interfaces for a frame?)");
    *ifaces = std::move(list);
    return done();
}

TovakShown tovak_decode_dpl_ids(const tovak_pkt& rsp, std::vector<uint16_t>* ids)
{
    TovakShown shown;
    if (too_long(rsp, &shown))
        return shown;
    Reader r(rsp);
    uint32_t count = 0;
    bool well_formed = r.u32(&count) && count <= r.left() / 2 && r.left() == count * 2;
    std::vector<uint16_t> list;
    if (well_formed) {
        list = read_u16s(r, count);
        well_formed = ascending(list);
    }
    if (rsp.len == UNTOUCHED_LEN) {
        TovakShown full = full_list(well_formed, "2558 interface ids");
        if (full.verdict == TovakVerdict::unknown)
            *ids = std::move(list);
        return full;
    }
    if (!well_formed)
        return unexpected(rsp, "expected a u32 count, then that many ascending u16 ids");
    *ids = std::move(list);
    return done();
}

std::string tovak_hex(const uint8_t* data, size_t len)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(len * 2);
    for (size_t i = 0; i < len; i++) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 15];
    }
    return out;
}

static int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

bool tovak_parse_hex(const std::string& text, std::vector<uint8_t>* out)
{
    std::vector<uint8_t> bytes;
    int high = -1;
    for (char c : text) {
        if (c == ' ' || c == ':' || c == '\t') {
            // Separators only between whole bytes.
            if (high >= 0)
                return false;
            continue;
        }
        int d = hex_digit(c);
        if (d < 0)
            return false;
        if (high < 0) {
            high = d;
        } else {
            bytes.push_back(uint8_t(high << 4 | d));
            high = -1;
        }
    }
    if (high >= 0)
        return false;
    *out = std::move(bytes);
    return true;
}
