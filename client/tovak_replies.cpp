// How each kind of reply is read and shown: what the daemon left in the
// reply frame decides the verdict, since replies carry no status word. A
// little over the usual length: one short decoder per kind of reply.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "protocol/byte_buffer.h"
#include "tovak_commands.h"

// A reply the handler never touched keeps the length the session preset.
#define UNTOUCHED_LEN TOVAK_PKT_DATA_SIZE

namespace {

// Every access is bounds-checked before the byte buffer sees it: the buffer
// prints a line on stdout when it refuses, which would land in a client's
// own output.
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
template <class F>
TovakShown fixed(const tovak_pkt& rsp, uint32_t want, F then)
{
    if (rsp.len == want)
        return then(Reader(rsp));
    return rsp.len == UNTOUCHED_LEN ? untouched : unexpected(rsp, "expected " + std::to_string(want));
}

// A reply of any length within the frame, which no list fills.
template <class F>
TovakShown within(const tovak_pkt& rsp, F then)
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

} // namespace

// Replies.

#define NOTHING_TO_REPORT(kind)                                          \
    void TovakReply##kind::report(const Out&, const char*, TovakReport*) \
    {                                                                    \
    }
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
        return v == 0    ? done
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
        std::string name = i < 4 ? std::string(" ") + tovak_category_names[i] : "";
        lines.push_back(std::to_string(i) + name + (enabled[i] ? " on" : " off"));
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
        json.push_back(
            tovak_json_object({ { "id", std::to_string(i.id) }, { "description", tovak_json_string(i.desc) } }));
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
