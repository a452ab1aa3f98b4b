// tovak-sim's pieces: `up` lays out a device root and starts the sandbox on
// the host, `inside` runs the simulator and supervises tovakd within it, and
// the process helpers serve both.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

// Android init restarts a service no sooner than 5 s after its last start.
#define RESTART_DELAY_MS 5000
// The phone's init gives tovakd this many descriptors (its rlimit): running
// it out of them then takes far more clients than an app may open.
#define DAEMON_NOFILE 65536

namespace launcher {

struct UpOptions {
    std::string root;
    std::string etc = TOVAK_ETC_DIR;
    bool bootcomplete = true;
    bool remote_modem = false;
    std::vector<std::string> without_logs;
    bool sdcard_readonly = false;
    // The daemon binary, and the command it runs under (qemu-arm -L ...).
    std::string daemon;
    std::vector<std::string> wrapper;
    std::string nofile;
    std::string restart_delay;
};

// up ROOT: the device in the foreground until a signal; its exit status.
int up(UpOptions opt);
// inside BIN DAEMON ...: the sandbox's init, as `up` starts it.
int inside(int argc, char** argv);

// Says msg on stderr as tovak-sim's and exits with status 1.
[[noreturn]] void die(const std::string& msg);
// The directory of this executable, where the daemon and simulator lie too.
std::string self_dir();
// The program's full path on PATH, or "" when it is not there.
std::string find_on_path(const std::string& prog);
// The canonical path, or "" when it does not resolve.
std::string real_path(const std::string& path);
// Starts args with out_fd and err_fd as its stdout and stderr (-1: keep),
// and with at most nofile descriptors when nofile is not 0.
pid_t spawn(const std::vector<std::string>& args, int out_fd, int err_fd, rlim_t nofile = 0);
// Writes all of text; a closed terminal must not stop the device.
void write_all(int fd, const std::string& text);
// The signals, blocked, as a descriptor to poll; SIGPIPE ignored.
int signal_fd(std::initializer_list<int> signals);
int64_t now_ms();

} // namespace launcher
