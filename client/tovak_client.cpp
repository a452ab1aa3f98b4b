#include "tovak_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "daemon/byte_buffer.h"
#include "daemon/tovak_cmd_ids.h"

const char* tovak_status_text(TovakStatus status)
{
    switch (status) {
    case TovakStatus::ok:
        return "ok";
    case TovakStatus::closed:
        return "the daemon closed the session";
    case TovakStatus::timeout:
        return "no reply in time";
    case TovakStatus::error:
        return "connection failed";
    }
    return "?";
}

TovakClient::TovakClient(int timeout_ms) : timeout_ms_(timeout_ms) {}

TovakClient::~TovakClient()
{
    close();
}

bool TovakClient::connect(const std::string& socket_path)
{
    close();
    sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof addr.sun_path) {
        error_ = "socket path too long: " + socket_path;
        return false;
    }
    memcpy(addr.sun_path, socket_path.data(), socket_path.size());
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        error_ = std::string("socket: ") + strerror(errno);
        return false;
    }
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        error_ = "cannot connect to " + socket_path + ": " + strerror(errno);
        close();
        return false;
    }
    return true;
}

void TovakClient::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

bool TovakClient::wait_ready(short events)
{
    pollfd p = { fd_, events, 0 };
    for (;;) {
        int rc = poll(&p, 1, timeout_ms_);
        if (rc > 0)
            return true;
        if (rc == 0 || errno != EINTR)
            return false;
    }
}

TovakStatus TovakClient::send_bytes(const void* data, size_t len)
{
    if (fd_ < 0) {
        error_ = "not connected";
        return TovakStatus::error;
    }
    // One write: the daemon takes whatever one read delivers as the frame.
    ssize_t n = send(fd_, data, len, MSG_NOSIGNAL);
    if (n != ssize_t(len)) {
        error_ = n < 0 ? std::string("write: ") + strerror(errno) : "short write";
        return errno == EPIPE || errno == ECONNRESET ? TovakStatus::closed : TovakStatus::error;
    }
    return TovakStatus::ok;
}

TovakStatus TovakClient::read_reply(tovak_pkt* reply)
{
    auto* out = reinterpret_cast<uint8_t*>(reply);
    size_t got = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms_);
    while (got < TOVAK_PKT_SIZE) {
        if (std::chrono::steady_clock::now() >= deadline || !wait_ready(POLLIN)) {
            error_ = "no reply within " + std::to_string(timeout_ms_) + " ms";
            return TovakStatus::timeout;
        }
        ssize_t n = recv(fd_, out + got, TOVAK_PKT_SIZE - got, 0);
        if (n == 0 || (n < 0 && errno == ECONNRESET)) {
            error_ = got == 0 ? "the daemon closed the session" : "the daemon closed the session mid-reply";
            return TovakStatus::closed;
        }
        if (n < 0) {
            if (errno == EINTR)
                continue;
            error_ = std::string("read: ") + strerror(errno);
            return TovakStatus::error;
        }
        got += size_t(n);
    }
    return TovakStatus::ok;
}

TovakStatus TovakClient::transact(uint32_t cmd, const void* payload, uint32_t len, tovak_pkt* reply)
{
    if (len > TOVAK_PKT_DATA_SIZE) {
        error_ = "payload larger than a frame";
        return TovakStatus::error;
    }
    tovak_pkt req;
    memset(&req, 0, sizeof req);
    req.cmd = cmd;
    req.len = len;
    if (len != 0)
        memcpy(req.data, payload, len);
    TovakStatus st = send_bytes(&req, sizeof req);
    if (st != TovakStatus::ok)
        return st;
    return read_reply(reply);
}

TovakStatus TovakClient::disconnect()
{
    tovak_pkt req;
    memset(&req, 0, sizeof req);
    req.cmd = CMD_DISCONNECT;
    return send_bytes(&req, sizeof req);
}

bool TovakClient::wait_closed()
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms_);
    char buf[TOVAK_PKT_SIZE];
    while (std::chrono::steady_clock::now() < deadline) {
        if (!wait_ready(POLLIN))
            return false;
        ssize_t n = recv(fd_, buf, sizeof buf, 0);
        if (n == 0 || (n < 0 && errno == ECONNRESET))
            return true;
        if (n < 0 && errno != EINTR)
            return false;
    }
    return false;
}

uint32_t tovak_build_system_command(const std::string& text, uint8_t* payload, uint32_t room)
{
    byte_buffer bb;
    byte_buffer_init(&bb, payload, room);
    uint32_t n = uint32_t(text.size() + 1);
    if (n > 0xffff || n + 2 > room || !byte_buffer_write_u16(&bb, uint16_t(n)) || !byte_buffer_write_bytes(&bb, text.c_str(), n))
        return 0;
    return byte_buffer_length(&bb);
}

TovakStatus TovakClient::system_command(const std::string& text, tovak_pkt* reply)
{
    uint8_t payload[TOVAK_PKT_DATA_SIZE];
    uint32_t len = tovak_build_system_command(text, payload, sizeof payload);
    if (len == 0) {
        error_ = "command text too long for a frame";
        return TovakStatus::error;
    }
    return transact(CMD_SYSTEM_COMMAND, payload, len, reply);
}
