// Log reading: tovakctl log-read listing a generated modem log, against
// tshark -r listing a generated capture of the same size; and tovakctl's
// peak memory at that size against an eighth of it.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "bench.h"
#include "ip_packets.h"
#include "modem_traffic.h"

namespace {

struct Child {
    bool ok = false;
    double seconds = 0;
    long max_rss_kb = 0;
    std::string why;
};

// Runs argv with its output thrown away; its time and peak memory.
Child run_quiet(const std::vector<std::string>& argv)
{
    Child c;
    const Clock::time_point t0 = Clock::now();
    pid_t pid = fork();
    if (pid < 0) {
        c.why = std::string("fork: ") + strerror(errno);
        return c;
    }
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        std::vector<char*> args;
        for (const std::string& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    struct rusage ru = {};
    if (wait4(pid, &status, 0, &ru) != pid) {
        c.why = std::string("wait4: ") + strerror(errno);
        return c;
    }
    c.seconds = seconds_between(t0, Clock::now());
    c.max_rss_kb = ru.ru_maxrss;
    c.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!c.ok)
        c.why = argv[0] + " exited with " +
                std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    return c;
}

// A modem log of the factory configuration's items with DPL on three
// interfaces, as the simulated modem frames it, of at least bytes.
bool write_modem_log(const std::string& path, uint64_t bytes, uint64_t* records)
{
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr)
        return false;
    std::vector<TrafficItem> items;
    for (uint16_t code : { 0x412F, 0x713F, 0xB061, 0xB062, 0xB0C0, 0xB0E2, 0xB0E3, 0xB0EC, 0xB0ED, 0xB167 })
        items.push_back({ ItemKind::log, code, 0, 1 });
    for (uint16_t e : { 1498, 1499, 1606, 1611, 1685, 1970 })
        items.push_back({ ItemKind::event, e, 0, 1 });
    for (uint16_t ssid : { 5, 15, 3006 })
        items.push_back({ ItemKind::message, ssid, 3, 1 });
    for (uint16_t i : { 1, 15, 19 })
        items.push_back({ ItemKind::dpl, i, 0, 1 });
    TrafficSource src;
    src.set_items(items);
    FrameBuffer buf;
    uint64_t written = 0, ns = 1767225600ull * 1000000000ull;
    bool ok = true;
    while (ok && written < bytes) {
        // 100 ms at 100,000 records a second, shared by the items.
        ns += 100000000;
        src.produce(0.1, 100000, ns, buf, size_t(1) << 30);
        const std::vector<uint8_t> data = buf.take();
        ok = fwrite(data.data(), 1, data.size(), f) == data.size();
        written += data.size();
    }
    *records = src.produced();
    return fclose(f) == 0 && ok;
}

// A raw-IP pcap of the simulator's IP packets, of at least bytes.
bool write_capture(const std::string& path, uint64_t bytes, uint64_t* packets)
{
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr)
        return false;
    const uint32_t head[6] = { 0xA1B2C3D4, 0x00040002, 0, 0, 262144, 101 };
    bool ok = fwrite(head, 1, sizeof head, f) == sizeof head;
    uint64_t written = sizeof head;
    *packets = 0;
    std::vector<uint8_t> rec;
    for (uint32_t k = 0; ok && written < bytes; k++) {
        const std::vector<uint8_t> ip = sim_ip_packet(k, k);
        const uint32_t h[4] = { 1767225600u + k / 1000, (k % 1000) * 1000, uint32_t(ip.size()), uint32_t(ip.size()) };
        rec.assign(reinterpret_cast<const uint8_t*>(h), reinterpret_cast<const uint8_t*>(h) + sizeof h);
        rec.insert(rec.end(), ip.begin(), ip.end());
        ok = fwrite(rec.data(), 1, rec.size(), f) == rec.size();
        written += rec.size();
        ++*packets;
    }
    return fclose(f) == 0 && ok;
}

std::string find_tshark()
{
    for (const char* dir : { "/usr/bin/", "/usr/local/bin/", "/bin/" })
        if (access((std::string(dir) + "tshark").c_str(), X_OK) == 0)
            return std::string(dir) + "tshark";
    return "";
}

} // namespace

void bench_log_read(const Options& opt, Report& report)
{
    const uint64_t mb = uint64_t(opt.quick ? std::max(1, opt.logread_mb / 5) : opt.logread_mb);
    const std::string tshark = find_tshark();
    if (tshark.empty()) {
        report.error("log read: no tshark (scripts/deps.sh installs it)");
        return;
    }
    TempDir dir;
    const std::string log = dir.path() + "/big.qmdl", small = dir.path() + "/small.qmdl",
                      pcap = dir.path() + "/big.pcap";
    uint64_t records = 0, small_records = 0, packets = 0;
    if (!write_modem_log(log, mb << 20, &records) || !write_modem_log(small, (mb << 20) / 8, &small_records) ||
        !write_capture(pcap, mb << 20, &packets)) {
        report.error("log read: cannot write the generated files in " + dir.path());
        return;
    }
    const std::string ctl = SimDevice::bin("tovakctl");
    // Each lists every record or packet, one line each, best of three in turns.
    Child best_ctl, best_tshark, best_small;
    for (int i = 0; i < 3; i++) {
        Child a = run_quiet({ ctl, "log-read", log });
        Child b = run_quiet({ tshark, "-r", pcap });
        Child s = run_quiet({ ctl, "log-read", small });
        for (auto [got, best] :
             { std::pair{ &a, &best_ctl }, std::pair{ &b, &best_tshark }, std::pair{ &s, &best_small } }) {
            if (!got->ok) {
                report.error("log read: " + got->why);
                return;
            }
            if (!best->ok || got->seconds < best->seconds)
                *best = *got;
        }
    }
    const double size_mb = double(mb << 20) / 1e6;
    report.note("log read: a " + std::to_string(mb) + " MiB modem log of " + std::to_string(records) +
                " records listed by tovakctl log-read, a capture of the same size of " + std::to_string(packets) +
                " IP packets listed by tshark -r, both to /dev/null; best of 3");
    Figure speed;
    speed.name = "log read";
    speed.unit = "MB/s";
    speed.value = size_mb / best_ctl.seconds;
    speed.baseline = "tshark -r";
    speed.base = size_mb / best_tshark.seconds;
    speed.goal = { Goal::ratio_at_least, 1 };
    report.add(speed);
    Figure memory;
    memory.name = "log read peak RSS";
    memory.unit = "MB";
    memory.value = double(best_ctl.max_rss_kb) / 1024;
    memory.baseline = "an eighth of the log";
    memory.base = double(best_small.max_rss_kb) / 1024;
    memory.goal = { Goal::ratio_at_most, 1.25 };
    report.add(memory);
}
