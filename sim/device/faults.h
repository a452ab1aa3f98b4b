// Faults the simulated device can be told to have: on diag answers, on the
// modem as a whole, on the logger, and a full disk.
#pragma once

#include <map>
#include <string>

#include <nlohmann/json.hpp>

struct Faults {
    unsigned drop_next = 0;     // diag answers not sent
    unsigned corrupt_next = 0;  // diag answers sent with a wrong CRC
    int delay_ms = 0;           // every diag answer waits this long
    bool modem_silent = false;  // the modem answers nothing and logs nothing
    bool logger_absent = false; // logd is gone: its socket is not there
    bool size_refused = false;  // the platform takes no buffer size

    void clear_answers()
    {
        drop_next = corrupt_next = 0;
        delay_ms = 0;
        modem_silent = false;
        size_refused = false;
    }
    nlohmann::json status() const;
};

// Filling a filesystem is refused above this much free space, so that a
// slip can never fill a real disk.
#define DISK_FILL_MAX_FREE (256ull << 20)

// Filler files by the path they were asked for.
class DiskFiller {
public:
    // root prefixes the device paths given (empty inside the sandbox).
    explicit DiskFiller(std::string root) : root_(std::move(root)) {}
    ~DiskFiller();
    // Fills the filesystem holding path until it is full; "" or why not.
    std::string fill(const std::string& path);
    // Removes the filler for path; "" or why not.
    std::string free(const std::string& path);
    nlohmann::json status() const;

private:
    std::string root_;
    std::map<std::string, std::string> fillers_; // device path -> filler file
};
