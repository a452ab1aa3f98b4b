// Host Android log: each entry goes to the simulated logger on logdw as a
// datagram over one connected socket; with no logger there, one
// logcat-style line on stderr instead. A logger that lags is waited for a
// moment; one that stalls loses entries, counted, as Android's own log
// client drops them rather than hold its caller.
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include <android/log.h>

#include "host_link.h"
#include "logger.h"
#include "protocol/unix_socket.h"
#include "sim_link.h"

// The longest a caller waits for room in the logger's queue before the
// logger counts as stalled.
static const int LOGGER_WAIT_MS = 250;
// Longest message and tag sent; longer ones are cut.
#define LOG_MSG_MAX 1024
#define LOG_TAG_MAX 256

static char priority_letter(int prio)
{
    static const char letters[] = "??VDIWEFS";
    return prio >= 0 && prio <= ANDROID_LOG_SILENT ? letters[prio] : '?';
}

// One connected socket for every thread, replaced in place (dup2) and never
// closed, so that a thread still sending on it is never left with a reused
// descriptor. The mutex is taken only to connect.
struct LoggerLink {
    std::mutex mutex;
    std::atomic<int> fd{ -1 };
    // A wait for room ran out; until an entry goes through, entries are
    // dropped at once instead of each waiting.
    std::atomic<bool> stalled{ false };
    std::atomic<uint64_t> dropped{ 0 };
};

static LoggerLink& logger_link()
{
    static LoggerLink* link = new LoggerLink;
    return *link;
}

// Connects to the logger as the root now places it, unless another thread
// has replaced the failing descriptor already; the descriptor, or -1.
static int reconnect(int failing)
{
    LoggerLink& l = logger_link();
    std::lock_guard<std::mutex> lock(l.mutex);
    const int current = l.fd.load();
    if (current != failing)
        return current;
    sockaddr_un addr;
    socklen_t len;
    if (!unix_socket_address(sim_host_path(SIM_LOGDW_PATH).c_str(), &addr, &len))
        return -1;
    int s = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0)
        return -1;
    if (connect(s, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
        close(s);
        return -1;
    }
    if (current < 0) {
        l.fd = s;
    } else {
        dup2(s, current);
        close(s);
    }
    l.stalled = false;
    return l.fd;
}

static ssize_t send_once(int fd, const uint8_t* dgram, size_t len)
{
    ssize_t n;
    do
        n = send(fd, dgram, len, MSG_DONTWAIT | MSG_NOSIGNAL);
    while (n < 0 && errno == EINTR);
    return n;
}

// The queue is full: wait for room, a bounded time and only while the logger
// is not known to be stalled. True when the entry went out.
static bool send_when_room(int fd, const uint8_t* dgram, size_t len)
{
    LoggerLink& l = logger_link();
    if (l.stalled)
        return false;
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        const int64_t left =
            LOGGER_WAIT_MS - ((now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000);
        if (left <= 0)
            break;
        pollfd p = { fd, POLLOUT, 0 };
        poll(&p, 1, int(left));
        ssize_t n = send_once(fd, dgram, len);
        if (n == ssize_t(len))
            return true;
        if (n >= 0 || errno != EAGAIN)
            return false;
    }
    l.stalled = true;
    return false;
}

// False when there is no logger to send to; a dropped entry counts as sent.
static bool send_to_logger(const uint8_t* dgram, size_t len)
{
    LoggerLink& l = logger_link();
    int fd = l.fd.load();
    if (fd < 0)
        fd = reconnect(fd);
    // A second connection only when the first finds the logger gone (a
    // restarted simulator).
    for (int attempt = 0; attempt < 2 && fd >= 0; attempt++) {
        ssize_t n = send_once(fd, dgram, len);
        bool sent = n == ssize_t(len);
        if (n < 0 && errno == EAGAIN) {
            if (!send_when_room(fd, dgram, len)) {
                l.dropped++;
                return true;
            }
            sent = true;
        }
        if (sent) {
            if (l.stalled)
                l.stalled = false;
            if (l.dropped.load() != 0) {
                if (uint64_t lost = l.dropped.exchange(0))
                    fprintf(stderr, "host log: %" PRIu64 " entries dropped while the logger stalled\n", lost);
            }
            return true;
        }
        fd = reconnect(fd);
    }
    return false;
}

static void put_u32(uint8_t* p, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        p[i] = uint8_t(v >> (8 * i));
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...)
{
    char msg[LOG_MSG_MAX];
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
    const size_t tag_len = strnlen(tag, LOG_TAG_MAX);

    // The logdw datagram, built where it is sent.
    uint8_t dgram[SIM_LOGDW_HEADER + 1 + LOG_TAG_MAX + 1 + LOG_MSG_MAX];
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    // Asked once per thread: a system call on every line adds up.
    static thread_local const uint16_t tid = uint16_t(syscall(SYS_gettid));
    dgram[0] = LOG_BUFFER_MAIN;
    dgram[1] = uint8_t(tid);
    dgram[2] = uint8_t(tid >> 8);
    put_u32(dgram + 3, uint32_t(ts.tv_sec));
    put_u32(dgram + 7, uint32_t(ts.tv_nsec));
    uint8_t* p = dgram + SIM_LOGDW_HEADER;
    *p++ = uint8_t(prio);
    memcpy(p, tag, tag_len);
    p += tag_len;
    *p++ = 0;
    memcpy(p, msg, len + 1);
    p += len + 1;

    if (!send_to_logger(dgram, size_t(p - dgram)))
        fprintf(stderr, "%c/%.*s(%d): %s\n", priority_letter(prio), int(tag_len), tag, int(getpid()), msg);
    return int(len);
}
