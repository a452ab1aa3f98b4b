// tovak-devsim: the simulated device's services, single-threaded around
// poll. Longer than most files here: it is the one event loop, with every
// descriptor it watches, and reads best whole; the device itself is in its
// parts (device.h). Inside the sandbox it serves the device paths as they are; with
// --root DIR (for tests without a sandbox) every path it chooses itself lies
// under DIR. Paths that clients hand in are used as given.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "device.h"
#include "protocol/unix_socket.h"
#include "sim_files.h"
#include "sim_link.h"
#include "sim_root.h"

namespace {

[[noreturn]] void die(const std::string& msg)
{
    fprintf(stderr, "tovak-devsim: %s\n", msg.c_str());
    exit(1);
}

uint64_t clock_ns(clockid_t id)
{
    struct timespec ts;
    clock_gettime(id, &ts);
    return uint64_t(ts.tv_sec) * 1000000000ull + uint64_t(ts.tv_nsec);
}

// Binds under a temporary name and renames into place once listening, so
// that the path never exists without someone to answer on it.
int listen_at(const std::string& path, int type)
{
    int fd = socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        die(std::string("socket: ") + strerror(errno));
    std::string tmp = path + ".new";
    sockaddr_un addr;
    socklen_t addr_len;
    if (!unix_socket_address(tmp.c_str(), &addr, &addr_len))
        die("socket path too long: " + tmp);
    unlink(tmp.c_str());
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), addr_len) != 0)
        die("cannot bind " + tmp + ": " + strerror(errno));
    chmod(tmp.c_str(), 0666);
    if (type == SOCK_DGRAM) {
        int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
        int size = 1 << 20;
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    } else if (listen(fd, 64) != 0) {
        die("cannot listen on " + tmp + ": " + strerror(errno));
    }
    if (rename(tmp.c_str(), path.c_str()) != 0)
        die("cannot rename " + tmp + ": " + strerror(errno));
    return fd;
}

struct LinkConn {
    int fd;
    uint64_t id;
    LinkConnState state;
};

struct CtlConn {
    int fd;
    std::string in;
    std::string out;
    size_t sent = 0;
    bool replying = false;
};

struct Delayed {
    uint64_t due_ns;
    uint64_t conn_id;
    std::vector<uint8_t> bytes;
};

class Server {
public:
    Server(const std::string& root, bool remote, bool quiet, const std::vector<std::string>& without_logs)
        : root_(root), device_(root, root + "/" SIM_DIR)
    {
        if (!sim_make_dirs(root + "/dev/socket") || !sim_make_dirs(root + "/dev/log"))
            die("cannot create " + root + "/dev/socket and /dev/log: " + strerror(errno));
        device_.modem.set_remote(remote);
        device_.logger.set_chatter(!quiet);
        device_.on_logger_absent = [this](bool absent) { set_logger_absent(absent); };
        for (int b = 0; b < LOG_BUFFER_COUNT; b++) {
            std::string path = root + "/dev/log/" + log_buffer_name(b);
            bool without = false;
            for (const std::string& name : without_logs)
                without = without || name == log_buffer_name(b);
            // A phone without this log device: entries for it go nowhere.
            if (without)
                unlink(path.c_str());
            fifo_[b] = without ? -1 : open_fifo(path);
        }
        ctl_ = listen_at(root + SIM_CTL_PATH, SOCK_STREAM);
        logdw_ = listen_at(root + SIM_LOGDW_PATH, SOCK_DGRAM);
        qmi_ = listen_at(root + SIM_LINK_QMI_PATH, SOCK_SEQPACKET);
        // Last: the launcher waits for this one.
        diag_ = listen_at(root + SIM_LINK_DIAG_PATH, SOCK_SEQPACKET);
    }

    void run();

private:
    static int open_fifo(const std::string& path)
    {
        struct stat st;
        if (lstat(path.c_str(), &st) == 0 && !S_ISFIFO(st.st_mode))
            unlink(path.c_str());
        if (mkfifo(path.c_str(), 0666) != 0 && errno != EEXIST)
            die("cannot create " + path + ": " + strerror(errno));
        chmod(path.c_str(), 0666);
        // Holding both ends: readers never block on open nor see end of file.
        int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0)
            die("cannot open " + path + ": " + strerror(errno));
        // Room for floods between two reads of a slow reader; a refusal
        // leaves the default.
        fcntl(fd, F_SETPIPE_SZ, 1 << 20);
        return fd;
    }

    // A dead logd: no socket to send to; back again when it returns.
    void set_logger_absent(bool absent)
    {
        const std::string path = root_ + SIM_LOGDW_PATH;
        if (absent && logdw_ >= 0) {
            close(logdw_);
            logdw_ = -1;
            unlink(path.c_str());
        } else if (!absent && logdw_ < 0) {
            logdw_ = listen_at(path, SOCK_DGRAM);
        }
    }

    void accept_all(int listener, bool link);
    void serve_link(std::list<LinkConn>::iterator it);
    void send_link(int fd, const std::vector<uint8_t>& bytes);
    void serve_ctl(std::list<CtlConn>::iterator it, short revents);
    void read_logdw();
    void flush_fifos();
    void send_due(uint64_t now);

    std::string root_;
    Device device_;
    int fifo_[LOG_BUFFER_COUNT];
    int ctl_, logdw_, qmi_, diag_;
    std::list<LinkConn> links_;
    std::list<CtlConn> ctls_;
    std::deque<Delayed> delayed_; // in due order: every answer waits the same
    uint64_t next_conn_id_ = 1;
};

