// Host Android log: each entry goes to the simulated logger on logdw as a
// datagram, waiting a moment at most for room; with no logger there, one
// logcat-style line on stderr instead.
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "host_link.h"
#include "logger.h"
#include "platform/android_log.h"
#include "sim_link.h"

static char priority_letter(int prio)
{
    static const char letters[] = "??VDIWEFS";
    return prio >= 0 && prio <= ANDROID_LOG_SILENT ? letters[prio] : '?';
}

// The longest a caller waits for room in the logger's queue; past that the
// entry goes to stderr instead.
static const int LOGGER_WAIT_MS = 250;

// One connected socket for every thread. Connected, so that a full logger
// queue can be waited for; replaced in place (dup2), never closed, so that
// a thread still sending on it is never left with a reused descriptor.
struct LoggerLink {
    std::mutex mutex;
    int fd = -1;
    std::string path;
};

static LoggerLink& logger_link()
{
    static LoggerLink* link = new LoggerLink;
    return *link;
}

static int logger_fd(bool renew)
{
    LoggerLink& l = logger_link();
    std::lock_guard<std::mutex> lock(l.mutex);
    std::string path = sim_host_path(SIM_LOGDW_PATH);
    if (!renew && l.fd >= 0 && l.path == path)
        return l.fd;
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        return -1;
    strcpy(addr.sun_path, path.c_str());
    int s = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0)
        return -1;
    if (connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(s);
        return -1;
    }
    if (l.fd < 0) {
        l.fd = s;
    } else {
        dup2(s, l.fd);
        close(s);
    }
    l.path = path;
    return l.fd;
}

static int64_t now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

static bool send_to_logger(int prio, const char* tag, const char* msg)
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    LogEntry e;
    e.tid = int32_t(syscall(SYS_gettid));
    e.sec = int32_t(ts.tv_sec);
    e.nsec = int32_t(ts.tv_nsec);
    e.prio = uint8_t(prio);
    e.tag = tag;
    e.msg = msg;
    std::vector<uint8_t> dgram = make_logdw(LOG_ID_MAIN, e);
    const int64_t deadline = now_ms() + LOGGER_WAIT_MS;
    int fd = logger_fd(false);
    // A second connection only when the first finds the logger gone (a
    // restarted simulator).
    for (int attempt = 0; attempt < 2 && fd >= 0; attempt++) {
        for (;;) {
            ssize_t n = send(fd, dgram.data(), dgram.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n == ssize_t(dgram.size()))
                return true;
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && errno == EAGAIN) {
                int64_t left = deadline - now_ms();
                if (left <= 0)
                    return false;
                pollfd p = { fd, POLLOUT, 0 };
                poll(&p, 1, int(left));
                continue;
            }
            break;
        }
        fd = logger_fd(true);
    }
    return false;
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...)
{
    char msg[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(msg, sizeof msg, fmt, ap);
    va_end(ap);
    if (n < 0)
        return 0;
    size_t len = size_t(n) < sizeof msg ? size_t(n) : sizeof msg - 1;
    while (len > 0 && msg[len - 1] == '\n')
        msg[--len] = '\0';
    if (tag == nullptr)
        tag = "";
    if (!send_to_logger(prio, tag, msg))
        fprintf(stderr, "%c/%s(%d): %s\n", priority_letter(prio), tag, int(getpid()), msg);
    return int(len);
}
