// UNIX stream sockets, for every program that connects to one or listens on
// one: the daemon's clients, the simulator and its libraries, tests, benchmarks.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

// Fills addr for path and sets len to the family, the path and its zero byte.
// False (errno ENAMETOOLONG) when the path does not fit an address.
bool unix_socket_address(const char* path, sockaddr_un* addr, socklen_t* len);

// Largest path an address holds.
constexpr unsigned UNIX_SOCKET_PATH_MAX = sizeof(sockaddr_un::sun_path) - 1;

// A close-on-exec stream socket connected to path, or -1 with errno set.
// timeout_ms bounds the wait for room in a full backlog (negative: no bound);
// running out of it fails with ETIMEDOUT.
int unix_socket_connect(const char* path, int timeout_ms);

// A close-on-exec stream socket bound to path (a file left there is removed
// first) and listening, or -1 with errno set.
int unix_socket_listen(const char* path, int backlog);
