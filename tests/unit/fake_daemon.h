// A stand-in for tovakd on a socket of its own: it records every request
// frame and answers from a script, so client tests can pair exact request
// bytes with canned replies.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "daemon/tovak_pkt.h"
#include "sim_device.h"

class FakeDaemon {
public:
    struct Answer {
        enum Kind { reply, hang_up, silence } kind = reply;
        uint32_t len = 0;
        std::vector<uint8_t> payload;
        // Byte offsets at which the reply frame is cut; each piece is sent
        // only once the client has read the one before.
        std::vector<size_t> cuts;
        // Hang up after the first piece.
        bool truncate = false;
    };
    static Answer reply(uint32_t len, const std::string& payload_hex = "");
    // A reply whose len the handler left at 5120, over a zeroed payload.
    static Answer untouched();
    // Closes the session without a reply, as for an unknown id.
    static Answer hang_up();
    // Keeps the session open and never answers.
    static Answer silence();

    // rel: where the socket lies under the fake's own directory.
    explicit FakeDaemon(std::deque<Answer> script = {}, const std::string& rel = "tovak");
    ~FakeDaemon();
    FakeDaemon(const FakeDaemon&) = delete;
    FakeDaemon& operator=(const FakeDaemon&) = delete;

    void push(Answer a);
    std::string socket_path() const { return dir_.path() + "/" + rel_; }
    const std::string& dir() const { return dir_.path(); }
    // Every frame received, disconnect frames included.
    std::vector<tovak_pkt> requests();
    int connections();

private:
    void serve();
    void session(int fd);
    bool send_answer(int fd, const Answer& a);
    bool stopping();

    TempDir dir_;
    std::string rel_;
    int listen_fd_ = -1;
    int stop_pipe_[2] = { -1, -1 };
    std::mutex mu_;
    std::deque<Answer> script_;
    std::vector<tovak_pkt> requests_;
    int connections_ = 0;
    std::thread thread_;
};

// Payload bytes from hex, blanks allowed.
std::vector<uint8_t> hex_bytes(const std::string& hex);
