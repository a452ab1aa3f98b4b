// How each kind of reply is read and shown: what the daemon left in the
// reply frame decides the verdict, since replies carry no status word. The
// bytes are unpacked as the command's layout says (protocol/tovak_layouts.h);
// here they are judged.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <functional>
#include <sstream>

#include "tovak_commands.h"

// A reply the handler never touched keeps the length the session preset.
#define UNTOUCHED_LEN TOVAK_PKT_DATA_SIZE

namespace {

// The reply's length, within the frame.
uint32_t length(const tovak_pkt& rsp)
{
    return rsp.len > TOVAK_PKT_DATA_SIZE ? TOVAK_PKT_DATA_SIZE : rsp.len;
}

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
        return then();
    return rsp.len == UNTOUCHED_LEN ? untouched : unexpected(rsp, "expected " + std::to_string(want));
}

// A reply of any length within the frame, which no list fills.
template <class F>
TovakShown within(const tovak_pkt& rsp, F then)
{
    if (rsp.len < UNTOUCHED_LEN)
        return then();
    return rsp.len == UNTOUCHED_LEN ? untouched : unexpected(rsp, "longer than a frame");
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
bool ascending(const std::vector<uint16_t>& ids)
{
    return std::adjacent_find(ids.begin(), ids.end(), std::greater_equal<uint16_t>()) == ids.end();
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
    return fixed(rsp, 0, [] { return done; });
}

TovakShown TovakReplyNoReply::decode(const tovak_pkt& rsp, Out*)
{
    if (rsp.len == UNTOUCHED_LEN)
        return unknown("tovakd never writes a reply to this command, so the reply cannot tell whether it worked");
    return unexpected(rsp, "this command never writes its reply");
}

TovakShown TovakReplyCommitted::decode(const tovak_pkt& rsp, Out*)
{
    return fixed(rsp, 0, [] { return unknown("tovakd answers an empty reply whether or not it committed"); });
}

TovakShown TovakReplyLogOn::decode(const tovak_pkt& rsp, Out*)
{
    return fixed(rsp, 4, [&] {
        return tovak_get_u32(rsp.data) == 0 ? unknown("tovakd answers 4 zero bytes whether or not it worked")
                                            : unexpected(rsp, "expected 4 zero bytes");
    });
}

TovakShown TovakReplyLogOff::decode(const tovak_pkt& rsp, Out* out)
{
    return TovakReplyLogOn::decode(rsp, out);
}

TovakShown TovakReplyStatus::decode(const tovak_pkt& rsp, Out*)
{
    return fixed(rsp, 4, [&] {
        int32_t v = int32_t(tovak_get_u32(rsp.data));
        return v == 0    ? done
               : v == -1 ? TovakShown{ TovakVerdict::refused, "tovakd answered -1" }
                         : unexpected(rsp, "expected 0 or -1, got " + std::to_string(v));
    });
}

TovakShown TovakReplyLogSize::decode(const tovak_pkt& rsp, Out* size)
{
    return fixed(rsp, 4, [&] {
        *size = int32_t(tovak_get_u32(rsp.data));
        return *size == -1 ? TovakShown{ TovakVerdict::refused, "tovakd answered -1" } : done;
    });
}

void TovakReplyLogSize::report(const Out& size, const char* key, TovakReport* rep)
{
    report_value(key, std::to_string(size), std::to_string(size), rep);
}

TovakShown TovakReplyU32::decode(const tovak_pkt& rsp, Out* value)
{
    return fixed(rsp, 4, [&] {
        *value = tovak_get_u32(rsp.data);
        return done;
    });
}

void TovakReplyU32::report(const Out& value, const char* key, TovakReport* rep)
{
    report_value(key, std::to_string(value), std::to_string(value), rep);
}

TovakShown TovakReplyFlag::decode(const tovak_pkt& rsp, Out* on)
{
    return fixed(rsp, 4, [&] {
        uint32_t v = tovak_get_u32(rsp.data);
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
    return fixed(rsp, 8, [&] {
        pair->first = tovak_get_u32(rsp.data);
        pair->second = tovak_get_u32(rsp.data + 4);
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
    return list_verdict(rsp, tovak_unpack_ids(rsp.data, length(rsp), ids) && ascending(*ids));
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
    bool well_formed = tovak_unpack_msgs(rsp.data, length(rsp), msgs);
    for (size_t i = 0; well_formed && i < msgs->size(); i++)
        well_formed = (i == 0 || (*msgs)[i - 1].ssid < (*msgs)[i].ssid) && (*msgs)[i].mask <= 0xffff;
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
    return within(rsp, [&] {
        return tovak_unpack_counted_text(rsp.data, rsp.len, path)
                   ? done
                   : unexpected(rsp, "expected a u16 count and that many bytes, one zero-terminated text");
    });
}

void TovakReplyPath::report(const Out& path, const char* key, TovakReport* rep)
{
    rep->text = path + "\n";
    rep->json.emplace_back(key, tovak_json_string(path));
}

TovakShown TovakReplyCategories::decode(const tovak_pkt& rsp, Out* enabled)
{
    return within(rsp, [&] {
        std::vector<uint32_t> values;
        bool well_formed = tovak_unpack_u32s(rsp.data, rsp.len, &values);
        for (uint32_t v : values)
            well_formed = well_formed && v <= 1;
        for (uint32_t v : values)
            enabled->push_back(v == 1);
        return well_formed ? done : unexpected(rsp, "expected u32 values of 0 or 1");
    });
}

void TovakReplyCategories::report(const Out& enabled, const char* key, TovakReport* rep)
{
    std::vector<std::string> lines, json;
    for (size_t i = 0; i < enabled.size(); i++) {
        std::string name =
            int(i) < TOVAK_CAPTURE_STANDARD_CATEGORIES ? std::string(" ") + tovak_capture_category_names[i] : "";
        lines.push_back(std::to_string(i) + name + (enabled[i] ? " on" : " off"));
        json.push_back(enabled[i] ? "true" : "false");
    }
    report_list(key, lines, json, rep);
}

TovakShown TovakReplyNames::decode(const tovak_pkt& rsp, Out* names)
{
    return within(rsp, [&] {
        std::string text;
        if (!tovak_unpack_text(rsp.data, rsp.len, &text))
            return unexpected(rsp, "expected one zero-terminated text");
        std::istringstream in(text);
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
    return list_verdict(rsp, tovak_unpack_dpl_ifaces(rsp.data, length(rsp), ifaces));
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
    return list_verdict(rsp, tovak_unpack_counted_ids(rsp.data, length(rsp), ids) && ascending(*ids));
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
