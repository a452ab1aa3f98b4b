#include "protocol/unix_socket.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

bool unix_socket_address(const char* path, sockaddr_un* addr, socklen_t* len)
{
    size_t n = strlen(path);
    if (n > UNIX_SOCKET_PATH_MAX) {
        errno = ENAMETOOLONG;
        return false;
    }
    memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    memcpy(addr->sun_path, path, n);
    *len = socklen_t(offsetof(sockaddr_un, sun_path) + n + 1);
    return true;
}

int unix_socket_connect(const char* path, int timeout_ms)
{
    sockaddr_un addr;
    socklen_t len;
    if (!unix_socket_address(path, &addr, &len))
        return -1;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    // A UNIX connect waits for room in the listener's backlog for as long as
    // the send time-out allows, and fails with EAGAIN once it has passed.
    if (timeout_ms >= 0) {
        timeval tv = { timeout_ms / 1000, (timeout_ms % 1000) * 1000 };
        if (tv.tv_sec == 0 && tv.tv_usec == 0)
            tv.tv_usec = 1; // zero would mean no bound
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    }
    int rc;
    do
        rc = connect(fd, reinterpret_cast<sockaddr*>(&addr), len);
    while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        int err = errno == EAGAIN ? ETIMEDOUT : errno;
        close(fd);
        errno = err;
        return -1;
    }
    if (timeout_ms >= 0) {
        timeval none = {};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &none, sizeof none);
    }
    return fd;
}

int unix_socket_listen(const char* path, int backlog)
{
    sockaddr_un addr;
    socklen_t len;
    if (!unix_socket_address(path, &addr, &len))
        return -1;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    unlink(path);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(fd, backlog) != 0) {
        int err = errno;
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}
