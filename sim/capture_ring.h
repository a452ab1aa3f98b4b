// A capture file: keeps the newest `capacity` bytes written, in a ring
// backed by a file, and copies them in order into a new file on commit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class CaptureRing {
public:
    CaptureRing() = default;
    ~CaptureRing();
    CaptureRing(const CaptureRing&) = delete;
    CaptureRing& operator=(const CaptureRing&) = delete;

    // Creates the backing file (and its directory); false on failure.
    bool open(const std::string& backing_path, size_t capacity);
    bool write(const void* data, size_t len);
    // The kept bytes, oldest first.
    bool contents(std::vector<uint8_t>* out) const;
    // Writes the kept bytes into dir (created if missing) as a new file
    // NAME_YYYYMMDD_HHMMSS.log (with _2, _3, ... when that exists already).
    bool commit(const std::string& dir, const std::string& name, int64_t unix_sec, std::string* path = nullptr) const;

    size_t capacity() const { return capacity_; }
    uint64_t total_written() const { return total_; }
    const std::string& backing_path() const { return path_; }

private:
    int fd_ = -1;
    std::string path_;
    size_t capacity_ = 0;
    uint64_t total_ = 0; // bytes ever written; the ring holds the last capacity_ of them
};

