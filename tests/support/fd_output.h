// What a descriptor (1 or 2) received while a function ran in this process.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

template <typename F>
std::string fd_output(int fd, F f)
{
    int p[2];
    if (pipe2(p, O_CLOEXEC) != 0)
        return "pipe failed";
    fflush(nullptr);
    const int saved = dup(fd);
    dup2(p[1], fd);
    close(p[1]);
    f();
    dup2(saved, fd);
    close(saved);
    std::string out;
    char buf[512];
    for (ssize_t n; (n = read(p[0], buf, sizeof buf)) > 0;)
        out.append(buf, size_t(n));
    close(p[0]);
    return out;
}
