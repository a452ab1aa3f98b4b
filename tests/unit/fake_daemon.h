// A stand-in for tovakd on a socket of its own: it records every request
// frame and answers from a script, so client tests can pair exact request
// bytes with canned replies.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "protocol/tovak_pkt.h"
#include "tovak_cmd_codec.h"
#include "sim_device.h"

// Payload bytes from hex, blanks allowed.
std::vector<uint8_t> hex_bytes(const std::string& hex);

class FakeDaemon {
public:
    struct Answer {
        enum Kind { reply, hang_up, silence } kind = reply;
        uint32_t len = 0;
        std::vector<uint8_t> payload = {};
        // Byte offsets at which the reply frame is cut; each piece is sent
        // only once the client has read the one before.
        std::vector<size_t> cuts = {};
        // Hang up after the first piece.
        bool truncate = false;
    };
    static Answer reply(uint32_t len, const std::string& payload_hex = "") { return { .len = len, .payload = hex_bytes(payload_hex) }; }
    // A reply whose len the handler left at 5120, over a zeroed payload.
    static Answer untouched() { return reply(TOVAK_PKT_DATA_SIZE); }
    // Closes the session without a reply, as for an unknown id.
    static Answer hang_up() { return { .kind = Answer::hang_up }; }
    // Keeps the session open and never answers.
    static Answer silence() { return { .kind = Answer::silence }; }

    explicit FakeDaemon(std::deque<Answer> script = {});
    ~FakeDaemon();
    FakeDaemon(const FakeDaemon&) = delete;
    FakeDaemon& operator=(const FakeDaemon&) = delete;

    void push(Answer a) { std::lock_guard<std::mutex> lock(mu_); script_.push_back(std::move(a)); }
    std::string socket_path() const { return dir_.path() + "/tovak"; }
    // Every frame received, disconnect frames included.
    std::vector<tovak_pkt> requests() { std::lock_guard<std::mutex> lock(mu_); return requests_; }
    int connections() { std::lock_guard<std::mutex> lock(mu_); return connections_; }

private:
    void serve();
    void session(int fd);
    bool send_answer(int fd, const Answer& a);
    bool stopping();

    TempDir dir_;
    int listen_fd_ = -1;
    int stop_pipe_[2] = { -1, -1 };
    std::mutex mu_;
    std::deque<Answer> script_;
    std::vector<tovak_pkt> requests_;
    int connections_ = 0;
    std::thread thread_;
};

// Bytes past len must not carry old data.
inline bool tail_is_zero(const tovak_pkt& p)
{
    return std::all_of(p.data + std::min<uint32_t>(p.len, TOVAK_PKT_DATA_SIZE), p.data + TOVAK_PKT_DATA_SIZE, [](uint8_t b) { return b == 0; });
}

// Decoded values as short text, so that table rows can state them; long
// lists show only their size.
inline std::string text(bool on) { return on ? "on" : "off"; }
inline std::string text(uint16_t v) { return std::to_string(v); }
inline std::string text(uint32_t v) { return std::to_string(v); }
inline std::string text(int32_t v) { return std::to_string(v); }
inline std::string text(const std::string& s) { return s; }
inline std::string text(const TovakMsgEntry& m) { return text(m.ssid) + "/" + text(m.mask); }
inline std::string text(const TovakDplIface& i) { return text(uint32_t(i.id)) + "=" + i.desc; }
template <class A, class B> std::string text(const std::pair<A, B>& p) { return text(p.first) + "," + text(p.second); }
template <class T> std::string text(const std::vector<T>& v)
{
    if (v.size() > 4)
        return std::to_string(v.size()) + " items";
    std::string s;
    for (const T& x : v)
        s += text(x) + ";";
    return s;
}
