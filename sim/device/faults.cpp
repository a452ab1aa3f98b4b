#include "faults.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

nlohmann::json Faults::status() const
{
    return { { "drop", drop_next },      { "corrupt", corrupt_next },        { "delay_ms", delay_ms },
             { "silent", modem_silent }, { "logger_absent", logger_absent }, { "size_refused", size_refused } };
}

DiskFiller::~DiskFiller()
{
    // A filler must not outlive the device that made it.
    for (const auto& [path, file] : fillers_)
        unlink(file.c_str());
}

std::string DiskFiller::fill(const std::string& path)
{
    if (path.empty() || path[0] != '/')
        return "give an absolute device path, such as /sdcard";
    if (fillers_.count(path))
        return path + " is filled already";
    std::string dir = root_ + path;
    struct stat st;
    if (stat(dir.c_str(), &st) != 0)
        return dir + ": " + strerror(errno);
    if (!S_ISDIR(st.st_mode))
        dir = dir.substr(0, dir.rfind('/') + 1);
    struct statvfs vfs;
    if (statvfs(dir.c_str(), &vfs) != 0)
        return dir + ": " + strerror(errno);
    const unsigned long long avail = (unsigned long long)vfs.f_bavail * vfs.f_frsize;
    if (avail > DISK_FILL_MAX_FREE)
        return "refusing to fill " + path + ": " + std::to_string(avail >> 20) +
               " MiB free, more than the 256 MiB a simulated disk may have";
    const std::string file = dir + "/.tovak-sim-filler";
    int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return file + ": " + strerror(errno);
    // Write until the filesystem says no: reserved blocks and metadata make
    // any computed size wrong.
    std::vector<char> chunk(1 << 20, 0);
    size_t size = chunk.size();
    for (;;) {
        ssize_t n = write(fd, chunk.data(), size);
        if (n > 0)
            continue;
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno != ENOSPC) {
            std::string why = strerror(errno);
            close(fd);
            unlink(file.c_str());
            return file + ": " + why;
        }
        if (size == 1)
            break;
        size /= 2; // fill the last blocks too
    }
    fsync(fd);
    close(fd);
    fillers_[path] = file;
    return "";
}

std::string DiskFiller::free(const std::string& path)
{
    auto it = fillers_.find(path);
    if (it == fillers_.end())
        return path + " is not filled";
    if (unlink(it->second.c_str()) != 0 && errno != ENOENT)
        return it->second + ": " + strerror(errno);
    fillers_.erase(it);
    return "";
}

nlohmann::json DiskFiller::status() const
{
    nlohmann::json filled = nlohmann::json::array();
    for (const auto& [path, file] : fillers_)
        filled.push_back(path);
    return filled;
}
