#include "host_link.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

#include "le.h"
#include "protocol/unix_socket.h"
#include "sim_link.h"

namespace {

// Never destroyed: detached client threads may still call in at exit.
struct Pool {
    std::mutex mutex;
    std::string root;                             // guarded by mutex
    std::map<std::string, std::vector<int>> idle; // path -> idle connections, guarded by mutex
};
Pool& pool()
{
    static Pool* p = new Pool;
    return *p;
}
std::atomic<int> timeout_ms{ SIM_HOST_DEFAULT_TIMEOUT_MS };
const size_t MAX_IDLE = 8;

int connect_to(const std::string& path)
{
    sockaddr_un addr;
    socklen_t addr_len;
    if (!unix_socket_address(path.c_str(), &addr, &addr_len))
        return -1;
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), addr_len) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int64_t now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

} // namespace

void sim_host_set_root(const std::string& r)
{
    std::lock_guard<std::mutex> lock(pool().mutex);
    pool().root = r;
    for (auto& [path, fds] : pool().idle)
        for (int fd : fds)
            close(fd);
    pool().idle.clear();
}

void sim_host_set_timeout_ms(int ms)
{
    timeout_ms = ms;
}

std::string sim_host_path(const char* device_path)
{
    std::lock_guard<std::mutex> lock(pool().mutex);
    return pool().root + device_path;
}

SimLink::SimLink(const char* device_path) : path_(sim_host_path(device_path))
{
    {
        std::lock_guard<std::mutex> lock(pool().mutex);
        auto it = pool().idle.find(path_);
        if (it != pool().idle.end() && !it->second.empty()) {
            fd_ = it->second.back();
            it->second.pop_back();
            reused_ = true;
        }
    }
    if (fd_ < 0)
        fd_ = connect_to(path_);
}

SimLink::~SimLink()
{
    if (fd_ < 0)
        return;
    std::lock_guard<std::mutex> lock(pool().mutex);
    auto& fds = pool().idle[path_];
    if (fds.size() < MAX_IDLE) {
        fds.push_back(fd_);
    } else {
        close(fd_);
    }
}

void SimLink::discard()
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = -1;
}

bool SimLink::post(const void* msg, size_t len)
{
    if (fd_ < 0)
        return false;
    for (;;) {
        ssize_t n = ::send(fd_, msg, len, MSG_NOSIGNAL);
        if (n == ssize_t(len))
            return true;
        if (n < 0 && errno == EINTR)
            continue;
        discard();
        if (!reused_)
            return false;
        // A restarted simulator: one fresh connection.
        reused_ = false;
        fd_ = connect_to(path_);
        if (fd_ < 0)
            return false;
    }
}

bool SimLink::await_answer(std::vector<uint8_t>* msg)
{
    if (fd_ < 0)
        return false;
    const int64_t deadline = now_ms() + timeout_ms.load();
    for (;;) {
        int64_t left = deadline - now_ms();
        if (left < 0)
            left = 0;
        pollfd p = { fd_, POLLIN, 0 };
        int r = poll(&p, 1, int(left));
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            break;
        msg->resize(SIM_LINK_MAX_MSG);
        ssize_t n = recv(fd_, msg->data(), msg->size(), MSG_DONTWAIT);
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (n <= 0)
            break;
        msg->resize(size_t(n));
        return true;
    }
    discard();
    return false;
}

bool sim_link_op(const char* device_path, uint32_t code, const std::vector<uint8_t>& args, int32_t* result,
                 std::vector<uint8_t>* data)
{
    std::vector<uint8_t> msg;
    put_u32(msg, code);
    msg.insert(msg.end(), args.begin(), args.end());
    SimLink link(device_path);
    std::vector<uint8_t> answer;
    if (!link.ask(msg.data(), msg.size(), &answer) || answer.size() < 4) {
        link.discard();
        return false;
    }
    *result = int32_t(get_u32(answer.data()));
    if (data)
        data->assign(answer.begin() + 4, answer.end());
    return true;
}
