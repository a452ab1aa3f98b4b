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

// The launcher's own files beside the daemon's, for up --detach and down.
#define SIM_LAUNCHER_PID SIM_DIR "/launcher.pid"
#define SIM_LAUNCHER_LOG SIM_DIR "/launcher.log"

// Raised with any change a user of the command line would notice.
#define TOVAK_SIM_VERSION "1.1"

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
    // Only tovak-sim's own lines on the terminal; the daemon's still go to its file.
    bool quiet = false;
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

// Serving: the daemon accepts a client at ROOT's socket.
bool daemon_serves(const std::string& root);
std::string ready_line(const std::string& root);
// The state file says the device stopped.
void mark_stopped(const std::string& root);
// up again as a background process (argv without --detach); returns once
// the daemon serves, or with the launcher's error.
int up_detached(const std::vector<std::string>& argv, const std::string& root);
// Stops the up running on ROOT, with everything it started.
int down(const std::string& root);

// The daemon's output for the terminal: whole lines with logcat's time.
class Stamper {
public:
    std::string lines(const std::string& chunk, bool quiet);
    // A last line without its end.
    std::string rest();

private:
    static std::string stamp();
    std::string partial_;
};

} // namespace launcher
