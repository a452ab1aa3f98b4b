// The simulated logger: entries as logd receives them on logdw, as the
// kernel logger hands them to readers of /dev/log/*, and as logcat prints
// them in its threadtime format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

enum LogBufferId {
    LOG_BUFFER_MAIN = 0,
    LOG_BUFFER_RADIO = 1,
    LOG_BUFFER_EVENTS = 2,
    LOG_BUFFER_SYSTEM = 3,
    LOG_BUFFER_COUNT = 4
};

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
    // An event record: this payload goes to the buffer instead of the
    // priority, tag and message, which only the text form shows.
    std::vector<uint8_t> binary;
};

// Largest entry a reader gets in one piece: a pipe writes it atomically.
#define LOGGER_ENTRY_MAX_LEN 4096
#define LOGGER_ENTRY_HEADER 20

// u16 payload length, u16 padding, i32 pid, i32 tid, i32 sec, i32 nsec,
// then priority, tag, NUL, message, NUL (or the binary payload). Over-long
// messages are cut.
std::vector<uint8_t> logger_entry_bytes(const LogEntry& e);
void logger_entry_append(std::vector<uint8_t>& out, const LogEntry& e);
// "MM-DD HH:MM:SS.mmm  PID  TID P TAG     : message", one line per line of
// the message, in local time.
std::string threadtime_text(const LogEntry& e);
void threadtime_append(std::string& out, const LogEntry& e);

// A logdw datagram; false when it is malformed.
bool parse_logdw(const uint8_t* data, size_t len, int32_t pid, LogEntry* e, int* buffer);
std::vector<uint8_t> make_logdw(int buffer, const LogEntry& e);

// A bounded queue of entries for one buffer, in one block: the oldest go
// when it is full. A FIFO may take part of an entry; the rest follows.
class LogQueue {
public:
    explicit LogQueue(size_t max_bytes = 256 * 1024) : max_bytes_(max_bytes) {}
    void push(const std::vector<uint8_t>& entry) { push(entry.data(), entry.size()); }
    void push(const uint8_t* entry, size_t len);
    // Writes what fd takes without blocking; false when fd failed.
    bool flush(int fd);
    // Drops every entry not yet begun.
    void discard();
    // Bytes that fit before the oldest must go.
    size_t room() const { return bytes() < max_bytes_ ? max_bytes_ - bytes() : 0; }
    // Entries that came and went at once, never held: the newest of them
    // would have pushed them out anyway.
    void pass_over(uint64_t n)
    {
        received_ += n;
        dropped_ += n;
    }
    bool empty() const { return sizes_.empty(); }
    size_t entries() const { return sizes_.size(); }
    size_t bytes() const { return data_.size() - head_; }
    uint64_t dropped() const { return dropped_; }
    uint64_t written() const { return written_; }
    uint64_t received() const { return received_; }

private:
    void consume(size_t n);

    size_t max_bytes_;
    std::vector<uint8_t> data_;
    size_t head_ = 0;            // first byte not yet written
    std::deque<uint32_t> sizes_; // entries held, oldest first; the first may be begun
    size_t front_sent_ = 0;      // bytes of the first entry already written
    uint64_t dropped_ = 0;
    uint64_t written_ = 0;
    uint64_t received_ = 0;
};
