// Round-trip benchmark: K clients each send M cheap requests to tovakd on a
// simulated device, and the same to a minimal echo server over the same
// socket type and frame size, measured in the same run.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "protocol/tovak_cmd_ids.h"
#include "sim_device.h"
#include "tovak_client.h"

namespace {

using Clock = std::chrono::steady_clock;

// Refused by the whitelist: the daemon logs a line and answers at once.
const char* const default_text = "bench: not a whitelisted command";
const int warmup_requests = 20;

struct Options {
    int clients = 4;
    int requests = 2000;
    std::string socket; // an already running daemon instead of a fresh device
    std::string text = default_text;
};

struct Stats {
    long requests = 0;
    long errors = 0;
    double seconds = 0;
    double p50_us = 0;
    double p99_us = 0;
    double rate() const { return seconds > 0 ? double(requests) / seconds : 0; }
};

// Echoes each 5128-byte frame back whole; one thread per connection.
class EchoServer {
public:
    EchoServer()
    {
        path_ = dir_.path() + "/echo";
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        if (path_.size() >= sizeof addr.sun_path) {
            fprintf(stderr, "echo server: socket path too long: %s\n", path_.c_str());
            exit(1);
        }
        memcpy(addr.sun_path, path_.c_str(), path_.size());
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd_, 64) != 0 ||
            pipe(stop_) != 0) {
            perror("echo server");
            exit(1);
        }
        acceptor_ = std::thread([this] { accept_loop(); });
    }

    ~EchoServer()
    {
        char c = 0;
        if (write(stop_[1], &c, 1) != 1)
            perror("echo server stop");
        acceptor_.join();
        // Sessions end when their clients hang up, which happens before this.
        for (std::thread& t : sessions_)
            t.join();
        close(fd_);
        close(stop_[0]);
        close(stop_[1]);
    }

    const std::string& path() const { return path_; }

private:
    void accept_loop()
    {
        pollfd p[2] = { { fd_, POLLIN, 0 }, { stop_[0], POLLIN, 0 } };
        while (poll(p, 2, -1) >= 0 && !(p[1].revents & POLLIN)) {
            if (!(p[0].revents & POLLIN))
                continue;
            int c = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (c >= 0)
                sessions_.emplace_back([c] { echo(c); });
        }
    }

    static void echo(int fd)
    {
        tovak_pkt frame;
        for (;;) {
            size_t got = 0;
            while (got < sizeof frame) {
                ssize_t n = read(fd, reinterpret_cast<uint8_t*>(&frame) + got, sizeof frame - got);
                if (n <= 0) {
                    close(fd);
                    return;
                }
                got += size_t(n);
            }
            if (send(fd, &frame, sizeof frame, MSG_NOSIGNAL) != ssize_t(sizeof frame)) {
                close(fd);
                return;
            }
        }
    }

    TempDir dir_;
    std::string path_;
    int fd_ = -1;
    int stop_[2] = { -1, -1 };
    std::thread acceptor_;
    std::vector<std::thread> sessions_;
};

double percentile(const std::vector<double>& sorted, double p)
{
    if (sorted.empty())
        return 0;
    size_t i = size_t(p * double(sorted.size() - 1) + 0.5);
    return sorted[std::min(i, sorted.size() - 1)];
}

// K clients, each on its own connection, M requests each after a warm-up;
// all start together. A reply whose len is not want_len counts as an error.
Stats run(const std::string& socket_path, const Options& opt, bool echoed)
{
    tovak_pkt req;
    if (!tovak_req_counted_text(&req, CMD_SYSTEM_COMMAND, opt.text, TOVAK_SYSTEM_TEXT_MAX)) {
        fprintf(stderr, "text too long for 0x13\n");
        exit(2);
    }
    // The daemon never writes the reply of 0x13; the echo returns the request.
    const uint32_t want_len = echoed ? req.len : TOVAK_PKT_DATA_SIZE;
    std::vector<std::vector<double>> latencies(size_t(opt.clients));
    std::atomic<long> errors{ 0 };
    std::latch ready(opt.clients + 1);
    std::latch go(1);
    std::vector<std::thread> threads;
    for (int k = 0; k < opt.clients; k++) {
        threads.emplace_back([&, k] {
            TovakClient client(30000);
            bool up = client.connect(socket_path);
            tovak_pkt rsp;
            for (int i = 0; up && i < warmup_requests; i++)
                up = client.exchange(req, &rsp) == TovakStatus::ok;
            std::vector<double>& lat = latencies[size_t(k)];
            lat.reserve(size_t(opt.requests));
            ready.count_down();
            go.wait();
            if (!up) {
                errors += opt.requests;
                return;
            }
            for (int i = 0; i < opt.requests; i++) {
                auto t0 = Clock::now();
                TovakStatus st = client.exchange(req, &rsp);
                auto t1 = Clock::now();
                if (st != TovakStatus::ok) {
                    errors += opt.requests - i;
                    return;
                }
                if (rsp.len != want_len)
                    errors++;
                lat.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
            }
            client.disconnect();
        });
    }
    ready.arrive_and_wait();
    auto start = Clock::now();
    go.count_down();
    for (std::thread& t : threads)
        t.join();
    Stats s;
    s.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::vector<double> all;
    for (const auto& l : latencies)
        all.insert(all.end(), l.begin(), l.end());
    std::sort(all.begin(), all.end());
    s.requests = long(all.size());
    s.errors = errors;
    s.p50_us = percentile(all, 0.50);
    s.p99_us = percentile(all, 0.99);
    return s;
}

