#include "logger.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "le.h"
#include "sim_link.h"

static const char* const BUFFER_NAMES[LOG_BUFFER_COUNT] = { "main", "radio", "events", "system" };

const char* log_buffer_name(int id)
{
    return id >= 0 && id < LOG_BUFFER_COUNT ? BUFFER_NAMES[id] : "?";
}

int log_buffer_id(const std::string& name)
{
    for (int i = 0; i < LOG_BUFFER_COUNT; i++)
        if (name == BUFFER_NAMES[i])
            return i;
    return -1;
}

void logger_entry_append(std::vector<uint8_t>& out, const LogEntry& e)
{
    const size_t max_payload = LOGGER_ENTRY_MAX_LEN - LOGGER_ENTRY_HEADER;
    size_t tag_len = 0, msg_len = 0, len;
    if (!e.binary.empty()) {
        len = std::min(e.binary.size(), max_payload);
    } else {
        tag_len = std::min(e.tag.size(), max_payload / 2);
        msg_len = std::min(e.msg.size(), max_payload - 1 - tag_len - 1 - 1);
        len = 1 + tag_len + 1 + msg_len + 1;
    }
    put_u16(out, uint16_t(len));
    put_u16(out, 0);
    put_u32(out, uint32_t(e.pid));
    put_u32(out, uint32_t(e.tid));
    put_u32(out, uint32_t(e.sec));
    put_u32(out, uint32_t(e.nsec));
    if (!e.binary.empty()) {
        out.insert(out.end(), e.binary.begin(), e.binary.begin() + ptrdiff_t(len));
        return;
    }
    out.push_back(e.prio);
    out.insert(out.end(), e.tag.begin(), e.tag.begin() + ptrdiff_t(tag_len));
    out.push_back(0);
    out.insert(out.end(), e.msg.begin(), e.msg.begin() + ptrdiff_t(msg_len));
    out.push_back(0);
}

std::vector<uint8_t> logger_entry_bytes(const LogEntry& e)
{
    std::vector<uint8_t> out;
    logger_entry_append(out, e);
    return out;
}

static char prio_letter(uint8_t prio)
{
    static const char letters[] = "??VDIWEFS";
    return prio < sizeof letters - 1 ? letters[prio] : '?';
}

void threadtime_append(std::string& out, const LogEntry& e)
{
    // One local-time conversion a second: floods write hundreds of
    // thousands of lines a second.
    static thread_local int32_t cached_sec = -1;
    static thread_local char stamp[32];
    if (e.sec != cached_sec) {
        time_t t = e.sec;
        struct tm tm;
        localtime_r(&t, &tm);
        strftime(stamp, sizeof stamp, "%m-%d %H:%M:%S", &tm);
        cached_sec = e.sec;
    }
    char prefix[96];
    int n = snprintf(prefix, sizeof prefix, "%s.%03d %5d %5d %c %-8s: ", stamp, int(e.nsec / 1000000), int(e.pid),
                     int(e.tid), prio_letter(e.prio), e.tag.c_str());
    const size_t plen = n < 0 ? 0 : std::min(size_t(n), sizeof prefix - 1);
    size_t end = e.msg.size();
    while (end > 0 && e.msg[end - 1] == '\n')
        end--;
    size_t start = 0;
    for (;;) {
        size_t nl = e.msg.find('\n', start);
        if (nl == std::string::npos || nl > end)
            nl = end;
        out.append(prefix, plen);
        out.append(e.msg, start, nl - start);
        out += '\n';
        if (nl >= end)
            break;
        start = nl + 1;
    }
}

std::string threadtime_text(const LogEntry& e)
{
    std::string out;
    threadtime_append(out, e);
    return out;
}

bool parse_logdw(const uint8_t* data, size_t len, int32_t pid, LogEntry* e, int* buffer)
{
    if (len < SIM_LOGDW_HEADER + 2 || data[0] >= LOG_BUFFER_COUNT)
        return false;
    *buffer = data[0];
    e->pid = pid;
    e->tid = get_u16(data + 1);
    e->sec = int32_t(get_u32(data + 3));
    e->nsec = int32_t(get_u32(data + 7));
    if (uint32_t(e->nsec) >= 1000000000u)
        return false;
    const char* p = reinterpret_cast<const char*>(data + SIM_LOGDW_HEADER);
    const char* end = reinterpret_cast<const char*>(data + len);
    e->prio = uint8_t(*p++);
    const char* tag_end = static_cast<const char*>(memchr(p, 0, size_t(end - p)));
    if (tag_end == nullptr)
        return false;
    e->tag.assign(p, tag_end);
    p = tag_end + 1;
    const char* msg_end = static_cast<const char*>(memchr(p, 0, size_t(end - p)));
    e->msg.assign(p, msg_end ? msg_end : end);
    return true;
}

std::vector<uint8_t> make_logdw(int buffer, const LogEntry& e)
{
    std::vector<uint8_t> out;
    out.push_back(uint8_t(buffer));
    put_u16(out, uint16_t(e.tid));
    put_u32(out, uint32_t(e.sec));
    put_u32(out, uint32_t(e.nsec));
    out.push_back(e.prio);
    out.insert(out.end(), e.tag.begin(), e.tag.end());
    out.push_back(0);
    out.insert(out.end(), e.msg.begin(), e.msg.end());
    out.push_back(0);
    return out;
}

void LogQueue::push(const uint8_t* entry, size_t len)
{
    received_++;
    data_.insert(data_.end(), entry, entry + len);
    sizes_.push_back(uint32_t(len));
    // The oldest whole entries go; one the FIFO has begun must end first.
    while (bytes() > max_bytes_ && sizes_.size() > 1 && front_sent_ == 0) {
        head_ += sizes_.front();
        sizes_.pop_front();
        dropped_++;
    }
    if (head_ > 65536 && head_ > data_.size() / 2) {
        data_.erase(data_.begin(), data_.begin() + ptrdiff_t(head_));
        head_ = 0;
    }
}

void LogQueue::consume(size_t n)
{
    while (n > 0) {
        size_t rest = sizes_.front() - front_sent_;
        if (n < rest) {
            front_sent_ += n;
            head_ += n;
            return;
        }
        n -= rest;
        head_ += rest;
        front_sent_ = 0;
        sizes_.pop_front();
        written_++;
    }
}

bool LogQueue::flush(int fd)
{
    while (!empty()) {
        ssize_t n = write(fd, data_.data() + head_, std::min<size_t>(bytes(), 1 << 16));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return errno == EAGAIN;
        consume(size_t(n));
    }
    data_.clear();
    head_ = 0;
    return true;
}

void LogQueue::discard()
{
    size_t keep = front_sent_ > 0 ? sizes_.front() - front_sent_ : 0;
    while (sizes_.size() > (keep ? 1u : 0u)) {
        sizes_.pop_back();
        dropped_++;
    }
    data_.resize(head_ + keep);
}
