#include "logger.h"

#include <time.h>

#include <cstdio>
#include <cstring>

#include "le.h"
#include "sim_link.h"

static const char* const BUFFER_NAMES[LOG_ID_COUNT] = { "main", "radio", "events", "system" };

const char* log_buffer_name(int id)
{
    return id >= 0 && id < LOG_ID_COUNT ? BUFFER_NAMES[id] : "?";
}

int log_buffer_id(const std::string& name)
{
    for (int i = 0; i < LOG_ID_COUNT; i++)
        if (name == BUFFER_NAMES[i])
            return i;
    return -1;
}

std::vector<uint8_t> logger_entry_bytes(const LogEntry& e)
{
    const size_t max_payload = LOGGER_ENTRY_MAX_LEN - LOGGER_ENTRY_HEADER;
    std::string tag = e.tag.substr(0, max_payload / 2);
    size_t room = max_payload - 1 - tag.size() - 1 - 1;
    std::string msg = e.msg.substr(0, room);
    uint16_t len = uint16_t(1 + tag.size() + 1 + msg.size() + 1);
    std::vector<uint8_t> out;
    out.reserve(LOGGER_ENTRY_HEADER + len);
    put_u16(out, len);
    put_u16(out, 0);
    put_u32(out, uint32_t(e.pid));
    put_u32(out, uint32_t(e.tid));
    put_u32(out, uint32_t(e.sec));
    put_u32(out, uint32_t(e.nsec));
    out.push_back(e.prio);
    out.insert(out.end(), tag.begin(), tag.end());
    out.push_back(0);
    out.insert(out.end(), msg.begin(), msg.end());
    out.push_back(0);
    return out;
}

static char prio_letter(uint8_t prio)
{
    static const char letters[] = "??VDIWEFS";
    return prio < sizeof letters - 1 ? letters[prio] : '?';
}

std::string threadtime_text(const LogEntry& e)
{
    time_t t = e.sec;
    struct tm tm;
    localtime_r(&t, &tm);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%m-%d %H:%M:%S", &tm);
    char prefix[96];
    snprintf(prefix, sizeof prefix, "%s.%03d %5d %5d %c %-8s: ", stamp, int(e.nsec / 1000000), int(e.pid),
             int(e.tid), prio_letter(e.prio), e.tag.c_str());
    std::string msg = e.msg;
    while (!msg.empty() && msg.back() == '\n')
        msg.pop_back();
    std::string out;
    size_t start = 0;
    for (;;) {
        size_t nl = msg.find('\n', start);
        out += prefix;
        out.append(msg, start, nl == std::string::npos ? std::string::npos : nl - start);
        out += '\n';
        if (nl == std::string::npos)
            break;
        start = nl + 1;
    }
    return out;
}

bool parse_logdw(const uint8_t* data, size_t len, int32_t pid, LogEntry* e, int* buffer)
{
    if (len < SIM_LOGDW_HEADER + 2 || data[0] >= LOG_ID_COUNT)
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

void LogQueue::push(std::vector<uint8_t> entry)
{
    received_++;
    bytes_ += entry.size();
    q_.push_back(std::move(entry));
    while (bytes_ > max_bytes_ && !q_.empty()) {
        bytes_ -= q_.front().size();
        q_.pop_front();
        dropped_++;
    }
}

void LogQueue::pop()
{
    bytes_ -= q_.front().size();
    q_.pop_front();
    written_++;
}
