#include "log_service.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "canned.h"
#include "sim_files.h"

namespace {

// The text file is for people: past this it starts over, keeping one old file.
const uint64_t LOGCAT_ROTATE_BYTES = 64ull << 20;
const double CHATTER_LINES_PER_S = 24;
const double EVENTS_PER_S = 0.5;

std::string canned_text(const char* text, uint64_t n)
{
    char buf[256];
    snprintf(buf, sizeof buf, text, unsigned(n));
    return buf;
}

} // namespace

LogService::LogService(const std::string& sim_dir) : logcat_path_(sim_dir + "/logcat.txt")
{
    sim_make_dirs(sim_dir);
    logcat_fd_ = open(logcat_path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    off_t end = logcat_fd_ >= 0 ? lseek(logcat_fd_, 0, SEEK_END) : 0;
    logcat_bytes_ = end > 0 ? uint64_t(end) : 0;
}

LogService::~LogService()
{
    flush_text();
    if (logcat_fd_ >= 0)
        close(logcat_fd_);
}

void LogService::entry(int buffer, const LogEntry& e)
{
    if (buffer < 0 || buffer >= LOG_BUFFER_COUNT)
        return;
    threadtime_append(text_, e);
    scratch_.clear();
    logger_entry_append(scratch_, e);
    queues_[buffer].push(scratch_);
    if (text_.size() > (1 << 20))
        flush_text();
}

void LogService::flush_text()
{
    if (text_.empty())
        return;
    if (logcat_bytes_ > LOGCAT_ROTATE_BYTES && logcat_fd_ >= 0) {
        rename(logcat_path_.c_str(), (logcat_path_ + ".1").c_str());
        close(logcat_fd_);
        logcat_fd_ = open(logcat_path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        logcat_bytes_ = 0;
    }
    if (logcat_fd_ >= 0 && sim_write_all(logcat_fd_, text_.data(), text_.size()))
        logcat_bytes_ += text_.size();
    text_.clear();
}

void LogService::clear_stalls()
{
    std::fill(std::begin(stalled_), std::end(stalled_), false);
}

void LogService::flood(int buffer, double rate, uint64_t count)
{
    floods_[buffer].rate = rate;
    floods_[buffer].left = count;
    floods_[buffer].due = 0;
}

void LogService::set_chatter(bool on)
{
    chatter_ = on;
    chatter_due_ = event_due_ = 0;
}

bool LogService::flooding() const
{
    for (const Flood& f : floods_)
        if (f.left > 0)
            return true;
    return false;
}

bool LogService::busy() const
{
    return chatter_ || flooding();
}

static LogEntry own_entry(uint64_t unix_ns, uint8_t prio, const std::string& tag, std::string msg)
{
    LogEntry e;
    e.pid = e.tid = int32_t(getpid());
    e.sec = int32_t(unix_ns / 1000000000ull);
    e.nsec = int32_t(unix_ns % 1000000000ull);
    e.prio = prio;
    e.tag = tag;
    e.msg = std::move(msg);
    return e;
}

// An event of the canned set, its values moving with n.
static LogEntry own_event(uint64_t unix_ns, uint64_t n)
{
    const std::vector<CannedEvent>& all = canned_events();
    const CannedEvent& ev = all[n % all.size()];
    std::vector<float> v;
    for (uint8_t i = 0; i < ev.values; i++)
        v.push_back(float(-95.5 + 10 * sin(double(n) / 9 + i) + 37.25 * i));
    std::string text = "[";
    for (size_t i = 0; i < v.size(); i++) {
        if (i)
            text += ',';
        text += std::to_string(v[i]);
    }
    LogEntry e = own_entry(unix_ns, 4, ev.name, text + "]");
    e.binary = android_event_payload(ev, v);
    return e;
}

void LogService::flood_tick(int b, double elapsed_s, uint64_t unix_ns)
{
    Flood& f = floods_[b];
    if (f.left == 0)
        return;
    f.due += f.rate * elapsed_s;
    uint64_t n = std::min<uint64_t>(uint64_t(f.due), f.left);
    f.due -= double(n);
    f.left -= n;
    // Faster than the reader drains: make only what the queue can hold,
    // the newest, rather than spend the time on entries it would drop.
    const uint64_t fit = queues_[b].room() / 40 + 1;
    if (n > fit) {
        queues_[b].pass_over(n - fit);
        f.seq += n - fit;
        n = fit;
    }
    LogEntry e = own_entry(unix_ns, 4, "devsim", "");
    for (uint64_t k = 0; k < n; k++) {
        ++f.seq;
        if (b == LOG_BUFFER_EVENTS) {
            entry(b, own_event(unix_ns, f.seq));
            continue;
        }
        e.msg = "flood " + std::to_string(f.seq);
        entry(b, e);
    }
}

void LogService::chatter_tick(double elapsed_s, uint64_t unix_ns)
{
    if (!booted_) {
        booted_ = true;
        uint64_t n = 0;
        for (const CannedLine& l : boot_lines())
            entry(l.buffer, own_entry(unix_ns, l.prio, l.tag, canned_text(l.text, 1000 + 37 * n++)));
    }
    chatter_due_ += CHATTER_LINES_PER_S * elapsed_s;
    event_due_ += EVENTS_PER_S * elapsed_s;
    const std::vector<CannedLine>& lines = chatter_lines();
    for (; chatter_due_ >= 1; chatter_due_ -= 1) {
        const CannedLine& l = lines[chatter_seq_ % lines.size()];
        entry(l.buffer, own_entry(unix_ns, l.prio, l.tag, canned_text(l.text, chatter_seq_ / lines.size() + 1)));
        chatter_seq_++;
    }
    for (; event_due_ >= 1; event_due_ -= 1)
        entry(LOG_BUFFER_EVENTS, own_event(unix_ns, chatter_seq_++));
}

void LogService::tick(double elapsed_s, uint64_t unix_ns)
{
    if (chatter_)
        chatter_tick(elapsed_s, unix_ns);
    for (int b = 0; b < LOG_BUFFER_COUNT; b++)
        flood_tick(b, elapsed_s, unix_ns);
    flush_text();
}

nlohmann::json LogService::status() const
{
    nlohmann::json logger = nlohmann::json::object();
    for (int b = 0; b < LOG_BUFFER_COUNT; b++) {
        const LogQueue& q = queues_[b];
        logger[log_buffer_name(b)] = {
            { "queued", q.entries() },         { "queued_bytes", q.bytes() }, { "received", q.received() },
            { "written", q.written() },        { "dropped", q.dropped() },    { "stalled", stalled_[b] },
            { "flood_left", floods_[b].left },
        };
    }
    return logger;
}
