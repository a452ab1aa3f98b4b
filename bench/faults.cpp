// Faults: the round trips of 16 sessions while one fault is injected
// through the simulator's control interface and one more session runs into
// it, beside the same on the same device just before the fault.
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>

#include "bench.h"

namespace {

using Commands = std::vector<std::vector<std::string>>;

struct Fault {
    const char* name;
    Commands inject;
    Commands clear;
    // /sdcard on a small filesystem of its own, so that it can be filled.
    bool small_sdcard;
    // What the session that meets the fault does, over and over until told
    // to stop; false when the connection is no longer usable.
    std::function<bool(TovakClient&)> meet;
};

const std::vector<std::string> BUFFERS = { "main", "radio", "events", "system" };

Commands for_buffers(const std::string& state)
{
    Commands c;
    for (const std::string& b : BUFFERS)
        c.push_back({ "fault", "stall", b, state });
    return c;
}

const Fault FAULTS[] = {
    // The log devices stop handing out entries: the capture threads wait in
    // their reads while a session commits the capture.
    { "stalled logger", for_buffers("on"), for_buffers("off"), false,
      [](TovakClient& c) { return c.capture_commit().status == TovakStatus::ok; } },
    // No logd: every log line the sessions write has nowhere to go.
    { "absent logger",
      { { "fault", "logger-absent", "on" } },
      { { "fault", "logger-absent", "off" } },
      false,
      [](TovakClient& c) {
          bool on;
          return c.get_log_state(&on).status == TovakStatus::ok;
      } },
    // Saves and capture commits fail for want of room.
    { "full disk",
      { { "disk", "fill", "/sdcard" } },
      { { "disk", "free", "/sdcard" } },
      true,
      [](TovakClient& c) {
          return c.add_event(1000).status == TovakStatus::ok && c.capture_commit().status == TovakStatus::ok;
      } },
    // Log on waits for answers that never come.
    { "silent modem",
      { { "fault", "silent", "on" } },
      { { "fault", "silent", "off" } },
      false,
      [](TovakClient& c) { return c.log_on().status == TovakStatus::ok; } },
};

// A private mount namespace, so that the small /sdcard is this process's
// alone and goes with it. Needs root; must run before any thread starts.
bool private_mounts(std::string* why)
{
    if (geteuid() != 0) {
        *why = "needs root for a small /sdcard (a tmpfs in a mount namespace of its own)";
        return false;
    }
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        *why = std::string("no mount namespace: ") + strerror(errno);
        return false;
    }
    return true;
}

// Stops the device before its root goes, and unmounts the small /sdcard so
// that the root can go.
struct DeviceGuard {
    SimDevice& dev;
    bool mounted = false;
    ~DeviceGuard()
    {
        dev.stop();
        if (mounted)
            umount2(dev.path("data/media/0").c_str(), MNT_DETACH);
    }
};

const int CLIENTS = 16;

// The round trips of the other sessions while one more session meets the
// fault every 50 ms; the clean run has that session too, so that the fault
// is the only difference.
RoundTrips others(const SimDevice& dev, const Fault& fault, int per_client)
{
    std::atomic<bool> stop{ false };
    std::thread meet([&] {
        while (!stop) {
            TovakClient c(2000);
            if (!c.connect(dev.socket_path()))
                break;
            while (!stop && fault.meet(c))
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    RoundTrips r = round_trips(dev.socket_path(), CLIENTS, per_client, false);
    stop = true;
    meet.join();
    return r;
}

void run_fault(const Options& opt, Report& report, const Fault& fault, bool can_mount, const std::string& no_mount)
{
    Figure f{
        std::string("fault: ") + fault.name, "others' p99 us", NAN, "clean", NAN, { Goal::ratio_at_most, 2.0 }, ""
    };
    if (fault.small_sdcard && !can_mount) {
        f.note = "skipped: " + no_mount;
        report.add(f);
        return;
    }
    SimDevice dev;
    DeviceGuard guard{ dev };
    if (fault.small_sdcard) {
        std::string sdcard = dev.path("data/media/0");
        std::error_code ec;
        std::filesystem::create_directories(sdcard, ec);
        guard.mounted = mount("tmpfs", sdcard.c_str(), "tmpfs", 0, "size=64m,mode=0777") == 0;
        if (!guard.mounted) {
            report.error(std::string(fault.name) + ": cannot mount a tmpfs at " + sdcard + ": " + strerror(errno));
            return;
        }
    }
    std::string why;
    if (!start_device(dev, &why)) {
        report.error(std::string(fault.name) + ": " + why);
        return;
    }
    auto setup = dev.connect();
    if (!setup || !setup->capture_on().done()) {
        report.error(std::string(fault.name) + ": cannot switch capture on");
        return;
    }
    const int per_client = opt.count(1000);
    RoundTrips clean = others(dev, fault, per_client);
    f.base = clean.p99_us;
    for (const auto& c : fault.inject) {
        if (!ctl(dev, c, &why)) {
            f.note = "not injected: " + why;
            report.add(f);
            return;
        }
    }
    RoundTrips faulted = others(dev, fault, per_client);
    for (const auto& c : fault.clear)
        ctl(dev, c);
    f.value = faulted.p99_us;
    if (clean.errors + faulted.errors > 0)
        f.note = std::to_string(faulted.errors) + " of " + std::to_string(CLIENTS * per_client) + " requests failed";
    report.add(f);
}

} // namespace

void bench_faults(const Options& opt, Report& report)
{
    std::string no_mount;
    bool can_mount = private_mounts(&no_mount);
    report.note("faults: 16 sessions' round trips (0x13) while one more session meets the fault every 50 ms, "
                "without the fault and then with it, on the same device");
    for (const Fault& fault : FAULTS) {
        fprintf(stderr, "tovak-bench: fault %s\n", fault.name);
        run_fault(opt, report, fault, can_mount, no_mount);
    }
}
