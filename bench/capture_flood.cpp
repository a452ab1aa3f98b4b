// tovak-bench-capture-flood: Android log capture under a flood of log
// entries. Reports what the simulator delivered, what the capture kept, the
// daemon's resident memory over time, and round trips of another client
// during the flood.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "devsim_ctl.h"
#include "sim_device.h"

namespace {

using Clock = std::chrono::steady_clock;

// The daemon's host pid: the process under the launcher whose executable is
// tovakd.
pid_t find_daemon(pid_t launcher)
{
    std::vector<pid_t> tree = { launcher };
    for (size_t i = 0; i < tree.size(); i++) {
        DIR* dir = opendir("/proc");
        while (dirent* e = dir ? readdir(dir) : nullptr) {
            pid_t pid = atoi(e->d_name);
            if (pid <= 0)
                continue;
            std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
            size_t close = stat.rfind(')');
            if (close == std::string::npos)
                continue;
            if (atoi(stat.c_str() + close + 4) == tree[i] && std::find(tree.begin(), tree.end(), pid) == tree.end())
                tree.push_back(pid);
        }
        if (dir)
            closedir(dir);
    }
    for (pid_t pid : tree) {
        char exe[512];
        ssize_t n = readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), exe, sizeof exe - 1);
        if (n > 0 && std::string(exe, size_t(n)).ends_with("/tovakd"))
            return pid;
    }
    return -1;
}

long rss_kib(pid_t pid)
{
    std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find("VmRSS:");
    return at == std::string::npos ? -1 : atol(status.c_str() + at + 6);
}

void usage(FILE* out)
{
    fprintf(out, "usage: tovak-bench-capture-flood [-r RATE] [-s SECONDS]\n"
                 "  floods the system log at RATE entries per second (default 40000) for SECONDS (default 5)\n");
}

} // namespace

int main(int argc, char** argv)
{
    long rate = 40000;
    long seconds = 5;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if ((a == "-r" || a == "-s") && i + 1 < argc) {
            long v = atol(argv[++i]);
            if (v <= 0) {
                usage(stderr);
                return 2;
            }
            (a == "-r" ? rate : seconds) = v;
        } else {
            usage(a == "-h" || a == "--help" ? stdout : stderr);
            return a == "-h" || a == "--help" ? 0 : 2;
        }
    }

    SimDevice dev;
    if (!dev.start()) {
        fprintf(stderr, "the simulated device did not start:\n%s", dev.failure().c_str());
        return 1;
    }
    pid_t daemon = find_daemon(dev.launcher_pid());
    auto client = dev.connect();
    if (daemon < 0 || !client || !client->capture_on().done()) {
        fprintf(stderr, "cannot switch capture on\n");
        return 1;
    }
    const long before = rss_kib(daemon);
    const long count = rate * seconds;
    devsim_ctl(dev.root(), { "flood", "system", std::to_string(rate), std::to_string(count) });

    std::atomic<bool> flooding{ true };
    std::vector<double> latencies_us;
    std::thread other([&] {
        auto c = dev.connect();
        while (c && flooding) {
            bool on;
            auto t0 = Clock::now();
            if (!c->get_capture_state(&on).done())
                break;
            latencies_us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
        }
    });

    printf("flooding the system log: %ld entries at %ld/s\n", count, rate);
    printf("%8s %12s %12s %10s\n", "second", "delivered", "queued", "rss KiB");
    long peak = before;
    auto start = Clock::now();
    for (int tick = 0;; tick++) {
        nlohmann::json st = devsim_status(dev.root());
        const auto& sys = st["logger"]["system"];
        long rss = rss_kib(daemon);
        peak = std::max(peak, rss);
        printf("%8d %12zu %12zu %10ld\n", tick, sys["written"].get<size_t>(), sys["queued"].get<size_t>(), rss);
        if (sys["flood_left"].get<size_t>() == 0 && sys["queued"].get<size_t>() == 0)
            break;
        std::this_thread::sleep_until(start + std::chrono::seconds(tick + 1));
    }
    flooding = false;
    other.join();

    nlohmann::json st = devsim_status(dev.root());
    printf("delivered %zu, dropped by the simulator %zu\n", st["logger"]["system"]["written"].get<size_t>(),
           st["logger"]["system"]["dropped"].get<size_t>());
    printf("daemon rss: before %ld KiB, peak %ld KiB, after %ld KiB\n", before, peak, rss_kib(daemon));
    if (!latencies_us.empty()) {
        std::sort(latencies_us.begin(), latencies_us.end());
        printf("another client meanwhile: %zu round trips, p50 %.1f us, p99 %.1f us\n", latencies_us.size(),
               latencies_us[latencies_us.size() / 2], latencies_us[latencies_us.size() * 99 / 100]);
    }
    return 0;
}
