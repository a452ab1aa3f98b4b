// tovak-sim: runs tovakd on a simulated device. A device root directory on
// the host becomes /data, /sdcard, /system, /dev/log, /dev/ps_socket and
// /dev/socket inside a bubblewrap sandbox with its own /proc and PID
// namespace, where the launcher restarts tovakd as Android's init would.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
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
#include <string>
#include <thread>
#include <vector>

#include "host_properties.h"
#include "protocol/unix_socket.h"
#include "sim_files.h"
#include "sim_root.h"

namespace {

const char* const FACTORY_FILES[] = { "dm.cfg", "EventID.txt", "LogItem.txt", "MessageLevel.txt" };

// Android init restarts a service no sooner than 5 s after its last start,
// and gives up on one that exits more than 4 times within 4 minutes.
#define RESTART_DELAY_MS 5000
#define CRASH_WINDOW_MS (4 * 60 * 1000)
#define CRASH_LIMIT 4
// Lines of the daemon's last output shown when it exits.
#define LAST_LINES 5

[[noreturn]] void die(const std::string& msg)
{
    fprintf(stderr, "tovak-sim: %s\n", msg.c_str());
    exit(1);
}

void usage(FILE* out)
{
    fprintf(out,
            "usage: tovak-sim up ROOT [OPTIONS]   (options before or after ROOT)\n"
            "       tovak-sim ctl ROOT COMMAND [ARGS...]\n"
            "\n"
            "  up ROOT   create the device root ROOT if needed and run tovakd on it in the\n"
            "            foreground until Ctrl-C or SIGTERM, restarting it as init would.\n"
            "            Clients reach the daemon at ROOT/dev/ps_socket/tovak; its output is\n"
            "            appended to ROOT/%s.\n"
            "\n"
            "  --no-bootcomplete     leave the property dev.bootcomplete unset\n"
            "  --remote-modem        attach a second (remote) modem\n"
            "  --without-log NAME    no log device /dev/log/NAME (main, radio, events, system)\n"
            "  --etc DIR             factory files for a new ROOT/system/etc (default: %s)\n"
            "  --sdcard-readonly     show /sdcard and /data/media/0 read-only\n"
            "  --daemon PATH         run this tovakd (default: the one beside tovak-sim;\n"
            "                        environment: TOVAK_SIM_DAEMON)\n"
            "  --daemon-wrapper \"CMD ARGS\"  run the daemon as CMD ARGS PATH, e.g.\n"
            "                        \"qemu-arm -L /usr/arm-linux-gnueabihf\" (environment:\n"
            "                        TOVAK_SIM_DAEMON_WRAPPER)\n"
            "  --daemon-nofile N     the daemon's limit of open descriptors\n"
            "  --restart-delay MS    restart tovakd no sooner than MS after its last start\n"
            "                        (default %d, as init)\n"
            "\n"
            "  ctl ROOT COMMAND   drive the simulated device of a running `up ROOT`:\n"
            "            `ctl ROOT status` prints its state as JSON, `ctl ROOT help` lists\n"
            "            the commands (faults, injected log entries, ranges, QMI data).\n",
            SIM_STDOUT_FILE, TOVAK_ETC_DIR, RESTART_DELAY_MS);
}

[[noreturn]] void usage_error(const std::string& msg)
{
    fprintf(stderr, "tovak-sim: %s\n", msg.c_str());
    usage(stderr);
    exit(2);
}

std::vector<std::string> split_words(const std::string& text)
{
    std::vector<std::string> words;
    size_t at = 0;
    while ((at = text.find_first_not_of(" \t", at)) != std::string::npos) {
        size_t end = text.find_first_of(" \t", at);
        words.push_back(text.substr(at, end - at));
        at = end;
    }
    return words;
}

std::string self_dir()
{
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0)
        die("cannot find my own executable");
    buf[n] = '\0';
    std::string path(buf);
    return path.substr(0, path.rfind('/'));
}

