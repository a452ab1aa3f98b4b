// The modem side of the simulated device: the local and remote modem, the
// diag library's own state (mode, buffer, output path, commits) and the
// record of recent requests. Answers are HDLC-framed; faults decide which
// answers go out.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "modem.h"

struct Faults;

// What a link message gets back.
struct LinkAnswer {
    bool send = false;
    std::vector<uint8_t> bytes;
    int delay_ms = 0;
};
LinkAnswer link_result(int32_t value, const std::vector<uint8_t>& data = {});

class ModemService {
public:
    explicit ModemService(Faults& faults);

    // A diag request message (u32 32, for the remote modem i32 -1, the frame).
    LinkAnswer diag_request(const uint8_t* msg, size_t len);
    // A diag library call; false when code is not one of them.
    bool op(uint32_t code, const uint8_t* args, size_t len, uint64_t unix_ns, LinkAnswer* out);

    void tick(double elapsed_s, uint64_t unix_ns);
    bool busy() const;

    Modem& modem(bool remote) { return remote ? remote_ : local_; }
    bool remote_enabled() const { return remote_enabled_; }
    void set_remote(bool on) { remote_enabled_ = on; }
    int mode() const { return mode_; }
    int buffer_size() const { return buffer_size_; }
    void set_buffer_range(int lo, int hi);
    const std::string& output_path() const { return output_path_; }
    // Packets a second per modem; negative: what the enabled items call for.
    void set_rate(double r) { traffic_rate_ = r; }
    void clear_requests() { requests_.clear(); }

    nlohmann::json status();

private:
    struct RequestRecord {
        std::string modem;   // "local" or "remote"
        std::string request; // unframed packet in hex, or the raw frame when it did not unframe
        std::string answer;  // unframed answer in hex, empty when none
        std::string outcome; // "answered", "dropped", "corrupted", "silent", "bad crc", ...
    };
    void record(RequestRecord r);
    int commit(uint64_t unix_ns);

    Faults& faults_;
    Modem local_;
    Modem remote_;
    bool remote_enabled_ = false;

    int mode_ = 1;         // 1 USB, 2 memory buffer
    bool stopped_ = false; // diag_stop_logging until the next switch to mode 2
    int buffer_min_ = 1 << 20;
    int buffer_max_ = 128 << 20;
    int buffer_size_ = 16 << 20;
    std::string output_path_ = "/sdcard/diag_logs";
    double traffic_rate_ = -1;
    unsigned commit_seq_ = 0;

    std::deque<RequestRecord> requests_; // the most recent, oldest first
    uint64_t request_count_ = 0;
};

std::string to_hex(const std::vector<uint8_t>& bytes);
// A new file in dir that overwrites none: base + ext, then base_2 + ext, ...
int create_new_file(const std::string& dir, const std::string& base, const std::string& ext, std::string* name);
// YYYYMMDD_HHMMSS in local time.
std::string file_stamp(uint64_t unix_ns);
