// The simulated logger as a device part: an entry queue per log buffer
// (drained into the log FIFOs by the process), the threadtime text file,
// floods, and the phone's own background logging.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "logger.h"

class LogService {
public:
    // sim_dir: where logcat.txt goes.
    explicit LogService(const std::string& sim_dir);
    ~LogService();
    LogService(const LogService&) = delete;
    LogService& operator=(const LogService&) = delete;

    // One entry for a buffer: to the text file and the buffer's queue.
    void entry(int buffer, const LogEntry& e);
    LogQueue& queue(int buffer) { return queues_[buffer]; }
    bool stalled(int buffer) const { return stalled_[buffer]; }
    void set_stalled(int buffer, bool on) { stalled_[buffer] = on; }
    void clear_stalls();

    // count entries at rate a second; the events buffer gets event records.
    void flood(int buffer, double rate, uint64_t count);
    // The phone's own logging: a boot burst, then a few tens of lines a
    // second and an event now and then.
    void set_chatter(bool on);
    bool chatter() const { return chatter_; }

    void tick(double elapsed_s, uint64_t unix_ns);
    bool busy() const;
    bool flooding() const;
    // Writes the text gathered since the last call.
    void flush_text();
    nlohmann::json status() const;
    const std::string& logcat_path() const { return logcat_path_; }

private:
    void flood_tick(int buffer, double elapsed_s, uint64_t unix_ns);
    void chatter_tick(double elapsed_s, uint64_t unix_ns);

    std::string logcat_path_;
    int logcat_fd_ = -1;
    uint64_t logcat_bytes_ = 0; // in the current file, which rotates at a limit
    std::string text_;          // not yet written to the file
    std::vector<uint8_t> scratch_;

    LogQueue queues_[LOG_BUFFER_COUNT];
    bool stalled_[LOG_BUFFER_COUNT] = {};
    struct Flood {
        double rate = 0;
        uint64_t left = 0;
        double due = 0;
        uint64_t seq = 0;
    } floods_[LOG_BUFFER_COUNT];

    bool chatter_ = false;
    bool booted_ = false; // the boot burst was said
    double chatter_due_ = 0;
    double event_due_ = 0;
    uint64_t chatter_seq_ = 0;
};
