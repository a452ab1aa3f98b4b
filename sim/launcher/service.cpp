// tovak-sim as a service manager runs it: a ready line once the daemon
// serves, time stamps on its lines, a state file that says when the device
// stopped, and up --detach / down.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <thread>

#include "launcher.h"
#include "protocol/tovak_cmd_ids.h"
#include "protocol/tovak_pkt.h"
#include "protocol/unix_socket.h"
#include "sim_files.h"
#include "sim_root.h"

namespace launcher {

namespace {

// How long --detach and down wait for the device to come up or go.
#define SERVICE_WAIT_MS 60000

std::string read_text(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// The value after "key " in the launcher's state file; "" when none.
std::string state_value(const std::string& root, const std::string& key)
{
    std::istringstream in(read_text(root + "/" SIM_DAEMON_STATE_FILE));
    for (std::string line; std::getline(in, line);)
        if (line.compare(0, key.size() + 1, key + " ") == 0)
            return line.substr(key.size() + 1);
    return "";
}

bool lock_held(const std::string& root)
{
    int fd = open((root + "/" SIM_LOCK_FILE).c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return false;
    bool held = flock(fd, LOCK_EX | LOCK_NB) != 0;
    close(fd);
    return held;
}

bool socket_answers(const std::string& root)
{
    int fd = unix_socket_connect((root + "/" SIM_CLIENT_SOCKET).c_str(), 200);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

void sleep_ms(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

} // namespace

bool daemon_serves(const std::string& root)
{
    int fd = unix_socket_connect((root + "/" SIM_CLIENT_SOCKET).c_str(), 1000);
    if (fd < 0)
        return false;
    // Ends the session as a client does, so the daemon logs no error.
    tovak_pkt bye = {};
    bye.cmd = CMD_DISCONNECT;
    (void)sim_write_all(fd, &bye, sizeof bye);
    close(fd);
    return true;
}

std::string ready_line(const std::string& root)
{
    std::string pid = state_value(root, "pid");
    return "tovak-sim: ready: tovakd serves " + root + "/" SIM_CLIENT_SOCKET + " (pid " + (pid.empty() ? "?" : pid) +
           " in the sandbox)\n";
}

void mark_stopped(const std::string& root)
{
    std::string path = root + "/" SIM_DAEMON_STATE_FILE;
    std::istringstream in(read_text(path));
    std::string text;
    for (std::string line; std::getline(in, line);)
        if (line.compare(0, 4, "pid ") != 0 && line.compare(0, 6, "state ") != 0 &&
            line.compare(0, 11, "stopped_at ") != 0)
            text += line + "\n";
    time_t t = time(nullptr);
    char when[32];
    strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%S", localtime(&t));
    text = "pid 0\n" + text + "state stopped\nstopped_at " + std::string(when) + "\n";
    std::string tmp = path + ".tmp";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool ok = fd >= 0 && sim_write_all(fd, text.data(), text.size());
    if (fd >= 0)
        close(fd);
    if (ok)
        rename(tmp.c_str(), path.c_str());
}

std::string Stamper::lines(const std::string& chunk, bool quiet)
{
    partial_ += chunk;
    std::string out;
    size_t nl;
    while ((nl = partial_.find('\n')) != std::string::npos) {
        std::string line = partial_.substr(0, nl + 1);
        partial_.erase(0, nl + 1);
        bool own = line.compare(0, 14, "--- tovak-sim:") == 0 || line.compare(0, 10, "tovak-sim:") == 0;
        if (!quiet || own)
            out += stamp() + line;
    }
    return out;
}

std::string Stamper::rest()
{
    std::string out = partial_.empty() ? "" : stamp() + partial_ + "\n";
    partial_.clear();
    return out;
}

// logcat's time format: MM-DD HH:MM:SS.mmm
std::string Stamper::stamp()
{
    timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm;
    localtime_r(&tv.tv_sec, &tm);
    char buf[40];
    size_t n = strftime(buf, sizeof buf, "%m-%d %H:%M:%S", &tm);
    snprintf(buf + n, sizeof buf - n, ".%03d ", int(tv.tv_usec / 1000));
    return buf;
}

int up_detached(const std::vector<std::string>& argv, const std::string& root)
{
    if (!sim_make_dirs(root + "/" SIM_DIR))
        die("cannot create " + root + "/" SIM_DIR + ": " + strerror(errno));
    if (lock_held(root))
        die("a daemon already runs on " + root + " (tovak-sim down " + root + " stops it)");
    std::string log = root + "/" SIM_LAUNCHER_LOG;
    int log_fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int null_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (log_fd < 0 || null_fd < 0)
        die("cannot write " + log + ": " + strerror(errno));
    pid_t pid = fork();
    if (pid < 0)
        die(std::string("fork: ") + strerror(errno));
    if (pid == 0) {
        // Its own session: the terminal's Ctrl-C and hang-up are not for it.
        setsid();
        dup2(null_fd, STDIN_FILENO);
        dup2(null_fd, STDOUT_FILENO);
        dup2(log_fd, STDERR_FILENO);
        std::vector<char*> args;
        for (const std::string& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execv("/proc/self/exe", args.data());
        _exit(127);
    }
    close(log_fd);
    close(null_fd);
    for (int64_t deadline = now_ms() + SERVICE_WAIT_MS; now_ms() < deadline; sleep_ms(50)) {
        int status;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            fprintf(stderr, "tovak-sim: the device did not come up:\n%s", read_text(log).c_str());
            return WIFEXITED(status) && WEXITSTATUS(status) ? WEXITSTATUS(status) : 1;
        }
        if (lock_held(root) && daemon_serves(root)) {
            fputs(ready_line(root).c_str(), stdout);
            printf("tovak-sim: running in the background (launcher pid %d); tovak-sim down %s stops it; "
                   "tovakd's output goes to %s/%s\n",
                   int(pid), root.c_str(), root.c_str(), SIM_STDOUT_FILE);
            return 0;
        }
    }
    fprintf(stderr, "tovak-sim: tovakd did not serve within %d s; stopping the device\n", SERVICE_WAIT_MS / 1000);
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    return 1;
}

int down(const std::string& root)
{
    std::string pid_text = read_text(root + "/" SIM_LAUNCHER_PID);
    pid_t pid = pid_t(atol(pid_text.c_str()));
    if (!lock_held(root) || pid <= 0) {
        fprintf(stderr, "tovak-sim: no device runs on %s\n", root.c_str());
        return 1;
    }
    if (kill(pid, SIGTERM) != 0)
        die("cannot stop the launcher (pid " + std::to_string(pid) + "): " + strerror(errno));
    for (int64_t deadline = now_ms() + SERVICE_WAIT_MS; now_ms() < deadline; sleep_ms(20)) {
        // The sandbox's last processes may outlive the launcher by a moment:
        // stopped means nothing answers on the socket either.
        if (!lock_held(root) && !socket_answers(root)) {
            printf("tovak-sim: stopped: tovakd, the device simulator and the sandbox on %s\n", root.c_str());
            return 0;
        }
    }
    fprintf(stderr, "tovak-sim: the launcher (pid %d) did not stop within %d s\n", int(pid), SERVICE_WAIT_MS / 1000);
    return 1;
}

} // namespace launcher
