// tovak-sim: runs tovakd on a simulated device. A device root directory on
// the host becomes /data, /sdcard, /system, /dev/log, /dev/ps_socket and
// /dev/socket inside a bubblewrap sandbox with its own /proc and PID
// namespace.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "host_properties.h"
#include "sim_files.h"
#include "sim_root.h"

namespace {

const char* const FACTORY_FILES[] = { "dm.cfg", "EventID.txt", "LogItem.txt", "MessageLevel.txt" };

[[noreturn]] void die(const std::string& msg)
{
    fprintf(stderr, "tovak-sim: %s\n", msg.c_str());
    exit(1);
}

void usage(FILE* out)
{
    fprintf(out,
            "usage: tovak-sim up ROOT [--no-bootcomplete] [--remote-modem] [--without-log NAME] [--etc DIR]\n"
            "                         [--daemon PATH] [--daemon-wrapper \"CMD ARGS\"]\n"
            "       tovak-sim ctl ROOT COMMAND [ARGS...]\n"
            "\n"
            "  up ROOT   create the device root ROOT if needed and run tovakd on it in the\n"
            "            foreground until Ctrl-C or SIGTERM. Clients reach the daemon at\n"
            "            ROOT/dev/ps_socket/tovak; its stdout is copied to ROOT/%s.\n"
            "\n"
            "  --no-bootcomplete  leave the property dev.bootcomplete unset\n"
            "  --remote-modem     attach a second (remote) modem\n"
            "  --without-log NAME a phone without the log device /dev/log/NAME\n"
            "  --etc DIR          factory files for a new ROOT/system/etc (default: %s)\n"
            "  --daemon PATH      run this tovakd (default: the one beside tovak-sim;\n"
            "                     environment: TOVAK_SIM_DAEMON)\n"
            "  --daemon-wrapper \"CMD ARGS\"  run the daemon as CMD ARGS PATH, e.g.\n"
            "                     \"qemu-arm -L /usr/arm-linux-gnueabihf\" (environment:\n"
            "                     TOVAK_SIM_DAEMON_WRAPPER)\n"
            "\n"
            "  ctl ROOT COMMAND   drive the simulated device of a running `up ROOT`:\n"
            "            `ctl ROOT status` prints its state as JSON, `ctl ROOT help` lists\n"
            "            the commands (faults, injected log entries, ranges, QMI data).\n",
            SIM_STDOUT_FILE, TOVAK_ETC_DIR);
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

void copy_file(const std::string& from, const std::string& to)
{
    FILE* in = fopen(from.c_str(), "rb");
    if (in == nullptr)
        die("cannot read factory file " + from + ": " + strerror(errno));
    FILE* out = fopen(to.c_str(), "wb");
    if (out == nullptr)
        die("cannot write " + to + ": " + strerror(errno));
    char buf[8192];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, in)) > 0)
        fwrite(buf, 1, n, out);
    fclose(in);
    if (fclose(out) != 0)
        die("cannot write " + to);
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
    // The daemon binary, and the command it runs under (qemu-arm -L ...).
    std::string daemon;
    std::vector<std::string> wrapper;
};

// Lays out ROOT like a phone's partitions. An existing system/etc is kept
// as it is, like a flashed system partition.
void provision(const UpOptions& opt)
{
    const std::string& root = opt.root;
    make_dirs(root);
    if (!is_dir(root) || access(root.c_str(), W_OK) != 0)
        die(root + " is not a writable directory");
    std::string etc = root + "/system/etc";
    if (!is_dir(etc)) {
        make_dirs(etc);
        for (const char* name : FACTORY_FILES)
            copy_file(opt.etc + "/" + name, etc + "/" + name);
    }
    for (const char* dir : { "/data/media/0", "/data/local", "/data/property", "/dev/log", "/dev/ps_socket",
                             "/dev/socket", "/" SIM_DIR })
        make_dirs(root + dir);
    std::string props = root + "/data/property";
    int rc = opt.bootcomplete ? sim_property_set_in(props.c_str(), "dev.bootcomplete", "1")
                              : sim_property_clear_in(props.c_str(), "dev.bootcomplete");
    if (rc != 0)
        die("cannot set dev.bootcomplete under " + props);
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
                                "--bind", r + "/data/media/0", "/sdcard",
                                "--ro-bind", r + "/system", "/system",
                                "--bind", r + "/dev/log", "/dev/log",
                                "--bind", r + "/dev/ps_socket", "/dev/ps_socket",
                                "--bind", r + "/dev/socket", "/dev/socket",
                                "--bind", r + "/" SIM_DIR, "/" SIM_DIR,
                                "--ro-bind", bin, bin,
                            });
    bind_visible(args, opt.daemon, bin);
    for (const std::string& word : opt.wrapper)
        if (access(word.c_str(), F_OK) == 0)
            bind_visible(args, word, bin);
    args.insert(args.end(), { "--chdir", "/", "--setenv", "PATH", "/usr/sbin:/usr/bin:/sbin:/bin", "--",
                              bin + "/tovak-sim", "inside", bin, opt.daemon });
    for (const std::string& word : opt.wrapper)
        args.insert(args.end(), { "--wrap", word });
    args.push_back("--");
    if (opt.remote_modem)
        args.push_back("--remote-modem");
    for (const std::string& name : opt.without_logs)
        args.insert(args.end(), { "--without-log", name });
    return args;
}