void Server::accept_all(int listener, bool link)
{
    for (;;) {
        int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0)
            return;
        if (link)
            links_.push_back({ fd, next_conn_id_++, {} });
        else
            ctls_.push_back({ fd, {}, {}, 0, false });
    }
}

void Server::send_link(int fd, const std::vector<uint8_t>& bytes)
{
    // A client that stopped reading loses its answer, never the device's time.
    send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void Server::serve_link(std::list<LinkConn>::iterator it)
{
    static uint8_t buf[SIM_LINK_MAX_MSG];
    for (int k = 0; k < 16; k++) {
        ssize_t n = recv(it->fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        if (n <= 0) {
            close(it->fd);
            links_.erase(it);
            return;
        }
        LinkAnswer a = device_.handle_link(buf, size_t(n), it->state, clock_ns(CLOCK_REALTIME));
        if (!a.send)
            continue;
        if (a.delay_ms > 0)
            delayed_.push_back(
                { clock_ns(CLOCK_MONOTONIC) + uint64_t(a.delay_ms) * 1000000ull, it->id, std::move(a.bytes) });
        else
            send_link(it->fd, a.bytes);
    }
}

void Server::send_due(uint64_t now)
{
    while (!delayed_.empty() && delayed_.front().due_ns <= now) {
        for (const LinkConn& c : links_)
            if (c.id == delayed_.front().conn_id)
                send_link(c.fd, delayed_.front().bytes);
        delayed_.pop_front();
    }
}

std::vector<std::string> split_args(const std::string& in)
{
    std::vector<std::string> args;
    size_t start = 0;
    while (start < in.size()) {
        size_t nul = in.find('\0', start);
        if (nul == std::string::npos)
            nul = in.size();
        args.push_back(in.substr(start, nul - start));
        start = nul + 1;
    }
    return args;
}

void Server::serve_ctl(std::list<CtlConn>::iterator it, short revents)
{
    CtlConn& c = *it;
    if (!c.replying && (revents & (POLLIN | POLLHUP))) {
        char buf[4096];
        for (;;) {
            ssize_t n = read(c.fd, buf, sizeof buf);
            if (n > 0) {
                c.in.append(buf, size_t(n));
                if (c.in.size() > 65536) {
                    close(c.fd);
                    ctls_.erase(it);
                    return;
                }
                continue;
            }
            if (n < 0 && errno == EAGAIN)
                return;
            if (n < 0 && errno == EINTR)
                continue;
            break; // end of the request
        }
        c.out = device_.control(split_args(c.in));
        c.replying = true;
    }
    if (c.replying) {
        while (c.sent < c.out.size()) {
            ssize_t n = send(c.fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n < 0 && errno == EAGAIN)
                return;
            if (n <= 0)
                break;
            c.sent += size_t(n);
        }
        close(c.fd);
        ctls_.erase(it);
    }
}

void Server::read_logdw()
{
    for (int k = 0; k < 512; k++) {
        uint8_t buf[8192];
        char ctrl[CMSG_SPACE(sizeof(struct ucred))];
        iovec iov = { buf, sizeof buf };
        msghdr msg = {};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = ctrl;
        msg.msg_controllen = sizeof ctrl;
        ssize_t n = recvmsg(logdw_, &msg, MSG_DONTWAIT);
        if (n < 0)
            return;
        int32_t pid = 0;
        for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
            if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS) {
                struct ucred cred;
                memcpy(&cred, CMSG_DATA(c), sizeof cred);
                pid = cred.pid;
            }
        }
        LogEntry e;
        int buffer;
        if (parse_logdw(buf, size_t(n), pid, &e, &buffer))
            device_.logger.entry(buffer, e);
    }
}

void Server::flush_fifos()
{
    for (int b = 0; b < LOG_BUFFER_COUNT; b++) {
        LogQueue& q = device_.logger.queue(b);
        if (fifo_[b] < 0)
            q.discard();
        else if (!device_.logger.stalled(b))
            q.flush(fifo_[b]);
    }
}

