#include "capture_ring.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "sim_files.h"

CaptureRing::~CaptureRing()
{
    if (fd_ >= 0) {
        close(fd_);
        unlink(path_.c_str());
    }
}

bool CaptureRing::open(const std::string& backing_path, size_t capacity)
{
    if (fd_ >= 0 || capacity == 0)
        return false;
    size_t slash = backing_path.rfind('/');
    if (slash != std::string::npos && slash > 0 && !sim_make_dirs(backing_path.substr(0, slash)))
        return false;
    fd_ = ::open(backing_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd_ < 0)
        return false;
    path_ = backing_path;
    capacity_ = capacity;
    return true;
}

// Positional, as the ring writes and reads at its own offsets.
static bool pwrite_all(int fd, const uint8_t* p, size_t n, off_t off)
{
    while (n > 0) {
        ssize_t w = pwrite(fd, p, n, off);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        p += w;
        n -= size_t(w);
        off += w;
    }
    return true;
}

static bool pread_all(int fd, uint8_t* p, size_t n, off_t off)
{
    while (n > 0) {
        ssize_t r = pread(fd, p, n, off);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            return false;
        p += r;
        n -= size_t(r);
        off += r;
    }
    return true;
}

void CaptureRing::follow_entries(const uint8_t* p, size_t len)
{
    size_t i = 0;
    while (i < len) {
        const uint64_t at = total_ + i;
        if (header_len_ == 0 && at < next_start_) {
            i += size_t(std::min<uint64_t>(next_start_ - at, len - i));
            continue;
        }
        if (header_len_ == 0) {
            entry_start_ = at;
            starts_.push_back(at);
        }
        while (header_len_ < sizeof header_ && i < len)
            header_[header_len_++] = p[i++];
        if (header_len_ < sizeof header_)
            return;
        const unsigned payload = unsigned(header_[0] | header_[1] << 8);
        const unsigned hdr = unsigned(header_[2] | header_[3] << 8);
        // No logger entry: from here on the ring keeps plain bytes.
        if (payload > 5120 || (hdr != 0 && (hdr < 20 || hdr > 100))) {
            raw_ = true;
            return;
        }
        // 0 is the first logger's padding: its header is 20 bytes.
        next_start_ = entry_start_ + (hdr ? hdr : 20) + payload;
        header_len_ = 0;
    }
}

bool CaptureRing::append(const void* data, size_t len)
{
    if (fd_ < 0 || (data == nullptr && len > 0))
        return false;
    const uint8_t* p = static_cast<const uint8_t*>(data);
    if (!raw_)
        follow_entries(p, len);
    // Only the newest capacity bytes of a long write can stay.
    if (len > capacity_) {
        total_ += len - capacity_;
        p += len - capacity_;
        len = capacity_;
    }
    while (len > 0) {
        size_t pos = size_t(total_ % capacity_);
        size_t n = std::min(len, capacity_ - pos);
        if (!pwrite_all(fd_, p, n, off_t(pos))) {
            // The bytes not written are lost to the ring: it counts them as
            // passed and forgets every entry begun before their end, so that
            // no commit hands out an entry with a hole in it.
            total_ += len;
            starts_.clear();
            return false;
        }
        total_ += n;
        p += n;
        len -= n;
    }
    while (!starts_.empty() && starts_.front() + capacity_ < total_)
        starts_.pop_front();
    return true;
}

bool CaptureRing::contents(std::vector<uint8_t>* out) const
{
    if (fd_ < 0)
        return false;
    out->clear();
    if (!raw_ && starts_.empty())
        return true;
    // From the oldest whole entry to the end of the newest complete one;
    // plain bytes: the newest capacity of them.
    const uint64_t from = raw_ ? total_ - std::min<uint64_t>(total_, capacity_) : starts_.front();
    const uint64_t to = raw_ || (header_len_ == 0 && next_start_ <= total_) ? total_ : starts_.back();
    const size_t kept = size_t(to - from);
    out->resize(kept);
    const size_t start = size_t(from % capacity_);
    const size_t first = std::min(kept, capacity_ - start);
    return pread_all(fd_, out->data(), first, off_t(start)) && pread_all(fd_, out->data() + first, kept - first, 0);
}

bool CaptureRing::commit(const std::string& dir, const std::string& name, int64_t unix_sec, std::string* path) const
{
    std::vector<uint8_t> data;
    if (!contents(&data) || !sim_make_dirs(dir))
        return false;
    time_t t = time_t(unix_sec);
    struct tm tm;
    localtime_r(&t, &tm);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y%m%d_%H%M%S", &tm);
    std::string base = dir;
    if (base.back() != '/')
        base += '/';
    base.append(name).append("_").append(stamp);
    for (int n = 1; n < 1000; n++) {
        std::string file = base;
        if (n > 1)
            file.append("_").append(std::to_string(n));
        file.append(".log");
        int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd < 0 && errno == EEXIST)
            continue;
        if (fd < 0)
            return false;
        bool ok = sim_write_all(fd, data.data(), data.size());
        ok = close(fd) == 0 && ok;
        if (!ok)
            unlink(file.c_str());
        else if (path)
            *path = file;
        return ok;
    }
    return false;
}
