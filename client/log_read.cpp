#include "log_read.h"

#include <algorithm>
#include <cstring>

#include "log_read_names.h"

namespace {

// Larger than any diag packet; a longer run without a flag is no frame.
const size_t MAX_FRAME = 1 << 17;

// CRC-16/X-25, byte at a time: logs run to hundreds of megabytes.
struct Crc {
    uint16_t t[256];
    Crc()
    {
        for (unsigned b = 0; b < 256; b++) {
            uint16_t c = uint16_t(b);
            for (int i = 0; i < 8; i++)
                c = (c & 1) ? uint16_t((c >> 1) ^ 0x8408) : uint16_t(c >> 1);
            t[b] = c;
        }
    }
    uint16_t of(const uint8_t* p, size_t n) const
    {
        uint16_t c = 0xFFFF;
        for (size_t i = 0; i < n; i++)
            c = uint16_t((c >> 8) ^ t[(c ^ p[i]) & 0xFF]);
        return uint16_t(c ^ 0xFFFF);
    }
};
const Crc crc;

uint16_t u16at(const uint8_t* p)
{
    return uint16_t(p[0] | p[1] << 8);
}
uint32_t u32at(const uint8_t* p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
uint64_t u64at(const uint8_t* p)
{
    return uint64_t(u32at(p)) | uint64_t(u32at(p + 4)) << 32;
}

} // namespace

const char* lr_kind_name(LrKind k)
{
    switch (k) {
    case LrKind::log:
        return "log";
    case LrKind::event:
        return "event";
    case LrKind::message:
        return "message";
    case LrKind::other:
        return "other";
    case LrKind::bad:
        return "bad";
    }
    return "?";
}

int lr_kind_by_name(const std::string& word)
{
    for (LrKind k : { LrKind::log, LrKind::event, LrKind::message, LrKind::other, LrKind::bad })
        if (word == lr_kind_name(k))
            return int(k);
    return -1;
}

int64_t lr_stamp_us(uint64_t stamp)
{
    // GPS time without leap seconds, as the modem keeps it; whole
    // microseconds, so that times print as they were taken.
    return 315964800ll * 1000000 + int64_t((stamp >> 16) * 1250);
}

void LrDiagReader::feed(const uint8_t* data, size_t len)
{
    const uint8_t* end = data + len;
    while (data < end) {
        const uint8_t* flag = static_cast<const uint8_t*>(memchr(data, 0x7E, size_t(end - data)));
        const uint8_t* stop = flag ? flag : end;
        for (const uint8_t* p = data; p < stop; p++) {
            if (pkt_.size() >= MAX_FRAME) {
                overlong_ = true;
                break;
            }
            if (escaped_) {
                pkt_.push_back(uint8_t(*p ^ 0x20));
                escaped_ = false;
            } else if (*p == 0x7D) {
                escaped_ = true;
            } else {
                pkt_.push_back(*p);
            }
        }
        pos_ += uint64_t(stop - data);
        if (flag == nullptr)
            break;
        frame_done();
        pos_++;
        start_ = pos_;
        data = flag + 1;
    }
}

void LrDiagReader::finish()
{
    if (!pkt_.empty() || escaped_ || overlong_) {
        bad("runs past the end of the file");
        pkt_.clear();
        escaped_ = overlong_ = false;
    }
}

void LrDiagReader::bad(const char* why)
{
    rec_ = LrRecord();
    rec_.kind = LrKind::bad;
    rec_.offset = start_;
    rec_.problem = why;
    rec_.body = pkt_.data();
    rec_.body_len = pkt_.size();
    frames_++;
    sink_(rec_);
}

void LrDiagReader::frame_done()
{
    if (overlong_)
        bad("frame too long: no flag within 128 KiB");
    else if (escaped_)
        bad("frame ends inside an escape");
    else if (pkt_.empty())
        ; // flags in a row: no frame between them
    else if (pkt_.size() < 3)
        bad("frame too short for a checksum");
    else if (crc.of(pkt_.data(), pkt_.size() - 2) != u16at(&pkt_[pkt_.size() - 2]))
        bad("bad checksum");
    else {
        frames_++;
        packet(pkt_.data(), pkt_.size() - 2);
    }
    pkt_.clear();
    escaped_ = overlong_ = false;
}

void LrDiagReader::packet(const uint8_t* p, size_t len)
{
    rec_ = LrRecord();
    rec_.offset = start_;
    rec_.cmd = p[0];
    auto bad_length = [&](const char* why) {
        rec_.kind = LrKind::bad;
        rec_.problem = why;
        rec_.body = p;
        rec_.body_len = len;
        sink_(rec_);
    };
    switch (p[0]) {
    case 0x10: // log packet: two copies of its length, code, stamp, body
        if (len < 16 || u16at(p + 2) != len - 4 || u16at(p + 4) != len - 4)
            return bad_length("log packet: bad length");
        rec_.kind = LrKind::log;
        rec_.code = u16at(p + 6);
        rec_.has_time = true;
        rec_.stamp = last_stamp_ = u64at(p + 8);
        rec_.body = p + 16;
        rec_.body_len = len - 16;
        sink_(rec_);
        return;
    case 0x60: { // event report: one or more events
        if (len < 3 || u16at(p + 1) != len - 3)
            return bad_length("event report: bad length");
        size_t at = 3;
        while (at < len) {
            if (len - at < 2)
                return bad_length("event runs past its report");
            const uint16_t w = u16at(p + at);
            at += 2;
            const size_t stamp_len = (w & 0x8000) ? 2 : 8;
            if (len - at < stamp_len)
                return bad_length("event runs past its report");
            uint64_t stamp = last_stamp_;
            if (stamp_len == 8)
                stamp = u64at(p + at);
            else // only bits 16-31 of the full stamp
                stamp = (stamp & ~uint64_t(0xFFFF0000)) | uint64_t(u16at(p + at)) << 16;
            at += stamp_len;
            size_t plen = (w >> 13) & 3;
            if (plen == 3) {
                if (at >= len)
                    return bad_length("event runs past its report");
                plen = p[at++];
            }
            if (len - at < plen)
                return bad_length("event runs past its report");
            rec_.kind = LrKind::event;
            rec_.event_id = w & 0x0FFF;
            rec_.has_time = true;
            rec_.stamp = last_stamp_ = stamp;
            rec_.body = p + at;
            rec_.body_len = plen;
            sink_(rec_);
            at += plen;
        }
        return;
    }
    case 0x79: { // extended message: header, arguments, format, file
        if (len < 20)
            return bad_length("message: shorter than its header");
        const size_t nargs = p[2];
        if (len - 20 < nargs * 4)
            return bad_length("message: arguments run past the packet");
        rec_.kind = LrKind::message;
        rec_.has_time = true;
        rec_.stamp = last_stamp_ = u64at(p + 4);
        rec_.line = u16at(p + 12);
        rec_.ssid = u16at(p + 14);
        rec_.level_mask = u32at(p + 16);
        uint32_t args[255];
        for (size_t i = 0; i < nargs; i++)
            args[i] = u32at(p + 20 + 4 * i);
        const char* fmt = reinterpret_cast<const char*>(p + 20 + nargs * 4);
        const size_t room = len - 20 - nargs * 4;
        const size_t flen = strnlen(fmt, room);
        rec_.text = lr_format_message(fmt, flen, args, nargs, &rec_.problem);
        if (flen == room) {
            rec_.problem += rec_.problem.empty() ? "" : "; ";
            rec_.problem += "no file name";
        } else {
            const char* file = fmt + flen + 1;
            rec_.file.assign(file, strnlen(file, room - flen - 1));
        }
        rec_.body = p + 20;
        rec_.body_len = len - 20;
        sink_(rec_);
        return;
    }
    default:
        rec_.kind = LrKind::other;
        rec_.body = p + 1;
        rec_.body_len = len - 1;
        sink_(rec_);
    }
}

std::string lr_format_message(const char* fmt, size_t fmt_len, const uint32_t* args, size_t nargs, std::string* problem)
{
    std::string out;
    size_t next = 0, missing = 0;
    bool string_arg = false, write_arg = false, odd = false;
    auto take = [&](uint32_t* v) {
        if (next < nargs) {
            *v = args[next++];
            return true;
        }
        missing++;
        return false;
    };
    for (size_t i = 0; i < fmt_len; i++) {
        if (fmt[i] != '%') {
            out += fmt[i];
            continue;
        }
        const size_t begin = i++;
        std::string flags;
        while (i < fmt_len && strchr("-+ #0", fmt[i]) && fmt[i] != '\0')
            flags += fmt[i++];
        int width = 0, prec = -1;
        bool ok = true;
        uint32_t v = 0;
        // A width or precision: '*' takes an argument, digits are capped.
        auto amount = [&](int* out) {
            if (i < fmt_len && fmt[i] == '*') {
                ok = take(&v) && ok;
                *out = int(int32_t(v));
                i++;
                return;
            }
            int n = 0;
            while (i < fmt_len && fmt[i] >= '0' && fmt[i] <= '9')
                n = std::min(n * 10 + (fmt[i++] - '0'), 1000);
            *out = n;
        };
        amount(&width);
        if (i < fmt_len && fmt[i] == '.') {
            i++;
            amount(&prec);
        }
        // Arguments are 32-bit words: a long long takes two, low first.
        int longs = 0;
        while (i < fmt_len && strchr("hlLqjzt", fmt[i]) && fmt[i] != '\0')
            longs += fmt[i++] == 'l' ? 1 : 0;
        if (i >= fmt_len) {
            out.append(fmt + begin, fmt_len - begin);
            odd = true;
            break;
        }
        const char conv = fmt[i];
        const std::string conversion(fmt + begin, i + 1 - begin);
        // Keep what a hostile width could blow up within reason.
        width = std::max(-64, std::min(width, 64));
        prec = std::min(prec, 64);
        char buf[160];
        switch (conv) {
        case '%':
            out += '%';
            break;
        case 'd':
        case 'i':
        case 'u':
        case 'x':
        case 'X':
        case 'o':
        case 'c':
        case 'p': {
            uint64_t value = 0;
            ok = take(&v) && ok;
            value = v;
            if (longs >= 2) {
                ok = take(&v) && ok;
                value |= uint64_t(v) << 32;
            }
            if (!ok) {
                out += conversion;
                break;
            }
            if (conv == 'p') {
                snprintf(buf, sizeof buf, "0x%08x", unsigned(value));
                out += buf;
                break;
            }
            // Precision only when given: it would cancel the 0 flag.
            const std::string f = "%" + flags + "*" + (prec >= 0 ? ".*" : "") + (conv == 'c' ? "" : "ll") + conv;
            const bool is_signed = conv == 'd' || conv == 'i';
            const long long sv = longs >= 2 ? (long long)(int64_t(value)) : (long long)(int32_t(uint32_t(value)));
            const unsigned long long uv = value;
            if (conv == 'c')
                snprintf(buf, sizeof buf, "%*c", width, int(uint8_t(value)));
            else if (prec < 0 && is_signed)
                snprintf(buf, sizeof buf, f.c_str(), width, sv);
            else if (prec < 0)
                snprintf(buf, sizeof buf, f.c_str(), width, uv);
            else if (is_signed)
                snprintf(buf, sizeof buf, f.c_str(), width, prec, sv);
            else
                snprintf(buf, sizeof buf, f.c_str(), width, prec, uv);
            out += buf;
            break;
        }
        case 's':
        case 'n':
            // Modem memory we cannot read, or a write: shown, never done.
            take(&v);
            (conv == 's' ? string_arg : write_arg) = true;
            out += conversion;
            break;
        default:
            take(&v);
            odd = true;
            out += conversion;
        }
    }
    std::string why;
    auto note = [&](const std::string& s) { why += (why.empty() ? "" : "; ") + s; };
    if (missing)
        note("format asks for " + std::to_string(missing) + " more argument" + (missing > 1 ? "s" : "") +
             " than the message carries");
    if (string_arg)
        note("%s: a string of the modem's memory, not in the log");
    if (write_arg)
        note("%n: not done");
    if (odd)
        note("unknown conversion");
    if (problem)
        *problem = why;
    return out;
}

namespace {

// The file as the daemon reads it: lines that begin with '#' dropped, the
// others cut at their first '#'.
std::vector<std::string> kept_lines(const std::string& text)
{
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        const size_t nl = std::min(text.find('\n', at), text.size());
        const void* hash = memchr(text.data() + at, '#', nl - at);
        if (hash != text.data() + at)
            lines.push_back(text.substr(at, (hash ? size_t(static_cast<const char*>(hash) - text.data()) : nl) - at));
        at = nl + 1;
    }
    return lines;
}

// An element's value as the daemon takes it: from its first open tag, over
// lines joined with nothing, to the close tag (looked for from the start of
// each line).
std::string element(const std::vector<std::string>& lines, const std::string& tag, bool* found)
{
    const std::string open = "<" + tag + ">", close = "</" + tag + ">";
    size_t i = 0, a = std::string::npos;
    while (i < lines.size() && (a = lines[i].find(open)) == std::string::npos)
        i++;
    if (i == lines.size())
        return "";
    *found = true;
    a += open.size();
    const size_t b = lines[i].find(close);
    if (b != std::string::npos)
        return lines[i].substr(a, b >= a ? b - a : std::string::npos);
    std::string value = lines[i].substr(a);
    for (i++; i < lines.size(); i++) {
        const size_t end = lines[i].find(close);
        value.append(lines[i], 0, end);
        if (end != std::string::npos)
            break;
    }
    return value;
}

std::vector<std::string> tokens(const std::string& s)
{
    std::vector<std::string> out;
    size_t i = 0;
    while (i < s.size()) {
        size_t j = s.find_first_of(" \t\v\n\r\f,", i);
        if (j == std::string::npos)
            j = s.size();
        if (j > i)
            out.push_back(s.substr(i, j - i));
        i = j + 1;
    }
    return out;
}

uint16_t number(const std::string& t, int base)
{
    const unsigned long v = strtoul(t.c_str(), nullptr, base);
    return uint16_t(v > 0xFFFF ? 0xFFFF : v);
}

// As the daemon reads them: hexadecimal only when a token holds both
// spellings of the prefix (log codes the other way round).
bool both_prefixes(const std::string& t)
{
    return t.find("0x") != std::string::npos && t.find("0X") != std::string::npos;
}

} // namespace

