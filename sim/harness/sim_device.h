// A simulated device in a fresh root of its own, `tovak-sim up` running on
// it, and helpers to talk to it and look at it: for tests and benchmarks.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tovak_client.h"

// How many times longer every deadline below is: TOVAK_TEST_TIME_SCALE, a
// whole number (default 1), for builds that run several times slower
// (sanitizers) on a loaded machine.
int test_time_scale();

// Waits for cond to hold, checking often, until the deadline (scaled).
bool wait_until(const std::function<bool()>& cond, std::chrono::milliseconds timeout = std::chrono::seconds(20));

std::string read_file(const std::string& path);
bool write_file(const std::string& path, const std::string& text);
bool file_exists(const std::string& path);

// Waits for a child to end: its exit status, or 128 + the signal that ended it.
int wait_child(pid_t pid);

// A directory of its own under TMPDIR, removed when it goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

class SimDevice {
public:
    SimDevice();
    ~SimDevice();
    SimDevice(const SimDevice&) = delete;
    SimDevice& operator=(const SimDevice&) = delete;

    const std::string& root() const { return root_.path(); }
    // ROOT/rel as the device sees it.
    std::string path(const std::string& rel) const;
    // Before start: /sdcard (ROOT/data/media/0) becomes a tmpfs of mib MiB,
    // mounted in a mount namespace of the launcher's own, so that it can be
    // filled. Needs root; path() then reaches it through the launcher.
    void small_sdcard(int mib) { sdcard_mib_ = mib; }
    std::string socket_path() const;

    // Runs `tovak-sim up ROOT args...` and waits until the daemon accepts
    // clients. False (with the launcher's output in failure()) if it ends or
    // never gets there.
    bool start(const std::vector<std::string>& args = {});
    // Signals the launcher (SIGTERM, or SIGINT as Ctrl-C does) and waits for
    // it; returns its exit status.
    int stop(int sig = SIGTERM);
    bool running() const { return launcher_ > 0; }
    pid_t launcher_pid() const { return launcher_; }
    // Why start failed or what went wrong since: the launcher's exit, its
    // error output and the daemon's output.
    std::string failure() const;
    // The first line of a sanitizer report in the daemon's or the
    // simulator's output; empty when there is none.
    std::string sanitizer_report() const;
    // How many times the launcher started tovakd (ROOT/sim/tovakd.state); 0
    // when the launcher keeps no such file.
    int daemon_starts() const;

    // A client whose time-outs are timeout_ms, scaled.
    std::unique_ptr<TovakClient> connect(int timeout_ms = 20000);

    // The daemon's stdout as the launcher copied it.
    std::string daemon_stdout() const;
    bool wait_stdout(const std::string& needle, std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;
    // Property as stored under ROOT/data/property; empty when unset.
    std::string property(const std::string& key) const;

    // Path of a program built beside the daemon.
    static std::string bin(const std::string& name);
    // Runs a program to its end; returns its exit status, output in out.
    static int run(const std::vector<std::string>& argv, std::string* out = nullptr, std::string* err = nullptr);

private:
    TempDir root_;
    pid_t launcher_ = -1;
    // The launcher's wait status when it ended on its own; -1 otherwise.
    int launcher_status_ = -1;
    std::string launcher_err_;
    size_t stdout_from_ = 0;
    int sdcard_mib_ = 0;
};