pid_t spawn(const std::vector<std::string>& args, int stdout_fd)
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
        if (stdout_fd >= 0 && stdout_fd != STDOUT_FILENO) {
            dup2(stdout_fd, STDOUT_FILENO);
            close(stdout_fd);
        }
        execvp(argv[0], argv.data());
        fprintf(stderr, "tovak-sim: cannot run %s: %s\n", argv[0], strerror(errno));
        _exit(127);
    }
    return pid;
}

// A closed terminal must not stop the device.
void write_all(int fd, const char* data, size_t len)
{
    (void)sim_write_all(fd, data, len);
}

int cmd_up(const UpOptions& opt)
{
    if (find_on_path("bwrap").empty())
        die("bubblewrap (bwrap) is not installed: install the Debian package bubblewrap");
    provision(opt);

    std::string lock_path = opt.root + "/" SIM_LOCK_FILE;
    int lock_fd = open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lock_fd < 0)
        die("cannot open " + lock_path + ": " + strerror(errno));
    if (flock(lock_fd, LOCK_EX | LOCK_NB) != 0)
        die("a daemon already runs on " + opt.root);

    std::string out_path = opt.root + "/" SIM_STDOUT_FILE;
    int copy_fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (copy_fd < 0)
        die("cannot write " + out_path + ": " + strerror(errno));

    // Signals are taken through a descriptor so that stopping is one more
    // event of the copy loop.
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGHUP);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    int sig_fd = signalfd(-1, &mask, SFD_CLOEXEC);
    if (sig_fd < 0)
        die(std::string("signalfd: ") + strerror(errno));
    signal(SIGPIPE, SIG_IGN);

    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0)
        die(std::string("pipe: ") + strerror(errno));
    pid_t child = spawn(sandbox_command(opt, self_dir()), pipe_fds[1]);
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
                write_all(STDOUT_FILENO, buf, size_t(n));
                write_all(copy_fd, buf, size_t(n));
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
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    return 1;
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

// Inside the sandbox: bring up the device simulator, when there is one, and
// then the daemon; the first of them to end ends the device.
int cmd_inside(int argc, char** argv)
{
    // inside BIN DAEMON [--wrap WORD]... -- [devsim options]
    if (argc < 4)
        die("inside: missing binary directory or daemon");
    std::string bin = argv[2];
    std::vector<std::string> daemon_cmd;
    int i = 4;
    for (; i + 1 < argc && strcmp(argv[i], "--wrap") == 0; i += 2)
        daemon_cmd.push_back(argv[i + 1]);
    daemon_cmd.push_back(argv[3]);
    if (i < argc && strcmp(argv[i], "--") == 0)
        i++;
    std::vector<std::string> devsim = { bin + "/tovak-devsim" };
    for (; i < argc; i++)
        devsim.push_back(argv[i]);

    pid_t sim = -1;
    if (access(devsim[0].c_str(), X_OK) == 0) {
        // A socket left by an earlier run would let the daemon start before
        // this simulator listens; the root's lock says no one else uses it.
        unlink(SIM_DIAG_SOCKET);
        sim = spawn(devsim, STDERR_FILENO); // its chatter stays off the daemon's stdout
        if (!wait_for_path(SIM_DIAG_SOCKET, sim, 10000))
            die("the device simulator did not come up");
    }
    pid_t daemon = spawn(daemon_cmd, STDOUT_FILENO);
    int status = 0;
    for (;;) {
        pid_t done = wait(&status);
        if (done < 0 && errno == EINTR)
            continue;
        if (done == daemon || done < 0)
            break;
        if (done == sim) {
            fprintf(stderr, "tovak-sim: the device simulator ended\n");
            kill(daemon, SIGKILL);
        }
    }
    if (sim > 0)
        kill(sim, SIGKILL);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

// Sends the command to the device simulator under ROOT and prints its
// answer; errors go to stderr with status 1.
int cmd_ctl(const std::string& root, int argc, char** argv)
{
    std::string path = root + "/" SIM_CTL_SOCKET;
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        die("path too long: " + path);
    strcpy(addr.sun_path, path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
        die("no device simulator at " + root + " (is `tovak-sim up " + root + "` running?)");
    std::string request;
    for (int i = 0; i < argc; i++) {
        request += argv[i];
        request += '\0';
    }
    signal(SIGPIPE, SIG_IGN);
    write_all(fd, request.data(), request.size());
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
    write_all(failed ? STDERR_FILENO : STDOUT_FILENO, reply.data(), reply.size());
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
    char resolved[4096];
    make_dirs(opt.root);
    if (realpath(opt.root.c_str(), resolved) == nullptr)
        die("cannot use " + opt.root + ": " + strerror(errno));
    opt.root = resolved;
    return cmd_up(opt);
}
