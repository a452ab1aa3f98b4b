#include "sim_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

bool sim_make_dirs(const std::string& path)
{
    for (size_t pos = 1; pos <= path.size(); pos++) {
        if (pos < path.size() && path[pos] != '/')
            continue;
        std::string part = path.substr(0, pos);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    }
    struct stat st;
    return !path.empty() && stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool sim_write_all(int fd, const void* data, size_t n)
{
    auto* p = static_cast<const char*>(data);
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        p += w;
        n -= size_t(w);
    }
    return true;
}