bool is_dir(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void make_dirs(const std::string& path)
{
    if (!sim_make_dirs(path))
        die("cannot create " + path + ": " + strerror(errno));
}

bool copy_file(const std::string& from, const std::string& to)
{
    FILE* in = fopen(from.c_str(), "rb");
    if (in == nullptr)
        return false;
    FILE* out = fopen(to.c_str(), "wb");
    char buf[8192];
    size_t n;
    while (out && (n = fread(buf, 1, sizeof buf, in)) > 0)
        fwrite(buf, 1, n, out);
    bool ok = out && !ferror(in) && !ferror(out);
    ok = (out == nullptr || fclose(out) == 0) && ok;
    fclose(in);
    return ok;
}

// The program's full path on PATH, or "" when it is not there.
std::string find_on_path(const std::string& prog)
{
    const char* path = getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos)
            end = dirs.size();
        std::string candidate = dirs.substr(start, end - start) + "/" + prog;
        if (access(candidate.c_str(), X_OK) == 0)
            return candidate;
        start = end + 1;
    }
    return "";
}

std::string real_path(const std::string& path)
{
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) == nullptr)
        return "";
    return resolved;
}

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

// Lays out ROOT like a phone's partitions. An existing system/etc is kept
// as it is, like a flashed system partition; a new one appears whole or not
// at all.
void provision(const UpOptions& opt)
{
    const std::string& root = opt.root;
    std::string etc = root + "/system/etc";
    if (!is_dir(etc)) {
        std::string part = root + "/system/.etc.new";
        make_dirs(part);
        for (const char* name : FACTORY_FILES) {
            if (!copy_file(opt.etc + "/" + name, part + "/" + name)) {
                int err = errno;
                for (const char* made : FACTORY_FILES)
                    unlink((part + "/" + made).c_str());
                rmdir(part.c_str());
                die("cannot copy factory file " + opt.etc + "/" + name + " into " + etc + ": " + strerror(err));
            }
        }
        if (rename(part.c_str(), etc.c_str()) != 0)
            die("cannot create " + etc + ": " + strerror(errno));
    }
    for (const char* dir : { "/data/media/0", "/data/local", "/data/property", "/dev/log", "/dev/ps_socket",
                             "/dev/socket" })
        make_dirs(root + dir);
    std::string props = root + "/data/property";
    int rc = opt.bootcomplete ? sim_property_set_in(props.c_str(), "dev.bootcomplete", "1")
                              : sim_property_clear_in(props.c_str(), "dev.bootcomplete");
    if (rc != 0)
        die("cannot set dev.bootcomplete under " + props);
}

// Everything that can be checked before anything is made.
void check_up(UpOptions* opt)
{
    if (find_on_path("bwrap").empty())
        die("bubblewrap (bwrap) is not installed: install the Debian package bubblewrap");
    if (opt->root[0] != '/') {
        char cwd[PATH_MAX];
        if (getcwd(cwd, sizeof cwd) == nullptr)
            die(std::string("cannot find the current directory: ") + strerror(errno));
        opt->root = std::string(cwd) + "/" + opt->root;
    }
    std::string longest = opt->root + "/" SIM_CTL_SOCKET;
    if (longest.size() > UNIX_SOCKET_PATH_MAX)
        die("ROOT is too long: its sockets (" + longest + ", " + std::to_string(longest.size()) +
            " bytes) must fit a socket address of " + std::to_string(UNIX_SOCKET_PATH_MAX) +
            " bytes; choose a ROOT of at most " + std::to_string(opt->root.size() - (longest.size() - UNIX_SOCKET_PATH_MAX)) +
            " characters");
    if (!is_dir(opt->root + "/system/etc"))
        for (const char* name : FACTORY_FILES)
            if (access((opt->etc + "/" + name).c_str(), R_OK) != 0)
                die("no factory file " + opt->etc + "/" + name + " (--etc DIR names the directory that holds " +
                    "dm.cfg, EventID.txt, LogItem.txt and MessageLevel.txt)");
}

// Absolute paths for the daemon and its wrapper's program, checked before
// anything is made.
void resolve_daemon(UpOptions* opt)
{
    std::string given = opt->daemon.empty() ? self_dir() + "/tovakd" : opt->daemon;
    opt->daemon = real_path(given);
    if (opt->daemon.empty())
        die("no daemon at " + given + ": " + strerror(errno));
    if (opt->wrapper.empty() && access(opt->daemon.c_str(), X_OK) != 0)
        die(opt->daemon + " is not executable");
    if (opt->wrapper.empty())
        return;
    std::string& prog = opt->wrapper[0];
    std::string found = prog.find('/') == std::string::npos ? find_on_path(prog) : real_path(prog);
    if (found.empty() || access(found.c_str(), X_OK) != 0)
        die("cannot run the daemon wrapper " + prog + ": not an executable program (not on PATH?)");
    prog = found;
}

