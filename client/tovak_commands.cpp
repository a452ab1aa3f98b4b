#include "tovak_commands.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "protocol/byte_buffer.h"

// A reply the handler never touched keeps the length the session preset.
#define UNTOUCHED_LEN TOVAK_PKT_DATA_SIZE

namespace {

// The byte buffer prints a line on stdout when it refuses, which would land
// in a client's own output; so every access is bounds-checked here first.
class Writer {
public:
    Writer(tovak_pkt* req, uint32_t cmd) : req_(req)
    {
        memset(req, 0, sizeof *req);
        req->cmd = cmd;
        byte_buffer_init(&bb_, req->data, TOVAK_PKT_DATA_SIZE);
    }
    uint32_t room() const { return TOVAK_PKT_DATA_SIZE - byte_buffer_length(&bb_); }
    bool u16(uint64_t v) { return v <= 0xffff && room() >= 2 && byte_buffer_write_u16(&bb_, uint16_t(v)); }
    bool u32(uint64_t v) { return v <= UINT32_MAX && room() >= 4 && byte_buffer_write_u32(&bb_, uint32_t(v)); }
    bool bytes(const void* p, size_t n) { return n <= room() && (n == 0 || byte_buffer_write_bytes(&bb_, p, uint32_t(n))); }
    // The text and its zero byte.
    bool text(const std::string& t) { return t.find('\0') == std::string::npos && bytes(t.c_str(), t.size() + 1); }
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

const TovakShown done = { TovakVerdict::done, "" };
const TovakShown untouched = { TovakVerdict::refused, "tovakd left the reply untouched (len 5120)" };

TovakShown unknown(const std::string& note)
{
    return { TovakVerdict::unknown, note };
}

TovakShown unexpected(const tovak_pkt& rsp, const std::string& what)
{
    return { TovakVerdict::unexpected, "unexpected reply of " + std::to_string(rsp.len) + " bytes: " + what };
}

// A reply of one length is read by then(); an untouched one is a refusal.
template <class F> TovakShown fixed(const tovak_pkt& rsp, uint32_t want, F then)
{
    if (rsp.len == want)
        return then(Reader(rsp));
    return rsp.len == UNTOUCHED_LEN ? untouched : unexpected(rsp, "expected " + std::to_string(want));
}

// A reply of any length within the frame, which no list fills.
template <class F> TovakShown within(const tovak_pkt& rsp, F then)
{
    if (rsp.len < UNTOUCHED_LEN)
        return then(Reader(rsp));
    return rsp.len == UNTOUCHED_LEN ? untouched : unexpected(rsp, "longer than a frame");
}

uint32_t u32_of(Reader r)
{
    uint32_t v = 0;
    r.u32(&v);
    return v;
}

// A list can fill the frame exactly; then only its content tells it from an
// untouched reply, and not for sure.
TovakShown list_verdict(const tovak_pkt& rsp, bool well_formed)
{
    if (rsp.len >= UNTOUCHED_LEN)
        return rsp.len > UNTOUCHED_LEN ? unexpected(rsp, "longer than a frame")
               : well_formed ? unknown("the list fills the frame, which is also how an untouched (refused) reply looks")
                             : untouched;
    return well_formed ? done : unexpected(rsp, "not a well-formed list");
}

// Ids strictly ascending: the daemon lists sets.
bool read_ids(Reader& r, uint32_t count, std::vector<uint16_t>* ids)
{
    ids->resize(count);
    for (uint32_t i = 0; i < count; i++)
        if (!r.u16(&(*ids)[i]) || (i > 0 && (*ids)[i - 1] >= (*ids)[i]))
            return false;
    return true;
}

std::string hex16(uint32_t v)
{
    char buf[16];
    snprintf(buf, sizeof buf, "0x%04" PRIx32, v);
    return buf;
}

void report_value(const char* key, const std::string& text, const std::string& json, TovakReport* rep)
{
    std::string label = key;
    std::replace(label.begin(), label.end(), '_', ' ');
    rep->text += label + " " + text + "\n";
    rep->json.emplace_back(key, json);
}

// One item a line, and a JSON array.
void report_list(const char* key, const std::vector<std::string>& lines, const std::vector<std::string>& json,
                 TovakReport* rep)
{
    for (const std::string& line : lines)
        rep->text += line + "\n";
    rep->json.emplace_back(key, tovak_json_array(json));
}

void report_ids(const std::vector<uint16_t>& ids, const char* key, TovakReport* rep, bool hex)
{
    std::vector<std::string> lines, json;
    for (uint16_t id : ids) {
        lines.push_back(hex ? hex16(id) : std::to_string(id));
        json.push_back(std::to_string(id));
    }
    report_list(key, lines, json, rep);
}

template <class R> TovakShown show_reply(const tovak_pkt& rsp, const char* key, TovakReport* rep)
{
    typename R::Out value{};
    TovakShown shown = R::decode(rsp, &value);
    if (shown.verdict == TovakVerdict::done || shown.verdict == TovakVerdict::unknown)
        R::report(value, key, rep);
    return shown;
}

} // namespace

// Replies.

#define NOTHING_TO_REPORT(kind) \
    void TovakReply##kind::report(const Out&, const char*, TovakReport*) {}
NOTHING_TO_REPORT(Empty)
NOTHING_TO_REPORT(NoReply)
NOTHING_TO_REPORT(Committed)
NOTHING_TO_REPORT(LogOn)
NOTHING_TO_REPORT(LogOff)
NOTHING_TO_REPORT(Status)

TovakShown TovakReplyEmpty::decode(const tovak_pkt& rsp, Out*)
{
    return fixed(rsp, 0, [](Reader) { return done; });
}

TovakShown TovakReplyNoReply::decode(const tovak_pkt& rsp, Out*)
{
    if (rsp.len == UNTOUCHED_LEN)
        return unknown("tovakd never writes a reply to this command, so the reply cannot tell whether it worked");
    return unexpected(rsp, "this command never writes its reply");
}

TovakShown TovakReplyCommitted::decode(const tovak_pkt& rsp, Out*)
{
    return fixed(rsp, 0, [](Reader) { return unknown("tovakd answers an empty reply whether or not it committed"); });
}

TovakShown TovakReplyLogOn::decode(const tovak_pkt& rsp, Out*)
{
    return fixed(rsp, 4, [&](Reader r) {
        return u32_of(r) == 0 ? unknown("tovakd answers 4 zero bytes whether or not it worked")
                              : unexpected(rsp, "expected 4 zero bytes");
    });
}

TovakShown TovakReplyLogOff::decode(const tovak_pkt& rsp, Out* out)
{
    return TovakReplyLogOn::decode(rsp, out);
}

TovakShown TovakReplyStatus::decode(const tovak_pkt& rsp, Out*)
{
    return fixed(rsp, 4, [&](Reader r) {
        int32_t v = int32_t(u32_of(r));
        return v == 0 ? done
               : v == -1 ? TovakShown{ TovakVerdict::refused, "tovakd answered -1" }
                         : unexpected(rsp, "expected 0 or -1, got " + std::to_string(v));
    });
}

TovakShown TovakReplyLogSize::decode(const tovak_pkt& rsp, Out* size)
{
    return fixed(rsp, 4, [&](Reader r) {
        *size = int32_t(u32_of(r));
        return *size == -1 ? TovakShown{ TovakVerdict::refused, "tovakd answered -1" } : done;
    });
}

void TovakReplyLogSize::report(const Out& size, const char* key, TovakReport* rep)
{
    report_value(key, std::to_string(size), std::to_string(size), rep);
}

TovakShown TovakReplyU32::decode(const tovak_pkt& rsp, Out* value)
{
    return fixed(rsp, 4, [&](Reader r) {
        *value = u32_of(r);
        return done;
    });
}

void TovakReplyU32::report(const Out& value, const char* key, TovakReport* rep)
{
    report_value(key, std::to_string(value), std::to_string(value), rep);
}

TovakShown TovakReplyFlag::decode(const tovak_pkt& rsp, Out* on)
{
    return fixed(rsp, 4, [&](Reader r) {
        uint32_t v = u32_of(r);
        *on = v == 1;
        return v <= 1 ? done : unexpected(rsp, "expected 0 or 1, got " + std::to_string(v));
    });
}

void TovakReplyFlag::report(const Out& on, const char* key, TovakReport* rep)
{
    report_value(key, on ? "on" : "off", on ? "true" : "false", rep);
}

TovakShown TovakReplyPair::decode(const tovak_pkt& rsp, Out* pair)
{
    return fixed(rsp, 8, [&](Reader r) {
        r.u32(&pair->first);
        r.u32(&pair->second);
        return done;
    });
}

void TovakReplyPair::report(const Out& pair, const char* key, TovakReport* rep)
{
    std::string keys = key;
    size_t blank = keys.find(' ');
    report_value(keys.substr(0, blank).c_str(), std::to_string(pair.first), std::to_string(pair.first), rep);
    report_value(key + blank + 1, std::to_string(pair.second), std::to_string(pair.second), rep);
}

TovakShown TovakReplyIds::decode(const tovak_pkt& rsp, Out* ids)
{
    Reader r(rsp);
    return list_verdict(rsp, rsp.len % 2 == 0 && read_ids(r, rsp.len / 2, ids));
}

void TovakReplyIds::report(const Out& ids, const char* key, TovakReport* rep)
{
    report_ids(ids, key, rep, false);
}

TovakShown TovakReplyHexIds::decode(const tovak_pkt& rsp, Out* ids)
{
    return TovakReplyIds::decode(rsp, ids);
}

void TovakReplyHexIds::report(const Out& ids, const char* key, TovakReport* rep)
{
    report_ids(ids, key, rep, true);
}

TovakShown TovakReplyMsgs::decode(const tovak_pkt& rsp, Out* msgs)
{
    Reader r(rsp);
    bool well_formed = rsp.len % 8 == 0;
    for (uint32_t i = 0; well_formed && i < rsp.len / 8; i++) {
        TovakMsgEntry m;
        uint16_t pad; // not written by the daemon
        r.u16(&m.ssid);
        r.u16(&pad);
        r.u32(&m.mask);
        well_formed = (msgs->empty() || msgs->back().ssid < m.ssid) && m.mask <= 0xffff;
        msgs->push_back(m);
    }
    return list_verdict(rsp, well_formed);
}

void TovakReplyMsgs::report(const Out& msgs, const char* key, TovakReport* rep)
{
    std::vector<std::string> lines, json;
    for (const TovakMsgEntry& m : msgs) {
        std::string levels;
        for (uint32_t bit = 0; bit < 32; bit++)
            if (m.mask & (1u << bit))
                levels.append(levels.empty() ? "" : ",").append(std::to_string(bit));
        lines.push_back("ssid " + std::to_string(m.ssid) + " mask " + hex16(m.mask) + " levels " +
                        (levels.empty() ? "none" : levels));
        json.push_back(tovak_json_object({ { "ssid", std::to_string(m.ssid) },
                                           { "mask", std::to_string(m.mask) },
                                           { "levels", "[" + levels + "]" } }));
    }
    report_list(key, lines, json, rep);
}

TovakShown TovakReplyPath::decode(const tovak_pkt& rsp, Out* path)
{
    return within(rsp, [&](Reader r) {
        uint16_t n = 0;
        if (!r.u16(&n) || n == 0 || n != r.left())
            return unexpected(rsp, "expected a u16 count and that many bytes");
        path->assign(n, '\0');
        r.bytes(path->data(), n);
        if (path->find('\0') != n - 1u)
            return unexpected(rsp, "the path is not one zero-terminated text");
        path->pop_back();
        return done;
    });
}

void TovakReplyPath::report(const Out& path, const char* key, TovakReport* rep)
{
    rep->text = path + "\n";
    rep->json.emplace_back(key, tovak_json_string(path));
}

TovakShown TovakReplyCategories::decode(const tovak_pkt& rsp, Out* enabled)
{
    return within(rsp, [&](Reader r) {
        uint32_t v = 0;
        for (uint32_t i = 0; i < rsp.len / 4 && r.u32(&v) && v <= 1; i++)
            enabled->push_back(v == 1);
        return rsp.len % 4 == 0 && enabled->size() == rsp.len / 4 ? done
                                                                   : unexpected(rsp, "expected u32 values of 0 or 1");
    });
}

void TovakReplyCategories::report(const Out& enabled, const char* key, TovakReport* rep)
{
    std::vector<std::string> lines, json;
    for (size_t i = 0; i < enabled.size(); i++) {
        lines.push_back(std::to_string(i) + (enabled[i] ? " on" : " off"));
        json.push_back(enabled[i] ? "true" : "false");
    }
    report_list(key, lines, json, rep);
}

TovakShown TovakReplyNames::decode(const tovak_pkt& rsp, Out* names)
{
    return within(rsp, [&](Reader) {
        std::string text(reinterpret_cast<const char*>(rsp.data), rsp.len);
        if (text.empty() || text.find('\0') != text.size() - 1)
            return unexpected(rsp, "expected one zero-terminated text");
        std::istringstream in(text.substr(0, text.size() - 1));
        for (std::string name; std::getline(in, name, ',');)
            names->push_back(name);
        return done;
    });
}

void TovakReplyNames::report(const Out& names, const char* key, TovakReport* rep)
{
    std::vector<std::string> lines, json;
    for (size_t i = 0; i < names.size(); i++) {
        lines.push_back(std::to_string(i) + " " + names[i]);
        json.push_back(tovak_json_string(names[i]));
    }
    report_list(key, lines, json, rep);
}

TovakShown TovakReplyDplIfaces::decode(const tovak_pkt& rsp, Out* ifaces)
{
    Reader r(rsp);
    uint32_t count = 0;
    bool well_formed = r.u32(&count);
    for (uint32_t i = 0; well_formed && i < count; i++) {
        TovakDplIface iface;
        uint8_t n = 0;
        well_formed = r.u8(&iface.id) && r.u8(&n) && n <= r.left();
        iface.desc.resize(n);
        r.bytes(iface.desc.data(), n);
        ifaces->push_back(std::move(iface));
    }
    return list_verdict(rsp, well_formed && r.left() == 0);
}

void TovakReplyDplIfaces::report(const Out& ifaces, const char* key, TovakReport* rep)
{
    std::vector<std::string> lines, json;
    for (const TovakDplIface& i : ifaces) {
        lines.push_back(std::to_string(i.id) + " " + i.desc);
        json.push_back(tovak_json_object({ { "id", std::to_string(i.id) }, { "description", tovak_json_string(i.desc) } }));
    }
    report_list(key, lines, json, rep);
}

TovakShown TovakReplyDplIds::decode(const tovak_pkt& rsp, Out* ids)
{
    Reader r(rsp);
    uint32_t count = 0;
    return list_verdict(rsp, r.u32(&count) && r.left() == uint64_t(count) * 2 && read_ids(r, count, ids));
}

void TovakReplyDplIds::report(const Out& ids, const char* key, TovakReport* rep)
{
    report_ids(ids, key, rep, false);
}

// The table.

#define TOVAK_ROW(id, method, name, syntax, f1, f2, reply, limit, gate, key, help, refusal, waits)                 \
    { id,        name,  syntax, { TovakField::f1, TovakField::f2 }, limit, TovakGate::gate, key,                    \
      show_reply<TovakReply##reply>, TovakReply##reply::confirm, help, refusal, waits },
const TovakCommand tovak_commands[] = { TOVAK_COMMANDS(TOVAK_ROW) };
const size_t tovak_command_count = sizeof tovak_commands / sizeof tovak_commands[0];
// Every command of the daemon's table but 2, which ends the session.
static_assert(sizeof tovak_commands / sizeof tovak_commands[0] == 42, "one row per command");

const TovakCommand* tovak_command(uint32_t id)
{
    for (const TovakCommand& row : tovak_commands)
        if (row.id == id)
            return &row;
    return nullptr;
}

// Arguments.

int tovak_min_words(const TovakCommand& row)
{
    return (row.fields[0] != TovakField::none) + (row.fields[1] != TovakField::none);
}

int tovak_max_words(const TovakCommand& row)
{
    // Up to 32 levels, or --mask and a mask.
    return tovak_min_words(row) + (row.fields[1] == TovakField::levels ? 31 : 0);
}

bool tovak_parse_number(const std::string& text, uint64_t max, bool hex_only, uint64_t* out)
{
    std::string digits = text;
    int base = hex_only ? 16 : 10;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        digits = digits.substr(2);
        base = 16;
    }
    if (digits.empty() || digits.size() > 20)
        return false;
    uint64_t v = 0;
    for (char c : digits) {
        int d = c >= '0' && c <= '9' ? c - '0' : -1;
        if (base == 16 && c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        if (base == 16 && c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        if (d < 0 || v > (max - uint64_t(d)) / uint64_t(base))
            return false;
        v = v * uint64_t(base) + uint64_t(d);
    }
    *out = v;
    return true;
}

static bool number_word(const std::string& word, const char* what, uint64_t min, uint64_t max, bool hex,
                        TovakArgs* args, std::string* why)
{
    uint64_t v = 0;
    if (tovak_parse_number(word, max, hex, &v) && v >= min) {
        args->emplace_back(int64_t(v));
        return true;
    }
    *why = std::string("bad ") + what + " '" + word + "': expected " + (hex ? "a hex number" : "a number") +
           " from " + std::to_string(min) + " to " + std::to_string(max);
    return false;
}

static bool levels_words(const std::vector<std::string>& words, size_t at, TovakArgs* args, std::string* why)
{
    if (words[at] == "--mask") {
        if (words.size() == at + 2)
            return number_word(words[at + 1], "mask", 0, UINT32_MAX, false, args, why);
        *why = "--mask takes one mask and nothing else";
        return false;
    }
    uint64_t mask = 0;
    for (size_t i = at; i < words.size(); i++) {
        TovakArgs level;
        if (!number_word(words[i], "level", 0, 31, false, &level, why))
            return false;
        mask |= uint64_t(1) << level[0].num;
    }
    args->emplace_back(int64_t(mask));
    return true;
}

bool tovak_parse_words(const TovakCommand& row, const std::vector<std::string>& words, TovakArgs* args,
                       std::string* why)
{
    if (int(words.size()) < tovak_min_words(row) || int(words.size()) > tovak_max_words(row)) {
        *why = int(words.size()) < tovak_min_words(row) ? "missing argument" : "unexpected arguments";
        return false;
    }
    args->clear();
    for (size_t i = 0; i < 2 && row.fields[i] != TovakField::none; i++) {
        const std::string& w = words[i];
        TovakField f = row.fields[i];
        // Words for a choice of two values: the first means 1, phantom means 0.
        const char* choice[2] = { f == TovakField::on_off ? "off" : "phantom", f == TovakField::on_off ? "on" : "statistics" };
        bool ok = true;
        if (f == TovakField::on_off || f == TovakField::kind) {
            ok = w == choice[0] || w == choice[1];
            *why = std::string("expected ") + choice[1] + " or " + choice[0] + ", not '" + w + "'";
            args->emplace_back(int64_t(w == choice[1]));
        } else if (f == TovakField::levels) {
            ok = levels_words(words, i, args, why);
        } else if (f == TovakField::u16 || f == TovakField::hex16 || f == TovakField::u32 || f == TovakField::size) {
            bool hex = f == TovakField::hex16, size = f == TovakField::size;
            ok = number_word(w, hex ? "log code" : size ? "size" : "number", size,
                             size ? row.limit : f == TovakField::u32 ? UINT32_MAX : 0xffff, hex, args, why);
        } else {
            args->emplace_back(w);
        }
        if (!ok)
            return false;
    }
    return true;
}

static bool check_text(const TovakCommand& row, TovakField field, const std::string& text, std::string* why)
{
    if (text.find('\0') != std::string::npos)
        *why = "a zero byte inside the text";
    else if (text.size() > row.limit)
        *why = "too long: " + std::to_string(text.size()) + " characters, tovakd takes at most " +
               std::to_string(row.limit);
    else if (text.empty() && field != TovakField::text)
        *why = "empty path";
    else if (field == TovakField::out_path && std::count(text.begin(), text.end(), '/') >= 6)
        *why = "tovakd refuses an output path with 6 or more '/' (after it has already moved the modem log there)";
    else
        return true;
    return false;
}

bool tovak_encode(const TovakCommand& row, const TovakArgs& args, tovak_pkt* req, std::string* why)
{
    Writer w(req, row.id);
    why->clear();
    for (size_t i = 0; i < 2 && row.fields[i] != TovakField::none; i++) {
        if (i >= args.size()) {
            *why = "missing argument";
            return w.finish(false);
        }
        const TovakArg& a = args[i];
        TovakField f = row.fields[i];
        bool ok;
        if (f == TovakField::u16 || f == TovakField::hex16) {
            ok = a.num >= 0 && w.u16(uint64_t(a.num));
        } else if (f == TovakField::size) {
            ok = a.num >= 1 && uint64_t(a.num) <= row.limit && w.u32(uint64_t(a.num));
            if (!ok)
                *why = "size " + std::to_string(a.num) + ": tovakd takes 1 to " + std::to_string(row.limit) + " bytes";
        } else if (f == TovakField::on_off) {
            ok = w.u32(a.num != 0);
        } else if (f == TovakField::out_path) {
            ok = check_text(row, f, a.text, why) && w.text(a.text);
        } else if (f == TovakField::text || f == TovakField::device_path) {
            ok = check_text(row, f, a.text, why) && w.u16(a.text.size() + 1) && w.text(a.text);
        } else {
            ok = a.num >= 0 && w.u32(uint64_t(a.num));
        }
        if (!ok) {
            if (why->empty())
                *why = "argument " + std::to_string(i + 1) + " does not fit its field";
            return w.finish(false);
        }
    }
    return w.finish(true);
}

bool tovak_req_counted_text(tovak_pkt* req, uint32_t cmd, const std::string& text, size_t max)
{
    Writer w(req, cmd);
    return w.finish(text.size() <= max && text.size() < 0x7fff && w.u16(text.size() + 1) && w.text(text));
}

bool tovak_req_raw(tovak_pkt* req, uint32_t cmd, const std::vector<uint8_t>& payload)
{
    Writer w(req, cmd);
    return w.finish(w.bytes(payload.data(), payload.size()));
}

// JSON.

std::string tovak_json_string(const std::string& text)
{
    std::string out = "\"";
    for (unsigned char c : text) {
        // Device texts need not be UTF-8: bytes beyond ASCII are escaped by value.
        if (c == '"' || c == '\\' || c < 0x20 || c >= 0x7f) {
            char buf[8];
            snprintf(buf, sizeof buf, c == '"' || c == '\\' ? "\\%c" : "\\u%04x", c);
            out += buf;
        } else {
            out += char(c);
        }
    }
    return out + "\"";
}

std::string tovak_json_array(const std::vector<std::string>& items)
{
    std::string out = "[";
    for (size_t i = 0; i < items.size(); i++)
        out += (i ? "," : "") + items[i];
    return out + "]";
}

std::string tovak_json_object(const std::vector<std::pair<std::string, std::string>>& members)
{
    std::string out = "{";
    for (size_t i = 0; i < members.size(); i++)
        out.append(i ? "," : "").append(tovak_json_string(members[i].first)).append(":").append(members[i].second);
    return out + "}";
}