bool lr_parse_config(const std::string& file, LrConfig* cfg)
{
    *cfg = LrConfig();
    const std::vector<std::string> lines = kept_lines(file);
    bool found = false;
    for (const std::string& t : tokens(element(lines, "EventIDs", &found)))
        cfg->events.insert(number(t, both_prefixes(t) ? 16 : 10));
    for (const std::string& t : tokens(element(lines, "LogCodes", &found)))
        cfg->codes.insert(number(t, both_prefixes(t) ? 10 : 16));
    for (const std::string& t : tokens(element(lines, "MessageLevels", &found))) {
        const size_t slash = t.find('/');
        if (slash == std::string::npos)
            continue;
        const std::string a = t.substr(0, slash), b = t.substr(slash + 1);
        const unsigned long level = strtoul(b.c_str(), nullptr, both_prefixes(b) ? 16 : 10);
        if (level < 32)
            cfg->messages.insert({ number(a, both_prefixes(a) ? 16 : 10), uint8_t(level) });
    }
    bool dpl = false;
    // Exactly "on", blanks and all, as the daemon takes it.
    cfg->dpl_on = element(lines, "DplState", &dpl) == "on";
    for (const std::string& t : tokens(element(lines, "IfIDs", &dpl)))
        cfg->ifaces.insert(uint8_t(number(t, both_prefixes(t) ? 16 : 10)));
    return found;
}

