// tovak-bench-echo: the round-trip baseline, run by the launcher in tovakd's
// place. A session thread per client returns each frame as it came, after
// TOVAK_BENCH_ECHO_LINES log lines of TOVAK_BENCH_ECHO_LINE_BYTES bytes,
// each one write to stdout and one platform log call: the least the
// daemon's three-way log lines can cost. With no lines it is the raw echo.
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <android/log.h>

#include "protocol/tovak_pkt.h"
#include "protocol/unix_socket.h"

namespace {

int lines_per_request = 0;
// The message part of a line, sized so that "NNN: message\n" has the
// daemon's average line length.
std::string message;

int env_number(const char* name, int fallback, int max)
{
    const char* v = getenv(name);
    int n = v ? atoi(v) : fallback;
    return n < 0 || n > max ? fallback : n;
}

void session(int fd)
{
    tovak_pkt frame;
    memset(&frame, 0, sizeof frame);
    char line[1100];
    // One read and one write a request, as the daemon's session does.
    while (read(fd, &frame, sizeof frame) > 0) {
        for (int i = 0; i < lines_per_request; i++) {
            int n = snprintf(line, sizeof line, "%d: %s\n", 100 + i, message.c_str());
            if (write(STDOUT_FILENO, line, size_t(n)) < 0)
                break;
            __android_log_print(ANDROID_LOG_DEBUG, "TOVAK", "%s", message.c_str());
        }
        if (write(fd, &frame, sizeof frame) != ssize_t(sizeof frame))
            break;
    }
    close(fd);
}

} // namespace

int main()
{
    signal(SIGPIPE, SIG_IGN);
    lines_per_request = env_number("TOVAK_BENCH_ECHO_LINES", 0, 100);
    // "NNN: " and the newline take 6 of the bytes.
    int line_bytes = env_number("TOVAK_BENCH_ECHO_LINE_BYTES", 40, 1000);
    message.assign(size_t(std::max(line_bytes - 6, 1)), 'e');

    int listener = unix_socket_listen(TOVAK_SOCKET_PATH, 5);
    if (listener < 0) {
        fprintf(stderr, "tovak-bench-echo: cannot listen on %s: %s\n", TOVAK_SOCKET_PATH, strerror(errno));
        return 1;
    }
    printf("tovak-bench-echo: %d lines of %d bytes a request\n", lines_per_request, line_bytes);
    fflush(stdout);
    for (;;) {
        int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            if (errno == EINTR || errno == ECONNABORTED || errno == EMFILE || errno == ENFILE)
                continue;
            fprintf(stderr, "tovak-bench-echo: accept: %s\n", strerror(errno));
            return 1;
        }
        std::thread(session, client).detach();
    }
}