void Server::run()
{
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    int sig_fd = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
    signal(SIGPIPE, SIG_IGN);

    uint64_t last_tick = clock_ns(CLOCK_MONOTONIC);
    for (;;) {
        // Floods come in small slices, so that each fits the logger's
        // queue between two drains of the FIFO.
        const uint64_t tick_ns = device_.logger.flooding() ? 1000000 : 10000000;
        std::vector<pollfd> fds = {
            { sig_fd, POLLIN, 0 },
            { diag_, POLLIN, 0 },
            { qmi_, POLLIN, 0 },
            { ctl_, POLLIN, 0 },
            { logdw_, short(logdw_ >= 0 ? POLLIN : 0), 0 },
        };
        for (int b = 0; b < LOG_BUFFER_COUNT; b++) {
            bool want = !device_.logger.queue(b).empty() && !device_.logger.stalled(b);
            fds.push_back({ want ? fifo_[b] : -1, POLLOUT, 0 });
        }
        const size_t link_base = fds.size();
        for (const LinkConn& c : links_)
            fds.push_back({ c.fd, POLLIN, 0 });
        const size_t ctl_base = fds.size();
        for (const CtlConn& c : ctls_)
            fds.push_back({ c.fd, short(c.replying ? POLLOUT : POLLIN), 0 });

        uint64_t now = clock_ns(CLOCK_MONOTONIC);
        int64_t wait_ns = -1;
        if (device_.busy())
            wait_ns = int64_t(last_tick + tick_ns > now ? last_tick + tick_ns - now : 0);
        if (!delayed_.empty()) {
            int64_t d = int64_t(delayed_.front().due_ns > now ? delayed_.front().due_ns - now : 0);
            wait_ns = wait_ns < 0 ? d : std::min(wait_ns, d);
        }
        int timeout = wait_ns < 0 ? -1 : int((wait_ns + 999999) / 1000000);
        if (poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR)
            die(std::string("poll: ") + strerror(errno));

        if (fds[0].revents & POLLIN)
            return;
        now = clock_ns(CLOCK_MONOTONIC);
        if (device_.busy()) {
            if (now - last_tick >= tick_ns) {
                device_.tick(double(now - last_tick) / 1e9, clock_ns(CLOCK_REALTIME));
                last_tick = now;
            }
        } else {
            last_tick = now;
        }
        send_due(now);

        // Connections first, by the iterators the poll set was built from.
        auto link = links_.begin();
        for (size_t i = link_base; i < ctl_base; i++) {
            auto cur = link++;
            if (fds[i].revents)
                serve_link(cur);
        }
        auto ctl = ctls_.begin();
        for (size_t i = ctl_base; i < fds.size(); i++) {
            auto cur = ctl++;
            if (fds[i].revents)
                serve_ctl(cur, fds[i].revents);
        }
        if (fds[1].revents & POLLIN)
            accept_all(diag_, true);
        if (fds[2].revents & POLLIN)
            accept_all(qmi_, true);
        if (fds[3].revents & POLLIN)
            accept_all(ctl_, false);
        if ((fds[4].revents & POLLIN) && logdw_ >= 0)
            read_logdw();
        flush_fifos();
        device_.logger.flush_text();
    }
}

void usage(FILE* out)
{
    fprintf(out, "usage: tovak-devsim [--root DIR] [--remote-modem] [--quiet] [--without-log NAME]...\n"
                 "Serves the simulated device: the modem's diag link, the logger, the log FIFOs,\n"
                 "QMI and the control socket. Normally started by `tovak-sim up`.\n"
                 "--without-log NAME leaves out the log device NAME (main, radio, events, system).\n"
                 "--quiet (or TOVAK_DEVSIM_QUIET=1 in the environment) starts without the phone's\n"
                 "own background logging; `ctl ROOT chatter on|off` switches it later.\n");
}

} // namespace

int main(int argc, char** argv)
{
    std::string root;
    bool remote = false;
    const char* quiet_env = getenv("TOVAK_DEVSIM_QUIET");
    bool quiet = quiet_env != nullptr && strcmp(quiet_env, "1") == 0;
    std::vector<std::string> without_logs;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--root" && i + 1 < argc)
            root = argv[++i];
        else if (a == "--remote-modem")
            remote = true;
        else if (a == "--quiet")
            quiet = true;
        else if (a == "--without-log" && i + 1 < argc)
            without_logs.push_back(argv[++i]);
        else if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        } else {
            usage(stderr);
            return 2;
        }
    }
    while (root.size() > 1 && root.back() == '/')
        root.pop_back();
    Server server(root, remote, quiet, without_logs);
    server.run();
    return 0;
}
