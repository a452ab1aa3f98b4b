// Client library for tovakd: one connection, fixed 5128-byte frames.
#pragma once

#include <cstdint>
#include <string>

#include "daemon/tovak_pkt.h"

enum class TovakStatus {
    ok,
    closed,  // the daemon ended the session without a reply
    timeout, // no whole reply within the time-out
    error,   // connect, read or write failed
};

const char* tovak_status_text(TovakStatus status);

class TovakClient {
public:
    explicit TovakClient(int timeout_ms = 10000);
    ~TovakClient();
    TovakClient(const TovakClient&) = delete;
    TovakClient& operator=(const TovakClient&) = delete;

    bool connect(const std::string& socket_path);
    void close();
    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    // Why the last call failed, for people.
    const std::string& error() const { return error_; }

    // Sends one request frame with one write and reads one whole reply.
    TovakStatus transact(uint32_t cmd, const void* payload, uint32_t len, tovak_pkt* reply);
    // Sends a frame asking the daemon to end the session.
    TovakStatus disconnect();

    // Lower level, for tests that need to misbehave.
    TovakStatus send_bytes(const void* data, size_t len);
    TovakStatus read_reply(tovak_pkt* reply);
    // True when the daemon closed the connection within the time-out.
    bool wait_closed();

    // 0x13: run a whitelisted shell diagnostic; the text travels with its
    // zero byte. The reply never says whether it ran.
    TovakStatus system_command(const std::string& text, tovak_pkt* reply);

private:
    bool wait_ready(short events);

    int fd_ = -1;
    int timeout_ms_;
    std::string error_;
};

// The request payload of 0x13: u16 length (zero byte counted), the text, 0.
uint32_t tovak_build_system_command(const std::string& text, uint8_t* payload, uint32_t room);
