#include "common/tovak_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

// A temporary name is "." + the file's name + ".tmp", the name the phone's
// policy labels; where that is taken, the same + "." + TMP_SUFFIX_LEN letters
// or digits. Only names of exactly those forms are ever cleared.
static const char TMP_MARK[] = ".tmp";
static const size_t TMP_SUFFIX_LEN = 8;
// Names tried before giving up: each one taken already costs one try.
static const int TMP_TRIES = 32;

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

namespace {

// The directory of path, opened, and the name within it.
struct Place {
    int dir = -1;
    std::string name;

    explicit Place(const char* path)
    {
        const std::string p = path != nullptr ? path : "";
        const size_t slash = p.rfind('/');
        name = slash == std::string::npos ? p : p.substr(slash + 1);
        if (name.empty() || name == "." || name == "..")
            return;
        const std::string d = slash == std::string::npos ? "." : slash == 0 ? "/" : p.substr(0, slash);
        // Links among the directories are followed, as any open would; only
        // the last name is never followed.
        dir = open(d.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    ~Place()
    {
        if (dir >= 0)
            close(dir);
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    std::string tmp_name() const { return "." + name + TMP_MARK; }
};

// A client chooses where the daemon saves, so the letters must be ones no
// one can guess in advance and plant a node at each.
std::string random_suffix()
{
    static const char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    unsigned char bytes[TMP_SUFFIX_LEN];
    if (getrandom(bytes, sizeof bytes, GRND_NONBLOCK) != ssize_t(sizeof bytes)) {
        // Early in boot the pool may not be ready: still unique, if guessable.
        static std::atomic<unsigned> counter{ 0 };
        timespec now = {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        uint64_t mix = (uint64_t(now.tv_nsec) * 2654435761u) ^ (uint64_t(getpid()) << 32) ^ counter++;
        for (unsigned char& b : bytes) {
            b = uint8_t(mix);
            mix = mix >> 8 | mix << 56;
            mix *= 0x9E3779B97F4A7C15ull;
        }
    }
    std::string s;
    for (unsigned char b : bytes)
        s += letters[b % (sizeof letters - 1)];
    return s;
}

bool is_tmp_name(const char* entry, const std::string& fixed)
{
    if (strncmp(entry, fixed.c_str(), fixed.size()) != 0)
        return false;
    const char* rest = entry + fixed.size();
    if (*rest == '\0')
        return true;
    if (*rest++ != '.')
        return false;
    size_t n = 0;
    for (; rest[n] != '\0'; n++) {
        const char c = rest[n];
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')))
            return false;
    }
    return n == TMP_SUFFIX_LEN;
}

// Removes what an earlier save, killed, left: regular files of our names
// only. Unlinking removes a name, never a link's target or a hard link's
// other names.
void clear_leftovers(const Place& at)
{
    const int fd = openat(at.dir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return;
    DIR* d = fdopendir(fd);
    if (d == nullptr) {
        close(fd);
        return;
    }
    const std::string fixed = at.tmp_name();
    while (dirent* e = readdir(d)) {
        struct stat st;
        if (is_tmp_name(e->d_name, fixed) && fstatat(at.dir, e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(st.st_mode))
            unlinkat(at.dir, e->d_name, 0);
    }
    closedir(d);
}

// What is at the name now: 0 nothing, 1 a regular file (in *st), -1
// anything else or an error.
int what_is_there(const Place& at, struct stat* st)
{
    if (fstatat(at.dir, at.name.c_str(), st, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? 0 : -1;
    return S_ISREG(st->st_mode) ? 1 : -1;
}

bool save(const char* path, const std::function<bool(int fd)>& fill, bool create_only)
{
    Place at(path);
    if (at.dir < 0)
        return false;
    struct stat st;
    const int there = what_is_there(at, &st);
    if (there < 0 || (create_only && there != 0))
        return false;
    // The new file keeps the old one's owner and mode; a new one is 0666.
    const bool keep = there == 1;
    const mode_t mode = keep ? st.st_mode & 07777 : 0666;
    clear_leftovers(at);

    std::string tmp;
    int fd = -1;
    // Exclusive and never through a link: whatever sits at a name, planted
    // or left over, only costs one more try.
    for (int i = 0; i < TMP_TRIES && fd < 0; i++) {
        tmp = i == 0 ? at.tmp_name() : at.tmp_name() + "." + random_suffix();
        fd = openat(at.dir, tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        if (fd < 0 && errno != EEXIST)
            return false;
    }
    if (fd < 0)
        return false;
    // Only what creating it did not set already (the umask): each change is
    // one more for the sync to carry.
    struct stat made;
    if (fstat(fd, &made) == 0) {
        if (keep && (made.st_uid != st.st_uid || made.st_gid != st.st_gid))
            (void)!fchown(fd, st.st_uid, st.st_gid);
        if ((made.st_mode & 07777) != mode)
            (void)!fchmod(fd, mode);
    }
    bool ok = fill(fd) && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    bool renamed = false;
    if (ok && create_only) {
        // A link fails where anything has appeared meanwhile; where the file
        // system has no hard links, the check just before the rename has to
        // do.
        if (linkat(at.dir, tmp.c_str(), at.dir, at.name.c_str(), 0) != 0)
            ok = renamed = errno != EEXIST && what_is_there(at, &st) == 0 &&
                           renameat(at.dir, tmp.c_str(), at.dir, at.name.c_str()) == 0;
    } else if (ok) {
        // Again just before: the node may have changed while fill ran.
        ok = renamed = what_is_there(at, &st) >= 0 && renameat(at.dir, tmp.c_str(), at.dir, at.name.c_str()) == 0;
    }
    if (!renamed)
        unlinkat(at.dir, tmp.c_str(), 0);
    if (!ok)
        return false;
    // The rename itself is durable only once the directory is.
    fsync(at.dir);
    return true;
}

} // namespace

bool tovak_file_replace(const char* path, const std::function<bool(int fd)>& fill)
{
    return save(path, fill, false);
}

bool tovak_file_create(const char* path, const std::function<bool(int fd)>& fill)
{
    return save(path, fill, true);
}
