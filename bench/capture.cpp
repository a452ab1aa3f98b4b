// Capture: one flood of entries into one log device, taken once by tovakd
// into its capture file and once by cat into a plain file on the same
// filesystem; same simulator, same rate.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <thread>

#include "bench.h"
#include "protocol/tovak_layouts.h"

namespace {

const char* const BUFFER = "system";
const uint32_t CATEGORY = 3; // system
// The simulator's highest rate: the readers set the pace.
const long FLOOD_RATE = 1000000;
// The largest capture size; a flood that fits never wraps the ring, so the
// file holds every entry the daemon took.
const uint32_t RING_BYTES = TOVAK_CAPTURE_SIZE_MAX;
const long FLOOD_ENTRIES = 400000; // about 17 MB

struct Stream {
    uint64_t entries = 0;
    uint64_t bytes = 0;
    bool ordered = true;
};

// Logger entries as the log device hands them out: u16 payload length,
// 18 more header bytes, then priority, tag and message with their NULs.
Stream parse_flood(const std::string& data)
{
    Stream s;
    uint64_t last = 0;
    size_t at = 0;
    while (at + 20 <= data.size()) {
        size_t len = uint8_t(data[at]) | size_t(uint8_t(data[at + 1])) << 8;
        if (at + 20 + len > data.size() || len < 2)
            break;
        const char* payload = data.data() + at + 20;
        std::string tag(payload + 1, strnlen(payload + 1, len - 1));
        const char* msg = payload + 1 + tag.size() + 1;
        if (tag == "devsim" && size_t(msg - payload) + 6 <= len && strncmp(msg, "flood ", 6) == 0) {
            uint64_t seq = strtoull(msg + 6, nullptr, 10);
            s.ordered = s.ordered && seq > last;
            last = seq;
            s.entries++;
        }
        s.bytes += 20 + len;
        at += 20 + len;
    }
    return s;
}

struct FloodRun {
    bool ok = false;
    std::string why;
    double seconds = 0; // from the flood's start to the output's last growth
    Stream got;
    uint64_t written = 0; // entries the simulator put into the log device
    uint64_t dropped = 0; // entries it dropped because the reader fell behind
    double rate() const { return seconds > 0 ? double(got.entries) / seconds : 0; }
    double mb_rate() const { return seconds > 0 ? double(got.bytes) / seconds / 1e6 : 0; }
    long lost() const { return long(written) - long(got.entries); }
};

off_t file_size(const std::string& path)
{
    struct stat st;
    return !path.empty() && stat(path.c_str(), &st) == 0 ? st.st_size : 0;
}

// Floods the log device and waits until its reader has written out all
// that the simulator delivered: nothing left in the flood, the queue or the
// device, and the output no longer growing.
FloodRun flood(const SimDevice& dev, long count, const std::function<std::string()>& output)
{
    FloodRun r;
    nlohmann::json before = devsim_status(dev.root());
    int device = open(dev.path(std::string("dev/log/") + BUFFER).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (before.is_discarded() || device < 0) {
        r.why = "cannot see the simulator's log device";
        if (device >= 0)
            close(device);
        return r;
    }
    const auto start = Clock::now();
    if (!ctl(dev, { "flood", BUFFER, std::to_string(FLOOD_RATE), std::to_string(count) }, &r.why)) {
        close(device);
        return r;
    }
    nlohmann::json after;
    off_t size = 0;
    auto grown = start, checked = start;
    for (;;) {
        off_t now_size = file_size(output());
        auto now = Clock::now();
        if (now_size != size) {
            size = now_size;
            grown = now;
        } else if (now - grown > std::chrono::milliseconds(300) && now - checked > std::chrono::milliseconds(100)) {
            checked = now;
            after = devsim_status(dev.root());
            int pending = 1;
            ioctl(device, FIONREAD, &pending);
            const auto& b = after["logger"][BUFFER];
            if (!after.is_discarded() && b["flood_left"] == 0 && b["queued"] == 0 && pending == 0)
                break;
        }
        if (now - start > std::chrono::seconds(120)) {
            r.why = "the flood did not end within 120 s";
            close(device);
            return r;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    close(device);
    r.seconds = seconds_between(start, grown);
    const auto &b0 = before["logger"][BUFFER], &b1 = after["logger"][BUFFER];
    r.written = b1["written"].get<uint64_t>() - b0["written"].get<uint64_t>();
    r.dropped = b1["dropped"].get<uint64_t>() - b0["dropped"].get<uint64_t>();
    r.got = parse_flood(read_file(output()));
    r.ok = true;
    return r;
}

pid_t start_cat(const std::string& from, const std::string& to)
{
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || dup2(fd, STDOUT_FILENO) < 0)
            _exit(127);
        execlp("cat", "cat", from.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

void stop(pid_t pid)
{
    kill(pid, SIGTERM);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

// The capture file of the system category: the host library keeps it under
// /data/local/syslog as adbsystem.PID.SEQ.ring. Not the one named old: a
// file stays until the daemon's thread closes it, which can be 30 s late.
std::string ring_file(const SimDevice& dev, const std::string& old)
{
    std::string dir = dev.path("data/local/syslog");
    std::string found;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (strncmp(e->d_name, "adbsystem.", 10) == 0 && dir + "/" + e->d_name != old)
                found = dir + "/" + e->d_name;
        closedir(d);
    }
    return found;
}

void keep_best(FloodRun* best, const FloodRun& run)
{
    if (!best->ok || (run.ok && run.rate() > best->rate()))
        *best = run;
}

} // namespace

void bench_capture(const Options& opt, Report& report)
{
    SimDevice dev;
    std::string why;
    if (!start_device(dev, &why)) {
        report.error("capture: " + why);
        return;
    }
    auto client = dev.connect();
    uint32_t size = 0;
    std::vector<bool> enabled;
    if (client) {
        client->set_capture_size(CATEGORY, RING_BYTES);
        client->add_category(CATEGORY);
        client->get_capture_size(CATEGORY, &size);
        client->get_categories(&enabled);
    }
    if (size != RING_BYTES || enabled.size() <= CATEGORY || !enabled[CATEGORY]) {
        report.error("capture: cannot set up the system category");
        return;
    }
    const long count = opt.count(FLOOD_ENTRIES);
    const std::string cat_out = dev.path("data/local/bench-cat.out");
    FloodRun cat, tovakd;
    std::string old_ring;
    // Best of three, taking turns, so that a neighbour's burst on this
    // machine does not decide the ratio.
    for (int run = 0; run < (opt.quick ? 1 : 3); run++) {
        pid_t pid = start_cat(dev.path(std::string("dev/log/") + BUFFER), cat_out);
        keep_best(&cat, flood(dev, count, [&] { return cat_out; }));
        stop(pid);

        if (!client->capture_on().done()) {
            report.error("capture: the daemon did not switch capture on");
            return;
        }
        std::string ring;
        keep_best(&tovakd, flood(dev, count, [&] { return ring.empty() ? ring = ring_file(dev, old_ring) : ring; }));
        // The daemon's thread sits in a read of the device until one more
        // entry comes; after it, the thread sleeps and leaves the device to
        // the next cat.
        off_t size = file_size(ring);
        if (!client->capture_off().done() || !ctl(dev, { "log", BUFFER, "I", "bench", "capture", "off" }) ||
            !wait_until([&] { return file_size(ring) > size; }, std::chrono::seconds(10))) {
            report.error("capture: the daemon did not stop reading the log device");
            return;
        }
        old_ring = ring;
    }
    for (const FloodRun* r : { &cat, &tovakd })
        if (!r->ok)
            report.error("capture: " + r->why);
    if (!cat.ok || !tovakd.ok)
        return;

    char text[300];
    snprintf(text, sizeof text,
             "capture: %ld entries flooded into /dev/log/%s at up to %ld/s, best of %d; tovakd took %llu of %llu "
             "delivered (%llu dropped by the simulator), cat %llu of %llu",
             count, BUFFER, FLOOD_RATE, opt.quick ? 1 : 3, (unsigned long long)tovakd.got.entries,
             (unsigned long long)tovakd.written, (unsigned long long)tovakd.dropped,
             (unsigned long long)cat.got.entries, (unsigned long long)cat.written);
    report.note(text);
    std::string order = tovakd.got.ordered ? "" : "entries out of order";
    report.add({ "capture", "entries/s", tovakd.rate(), "cat", cat.rate(), { Goal::ratio_at_least, 0.9 }, order });
    report.add({ "capture", "MB/s", tovakd.mb_rate(), "cat", cat.mb_rate(), {}, "" });
    report.add(
        { "capture", "entries lost", double(tovakd.lost()), "cat", double(cat.lost()), { Goal::value_below, 1 }, "" });
}
