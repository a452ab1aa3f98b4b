#include "fake_daemon.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <algorithm>
#include <cstring>

#include "protocol/tovak_cmd_ids.h"
#include "tovak_cmd_codec.h"

std::vector<uint8_t> hex_bytes(const std::string& hex)
{
    std::vector<uint8_t> out;
    if (!tovak_parse_hex(hex, &out))
        abort();
    return out;
}

FakeDaemon::FakeDaemon(std::deque<Answer> script) : script_(std::move(script))
{
    if (pipe(stop_pipe_) != 0)
        abort();
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::string path = socket_path();
    if (listen_fd_ < 0 || path.size() >= sizeof addr.sun_path)
        abort();
    memcpy(addr.sun_path, path.c_str(), path.size());
    if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(listen_fd_, 5) != 0)
        abort();
    thread_ = std::thread([this] { serve(); });
}

FakeDaemon::~FakeDaemon()
{
    char c = 0;
    if (write(stop_pipe_[1], &c, 1) != 1)
        abort();
    thread_.join();
    close(listen_fd_);
    close(stop_pipe_[0]);
    close(stop_pipe_[1]);
}

bool FakeDaemon::stopping()
{
    pollfd p = { stop_pipe_[0], POLLIN, 0 };
    return poll(&p, 1, 0) > 0;
}

// Waits until fd is readable or the fake is told to stop; false on stop.
static bool wait_readable(int fd, int stop_fd)
{
    pollfd p[2] = { { fd, POLLIN, 0 }, { stop_fd, POLLIN, 0 } };
    for (;;) {
        int rc = poll(p, 2, -1);
        if (rc < 0 && errno == EINTR)
            continue;
        return rc > 0 && !(p[1].revents & POLLIN);
    }
}

void FakeDaemon::serve()
{
    // One session at a time is all a client test needs.
    while (wait_readable(listen_fd_, stop_pipe_[0])) {
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        {
            std::lock_guard<std::mutex> lock(mu_);
            connections_++;
        }
        session(fd);
        close(fd);
    }
}

void FakeDaemon::session(int fd)
{
    for (;;) {
        tovak_pkt req;
        size_t got = 0;
        while (got < sizeof req) {
            if (!wait_readable(fd, stop_pipe_[0]))
                return;
            ssize_t n = read(fd, reinterpret_cast<uint8_t*>(&req) + got, sizeof req - got);
            if (n <= 0)
                return;
            got += size_t(n);
        }
        Answer a;
        {
            std::lock_guard<std::mutex> lock(mu_);
            requests_.push_back(req);
            if (req.cmd == CMD_DISCONNECT)
                return;
            if (script_.empty())
                return;
            a = std::move(script_.front());
            script_.pop_front();
        }
        if (a.kind == Answer::hang_up)
            return;
        if (a.kind == Answer::silence) {
            wait_readable(stop_pipe_[0], stop_pipe_[0]);
            return;
        }
        if (!send_answer(fd, a))
            return;
    }
}

bool FakeDaemon::send_answer(int fd, const Answer& a)
{
    tovak_pkt rsp = {};
    rsp.len = a.len;
    std::copy(a.payload.begin(), a.payload.end(), rsp.data);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&rsp);
    std::vector<size_t> ends = a.cuts;
    ends.push_back(sizeof rsp);
    size_t from = 0;
    for (size_t end : ends) {
        // The next piece goes only when the client has taken the last one,
        // so that it surely sees the reply in pieces.
        if (from != 0 && !wait_until([&] {
                int queued = 0;
                return stopping() || (ioctl(fd, SIOCOUTQ, &queued) == 0 && queued == 0);
            }))
            return false;
        if (send(fd, bytes + from, end - from, MSG_NOSIGNAL) != ssize_t(end - from))
            return false;
        if (a.truncate)
            return false;
        from = end;
    }
    return true;
}
