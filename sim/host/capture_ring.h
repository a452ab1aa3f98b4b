// A capture file of Android log entries: keeps the newest whole entries
// that fit `capacity` bytes, in a ring backed by a file, and copies them in
// order into a new file on commit. Writes may split entries anywhere; the
// ring follows their headers (u16 payload length, u16 header size or 0 for
// the 20-byte header), so a commit always begins at an entry and ends with
// a whole one. A stream that turns out to hold no logger entries (a kernel
// log device, say) is kept as plain bytes, the newest `capacity` of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
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
    bool append(const void* data, size_t len);
    // The kept whole entries, oldest first.
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

    void follow_entries(const uint8_t* p, size_t len);
    std::deque<uint64_t> starts_; // stream offsets of entry headers still in the ring
    uint64_t entry_start_ = 0;    // where the current entry's header began
    uint64_t next_start_ = 0;     // where the next header begins
    uint8_t header_[4];           // the part of the current header seen so far
    size_t header_len_ = 0;
    bool raw_ = false; // the stream is no logger entries
};
