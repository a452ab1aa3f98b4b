#include "devsim_ctl.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "protocol/unix_socket.h"
#include "sim_device.h"
#include "sim_link.h"
#include "sim_root.h"

int devsim_ctl(const std::string& root, const std::vector<std::string>& args, std::string* out, std::string* err)
{
    std::vector<std::string> argv = { SimDevice::bin("tovak-sim"), "ctl", root };
    argv.insert(argv.end(), args.begin(), args.end());
    return SimDevice::run(argv, out, err);
}

int devsim_request(const std::string& root, const std::vector<std::string>& args, std::string* out)
{
    int fd = unix_socket_connect((root + "/" SIM_CTL_SOCKET).c_str(), 10000);
    if (fd < 0)
        return 1;
    // Words with their zero bytes, then the end of the request: as ctl sends it.
    std::string request, reply;
    for (const std::string& a : args)
        request.append(a).push_back('\0');
    timeval limit = { 10, 0 };
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    bool sent =
        send(fd, request.data(), request.size(), MSG_NOSIGNAL) == ssize_t(request.size()) && shutdown(fd, SHUT_WR) == 0;
    char buf[4096];
    for (ssize_t n; sent && (n = read(fd, buf, sizeof buf)) > 0;)
        reply.append(buf, size_t(n));
    close(fd);
    if (out)
        *out = reply;
    return sent && !reply.empty() && reply.compare(0, 7, "error: ") != 0 ? 0 : 1;
}

nlohmann::json devsim_status(const std::string& root)
{
    std::string out;
    if (devsim_ctl(root, { "status" }, &out) != 0)
        return nlohmann::json::value_t::discarded;
    return nlohmann::json::parse(out, nullptr, false);
}

DevsimProcess::~DevsimProcess()
{
    stop();
}

bool DevsimProcess::start(const std::string& root, const std::vector<std::string>& args)
{
    std::vector<std::string> argv = { SimDevice::bin("tovak-devsim"), "--root", root };
    argv.insert(argv.end(), args.begin(), args.end());
    pid_ = fork();
    if (pid_ == 0) {
        std::vector<char*> a;
        for (const std::string& s : argv)
            a.push_back(const_cast<char*>(s.c_str()));
        a.push_back(nullptr);
        execv(a[0], a.data());
        _exit(127);
    }
    if (pid_ < 0)
        return false;
    return wait_until([&] { return !alive() || file_exists(root + SIM_LINK_DIAG_PATH); }) && alive();
}

bool DevsimProcess::alive() const
{
    if (pid_ <= 0)
        return false;
    siginfo_t info = {};
    return waitid(P_PID, id_t(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

int DevsimProcess::stop()
{
    if (pid_ <= 0)
        return -1;
    kill(pid_, SIGTERM);
    int status = wait_child(pid_);
    pid_ = -1;
    return status;
}
