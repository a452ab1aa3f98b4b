// The whole simulated device behind tovak-devsim: two modems, the diag
// library's own state, the logger, QMI data, fault injection and the control
// commands. No sockets here: the process feeds it messages and time.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "logger.h"
#include "modem.h"

// One diag request as the device saw it, for the status.
struct RequestRecord {
    std::string modem;   // "local" or "remote"
    std::string request; // unframed packet in hex, or the raw frame when it did not unframe
    std::string answer;  // unframed answer in hex, empty when none
    std::string outcome; // "answered", "dropped", "corrupted", "delayed", "silent", "bad crc", ...
};

struct QmiSave {
    std::string file; // relative to the simulator directory
    std::string kind;
    std::string number;
    size_t size;
};

// What a link message gets back.
struct LinkAnswer {
    bool send = false;
    std::vector<uint8_t> bytes;
    int delay_ms = 0;
};

// A link connection's unfinished QMI save.
struct LinkConnState {
    bool saving = false;
    uint32_t expected = 0;
    std::string kind;
    std::string number;
    std::vector<uint8_t> data;
};

class Device {
public:
    // sim_dir: where the simulator's own files go (logcat text, QMI saves).
    explicit Device(std::string sim_dir);

    LinkAnswer handle_link(const uint8_t* msg, size_t len, LinkConnState& conn, uint64_t unix_ns);
    // One control command; the reply text. Errors begin with "error: ".
    std::string control(const std::vector<std::string>& args);
    nlohmann::json status() const;

    // Advances the device's clock: traffic and floods.
    void tick(double elapsed_s, uint64_t unix_ns);
    // True while tick has work to do.
    bool busy() const;

    // One entry for a buffer: to the threadtime text file and the queue.
    void log_entry(int buffer, const LogEntry& e);
    LogQueue& queue(int buffer) { return queues_[buffer]; }
    bool stalled(int buffer) const { return stalled_[buffer]; }

    Modem& modem(bool remote) { return remote ? remote_ : local_; }
    bool remote_enabled() const { return remote_enabled_; }
    int mode() const { return mode_; }
    int buffer_size() const { return buffer_size_; }
    const std::string& output_path() const { return output_path_; }
    const std::string& logcat_path() const { return logcat_path_; }

private:
    LinkAnswer diag_request(const uint8_t* msg, size_t len);
    LinkAnswer op(uint32_t code, const uint8_t* args, size_t len, LinkConnState& conn, uint64_t unix_ns);
    int commit(uint64_t unix_ns);
    bool save_qmi(const LinkConnState& conn);
    void record(RequestRecord r);
    std::string control_fault(const std::vector<std::string>& args);

    std::string sim_dir_;
    std::string logcat_path_;
    int logcat_fd_ = -1;

    Modem local_;
    Modem remote_;
    bool remote_enabled_ = false;

    int mode_ = 1;                  // 1 USB, 2 memory buffer
    bool stopped_ = false;          // diag_stop_logging until the next switch to mode 2
    int buffer_min_ = 1 << 20;
    int buffer_max_ = 128 << 20;
    int buffer_size_ = 16 << 20;
    std::string output_path_ = "/sdcard/diag_logs";
    double traffic_rate_ = 50;      // packets per second per modem
    double traffic_due_ = 0;        // packets owed to the rate so far
    unsigned commit_seq_ = 0;

    std::deque<RequestRecord> requests_; // the most recent, oldest first
    uint64_t request_count_ = 0;

    // Faults on diag answers.
    unsigned drop_next_ = 0;
    unsigned corrupt_next_ = 0;
    int delay_ms_ = 0;

    LogQueue queues_[LOG_ID_COUNT];
    bool stalled_[LOG_ID_COUNT] = {};
    struct Flood {
        double rate = 0;
        uint64_t left = 0;
        double due = 0;
        uint64_t seq = 0;
    } floods_[LOG_ID_COUNT];

    std::vector<std::vector<uint8_t>> qmi_units_[2]; // by kind: phantom, statistics
    std::vector<QmiSave> qmi_saves_;
    unsigned qmi_seq_ = 0;
};

// Canned QMI unit content: unit u, byte j is 'A' + (7u + j) % 26.
std::vector<uint8_t> qmi_canned_unit(size_t unit, size_t size);
std::string to_hex(const std::vector<uint8_t>& bytes);
