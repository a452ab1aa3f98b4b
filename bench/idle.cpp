// Idle sessions: the daemon's resident memory with 10,000 clients connected
// and doing nothing, and what a new client then waits for its first reply,
// beside the same with no other client.
#include <sys/resource.h>
#include <unistd.h>

#include "bench.h"
#include "protocol/unix_socket.h"

namespace {

// Connect, one request, disconnect: n times; the microseconds to the reply.
std::vector<double> new_clients(const std::string& socket, int n, long* errors)
{
    const tovak_pkt req = cheap_request();
    std::vector<double> us;
    for (int i = 0; i < n; i++) {
        tovak_pkt rsp;
        TovakClient client(10000);
        auto start = Clock::now();
        if (!client.connect(socket) || client.exchange(req, &rsp) != TovakStatus::ok) {
            ++*errors;
            continue;
        }
        us.push_back(seconds_between(start, Clock::now()) * 1e6);
        client.disconnect();
    }
    std::sort(us.begin(), us.end());
    return us;
}

} // namespace

void bench_idle_sessions(const Options& opt, Report& report)
{
    const int sessions = opt.quick ? 2000 : 10000;
    const std::string what = std::to_string(sessions) + " idle sessions";
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < rlim_t(sessions) + 100) {
        report.error(what + ": needs " + std::to_string(sessions + 100) +
                     " open files a process; raise the hard limit (ulimit -Hn)");
        return;
    }
    SimDevice dev;
    std::string why;
    if (!start_device(dev, &why)) {
        report.error(what + ": " + why);
        return;
    }
    const pid_t pid = daemon_pid(dev);
    const int probes = opt.count(500);
    long errors = 0;
    std::vector<double> alone = new_clients(dev.socket_path(), probes, &errors);
    // The probes' session threads end a moment after their clients leave.
    long threads_alone = -1;
    auto since = Clock::now();
    wait_until(
        [&] {
            long t = proc_status(pid, "Threads");
            if (t != threads_alone) {
                threads_alone = t;
                since = Clock::now();
            }
            return Clock::now() - since >= std::chrono::milliseconds(200);
        },
        std::chrono::seconds(10));
    const long rss_alone = proc_status(pid, "VmRSS");
    if (pid < 0 || rss_alone < 0) {
        report.error(what + ": cannot find the daemon's process");
        return;
    }

    std::vector<int> fds;
    for (int i = 0; i < sessions; i++) {
        int fd = unix_socket_connect(dev.socket_path().c_str(), 10000);
        if (fd < 0)
            break;
        fds.push_back(fd);
    }
    bool all =
        int(fds.size()) == sessions &&
        wait_until([&] { return proc_status(pid, "Threads") >= threads_alone + sessions; }, std::chrono::seconds(60));
    const long rss = proc_status(pid, "VmRSS");
    const long threads = proc_status(pid, "Threads");
    std::vector<double> crowded = new_clients(dev.socket_path(), probes, &errors);
    for (int fd : fds)
        close(fd);
    if (!all || errors > 0) {
        report.error(what + ": " + std::to_string(fds.size()) + " sessions opened, " + std::to_string(threads) +
                     " daemon threads, " + std::to_string(errors) + " new clients failed");
        return;
    }
    const std::string with = "with " + std::to_string(sessions) + " idle";
    report.add({ what,
                 "daemon RSS MB",
                 rss / 1024.0,
                 "no session",
                 rss_alone / 1024.0,
                 { Goal::value_below, 200 },
                 std::to_string(threads) + " threads" });
    report.add(
        { "new client " + with, "p50 us", percentile(crowded, 0.5), "none idle", percentile(alone, 0.5), {}, "" });
    report.add(
        { "new client " + with, "p99 us", percentile(crowded, 0.99), "none idle", percentile(alone, 0.99), {}, "" });
}
