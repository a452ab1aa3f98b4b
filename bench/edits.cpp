// Edits: add-event (0x06) commands a second, each of which rewrites
// dm.cfg, against the bare atomic save of the same file done here in a loop
// on the same filesystem.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "bench.h"

namespace {

// A fixed set of ids: past the first round the file keeps its size.
const uint16_t FIRST_ID = 1000;
const int IDS = 64;

bool write_all(int fd, const std::string& data)
{
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += size_t(n);
    }
    return true;
}

// Temporary file, fsync, rename over the old one, fsync of the directory:
// what a save that survives a power cut costs at the least.
bool atomic_save(const std::string& dir, int dir_fd, const std::string& data)
{
    std::string tmp = dir + "/bench-save.tmp";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    bool ok = write_all(fd, data) && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    return ok && rename(tmp.c_str(), (dir + "/bench-save.cfg").c_str()) == 0 && fsync(dir_fd) == 0;
}

} // namespace

void bench_edits(const Options& opt, Report& report)
{
    SimDevice dev;
    std::string why;
    if (!start_device(dev, &why)) {
        report.error("edits: " + why);
        return;
    }
    auto client = dev.connect();
    if (!client) {
        report.error("edits: cannot connect");
        return;
    }
    const int n = opt.count(800);
    long errors = 0;
    for (int i = 0; i < IDS; i++)
        errors += !client->add_event(uint16_t(FIRST_ID + i)).done();
    auto start = Clock::now();
    for (int i = 0; i < n; i++)
        errors += !client->add_event(uint16_t(FIRST_ID + i % IDS)).done();
    double daemon_s = seconds_between(start, Clock::now());

    // The daemon saves to /sdcard/dm.cfg, which is ROOT/data/media/0.
    const std::string dir = dev.path("data/media/0");
    const std::string cfg = read_file(dir + "/dm.cfg");
    int dir_fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (errors > 0 || cfg.empty() || dir_fd < 0) {
        report.error("edits: " + std::to_string(errors) + " add-event commands failed, or no dm.cfg was saved");
        if (dir_fd >= 0)
            close(dir_fd);
        return;
    }
    start = Clock::now();
    for (int i = 0; i < n && errors == 0; i++)
        errors += !atomic_save(dir, dir_fd, cfg);
    double save_s = seconds_between(start, Clock::now());
    close(dir_fd);
    if (errors > 0) {
        report.error("edits: the atomic save failed");
        return;
    }
    report.note("edits: " + std::to_string(n) + " add-event commands, one client; dm.cfg of " +
                std::to_string(cfg.size()) + " bytes");
    report.add({ "edits (0x06)", "commands/s", n / daemon_s, "atomic save", n / save_s, { Goal::ratio_at_least, 0.8 },
                 "" });
}
