// Edits: add-event (0x06) commands a second, each of which rewrites
// dm.cfg, against the bare atomic save of the same file done here in a loop
// on the same filesystem.
#include <fcntl.h>
#include <unistd.h>

#include "bench.h"
#include "sim_files.h"

namespace {

// A fixed set of ids: past the first round the file keeps its size.
const uint16_t FIRST_ID = 1000;
const int IDS = 64;

// Temporary file, fsync, rename over the old one, fsync of the directory:
// what a save that survives a power cut costs at the least.
bool atomic_save(const std::string& dir, int dir_fd, const std::string& data)
{
    std::string tmp = dir + "/bench-save.tmp";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    bool ok = sim_write_all(fd, data.data(), data.size()) && fsync(fd) == 0;
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
    long errors = 0;
    for (int i = 0; i < IDS; i++)
        errors += !client->add_event(uint16_t(FIRST_ID + i)).done();
    // The daemon saves to /sdcard/dm.cfg, which is ROOT/data/media/0.
    const std::string dir = dev.path("data/media/0");
    const std::string cfg = read_file(dir + "/dm.cfg");
    int dir_fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (errors > 0 || cfg.empty() || dir_fd < 0) {
        report.error("edits: the add-event commands failed, or no dm.cfg was saved");
        if (dir_fd >= 0)
            close(dir_fd);
        return;
    }
    // Turns of 50 each, so that the disk's moods fall on both alike.
    const int turns = std::max(1, opt.count(800) / 50), turn = 50, n = turns * turn;
    double daemon_s = 0, save_s = 0;
    long failed_saves = 0;
    for (int k = 0; k < turns && errors == 0 && failed_saves == 0; k++) {
        auto start = Clock::now();
        for (int i = 0; i < turn; i++)
            errors += !client->add_event(uint16_t(FIRST_ID + i % IDS)).done();
        auto mid = Clock::now();
        for (int i = 0; i < turn; i++)
            failed_saves += !atomic_save(dir, dir_fd, cfg);
        daemon_s += seconds_between(start, mid);
        save_s += seconds_between(mid, Clock::now());
    }
    close(dir_fd);
    if (errors > 0 || failed_saves > 0) {
        report.error(errors > 0 ? "edits: add-event commands failed" : "edits: the atomic save failed");
        return;
    }
    report.note("edits: " + std::to_string(n) + " add-event commands, one client, in turns of " + std::to_string(turn) +
                " with as many saves; dm.cfg of " + std::to_string(cfg.size()) + " bytes");
    report.add(
        { "edits (0x06)", "commands/s", n / daemon_s, "atomic save", n / save_s, { Goal::ratio_at_least, 0.8 }, "" });
}
