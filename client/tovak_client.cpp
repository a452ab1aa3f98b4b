#include "tovak_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "protocol/unix_socket.h"

namespace {

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string seconds(int ms)
{
    std::string s = std::to_string(ms / 1000);
    if (ms % 1000) {
        s += '.';
        s += std::to_string(ms % 1000 + 1000).substr(1);
        s.erase(s.find_last_not_of('0') + 1);
    }
    return s + " s";
}

} // namespace

TovakClient::TovakClient(int timeout_ms) : timeout_ms_(timeout_ms)
{
}

TovakClient::~TovakClient()
{
    close();
}

TovakStatus TovakClient::fail(TovakStep step, TovakStatus status, const std::string& why)
{
    step_ = step;
    status_ = status;
    error_ = why;
    return status;
}

bool TovakClient::connect(const std::string& socket_path)
{
    close();
    fd_ = unix_socket_connect(socket_path.c_str(), timeout_ms_);
    if (fd_ >= 0)
        return true;
    int err = errno;
    std::string what = "cannot connect to " + socket_path + ": ";
    TovakStatus status = TovakStatus::error;
    if (err == ENOENT)
        what += "no socket there: tovakd is not running (or the path names another device)";
    else if (err == ECONNREFUSED)
        what += "nothing listens there: tovakd is not running and its socket file was left over";
    else if (err == EACCES || err == EPERM)
        what += "permission denied: run as root or as a member of the socket's group";
    else if (err == ENAMETOOLONG)
        what += "the path is longer than a socket address takes (" + std::to_string(UNIX_SOCKET_PATH_MAX) + " bytes)";
    else if (err == ETIMEDOUT) {
        what = "connecting to " + socket_path + " timed out after " + seconds(timeout_ms_) +
               ": tovakd's backlog is full, so it is not accepting clients (stuck, or out of descriptors)";
        status = TovakStatus::timeout;
    } else
        what += strerror(err);
    fail(TovakStep::connect, status, what);
    return false;
}

void TovakClient::adopt(int fd)
{
    close();
    fd_ = fd;
}

void TovakClient::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

bool TovakClient::wait_ready(short events, int64_t deadline_ms)
{
    for (;;) {
        int64_t left = deadline_ms - now_ms();
        if (left <= 0)
            return false;
        pollfd p = { fd_, events, 0 };
        int rc = poll(&p, 1, int(left < 100 ? left : 100));
        if (rc > 0)
            return true;
        if (rc < 0 && errno != EINTR)
            return false;
        if (tick_)
            tick_();
    }
}

TovakStatus TovakClient::send_bytes(const void* data, size_t len)
{
    if (fd_ < 0)
        return fail(TovakStep::send, TovakStatus::error, "not connected");
    int64_t deadline = now_ms() + timeout_ms_;
    auto* p = static_cast<const uint8_t*>(data);
    while (len > 0) {
        // The daemon takes whatever one read delivers as the frame, so the
        // frame goes in one piece whenever the socket has room for it.
        ssize_t n = send(fd_, p, len, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            p += n;
            len -= size_t(n);
        } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
            if (errno == EPIPE || errno == ECONNRESET)
                return fail(TovakStep::send, TovakStatus::closed, "tovakd closed the session before the request");
            return fail(TovakStep::send, TovakStatus::error, std::string("sending the request: ") + strerror(errno));
        } else if (n < 0 && errno == EAGAIN && !wait_ready(POLLOUT, deadline)) {
            return fail(TovakStep::send, TovakStatus::timeout,
                        "sending the request timed out after " + seconds(timeout_ms_) +
                            ": tovakd does not read from this session (stuck on an earlier request?)");
        }
    }
    return TovakStatus::ok;
}

TovakStatus TovakClient::read_reply(tovak_pkt* reply)
{
    auto* out = reinterpret_cast<uint8_t*>(reply);
    size_t got = 0;
    int64_t deadline = now_ms() + timeout_ms_;
    while (got < TOVAK_PKT_SIZE) {
        if (!wait_ready(POLLIN, deadline))
            return fail(TovakStep::receive, TovakStatus::timeout,
                        "no reply within " + seconds(timeout_ms_) +
                            ": tovakd is still busy with the request, or stuck");
        ssize_t n = recv(fd_, out + got, TOVAK_PKT_SIZE - got, MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno == ECONNRESET))
            return fail(TovakStep::receive, TovakStatus::closed,
                        got == 0 ? "tovakd closed the session without a reply" : "tovakd closed the session mid-reply");
        if (n < 0 && errno != EINTR && errno != EAGAIN)
            return fail(TovakStep::receive, TovakStatus::error, std::string("reading the reply: ") + strerror(errno));
        if (n > 0)
            got += size_t(n);
    }
    return TovakStatus::ok;
}

TovakStatus TovakClient::transact(uint32_t cmd, const void* payload, uint32_t len, tovak_pkt* reply)
{
    tovak_pkt req;
    std::vector<uint8_t> bytes(static_cast<const uint8_t*>(payload), static_cast<const uint8_t*>(payload) + len);
    if (!tovak_req_raw(&req, cmd, bytes))
        return fail(TovakStep::send, TovakStatus::error, "payload larger than a frame");
    return exchange(req, reply);
}

TovakStatus TovakClient::exchange(const tovak_pkt& req, tovak_pkt* reply)
{
    step_ = TovakStep::none;
    TovakStatus st = send_bytes(&req, sizeof req);
    return st == TovakStatus::ok ? read_reply(reply) : st;
}

TovakStatus TovakClient::disconnect()
{
    tovak_pkt req;
    tovak_req_raw(&req, CMD_DISCONNECT, {});
    return send_bytes(&req, sizeof req);
}

bool TovakClient::wait_closed()
{
    int64_t deadline = now_ms() + timeout_ms_;
    char buf[TOVAK_PKT_SIZE];
    while (wait_ready(POLLIN, deadline)) {
        ssize_t n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno == ECONNRESET))
            return true;
        if (n < 0 && errno != EINTR && errno != EAGAIN)
            return false;
    }
    return false;
}

TovakResult TovakClient::call_with(uint32_t id, const TovakArgs& args,
                                   const std::function<TovakShown(const tovak_pkt&)>& decode)
{
    TovakResult res;
    const TovakCommand* row = tovak_command(id);
    tovak_pkt req, rsp;
    std::string why;
    if (!tovak_encode(*row, args, &req, &why)) {
        fail(TovakStep::none, TovakStatus::error, std::string(row->name) + ": " + why);
        return res;
    }
    res.status = exchange(req, &rsp);
    if (res.status != TovakStatus::ok)
        return res;
    res.reply_len = rsp.len;
    res.shown = decode(rsp);
    // The reply cannot tell; the logging state can.
    if (row->confirm >= 0 && res.shown.verdict == TovakVerdict::unknown) {
        bool on = false;
        TovakResult state = get_log_state(&on);
        if (state.done())
            res.shown = int(on) == row->confirm
                            ? TovakShown{ TovakVerdict::done, "" }
                            : TovakShown{ TovakVerdict::refused, on ? "logging still runs" : "logging is still off" };
    }
    return res;
}

TovakResult TovakClient::run(const TovakCommand& row, const TovakArgs& args, TovakReport* report)
{
    TovakReport ignored;
    return call_with(row.id, args,
                     [&](const tovak_pkt& rsp) { return row.show(rsp, row.key, report ? report : &ignored); });
}
