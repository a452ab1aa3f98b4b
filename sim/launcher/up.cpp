// `tovak-sim up`: lays out ROOT like a phone, starts the sandbox in which
// ROOT's directories appear at the device paths, and copies the daemon's
// output to the terminal and to ROOT/sim/tovakd.stdout.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "host_properties.h"
#include "launcher.h"
#include "protocol/unix_socket.h"
#include "sim_files.h"
#include "sim_root.h"

namespace launcher {

namespace {

const char* const FACTORY_FILES[] = { "dm.cfg", "EventID.txt", "LogItem.txt", "MessageLevel.txt" };

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
    for (const char* dir :
         { "/data/media/0", "/data/local", "/data/property", "/dev/log", "/dev/ps_socket", "/dev/socket" })
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
            " bytes; choose a ROOT of at most " +
            std::to_string(opt->root.size() - (longest.size() - UNIX_SOCKET_PATH_MAX)) + " characters");
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
    // A session of its own, as init gives the daemon: a kill of the daemon's
    // process group, or of 0 from its shell, stays on the phone.
    std::vector<std::string> args = { "bwrap", "--die-with-parent", "--new-session", "--unshare-pid", "--unshare-ipc" };
    if (geteuid() != 0)
        args.insert(args.end(), { "--unshare-user", "--uid", "0", "--gid", "0" });
    add_system_dirs(args);
    args.insert(args.end(), {
                                "--proc",
                                "/proc",
                                "--dev",
                                "/dev",
                                "--tmpfs",
                                "/tmp",
                                "--bind",
                                r + "/data",
                                "/data",
                                opt.sdcard_readonly ? "--ro-bind" : "--bind",
                                r + "/data/media/0",
                                "/sdcard",
                                "--ro-bind",
                                r + "/system",
                                "/system",
                                "--bind",
                                r + "/dev/log",
                                "/dev/log",
                                "--bind",
                                r + "/dev/ps_socket",
                                "/dev/ps_socket",
                                "--bind",
                                r + "/dev/socket",
                                "/dev/socket",
                                "--bind",
                                r + "/" SIM_DIR,
                                "/" SIM_DIR,
                                "--ro-bind",
                                bin,
                                bin,
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

// For tovak-sim down: who to signal.
void write_pid_file(const std::string& root)
{
    std::string text = std::to_string(getpid()) + "\n";
    int fd = open((root + "/" SIM_LAUNCHER_PID).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || !sim_write_all(fd, text.data(), text.size()))
        die("cannot write " + root + "/" SIM_LAUNCHER_PID + ": " + strerror(errno));
    close(fd);
}

} // namespace

int up(UpOptions opt)
{
    resolve_daemon(&opt);
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
    write_pid_file(opt.root);

    std::string out_path = opt.root + "/" SIM_STDOUT_FILE;
    int copy_fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (copy_fd < 0)
        die("cannot write " + out_path + ": " + strerror(errno));

    // Stopping is one more event of the copy loop.
    int sig_fd = signal_fd({ SIGINT, SIGTERM, SIGHUP });

    // The sandbox keeps no privilege to raise the hard descriptor limit for
    // the daemon; root raises it here, for it to inherit. The soft one
    // stays: nothing outside the daemon needs more.
    rlimit nofile = {};
    if (getrlimit(RLIMIT_NOFILE, &nofile) == 0 && nofile.rlim_max != RLIM_INFINITY && nofile.rlim_max < DAEMON_NOFILE) {
        nofile.rlim_max = DAEMON_NOFILE;
        (void)setrlimit(RLIMIT_NOFILE, &nofile);
    }

    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0)
        die(std::string("pipe: ") + strerror(errno));
    pid_t child = spawn(sandbox_command(opt, self_dir()), pipe_fds[1], -1);
    close(pipe_fds[1]);

    bool stopping = false;
    bool pipe_open = true;
    bool ready = false;
    Stamper terminal;
    while (pipe_open) {
        pollfd fds[2] = { { pipe_fds[0], POLLIN, 0 }, { sig_fd, POLLIN, 0 } };
        // Until the daemon serves, look every 100 ms.
        int polled = poll(fds, 2, ready ? -1 : 100);
        if (!ready && !stopping && polled == 0 && daemon_serves(opt.root)) {
            ready = true;
            write_all(STDOUT_FILENO, ready_line(opt.root));
        }
        if (polled < 0) {
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
                std::string chunk(buf, size_t(n));
                // A restart serves anew.
                if (chunk.find("--- tovak-sim: tovakd start") != std::string::npos)
                    ready = false;
                write_all(STDOUT_FILENO, terminal.lines(chunk, opt.quiet));
                write_all(copy_fd, chunk);
            } else if (n == 0 || errno != EINTR) {
                pipe_open = false;
            }
        }
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    close(copy_fd);
    write_all(STDOUT_FILENO, terminal.rest());
    mark_stopped(opt.root);
    unlink((opt.root + "/" SIM_LAUNCHER_PID).c_str());
    write_all(STDOUT_FILENO, "tovak-sim: stopped: tovakd and the device simulator ended\n");
    if (stopping)
        return 0;
    return WIFEXITED(status) && WEXITSTATUS(status) != 0 ? WEXITSTATUS(status) : 1;
}

} // namespace launcher
