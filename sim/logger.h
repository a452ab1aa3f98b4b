// The simulated logger: entries as logd receives them on logdw, as the
// kernel logger hands them to readers of /dev/log/*, and as logcat prints
// them in its threadtime format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

enum LogBufferId { LOG_ID_MAIN = 0, LOG_ID_RADIO = 1, LOG_ID_EVENTS = 2, LOG_ID_SYSTEM = 3, LOG_ID_COUNT = 4 };

const char* log_buffer_name(int id);
// -1 for an unknown name.
int log_buffer_id(const std::string& name);

struct LogEntry {
    int32_t pid = 0;
    int32_t tid = 0;
    int32_t sec = 0;
    int32_t nsec = 0;
    uint8_t prio = 0;
    std::string tag;
    std::string msg;
};

// Largest entry a reader gets in one piece: a pipe writes it atomically.
#define LOGGER_ENTRY_MAX_LEN 4096
#define LOGGER_ENTRY_HEADER 20

// u16 payload length, u16 padding, i32 pid, i32 tid, i32 sec, i32 nsec,
// then priority, tag, NUL, message, NUL. Over-long messages are cut.
std::vector<uint8_t> logger_entry_bytes(const LogEntry& e);
// "MM-DD HH:MM:SS.mmm  PID  TID P TAG     : message", one line per line of
// the message, in local time.
std::string threadtime_text(const LogEntry& e);

// A logdw datagram; false when it is malformed.
bool parse_logdw(const uint8_t* data, size_t len, int32_t pid, LogEntry* e, int* buffer);
std::vector<uint8_t> make_logdw(int buffer, const LogEntry& e);

// A bounded queue of entries for one buffer: the oldest go when it is full.
class LogQueue {
public:
    explicit LogQueue(size_t max_bytes = 256 * 1024)
        : max_bytes_(max_bytes)
    {
    }
    void push(std::vector<uint8_t> entry);
    bool empty() const { return q_.empty(); }
    const std::vector<uint8_t>& front() const { return q_.front(); }
    void pop();
    size_t entries() const { return q_.size(); }
    size_t bytes() const { return bytes_; }
    uint64_t dropped() const { return dropped_; }
    uint64_t written() const { return written_; }
    uint64_t received() const { return received_; }

private:
    size_t max_bytes_;
    std::deque<std::vector<uint8_t>> q_;
    size_t bytes_ = 0;
    uint64_t dropped_ = 0;
    uint64_t written_ = 0;
    uint64_t received_ = 0;
};
