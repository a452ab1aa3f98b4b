// Host Android log: each entry goes to the simulated logger on logdw, as
// a datagram that never blocks; with no logger there, one logcat-style line
// on stderr instead.
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <string>
#include <cstdio>
#include <cstring>

#include "host_link.h"
#include "logger.h"
#include "platform/android_log.h"
#include "sim_link.h"

static char priority_letter(int prio)
{
    static const char letters[] = "??VDIWEFS";
    return prio >= 0 && prio <= ANDROID_LOG_SILENT ? letters[prio] : '?';
}

static int logdw_socket()
{
    // One descriptor for every thread, made once and never closed.
    static int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    return fd;
}

static bool send_to_logger(int prio, const char* tag, const char* msg)
{
    int fd = logdw_socket();
    if (fd < 0)
        return false;
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::string path = sim_host_path(SIM_LOGDW_PATH);
    if (path.size() >= sizeof addr.sun_path)
        return false;
    strcpy(addr.sun_path, path.c_str());
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
    return sendto(fd, dgram.data(), dgram.size(), MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&addr),
                  sizeof addr) == ssize_t(dgram.size());
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
