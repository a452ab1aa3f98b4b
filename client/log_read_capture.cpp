// Android log capture files: logger entries one after another, each a
// header (u16 payload length, u16 header size or 0 for 20 bytes, pid, tid,
// seconds, nanoseconds, and in larger headers more) and its payload.
#include <cstring>
#include <ctime>
#include <sstream>

#include "log_read.h"

namespace {

#define ENTRY_HEADER_V1 20
#define ENTRY_HEADER_MAX 100
#define ENTRY_PAYLOAD_MAX 5120

enum { EV_INT = 0, EV_LONG = 1, EV_STRING = 2, EV_LIST = 3, EV_FLOAT = 4 };

uint32_t u32at(const uint8_t* p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// The header size an entry at p declares, or 0 when it cannot be one.
size_t header_of(const uint8_t* p)
{
    const size_t len = size_t(p[0] | p[1] << 8), hdr = size_t(p[2] | p[3] << 8);
    if (len == 0 || len > ENTRY_PAYLOAD_MAX)
        return 0;
    if (hdr == 0)
        return ENTRY_HEADER_V1;
    return hdr >= ENTRY_HEADER_V1 && hdr <= ENTRY_HEADER_MAX ? hdr : 0;
}

bool values(const uint8_t* p, size_t len, size_t* at, int depth, std::string& out)
{
    if (*at >= len || depth > 8)
        return false;
    const uint8_t type = p[(*at)++];
    char buf[48];
    switch (type) {
    case EV_INT:
        if (len - *at < 4)
            return false;
        out += std::to_string(int32_t(u32at(p + *at)));
        *at += 4;
        return true;
    case EV_LONG:
        if (len - *at < 8)
            return false;
        out += std::to_string(int64_t(uint64_t(u32at(p + *at)) | uint64_t(u32at(p + *at + 4)) << 32));
        *at += 8;
        return true;
    case EV_FLOAT: {
        if (len - *at < 4)
            return false;
        uint32_t bits = u32at(p + *at);
        float f;
        memcpy(&f, &bits, sizeof f);
        snprintf(buf, sizeof buf, "%f", double(f));
        out += buf;
        *at += 4;
        return true;
    }
    case EV_STRING: {
        if (len - *at < 4)
            return false;
        const size_t n = u32at(p + *at);
        *at += 4;
        if (len - *at < n)
            return false;
        out.append(reinterpret_cast<const char*>(p + *at), n);
        *at += n;
        return true;
    }
    case EV_LIST: {
        if (*at >= len)
            return false;
        const unsigned n = p[(*at)++];
        out += '[';
        for (unsigned i = 0; i < n; i++) {
            if (i)
                out += ',';
            if (!values(p, len, at, depth + 1, out))
                return false;
        }
        out += ']';
        return true;
    }
    default:
        return false;
    }
}

} // namespace

std::string lr_event_values(const uint8_t* p, size_t len, size_t* used)
{
    std::string out;
    size_t at = 0;
    if (!values(p, len, &at, 0, out))
        out += " [undecodable from byte " + std::to_string(at) + "]";
    if (used)
        *used = at;
    return out;
}

bool lr_looks_like_capture(const uint8_t* data, size_t len)
{
    // Two entries in a row that hold together, or one that ends the file.
    size_t at = 0;
    for (int i = 0; i < 2; i++) {
        if (len - at < 4)
            return i > 0 && at == len;
        const size_t hdr = header_of(data + at);
        if (hdr == 0)
            return false;
        at += hdr + size_t(data[at] | data[at + 1] << 8);
        if (at > len)
            return i > 0;
    }
    return true;
}

void LrCaptureReader::feed(const uint8_t* data, size_t len)
{
    if (dead_) {
        pos_ += len;
        return;
    }
    buf_.insert(buf_.end(), data, data + len);
    size_t at = 0;
    while (buf_.size() - at >= 4) {
        const size_t hdr = header_of(&buf_[at]);
        if (hdr == 0) {
            LrLogEntry e;
            e.offset = pos_ + at;
            e.problem = "not a logger entry; the rest of the file is skipped";
            sink_(e);
            pos_ += buf_.size();
            buf_.clear();
            dead_ = true;
            return;
        }
        const size_t total = hdr + size_t(buf_[at] | buf_[at + 1] << 8);
        if (buf_.size() - at < total)
            break;
        entry(&buf_[at], total, hdr);
        at += total;
    }
    buf_.erase(buf_.begin(), buf_.begin() + ptrdiff_t(at));
    pos_ += at;
}

void LrCaptureReader::finish()
{
    if (!buf_.empty()) {
        LrLogEntry e;
        e.offset = pos_;
        e.problem = "entry runs past the end of the file";
        sink_(e);
        pos_ += buf_.size();
        buf_.clear();
    }
}

void LrCaptureReader::entry(const uint8_t* p, size_t len, size_t hdr)
{
    LrLogEntry e;
    e.offset = pos_ + size_t(p - buf_.data());
    e.pid = int32_t(u32at(p + 4));
    e.tid = int32_t(u32at(p + 8));
    e.sec = u32at(p + 12);
    e.nsec = u32at(p + 16);
    const uint8_t* q = p + hdr;
    const size_t n = len - hdr;
    if (events_) {
        e.binary = true;
        if (n < 4) {
            e.problem = "event shorter than its tag";
        } else {
            e.tag = std::to_string(u32at(q));
            size_t used = 0;
            e.msg = lr_event_values(q + 4, n - 4, &used);
            if (used != n - 4)
                e.problem = "event values do not fill the entry";
        }
        sink_(e);
        return;
    }
    e.prio = q[0];
    const char* text = reinterpret_cast<const char*>(q + 1);
    const size_t tag_len = strnlen(text, n - 1);
    e.tag.assign(text, tag_len);
    if (tag_len + 1 >= n) {
        e.problem = "no message after the tag";
    } else {
        const char* msg = text + tag_len + 1;
        e.msg.assign(msg, strnlen(msg, n - 2 - tag_len));
    }
    sink_(e);
}

std::map<uint32_t, std::string> lr_event_tags(const std::string& text)
{
    std::map<uint32_t, std::string> tags;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string number, name;
        if (!(words >> number >> name) || number[0] < '0' || number[0] > '9')
            continue;
        char* end = nullptr;
        const unsigned long long n = strtoull(number.c_str(), &end, 10);
        if (*end == '\0' && n <= 0xFFFFFFFFull)
            tags[uint32_t(n)] = name;
    }
    return tags;
}

std::string lr_threadtime(const LrLogEntry& e)
{
    static const char letters[] = "??VDIWEFS";
    char stamp[32] = "";
    time_t t = time_t(e.sec);
    struct tm tm;
    if (localtime_r(&t, &tm))
        strftime(stamp, sizeof stamp, "%m-%d %H:%M:%S", &tm);
    char prefix[160];
    const char letter = e.binary ? 'I' : e.prio < sizeof letters - 1 ? letters[e.prio] : '?';
    snprintf(prefix, sizeof prefix, "%s.%03u %5d %5d %c %-8s: ", stamp, unsigned(e.nsec / 1000000 % 1000), int(e.pid),
             int(e.tid), letter, e.tag.c_str());
    std::string out;
    size_t end = e.msg.size();
    while (end > 0 && e.msg[end - 1] == '\n')
        end--;
    size_t start = 0;
    for (;;) {
        size_t nl = e.msg.find('\n', start);
        if (nl == std::string::npos || nl > end)
            nl = end;
        out += prefix;
        out.append(e.msg, start, nl - start);
        out += '\n';
        if (nl >= end)
            break;
        start = nl + 1;
    }
    return out;
}