void add_system_dirs(std::vector<std::string>& args)
{
    for (const char* dir : { "/usr", "/etc" }) {
        if (is_dir(dir))
            args.insert(args.end(), { "--ro-bind", dir, dir });
    }
    // Merged-/usr hosts have these as links; others as directories.
    for (const char* dir : { "/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32" }) {
        char target[4096];
        ssize_t n = readlink(dir, target, sizeof target - 1);
        if (n > 0) {
            target[n] = '\0';
            args.insert(args.end(), { "--symlink", target, dir });
        } else if (is_dir(dir)) {
            args.insert(args.end(), { "--ro-bind", dir, dir });
        }
    }
}

bool under(const std::string& path, const std::string& dir)
{
    return path.compare(0, dir.size() + 1, dir + "/") == 0;
}

// Files outside the read-only system dirs and the binary dir must be bound
// for the daemon and its wrapper to see them.
void bind_visible(std::vector<std::string>& args, const std::string& path, const std::string& bin)
{
    if (path.empty() || path[0] != '/' || under(path, bin) || under(path, "/usr") || under(path, "/etc"))
        return;
    args.insert(args.end(), { "--ro-bind", path, path });
}

std::vector<std::string> sandbox_command(const UpOptions& opt, const std::string& bin)
{
    const std::string& r = opt.root;
    std::vector<std::string> args = { "bwrap", "--die-with-parent", "--unshare-pid", "--unshare-ipc" };
    if (geteuid() != 0)
        args.insert(args.end(), { "--unshare-user", "--uid", "0", "--gid", "0" });
    add_system_dirs(args);
    args.insert(args.end(), {
                                "--proc", "/proc",
                                "--dev", "/dev",
                                "--tmpfs", "/tmp",
                                "--bind", r + "/data", "/data",
                                opt.sdcard_readonly ? "--ro-bind" : "--bind", r + "/data/media/0", "/sdcard",
                                "--ro-bind", r + "/system", "/system",
                                "--bind", r + "/dev/log", "/dev/log",
                                "--bind", r + "/dev/ps_socket", "/dev/ps_socket",
                                "--bind", r + "/dev/socket", "/dev/socket",
                                "--bind", r + "/" SIM_DIR, "/" SIM_DIR,
                                "--ro-bind", bin, bin,
                            });
    if (opt.sdcard_readonly)
        args.insert(args.end(), { "--ro-bind", r + "/data/media/0", "/data/media/0" });
    bind_visible(args, opt.daemon, bin);
    for (const std::string& word : opt.wrapper)
        if (access(word.c_str(), F_OK) == 0)
            bind_visible(args, word, bin);
    args.insert(args.end(), { "--chdir", "/", "--setenv", "PATH", "/usr/sbin:/usr/bin:/sbin:/bin", "--",
                              bin + "/tovak-sim", "inside", bin, opt.daemon });
    for (const std::string& word : opt.wrapper)
        args.insert(args.end(), { "--wrap", word });
    if (!opt.nofile.empty())
        args.insert(args.end(), { "--nofile", opt.nofile });
    if (!opt.restart_delay.empty())
        args.insert(args.end(), { "--restart-delay", opt.restart_delay });
    args.push_back("--");
    if (opt.remote_modem)
        args.push_back("--remote-modem");
    for (const std::string& name : opt.without_logs)
        args.insert(args.end(), { "--without-log", name });
    return args;
}

// Starts args with out_fd and err_fd as its stdout and stderr (-1: keep),
// and with at most nofile descriptors when nofile is not 0.
pid_t spawn(const std::vector<std::string>& args, int out_fd, int err_fd, rlim_t nofile = 0)
{
    std::vector<char*> argv;
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid < 0)
        die(std::string("fork: ") + strerror(errno));
    if (pid == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        signal(SIGPIPE, SIG_DFL);
        if (out_fd >= 0)
            dup2(out_fd, STDOUT_FILENO);
        if (err_fd >= 0)
            dup2(err_fd, STDERR_FILENO);
        rlimit lim = { nofile, nofile };
        if (nofile != 0 && setrlimit(RLIMIT_NOFILE, &lim) != 0)
            fprintf(stderr, "tovak-sim: cannot limit descriptors to %lu: %s\n", (unsigned long)nofile, strerror(errno));
        execvp(argv[0], argv.data());
        fprintf(stderr, "tovak-sim: cannot run %s: %s\n", argv[0], strerror(errno));
        _exit(127);
    }
    return pid;
}

