// `tovak-sim inside`: the sandbox's init. It brings up the device simulator,
// then runs tovakd as init runs a service: its output copied, its end
// reported, restarts after a delay, given up after too many crashes.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>

#include "launcher.h"
#include "sim_files.h"
#include "sim_root.h"

namespace launcher {

namespace {

// Init gives up on a service that exits more than 4 times within 4 minutes.
#define CRASH_WINDOW_MS (4 * 60 * 1000)
#define CRASH_LIMIT 4
// Lines of the daemon's last output shown when it exits.
#define LAST_LINES 5
// DAEMON_NOFILE, or where `up` could not raise the hard limit that far (it
// needs root's CAP_SYS_RESOURCE), the most there is, said on stderr.
rlim_t daemon_nofile()
{
    rlimit own = {};
    if (getrlimit(RLIMIT_NOFILE, &own) != 0 || own.rlim_max == RLIM_INFINITY || own.rlim_max >= DAEMON_NOFILE)
        return DAEMON_NOFILE;
    write_all(STDERR_FILENO, "tovak-sim: tovakd may open " + std::to_string(own.rlim_max) + " descriptors, not " +
                                 std::to_string(DAEMON_NOFILE) + ": the most this launcher may give\n");
    return own.rlim_max;
}

bool wait_for_path(const std::string& path, pid_t owner, int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < deadline) {
        if (access(path.c_str(), F_OK) == 0)
            return true;
        if (waitpid(owner, nullptr, WNOHANG) == owner)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

// Inside the sandbox, the part of init that runs tovakd: starts it, copies
// its output, says how it ended, restarts it, and keeps its state file.
class Supervisor {
public:
    Supervisor(std::vector<std::string> cmd, rlim_t nofile, int64_t restart_delay_ms)
        : cmd_(std::move(cmd)), nofile_(nofile), restart_delay_ms_(restart_delay_ms)
    {
    }

    void start()
    {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            die(std::string("pipe: ") + strerror(errno));
        out_fd_ = fds[0];
        starts_++;
        started_ms_ = now_ms();
        // Its stderr too: a crash report belongs with the rest of its output.
        pid_ = spawn(cmd_, fds[1], fds[1], nofile_);
        close(fds[1]);
        char when[32];
        time_t t = time(nullptr);
        strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", localtime(&t));
        write_all(STDOUT_FILENO, std::string(midline_ ? "\n" : "") + "--- tovak-sim: tovakd start " +
                                     std::to_string(starts_) + " (pid " + std::to_string(pid_) + ") at " + when +
                                     " ---\n");
        save_state();
    }

    pid_t pid() const { return pid_; }
    int out_fd() const { return out_fd_; }

    // Copies what the daemon wrote; false when nothing more is there now.
    bool copy_output()
    {
        char buf[8192];
        ssize_t n = read(out_fd_, buf, sizeof buf);
        if (n == 0) {
            close(out_fd_); // its output ended; its exit comes as SIGCHLD
            out_fd_ = -1;
        }
        if (n <= 0)
            return n < 0 && errno == EINTR;
        write_all(STDOUT_FILENO, std::string(buf, size_t(n)));
        midline_ = buf[n - 1] != '\n';
        tail_.append(buf, size_t(n));
        if (tail_.size() > 8192)
            tail_.erase(0, tail_.size() - 4096);
        return true;
    }

    // After the daemon was reaped: reports it and decides. Returns the delay
    // before the next start in ms, or -1 to give up.
    int64_t ended(int status)
    {
        // What it wrote before it died; a child of its own may keep the
        // pipe open, so this reads only what is there.
        if (out_fd_ >= 0)
            fcntl(out_fd_, F_SETFL, O_NONBLOCK);
        while (out_fd_ >= 0 && copy_output()) {
        }
        if (out_fd_ >= 0)
            close(out_fd_);
        out_fd_ = -1;
        last_exit_ = WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                         : "status " + std::to_string(WEXITSTATUS(status));
        std::string how = WIFSIGNALED(status) ? "was killed by signal " + std::to_string(WTERMSIG(status)) + " (" +
                                                    strsignal(WTERMSIG(status)) + ")"
                                              : "exited with status " + std::to_string(WEXITSTATUS(status));
        int64_t now = now_ms();
        std::string report = "tovak-sim: tovakd (pid " + std::to_string(pid_) + ") " + how + " after " +
                             std::to_string((now - started_ms_) / 1000) + "." +
                             std::to_string((now - started_ms_) % 1000 / 100) + " s";
        report += tail_.empty() ? "; it wrote nothing\n" : "; its last output:\n" + last_lines();
        write_all(STDERR_FILENO, report);
        pid_ = 0;
        tail_.clear();
        save_state();
        if (now < crash_window_ms_ + CRASH_WINDOW_MS) {
            if (++crashes_ > CRASH_LIMIT) {
                write_all(STDERR_FILENO, "tovak-sim: tovakd ended " + std::to_string(crashes_) +
                                             " times within 4 minutes; giving up on it, as init does, and stopping "
                                             "the device\n");
                return -1;
            }
        } else {
            crash_window_ms_ = now;
            crashes_ = 1;
        }
        // Said every time, 0 ms included: a restart is never silent.
        const int64_t wait = std::max<int64_t>(0, started_ms_ + restart_delay_ms_ - now);
        write_all(STDERR_FILENO, "tovak-sim: restarting tovakd in " + std::to_string(wait) + " ms\n");
        return wait;
    }

private:
    std::string last_lines() const
    {
        std::string text = tail_;
        if (!text.empty() && text.back() != '\n')
            text += '\n';
        size_t from = text.size() - 1;
        for (int lines = 0; from > 0 && lines <= LAST_LINES; from--)
            if (text[from - 1] == '\n' && ++lines == LAST_LINES)
                break;
        std::string out;
        for (size_t at = from; at < text.size();) {
            size_t nl = text.find('\n', at);
            out += "  | " + text.substr(at, nl - at + 1);
            at = nl + 1;
        }
        return out;
    }

    void save_state() const
    {
        std::string path = "/" SIM_DAEMON_STATE_FILE;
        // Numbers first: readers take the file as "key number" pairs.
        std::string text = "pid " + std::to_string(pid_) + "\nstarts " + std::to_string(starts_) + "\nlast_exit " +
                           last_exit_ + "\nstate " + (pid_ ? "running" : "restarting") + "\n";
        std::string tmp = path + ".tmp";
        int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        bool ok = fd >= 0 && sim_write_all(fd, text.data(), text.size());
        if (fd >= 0)
            close(fd);
        if (!ok || rename(tmp.c_str(), path.c_str()) != 0)
            fprintf(stderr, "tovak-sim: cannot write %s: %s\n", path.c_str(), strerror(errno));
    }

    std::vector<std::string> cmd_;
    rlim_t nofile_;
    int64_t restart_delay_ms_;
    pid_t pid_ = 0;
    int out_fd_ = -1;
    int starts_ = 0;
    std::string last_exit_ = "none";
    int64_t started_ms_ = 0;
    int64_t crash_window_ms_ = INT64_MIN / 2;
    int crashes_ = 0;
    // The daemon's latest output, for the report of its end.
    std::string tail_;
    // Its output so far ends inside a line.
    bool midline_ = false;
};

} // namespace

// Inside the sandbox: bring up the device simulator, when there is one, and
// then the daemon under a supervisor; the device ends when the simulator
// does or the supervisor gives up.
int inside(int argc, char** argv)
{
    // inside BIN DAEMON [--wrap WORD]... [--nofile N] [--restart-delay MS] -- [devsim options]
    if (argc < 4)
        die("inside: missing binary directory or daemon");
    std::string bin = argv[2];
    std::vector<std::string> daemon_cmd;
    rlim_t nofile = 0;
    int64_t delay = RESTART_DELAY_MS;
    int i = 4;
    for (; i + 1 < argc && strcmp(argv[i], "--") != 0; i += 2) {
        if (strcmp(argv[i], "--wrap") == 0)
            daemon_cmd.push_back(argv[i + 1]);
        else if (strcmp(argv[i], "--nofile") == 0)
            nofile = strtoul(argv[i + 1], nullptr, 10);
        else if (strcmp(argv[i], "--restart-delay") == 0)
            delay = strtoll(argv[i + 1], nullptr, 10);
    }
    daemon_cmd.push_back(argv[3]);
    std::vector<std::string> devsim = { bin + "/tovak-devsim" };
    for (i++; i < argc; i++)
        devsim.push_back(argv[i]);

    int sig_fd = signal_fd({ SIGCHLD });

    pid_t sim = -1;
    if (access(devsim[0].c_str(), X_OK) == 0) {
        // A socket left by an earlier run would let the daemon start before
        // this simulator listens; the root's lock says no one else uses it.
        unlink(SIM_DIAG_SOCKET);
        sim = spawn(devsim, STDERR_FILENO, -1); // its chatter stays off the daemon's output
        if (!wait_for_path(SIM_DIAG_SOCKET, sim, 10000))
            die("the device simulator did not come up");
    }
    Supervisor daemon(daemon_cmd, nofile != 0 ? nofile : daemon_nofile(), delay);
    daemon.start();
    int64_t restart_at = -1;
    for (;;) {
        pollfd fds[2] = { { sig_fd, POLLIN, 0 }, { daemon.out_fd(), POLLIN, 0 } };
        int64_t wait = restart_at < 0 ? -1 : std::max<int64_t>(0, restart_at - now_ms());
        if (poll(fds, daemon.out_fd() >= 0 ? 2 : 1, int(wait)) < 0 && errno != EINTR)
            die(std::string("poll: ") + strerror(errno));
        if (fds[1].revents & (POLLIN | POLLHUP))
            daemon.copy_output();
        if (restart_at >= 0 && now_ms() >= restart_at) {
            restart_at = -1;
            daemon.start();
        }
        if (!(fds[0].revents & POLLIN))
            continue;
        signalfd_siginfo info;
        (void)!read(sig_fd, &info, sizeof info);
        int status;
        pid_t done;
        while ((done = waitpid(-1, &status, WNOHANG)) > 0) {
            if (done == sim) {
                fprintf(stderr, "tovak-sim: the device simulator ended; stopping the device\n");
                if (daemon.pid() > 0)
                    kill(daemon.pid(), SIGKILL);
                return 1;
            }
            if (done != daemon.pid())
                continue; // a process the daemon left behind, reparented here
            int64_t delay_ms = daemon.ended(status);
            if (delay_ms < 0) {
                if (sim > 0)
                    kill(sim, SIGKILL);
                return 1;
            }
            restart_at = now_ms() + delay_ms;
        }
    }
}

} // namespace launcher