void usage(FILE* f)
{
    fprintf(f,
            "usage: tovak-bench-roundtrip [-k CLIENTS] [-m REQUESTS] [--socket PATH] [--text TEXT]\n"
            "  -k CLIENTS      concurrent clients, each on its own connection (default 4)\n"
            "  -m REQUESTS     requests per client, after %d unmeasured ones (default 2000)\n"
            "  --socket PATH   measure a daemon already listening there instead of a fresh\n"
            "                  simulated device\n"
            "  --text TEXT     the 0x13 text sent (default \"%s\",\n"
            "                  which the whitelist refuses)\n",
            warmup_requests, default_text);
}

bool positive(const char* text, int* out)
{
    char* end = nullptr;
    long v = strtol(text, &end, 10);
    if (*text == '\0' || *end != '\0' || v < 1 || v > 1000000)
        return false;
    *out = int(v);
    return true;
}

void row(const char* name, const Stats& s)
{
    printf("%-12s %9ld %7ld %12.0f %10.1f %10.1f\n", name, s.requests, s.errors, s.rate(), s.p50_us, s.p99_us);
}

} // namespace

int main(int argc, char** argv)
{
    Options opt;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        bool has_value = i + 1 < argc;
        if ((a == "-k" || a == "--clients") && has_value && positive(argv[i + 1], &opt.clients)) {
            i++;
        } else if ((a == "-m" || a == "--requests") && has_value && positive(argv[i + 1], &opt.requests)) {
            i++;
        } else if (a == "--socket" && has_value) {
            opt.socket = argv[++i];
        } else if (a == "--text" && has_value) {
            opt.text = argv[++i];
        } else if (a == "-h" || a == "--help") {
            usage(stdout);
            return 0;
        } else {
            fprintf(stderr, "tovak-bench-roundtrip: bad argument %s\n", a.c_str());
            usage(stderr);
            return 2;
        }
    }

    std::unique_ptr<SimDevice> dev;
    std::string daemon_socket = opt.socket;
    if (daemon_socket.empty()) {
        dev = std::make_unique<SimDevice>();
        if (!dev->start()) {
            fprintf(stderr, "tovak-bench-roundtrip: the simulated device did not come up:\n%s\n", dev->failure().c_str());
            return 1;
        }
        daemon_socket = dev->socket_path();
    }

    printf("round trip of 5128-byte frames: %d clients x %d requests, 0x13 \"%s\"\n", opt.clients, opt.requests,
           opt.text.c_str());
    Stats daemon = run(daemon_socket, opt, false);
    Stats echo;
    {
        EchoServer server;
        echo = run(server.path(), opt, true);
    }

    printf("%-12s %9s %7s %12s %10s %10s\n", "target", "requests", "errors", "req/s", "p50 us", "p99 us");
    row("tovakd", daemon);
    row("echo", echo);
    printf("%-12s %9s %7s %12.3f %10.2f %10.2f\n", "tovakd/echo", "", "", echo.rate() > 0 ? daemon.rate() / echo.rate() : 0,
           echo.p50_us > 0 ? daemon.p50_us / echo.p50_us : 0, echo.p99_us > 0 ? daemon.p99_us / echo.p99_us : 0);
    return daemon.errors == 0 && echo.errors == 0 ? 0 : 1;
}