// A closed terminal must not stop the device.
void write_all(int fd, const std::string& text)
{
    (void)sim_write_all(fd, text.data(), text.size());
}

// The signals, blocked, as a descriptor to poll; SIGPIPE ignored.
int signal_fd(std::initializer_list<int> signals)
{
    sigset_t mask;
    sigemptyset(&mask);
    for (int sig : signals)
        sigaddset(&mask, sig);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    int fd = signalfd(-1, &mask, SFD_CLOEXEC);
    if (fd < 0)
        die(std::string("signalfd: ") + strerror(errno));
    signal(SIGPIPE, SIG_IGN);
    return fd;
}

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int cmd_up(UpOptions opt)
{
    check_up(&opt);
    make_dirs(opt.root + "/" SIM_DIR);
    opt.root = real_path(opt.root);
    std::string lock_path = opt.root + "/" SIM_LOCK_FILE;
    int lock_fd = open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lock_fd < 0)
        die("cannot open " + lock_path + ": " + strerror(errno));
    if (flock(lock_fd, LOCK_EX | LOCK_NB) != 0)
        die("a daemon already runs on " + opt.root + " (stop that `tovak-sim up` first)");
    if (access(opt.root.c_str(), W_OK) != 0)
        die(opt.root + " is not a writable directory");
    provision(opt);

    std::string out_path = opt.root + "/" SIM_STDOUT_FILE;
    int copy_fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (copy_fd < 0)
        die("cannot write " + out_path + ": " + strerror(errno));

    // Stopping is one more event of the copy loop.
    int sig_fd = signal_fd({ SIGINT, SIGTERM, SIGHUP });

    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0)
        die(std::string("pipe: ") + strerror(errno));
    pid_t child = spawn(sandbox_command(opt, self_dir()), pipe_fds[1], -1);
    close(pipe_fds[1]);

    bool stopping = false;
    bool pipe_open = true;
    while (pipe_open) {
        pollfd fds[2] = { { pipe_fds[0], POLLIN, 0 }, { sig_fd, POLLIN, 0 } };
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        if (fds[1].revents & POLLIN) {
            signalfd_siginfo info;
            if (read(sig_fd, &info, sizeof info) == sizeof info && !stopping) {
                stopping = true;
                // The sandbox's PID namespace dies with bwrap, taking every
                // process inside with it.
                kill(child, SIGKILL);
            }
        }
        if (fds[0].revents & (POLLIN | POLLHUP)) {
            char buf[8192];
            ssize_t n = read(pipe_fds[0], buf, sizeof buf);
            if (n > 0) {
                write_all(STDOUT_FILENO, std::string(buf, size_t(n)));
                write_all(copy_fd, std::string(buf, size_t(n)));
            } else if (n == 0 || errno != EINTR) {
                pipe_open = false;
            }
        }
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    close(copy_fd);
    if (stopping)
        return 0;
    return WIFEXITED(status) && WEXITSTATUS(status) != 0 ? WEXITSTATUS(status) : 1;
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
        write_all(STDOUT_FILENO, std::string(midline_ ? "\n" : "") + "--- tovak-sim: tovakd start " + std::to_string(starts_) + " (pid " +
                                     std::to_string(pid_) + ") at " + when + " ---\n");
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
        int64_t wait = started_ms_ + restart_delay_ms_ - now;
        if (wait > 0)
            write_all(STDERR_FILENO, "tovak-sim: restarting tovakd in " + std::to_string(wait) + " ms\n");
        return wait > 0 ? wait : 0;
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
        std::string text = "pid " + std::to_string(pid_) + "\nstarts " + std::to_string(starts_) + "\nlast_exit " +
                           last_exit_ + "\n";
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

// Inside the sandbox: bring up the device simulator, when there is one, and
// then the daemon under a supervisor; the device ends when the simulator
// does or the supervisor gives up.
int cmd_inside(int argc, char** argv)
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
    Supervisor daemon(daemon_cmd, nofile, delay);
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

// Sends the command to the device simulator under ROOT and prints its
// answer; errors go to stderr with status 1.
int cmd_ctl(const std::string& root, int argc, char** argv)
{
    std::string path = root + "/" SIM_CTL_SOCKET;
    int fd = unix_socket_connect(path.c_str(), 10000);
    if (fd < 0)
        die("no device simulator at " + root + " (is `tovak-sim up " + root + "` running?)");
    std::string request;
    for (int i = 0; i < argc; i++) {
        request += argv[i];
        request += '\0';
    }
    signal(SIGPIPE, SIG_IGN);
    write_all(fd, request);
    shutdown(fd, SHUT_WR);
    std::string reply;
    for (;;) {
        pollfd p = { fd, POLLIN, 0 };
        int r = poll(&p, 1, 10000);
        if (r < 0 && errno == EINTR)
            continue;
        if (r == 0)
            die("the device simulator did not answer");
        char buf[8192];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        reply.append(buf, size_t(n));
    }
    close(fd);
    if (reply.empty())
        die("the device simulator closed without an answer");
    bool failed = reply.compare(0, 7, "error: ") == 0;
    write_all(failed ? STDERR_FILENO : STDOUT_FILENO, reply);
    return failed ? 1 : 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
        usage(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    std::string cmd = argv[1];
    if (cmd == "inside")
        return cmd_inside(argc, argv);
    if (cmd == "ctl") {
        if (argc < 4) {
            usage(stderr);
            return 2;
        }
        return cmd_ctl(argv[2], argc - 3, argv + 3);
    }
    if (cmd != "up") {
        usage(stderr);
        return 2;
    }
    if (argc < 3) {
        usage(stderr);
        return 2;
    }
    UpOptions opt;
    bool have_daemon = false, have_wrapper = false;
    for (int i = 2; i < argc; i++) {
        std::string a = argv[i];
        // Options that take a value take the next word, whatever it looks like.
        auto value = [&](std::string* v) {
            if (i + 1 >= argc)
                usage_error(a + " needs a value");
            *v = argv[++i];
        };
        std::string v;
        if (a == "--no-bootcomplete") {
            opt.bootcomplete = false;
        } else if (a == "--remote-modem") {
            opt.remote_modem = true;
        } else if (a == "--without-log") {
            value(&v);
            if (v != "main" && v != "radio" && v != "events" && v != "system")
                usage_error("unknown log device '" + v + "': expected main, radio, events or system");
            opt.without_logs.push_back(v);
        } else if (a == "--etc") {
            value(&opt.etc);
        } else if (a == "--sdcard-readonly") {
            opt.sdcard_readonly = true;
        } else if (a == "--daemon-nofile" || a == "--restart-delay") {
            value(&v);
            uint64_t n = strtoull(v.c_str(), nullptr, 10);
            if (v.empty() || v.find_first_not_of("0123456789") != std::string::npos || n > 1000000000 ||
                (a == "--daemon-nofile" && n < 3))
                usage_error("bad " + a + " '" + v + "': expected a whole number" +
                            (a == "--daemon-nofile" ? " from 3" : ""));
            (a == "--daemon-nofile" ? opt.nofile : opt.restart_delay) = v;
        } else if (a == "--daemon") {
            value(&opt.daemon);
            have_daemon = true;
        } else if (a == "--daemon-wrapper") {
            value(&v);
            opt.wrapper = split_words(v);
            have_wrapper = true;
        } else if (a.size() > 1 && a[0] == '-') {
            usage_error("unknown option " + a);
        } else if (!opt.root.empty()) {
            usage_error("two roots given: " + opt.root + " and " + a);
        } else {
            opt.root = a;
        }
    }
    if (opt.root.empty())
        usage_error("no ROOT given");
    const char* env = getenv("TOVAK_SIM_DAEMON");
    if (!have_daemon && env && *env)
        opt.daemon = env;
    env = getenv("TOVAK_SIM_DAEMON_WRAPPER");
    if (!have_wrapper && env)
        opt.wrapper = split_words(env);
    resolve_daemon(&opt);
    return cmd_up(opt);
}
