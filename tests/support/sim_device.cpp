#include "sim_device.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "sim_root.h"

bool wait_until(const std::function<bool()>& cond, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (cond())
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool write_file(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return bool(out);
}

bool file_exists(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

TempDir::TempDir()
{
    const char* tmp = getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/tovak-test-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr)
        abort();
    path_ = buf.data();
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

SimDevice::SimDevice() = default;

SimDevice::~SimDevice()
{
    if (running())
        stop();
}

std::string SimDevice::path(const std::string& rel) const
{
    return root() + "/" + rel;
}

std::string SimDevice::socket_path() const
{
    return path(SIM_CLIENT_SOCKET);
}

std::string SimDevice::bin(const std::string& name)
{
    return std::string(TOVAK_BIN_DIR) + "/" + name;
}

static pid_t spawn(const std::vector<std::string>& argv, int out_fd, int err_fd)
{
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (out_fd >= 0)
            dup2(out_fd, STDOUT_FILENO);
        if (err_fd >= 0)
            dup2(err_fd, STDERR_FILENO);
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

int SimDevice::run(const std::vector<std::string>& argv, std::string* out, std::string* err)
{
    TempDir tmp;
    std::string out_path = tmp.path() + "/out";
    std::string err_path = tmp.path() + "/err";
    int out_fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int err_fd = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    pid_t pid = spawn(argv, out_fd, err_fd);
    close(out_fd);
    close(err_fd);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (out)
        *out = read_file(out_path);
    if (err)
        *err = read_file(err_path);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool SimDevice::start(const std::vector<std::string>& args)
{
    std::vector<std::string> argv = { bin("tovak-sim"), "up", root() };
    argv.insert(argv.end(), args.begin(), args.end());
    launcher_err_ = path("launcher.err");
    // Tests count entries: no background logging unless a test asks for it.
    setenv("TOVAK_DEVSIM_QUIET", "1", 0);
    // The launcher echoes the daemon's stdout; the copy under ROOT is what
    // tests read, so the echo goes nowhere.
    int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    int err_fd = open(launcher_err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    launcher_ = spawn(argv, null_fd, err_fd);
    close(null_fd);
    close(err_fd);
    bool up = wait_until([&] {
        if (waitpid(launcher_, nullptr, WNOHANG) == launcher_) {
            launcher_ = -1;
            return true;
        }
        TovakClient probe(1000);
        return probe.connect(socket_path());
    });
    return up && launcher_ > 0;
}

int SimDevice::stop(int sig)
{
    if (launcher_ <= 0)
        return -1;
    kill(launcher_, sig);
    int status = 0;
    while (waitpid(launcher_, &status, 0) < 0 && errno == EINTR) {
    }
    launcher_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string SimDevice::failure() const
{
    return read_file(launcher_err_) + daemon_stdout();
}

std::unique_ptr<TovakClient> SimDevice::connect(int timeout_ms)
{
    auto client = std::make_unique<TovakClient>(timeout_ms);
    if (!client->connect(socket_path()))
        return nullptr;
    return client;
}

std::string SimDevice::daemon_stdout() const
{
    return read_file(path(SIM_STDOUT_FILE));
}

bool SimDevice::wait_stdout(const std::string& needle, std::chrono::milliseconds timeout) const
{
    return wait_until([&] { return daemon_stdout().find(needle) != std::string::npos; }, timeout);
}

std::string SimDevice::property(const std::string& key) const
{
    return read_file(path("data/property/" + key));
}