void LrSummary::add(const LrRecord& r)
{
    records++;
    if (r.has_time) {
        if (!has_time || r.stamp < first)
            first = r.stamp;
        if (!has_time || r.stamp > last)
            last = r.stamp;
        has_time = true;
    }
    switch (r.kind) {
    case LrKind::log:
        codes[r.code]++;
        if (r.code == LR_DPL_CODE && r.body_len >= 3)
            ifaces[r.body[2]]++;
        break;
    case LrKind::event:
        events[r.event_id]++;
        break;
    case LrKind::message:
        ssids[r.ssid]++;
        for (uint8_t l = 0; l < 32; l++)
            if (r.level_mask >> l & 1)
                messages.insert({ r.ssid, l });
        break;
    case LrKind::other:
        others[r.cmd]++;
        break;
    case LrKind::bad:
        bad++;
        break;
    }
}

LrCheck lr_check(const LrSummary& s, const LrConfig& cfg)
{
    LrCheck c;
    for (uint16_t code : cfg.codes)
        if (!s.codes.count(code))
            c.missing.push_back({ 'L', code, 0 });
    for (uint16_t e : cfg.events)
        if (!s.events.count(e))
            c.missing.push_back({ 'E', e, 0 });
    for (const auto& [ssid, level] : cfg.messages)
        if (!s.messages.count({ ssid, level }))
            c.missing.push_back({ 'M', ssid, level });
    if (cfg.dpl_on)
        for (uint16_t i : cfg.ifaces)
            if (!s.ifaces.count(i))
                c.missing.push_back({ 'D', i, 0 });
    // DPL records answer to the interface list, not to the log codes.
    for (const auto& [code, n] : s.codes)
        if (code != LR_DPL_CODE && !cfg.codes.count(code))
            c.unconfigured.push_back({ 'L', code, 0 });
    for (const auto& [e, n] : s.events)
        if (!cfg.events.count(e))
            c.unconfigured.push_back({ 'E', e, 0 });
    for (const auto& [ssid, level] : s.messages)
        if (!cfg.messages.count({ ssid, level }))
            c.unconfigured.push_back({ 'M', ssid, level });
    for (const auto& [i, n] : s.ifaces)
        if (!cfg.ifaces.count(i))
            c.unconfigured.push_back({ 'D', i, 0 });
    return c;
}

std::string lr_item_text(const LrItem& i)
{
    char buf[64];
    const char* name = nullptr;
    switch (i.kind) {
    case 'L':
        snprintf(buf, sizeof buf, "log code 0x%04X", i.id);
        name = lr_code_name(i.id);
        break;
    case 'E':
        snprintf(buf, sizeof buf, "event %u", i.id);
        name = lr_event_name(i.id);
        break;
    case 'M':
        snprintf(buf, sizeof buf, "message SSID %u level %u", i.id, i.level);
        break;
    default:
        snprintf(buf, sizeof buf, "DPL interface %u", i.id);
    }
    return name ? std::string(buf) + " (" + name + ")" : std::string(buf);
}
