#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "launcher.h"
#include "sim_files.h"

namespace launcher {

void die(const std::string& msg)
{
    fprintf(stderr, "tovak-sim: %s\n", msg.c_str());
    exit(1);
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

pid_t spawn(const std::vector<std::string>& args, int out_fd, int err_fd, rlim_t nofile)
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

void write_all(int fd, const std::string& text)
{
    (void)sim_write_all(fd, text.data(), text.size());
}

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

} // namespace launcher
