#include "sim_device.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
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

int test_time_scale()
{
    static const int scale = [] {
        const char* text = getenv("TOVAK_TEST_TIME_SCALE");
        int n = text ? atoi(text) : 1;
        return n >= 1 && n <= 100 ? n : 1;
    }();
    return scale;
}

bool wait_until(const std::function<bool()>& cond, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout * test_time_scale();
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
    // The small /sdcard is mounted only where the launcher runs.
    if (sdcard_mib_ > 0 && running())
        return "/proc/" + std::to_string(launcher_) + "/root" + root() + "/" + rel;
    return root() + "/" + rel;
}

std::string SimDevice::socket_path() const
{
    return path(SIM_CLIENT_SOCKET);
}

std::string SimDevice::bin(const std::string& name)
{
    // A cross build's tests run a native build's simulator and launcher.
    const char* dir = getenv("TOVAK_SIM_BIN_DIR");
    return std::string(dir != nullptr && *dir != '\0' ? dir : TOVAK_BIN_DIR) + "/" + name;
}

int wait_child(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// With tmpfs_at, the child runs in a mount namespace of its own where a
// tmpfs (tmpfs_opts) is mounted there.
static pid_t spawn(const std::vector<std::string>& argv, int out_fd, int err_fd, const char* tmpfs_at = nullptr,
                   const char* tmpfs_opts = nullptr)
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
        if (tmpfs_at != nullptr &&
            (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
             mount("tmpfs", tmpfs_at, "tmpfs", MS_NOSUID | MS_NODEV, tmpfs_opts) != 0)) {
            static const char why[] = "cannot mount a small /sdcard: needs root and mount namespaces\n";
            (void)!write(STDERR_FILENO, why, sizeof why - 1);
            _exit(126);
        }
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
    int status = wait_child(pid);
    if (out)
        *out = read_file(out_path);
    if (err)
        *err = read_file(err_path);
    return status;
}

bool SimDevice::start(const std::vector<std::string>& args)
{
    std::vector<std::string> argv = { bin("tovak-sim"), "up", root() };
    argv.insert(argv.end(), args.begin(), args.end());
    launcher_err_ = path("launcher.err");
    // The launcher appends the daemon's output: this start's begins here.
    stdout_from_ = read_file(path(SIM_STDOUT_FILE)).size();
    // Tests count entries: no background logging unless a test asks for it.
    setenv("TOVAK_DEVSIM_QUIET", "1", 0);
    // The launcher echoes the daemon's stdout; the copy under ROOT is what
    // tests read, so the echo goes nowhere.
    int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    int err_fd = open(launcher_err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const std::string sdcard = root() + "/data/media/0", opts = "size=" + std::to_string(sdcard_mib_) + "m,mode=0777";
    if (sdcard_mib_ > 0)
        std::filesystem::create_directories(sdcard);
    launcher_ = spawn(argv, null_fd, err_fd, sdcard_mib_ > 0 ? sdcard.c_str() : nullptr, opts.c_str());
    launcher_status_ = -1;
    close(null_fd);
    close(err_fd);
    bool up = wait_until([&] {
        // Its status is kept: a launcher that crashed must say so.
        if (waitpid(launcher_, &launcher_status_, WNOHANG) == launcher_) {
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
    int status = wait_child(launcher_);
    launcher_ = -1;
    return status;
}

static std::string wait_status_text(int status)
{
    if (WIFSIGNALED(status))
        return "killed by signal " + std::to_string(WTERMSIG(status));
    return "exited with status " + std::to_string(WEXITSTATUS(status));
}

std::string SimDevice::failure() const
{
    std::string ended = launcher_status_ == -1 ? "" : "tovak-sim " + wait_status_text(launcher_status_) + "\n";
    return ended + read_file(launcher_err_) + daemon_stdout();
}

std::string SimDevice::sanitizer_report() const
{
    static const char* const marks[] = { "WARNING: ThreadSanitizer", "ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                                         "runtime error:" };
    // The daemon's and the simulator's stderr reach the launcher's.
    for (const std::string& text : { read_file(launcher_err_), daemon_stdout() }) {
        for (const char* mark : marks) {
            size_t at = text.find(mark);
            if (at != std::string::npos) {
                size_t begin = text.rfind('\n', at);
                begin = begin == std::string::npos ? 0 : begin + 1;
                return text.substr(begin, text.find('\n', at) - begin);
            }
        }
    }
    return "";
}

int SimDevice::daemon_starts() const
{
    std::istringstream state(read_file(path(SIM_DIR "/tovakd.state")));
    std::string key;
    int value = 0;
    while (state >> key >> value)
        if (key == "starts")
            return value;
    return 0;
}

std::unique_ptr<TovakClient> SimDevice::connect(int timeout_ms)
{
    auto client = std::make_unique<TovakClient>(timeout_ms * test_time_scale());
    if (!client->connect(socket_path()))
        return nullptr;
    return client;
}

std::string SimDevice::daemon_stdout() const
{
    std::string text = read_file(path(SIM_STDOUT_FILE));
    return text.size() > stdout_from_ ? text.substr(stdout_from_) : "";
}

bool SimDevice::wait_stdout(const std::string& needle, std::chrono::milliseconds timeout) const
{
    return wait_until([&] { return daemon_stdout().find(needle) != std::string::npos; }, timeout);
}

std::string SimDevice::property(const std::string& key) const
{
    return read_file(path("data/property/" + key));
}
