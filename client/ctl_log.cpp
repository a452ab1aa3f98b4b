#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

#include "tovakctl.h"

// On a phone: the kernel logger's main buffer, one entry per read.
#define MAIN_LOG_DEVICE "/dev/log/main"
#define SIM_LOGCAT "/sim/logcat.txt"
// A file's tail worth reading for the latest settings.
#define TAIL_BYTES (1 << 20)

CtlLog::~CtlLog()
{
    if (fd_ >= 0)
        close(fd_);
}

bool CtlLog::open(const CtlOptions& opt, bool from_end)
{
    if (!opt.device_files)
        return false;
    binary_ = opt.root.empty();
    path = binary_ ? MAIN_LOG_DEVICE : opt.root + SIM_LOGCAT;
    fd_ = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0)
        return false;
    if (binary_) {
        // A reader gets the whole buffer first.
        if (from_end)
            read();
    } else {
        off_t end = lseek(fd_, 0, SEEK_END);
        lseek(fd_, from_end ? end : (end > TAIL_BYTES ? end - TAIL_BYTES : 0), SEEK_SET);
        cut_ = !from_end && end > TAIL_BYTES;
    }
    return true;
}

// One logger entry: u16 payload length, u16 header size (0 in the oldest
// layout, which has 20 bytes), pid, tid, sec, nsec, then priority, tag, NUL,
// message, NUL.
static bool entry_message(const char* buf, size_t n, std::string* msg)
{
    uint16_t len, hdr;
    if (n < 20)
        return false;
    memcpy(&len, buf, 2);
    memcpy(&hdr, buf + 2, 2);
    size_t at = hdr >= 20 ? hdr : 20;
    if (at + len > n || len < 3)
        return false;
    std::string payload(buf + at + 1, len - 1);
    size_t nul = payload.find('\0');
    if (nul == std::string::npos || payload.compare(0, nul, "TOVAK") != 0 || nul != 5)
        return false;
    *msg = payload.substr(nul + 1, payload.find('\0', nul + 1) - nul - 1);
    return true;
}

// "MM-DD HH:MM:SS.mmm PID TID P TAG : message".
static bool text_message(const std::string& line, std::string* msg)
{
    std::istringstream in(line);
    std::string date, time, pid, tid, prio, tag;
    if (!(in >> date >> time >> pid >> tid >> prio >> tag) || tag != "TOVAK")
        return false;
    size_t colon = line.find(": ", size_t(in.tellg()));
    if (colon == std::string::npos)
        return false;
    *msg = line.substr(colon + 2);
    return true;
}

std::vector<std::string> CtlLog::read()
{
    std::vector<std::string> msgs;
    char buf[8192];
    ssize_t n;
    while (fd_ >= 0 && (n = ::read(fd_, buf, sizeof buf)) > 0) {
        std::string msg;
        if (binary_) {
            if (entry_message(buf, size_t(n), &msg))
                msgs.push_back(msg);
            continue;
        }
        partial_.append(buf, size_t(n));
        size_t nl;
        while ((nl = partial_.find('\n')) != std::string::npos) {
            if (!cut_ && text_message(partial_.substr(0, nl), &msg))
                msgs.push_back(msg);
            cut_ = false;
            partial_.erase(0, nl + 1);
        }
    }
    return msgs;
}

std::string ctl_device_file(const CtlOptions& opt, const std::string& path)
{
    if (!opt.device_files || path.empty() || path[0] != '/')
        return "";
    // /sdcard is the emulated storage under /data/media/0.
    if (!opt.root.empty() && (path == "/sdcard" || path.compare(0, 8, "/sdcard/") == 0))
        return opt.root + "/data/media/0" + path.substr(7);
    return opt.root + path;
}

CtlLogFacts ctl_log_facts(const CtlOptions& opt)
{
    CtlLogFacts f;
    CtlLog log;
    f.known = log.open(opt, false);
    f.where = log.path;
    const std::string asked = "DMLogging out_path_name is ", taken = "ADB_LOG out_path_name is ",
                      events = "Number of event ID = ";
    std::string candidate, dir_before_commit;
    for (const std::string& msg : log.read()) {
        auto starts = [&](const std::string& s) { return msg.compare(0, s.size(), s) == 0; };
        if (starts("[!] TOVAKD Started")) {
            std::string where = f.where;
            f = CtlLogFacts();
            f.known = true;
            f.where = where;
        } else if (starts(asked)) {
            candidate = msg.substr(asked.size());
        } else if (starts(taken) && !candidate.empty()) {
            // Logged only once the platform took the path.
            f.out_path = candidate;
            f.capture_dir = msg.substr(taken.size());
            candidate.clear();
        } else if (starts("process adblog_commit")) {
            dir_before_commit = f.capture_dir;
            f.capture_dir.clear();
        } else if (starts("ADBLOG: state is off so commit")) {
            f.capture_dir = dir_before_commit;
        } else if (starts(">> getVariousInfoOnEventLogMessage")) {
            // A log on that sends the masks; a second log on never gets here.
            f.pending_edits = 0;
        } else if (starts(events)) {
            f.event_count = atoll(msg.c_str() + events.size());
        } else if (starts("process log_off")) {
            f.pending_edits = 0;
        } else if ((starts("handler_add_event,") || starts("handler_rm_event,") || starts("handler_add_log,") ||
                    starts("handler_rm_log,") || starts("handler_add_msg ") || starts("handler_rm_msg "))) {
            f.pending_edits++;
        }
    }
    return f;
}
