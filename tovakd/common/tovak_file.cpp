#include "common/tovak_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

bool tovak_write_all(int fd, const void* data, size_t n)
{
    const char* p = static_cast<const char*>(data);
    while (n > 0) {
        ssize_t done = write(fd, p, n);
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        p += done;
        n -= size_t(done);
    }
    return true;
}

bool tovak_file_replace(const char* path, const std::function<bool(int fd)>& fill)
{
    std::string target = path;
    struct stat st;
    bool exists = lstat(path, &st) == 0;
    // A link is written through, as opening it for writing would.
    if (exists && S_ISLNK(st.st_mode)) {
        char resolved[PATH_MAX];
        if (realpath(path, resolved) != nullptr)
            target = resolved;
        exists = stat(target.c_str(), &st) == 0;
    }
    // The new file keeps the old one's owner and mode; a new one is 0666.
    const bool keep = exists && S_ISREG(st.st_mode);
    const mode_t mode = keep ? st.st_mode & 07777 : 0666;
    const size_t slash = target.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : target.substr(0, slash);
    const std::string head = slash == std::string::npos ? "" : target.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    if (base.empty())
        return false;
    const std::string tmp = head + "." + base + ".tmp";

    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0)
        return false;
    // Only what creating it did not set already (the umask, a temporary file
    // left by an earlier attempt, which keeps its mode through O_TRUNC): each
    // change is one more for the sync to carry.
    struct stat made;
    if (fstat(fd, &made) == 0) {
        if (keep && (made.st_uid != st.st_uid || made.st_gid != st.st_gid))
            (void)!fchown(fd, st.st_uid, st.st_gid);
        if ((made.st_mode & 07777) != mode)
            (void)!fchmod(fd, mode);
    }
    bool ok = fill(fd) && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    if (!ok || rename(tmp.c_str(), target.c_str()) != 0) {
        unlink(tmp.c_str());
        return false;
    }
    // The rename itself is durable only once the directory is.
    int dir_fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir_fd >= 0) {
        fsync(dir_fd);
        close(dir_fd);
    }
    return true;
}
