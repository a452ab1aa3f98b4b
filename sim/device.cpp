#include "device.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>

#include "hdlc.h"
#include "le.h"
#include "sim_files.h"
#include "sim_link.h"

namespace {

const size_t MAX_REQUEST_RECORDS = 256;
const size_t MAX_QMI_UNIT = 60000;
const size_t MAX_QMI_UNITS = 64;
const size_t MAX_QMI_SAVE = 16 << 20;

// A new file that no earlier one is overwritten by: base, then base_2, ...
int create_new(const std::string& dir, const std::string& base, const std::string& ext, std::string* name)
{
    for (int n = 1; n < 1000; n++) {
        *name = base + (n > 1 ? "_" + std::to_string(n) : "") + ext;
        int fd = open((dir + "/" + *name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd >= 0 || errno != EEXIST)
            return fd;
    }
    return -1;
}

std::string stamp(uint64_t unix_ns)
{
    time_t t = time_t(unix_ns / 1000000000ull);
    struct tm tm;
    localtime_r(&t, &tm);
    char buf[32];
    strftime(buf, sizeof buf, "%Y%m%d_%H%M%S", &tm);
    return buf;
}

// Keeps a name safe as a file-name part.
std::string file_part(const std::string& s)
{
    std::string out;
    for (char c : s)
        out += isalnum(uint8_t(c)) || c == '+' || c == '-' ? c : '_';
    return out.empty() ? "none" : out.substr(0, 40);
}

template <typename T> bool parse_num(const std::string& s, T* out)
{
    int base = 10;
    const char* b = s.data();
    const char* e = b + s.size();
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        base = 16;
        b += 2;
    }
    auto r = std::from_chars(b, e, *out, base);
    return r.ec == std::errc() && r.ptr == e && b != e;
}

std::vector<std::string> split(const std::string& s, char sep)
{
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        size_t p = s.find(sep, start);
        out.push_back(s.substr(start, p == std::string::npos ? std::string::npos : p - start));
        if (p == std::string::npos)
            return out;
        start = p + 1;
    }
}

std::string error(const std::string& what)
{
    return "error: " + what + "\n";
}

const char* HELP =
    "commands:\n"
    "  status                          the device state as JSON\n"
    "  remote-modem on|off             attach or detach the remote modem\n"
    "  event-count MODEM N             number of event ids (MODEM: local or remote)\n"
    "  log-items MODEM L0,L1,...       last item per equipment id (up to 16, the rest 0)\n"
    "  ssid-ranges MODEM F-L,F-L,...   message SSID ranges\n"
    "  buffer-range MIN MAX            the range diag_change_buffer_size clamps into\n"
    "  rate N                          traffic packets per second in memory mode\n"
    "  qmi phantom|statistics SIZES    data units of the kind (e.g. 100,200,50, or none)\n"
    "  log BUFFER PRIO TAG MESSAGE...  inject one entry (PRIO: V D I W E F or 2-7)\n"
    "  flood BUFFER RATE COUNT         inject COUNT entries at RATE per second\n"
    "  fault drop N                    drop the next N diag answers\n"
    "  fault corrupt N                 spoil the CRC of the next N diag answers\n"
    "  fault delay MS                  delay every diag answer (0 ends it)\n"
    "  fault stall BUFFER on|off       stop or resume writing a log FIFO\n"
    "  fault clear                     end every fault\n"
    "  clear-requests                  forget the recent requests\n";

} // namespace

std::string to_hex(const std::vector<uint8_t>& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(bytes.size() * 2);
    for (uint8_t b : bytes) {
        s += digits[b >> 4];
        s += digits[b & 15];
    }
    return s;
}

std::vector<uint8_t> qmi_canned_unit(size_t unit, size_t size)
{
    std::vector<uint8_t> v(size);
    for (size_t j = 0; j < size; j++)
        v[j] = uint8_t('A' + (7 * unit + j) % 26);
    return v;
}

Device::Device(std::string sim_dir)
    : sim_dir_(std::move(sim_dir))
{
    sim_make_dirs(sim_dir_);
    logcat_path_ = sim_dir_ + "/logcat.txt";
    logcat_fd_ = open(logcat_path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    // Statistics in three units of different sizes; no phantom data.
    for (size_t u = 0; u < 3; u++)
        qmi_units_[1].push_back(qmi_canned_unit(u, 100 + 50 * u));
}

void Device::record(RequestRecord r)
{
    request_count_++;
    requests_.push_back(std::move(r));
    while (requests_.size() > MAX_REQUEST_RECORDS)
        requests_.pop_front();
}

LinkAnswer Device::handle_link(const uint8_t* msg, size_t len, LinkConnState& conn, uint64_t unix_ns)
{
    if (len < 4)
        return {};
    uint32_t code = get_u32(msg);
    if (code == SIM_LINK_DIAG_REQUEST)
        return diag_request(msg, len);
    return op(code, msg + 4, len - 4, conn, unix_ns);
}

LinkAnswer Device::diag_request(const uint8_t* msg, size_t len)
{
    bool remote = len >= 8 && get_u32(msg + 4) == 0xFFFFFFFFu;
    const uint8_t* frame = msg + (remote ? 8 : 4);
    size_t frame_len = len - (remote ? 8 : 4);
    RequestRecord rec;
    rec.modem = remote ? "remote" : "local";
    std::vector<uint8_t> req;
    HdlcResult r = hdlc_unframe(frame, frame_len, &req);
    if (r != HdlcResult::ok) {
        rec.request = to_hex(std::vector<uint8_t>(frame, frame + frame_len));
        rec.outcome = hdlc_result_name(r);
        record(std::move(rec));
        return {};
    }
    rec.request = to_hex(req);
    if (remote && !remote_enabled_) {
        rec.outcome = "no remote modem";
        record(std::move(rec));
        return {};
    }
    std::vector<uint8_t> ans = modem(remote).handle(req);
    if (remote)
        remote_.trim(size_t(buffer_size_));
    else
        local_.trim(size_t(buffer_size_));
    if (ans.empty()) {
        rec.outcome = "silent";
        record(std::move(rec));
        return {};
    }
    rec.answer = to_hex(ans);
    LinkAnswer out;
    if (drop_next_ > 0) {
        drop_next_--;
        rec.outcome = "dropped";
        record(std::move(rec));
        return {};
    }
    out.send = true;
    if (corrupt_next_ > 0) {
        corrupt_next_--;
        out.bytes = hdlc_frame(ans.data(), ans.size(), 0xFFFF);
        rec.outcome = "corrupted";
    } else {
        out.bytes = hdlc_frame(ans);
        rec.outcome = "answered";
    }
    if (delay_ms_ > 0) {
        out.delay_ms = delay_ms_;
        rec.outcome += ", delayed";
    }
    record(std::move(rec));
    return out;
}

static LinkAnswer result(int32_t value, const std::vector<uint8_t>& data = {})
{
    LinkAnswer a;
    a.send = true;
    put_u32(a.bytes, uint32_t(value));
    a.bytes.insert(a.bytes.end(), data.begin(), data.end());
    return a;
}

LinkAnswer Device::op(uint32_t code, const uint8_t* args, size_t len, LinkConnState& conn, uint64_t unix_ns)
{
    switch (code) {
    case SIM_OP_GET_MODE:
        return result(mode_);
    case SIM_OP_SWITCH_LOGGING: {
        if (len < 4)
            return result(0);
        int32_t m = int32_t(get_u32(args));
        if (m != 1 && m != 2)
            return result(0);
        mode_ = m;
        if (m == 2)
            stopped_ = false;
        return result(1);
    }
    case SIM_OP_CHANGE_BUFFER_SIZE: {
        if (len < 4)
            return result(0);
        int32_t size = int32_t(get_u32(args));
        buffer_size_ = std::clamp(size, buffer_min_, buffer_max_);
        local_.trim(size_t(buffer_size_));
        remote_.trim(size_t(buffer_size_));
        return result(buffer_size_);
    }
    case SIM_OP_GET_BUFFER_SIZE:
        return result(buffer_size_);
    case SIM_OP_CHANGE_OUTPUT_PATH: {
        std::string path(reinterpret_cast<const char*>(args), strnlen(reinterpret_cast<const char*>(args), len));
        if (path.empty() || path[0] != '/' || path.size() > 255)
            return result(0);
        output_path_ = path;
        return result(1);
    }
    case SIM_OP_COMMIT:
        return result(commit(unix_ns));
    case SIM_OP_STOP:
        stopped_ = true;
        return result(1);
    case SIM_OP_GET_RANGE: {
        std::vector<uint8_t> d;
        put_u32(d, uint32_t(buffer_min_));
        put_u32(d, uint32_t(buffer_max_));
        return result(1, d);
    }
    case SIM_OP_HAS_REMOTE:
        return result(remote_enabled_ ? 1 : 0);
    case SIM_OP_QMI_GET_DATA: {
        if (len < 8)
            return result(0);
        uint32_t kind = get_u32(args);
        uint32_t index = get_u32(args + 4);
        std::vector<uint8_t> d;
        if (kind > 1 || index >= qmi_units_[kind].size()) {
            put_u32(d, 0);
            return result(0, d);
        }
        const auto& units = qmi_units_[kind];
        put_u32(d, uint32_t(index + 1 < units.size() ? units.size() - index - 1 : 0));
        d.insert(d.end(), units[index].begin(), units[index].end());
        return result(int32_t(units[index].size()), d);
    }
    case SIM_OP_QMI_SAVE_BEGIN: {
        if (len < 4)
            return result(0);
        conn = LinkConnState();
        conn.expected = get_u32(args);
        const char* p = reinterpret_cast<const char*>(args + 4);
        const char* end = reinterpret_cast<const char*>(args + len);
        const char* kind_end = static_cast<const char*>(memchr(p, 0, size_t(end - p)));
        if (kind_end == nullptr || conn.expected > MAX_QMI_SAVE)
            return result(0);
        conn.kind.assign(p, kind_end);
        const char* num_end = static_cast<const char*>(memchr(kind_end + 1, 0, size_t(end - kind_end - 1)));
        conn.number.assign(kind_end + 1, num_end ? num_end : end);
        conn.saving = true;
        return result(1);
    }
    case SIM_OP_QMI_SAVE_DATA:
        if (!conn.saving || conn.data.size() + len > conn.expected) {
            conn = LinkConnState();
            return result(0);
        }
        conn.data.insert(conn.data.end(), args, args + len);
        return result(1);
    case SIM_OP_QMI_SAVE_END: {
        bool ok = conn.saving && conn.data.size() == conn.expected && save_qmi(conn);
        conn = LinkConnState();
        return result(ok ? 1 : 0);
    }
    default:
        return result(-1);
    }
}

int Device::commit(uint64_t unix_ns)
{
    if (!sim_make_dirs(output_path_))
        return 0;
    std::string base = stamp(unix_ns);
    bool ok = true;
    for (int remote = 0; remote < 2; remote++) {
        if (remote && !remote_enabled_)
            continue;
        std::string name;
        int fd = create_new(output_path_, (remote ? "mdm_diag_log_" : "diag_log_") + base, ".qmdl", &name);
        if (fd < 0) {
            ok = false;
            continue;
        }
        std::vector<uint8_t> data = modem(remote).take_traffic();
        ok = sim_write_all(fd, data.data(), data.size()) && ok;
        ok = close(fd) == 0 && ok;
    }
    commit_seq_++;
    return ok ? 1 : 0;
}

bool Device::save_qmi(const LinkConnState& conn)
{
    std::string dir = sim_dir_ + "/qmi";
    if (!sim_make_dirs(dir))
        return false;
    char seq[16];
    snprintf(seq, sizeof seq, "%04u", ++qmi_seq_);
    std::string name;
    int fd = create_new(dir, file_part(conn.kind) + "_" + file_part(conn.number) + "_" + seq, ".bin", &name);
    if (fd < 0)
        return false;
    bool ok = sim_write_all(fd, conn.data.data(), conn.data.size());
    ok = close(fd) == 0 && ok;
    if (ok)
        qmi_saves_.push_back({ "qmi/" + name, conn.kind, conn.number, conn.data.size() });
    return ok;
}

void Device::log_entry(int buffer, const LogEntry& e)
{
    if (buffer < 0 || buffer >= LOG_ID_COUNT)
        return;
    if (logcat_fd_ >= 0) {
        std::string text = threadtime_text(e);
        sim_write_all(logcat_fd_, reinterpret_cast<const uint8_t*>(text.data()), text.size());
    }
    queues_[buffer].push(logger_entry_bytes(e));
}

bool Device::busy() const
{
    for (const Flood& f : floods_)
        if (f.left > 0)
            return true;
    bool active = mode_ == 2 && !stopped_;
    return active && (local_.has_enabled_items() || (remote_enabled_ && remote_.has_enabled_items()));
}

void Device::tick(double elapsed_s, uint64_t unix_ns)
{
    if (mode_ == 2 && !stopped_) {
        traffic_due_ += traffic_rate_ * elapsed_s;
        size_t n = size_t(traffic_due_);
        traffic_due_ -= double(n);
        // A long stall must not turn into a burst the buffer cannot hold.
        n = std::min<size_t>(n, 10000);
        local_.produce(n, unix_ns, size_t(buffer_size_));
        if (remote_enabled_)
            remote_.produce(n, unix_ns, size_t(buffer_size_));
    } else {
        traffic_due_ = 0;
    }
    for (int b = 0; b < LOG_ID_COUNT; b++) {
        Flood& f = floods_[b];
        if (f.left == 0)
            continue;
        f.due += f.rate * elapsed_s;
        uint64_t n = std::min<uint64_t>(uint64_t(f.due), f.left);
        f.due -= double(n);
        for (uint64_t k = 0; k < n; k++) {
            LogEntry e;
            e.pid = int32_t(getpid());
            e.tid = e.pid;
            e.sec = int32_t(unix_ns / 1000000000ull);
            e.nsec = int32_t(unix_ns % 1000000000ull);
            e.prio = 4;
            e.tag = "devsim";
            e.msg = "flood " + std::to_string(++f.seq);
            log_entry(b, e);
        }
        f.left -= n;
    }
}

static nlohmann::json modem_json(const Modem& m)
{
    using nlohmann::json;
    const ModemRanges& r = m.ranges();
    json ranges = json::array();
    for (const SsidRange& s : r.ssid_ranges)
        ranges.push_back({ s.first, s.last });
    json msgs = json::array();
    for (const auto& [ssid, mask] : m.msg_masks())
        msgs.push_back({ ssid, mask });
    json dpl = json::array();
    for (const DplIface& i : m.dpl_ifaces())
        dpl.push_back({ { "id", i.id }, { "name", i.name }, { "logging", i.logging } });
    return {
        { "event_count", r.event_count },
        { "log_last_items", r.log_last_items },
        { "ssid_ranges", ranges },
        { "events", m.enabled_events() },
        { "log_codes", m.enabled_log_codes() },
        { "msg_masks", msgs },
        { "event_reporting", m.event_reporting() },
        { "dpl", dpl },
        { "traffic", { { "bytes", m.traffic_bytes() }, { "frames", m.traffic_frames() },
                       { "produced", m.produced() }, { "dropped", m.dropped() } } },
    };
}

nlohmann::json Device::status() const
{
    using nlohmann::json;
    json local = modem_json(local_);
    json remote = modem_json(remote_);
    local["enabled"] = true;
    remote["enabled"] = remote_enabled_;
    json reqs = json::array();
    for (const RequestRecord& r : requests_)
        reqs.push_back({ { "modem", r.modem }, { "request", r.request }, { "answer", r.answer },
                         { "outcome", r.outcome } });
    json logger = json::object();
    for (int b = 0; b < LOG_ID_COUNT; b++) {
        const LogQueue& q = queues_[b];
        logger[log_buffer_name(b)] = {
            { "queued", q.entries() }, { "queued_bytes", q.bytes() }, { "received", q.received() },
            { "written", q.written() }, { "dropped", q.dropped() },   { "stalled", stalled_[b] },
            { "flood_left", floods_[b].left },
        };
    }
    json saves = json::array();
    for (const QmiSave& s : qmi_saves_)
        saves.push_back({ { "file", s.file }, { "kind", s.kind }, { "number", s.number }, { "size", s.size } });
    json units = json::object();
    const char* kinds[] = { "phantom", "statistics" };
    for (int k = 0; k < 2; k++) {
        json sizes = json::array();
        for (const auto& u : qmi_units_[k])
            sizes.push_back(u.size());
        units[kinds[k]] = sizes;
    }
    return {
        { "modems", { { "local", local }, { "remote", remote } } },
        { "mode", mode_ },
        { "logging_stopped", stopped_ },
        { "buffer_size", buffer_size_ },
        { "buffer_range", { buffer_min_, buffer_max_ } },
        { "output_path", output_path_ },
        { "traffic_rate", traffic_rate_ },
        { "commits", commit_seq_ },
        { "request_count", request_count_ },
        { "requests", reqs },
        { "faults", { { "drop", drop_next_ }, { "corrupt", corrupt_next_ }, { "delay_ms", delay_ms_ } } },
        { "logger", logger },
        { "logcat_file", "logcat.txt" },
        { "qmi", { { "units", units }, { "saves", saves } } },
    };
}

std::string Device::control_fault(const std::vector<std::string>& a)
{
    if (a.size() == 2 && a[1] == "clear") {
        drop_next_ = corrupt_next_ = 0;
        delay_ms_ = 0;
        for (bool& s : stalled_)
            s = false;
        return "ok\n";
    }
    unsigned n = 0;
    if (a.size() == 3 && (a[1] == "drop" || a[1] == "corrupt" || a[1] == "delay")) {
        if (!parse_num(a[2], &n) || (a[1] == "delay" && n > 60000))
            return error("bad count " + a[2]);
        if (a[1] == "drop")
            drop_next_ = n;
        else if (a[1] == "corrupt")
            corrupt_next_ = n;
        else
            delay_ms_ = int(n);
        return "ok\n";
    }
    if (a.size() == 4 && a[1] == "stall") {
        int b = log_buffer_id(a[2]);
        if (b < 0)
            return error("no log buffer " + a[2]);
        if (a[3] != "on" && a[3] != "off")
            return error("stall takes on or off");
        stalled_[b] = a[3] == "on";
        return "ok\n";
    }
    return error("usage: fault drop N | corrupt N | delay MS | stall BUFFER on|off | clear");
}

std::string Device::control(const std::vector<std::string>& a)
{
    if (a.empty() || a[0] == "help")
        return HELP;
    const std::string& cmd = a[0];
    if (cmd == "status" && a.size() == 1)
        return status().dump(1) + "\n";
    if (cmd == "remote-modem" && a.size() == 2 && (a[1] == "on" || a[1] == "off")) {
        remote_enabled_ = a[1] == "on";
        return "ok\n";
    }
    if ((cmd == "event-count" || cmd == "log-items" || cmd == "ssid-ranges") && a.size() == 3) {
        if (a[1] != "local" && a[1] != "remote")
            return error("no modem " + a[1] + " (local or remote)");
        Modem& m = modem(a[1] == "remote");
        ModemRanges r = m.ranges();
        if (cmd == "event-count") {
            if (!parse_num(a[2], &r.event_count) || r.event_count == 0 || r.event_count > 4096)
                return error("bad event count " + a[2] + " (1 to 4096)");
        } else if (cmd == "log-items") {
            auto items = split(a[2], ',');
            if (items.size() > 16)
                return error("at most 16 last items");
            r.log_last_items.fill(0);
            for (size_t i = 0; i < items.size(); i++)
                if (!parse_num(items[i], &r.log_last_items[i]) || r.log_last_items[i] > 4095)
                    return error("bad last item " + items[i] + " (0 to 4095)");
        } else {
            r.ssid_ranges.clear();
            for (const std::string& s : split(a[2], ',')) {
                auto ends = split(s, '-');
                SsidRange sr;
                if (ends.size() != 2 || !parse_num(ends[0], &sr.first) || !parse_num(ends[1], &sr.last) ||
                    sr.first > sr.last)
                    return error("bad SSID range " + s + " (FIRST-LAST)");
                r.ssid_ranges.push_back(sr);
            }
            if (r.ssid_ranges.size() > 200)
                return error("at most 200 SSID ranges");
        }
        m.set_ranges(std::move(r));
        return "ok\n";
    }
    if (cmd == "buffer-range" && a.size() == 3) {
        int lo, hi;
        if (!parse_num(a[1], &lo) || !parse_num(a[2], &hi) || lo < 1 || lo > hi)
            return error("bad range (1 <= MIN <= MAX)");
        buffer_min_ = lo;
        buffer_max_ = hi;
        buffer_size_ = std::clamp(buffer_size_, lo, hi);
        return "ok\n";
    }
    if (cmd == "rate" && a.size() == 2) {
        unsigned r;
        if (!parse_num(a[1], &r) || r > 100000)
            return error("bad rate " + a[1] + " (0 to 100000)");
        traffic_rate_ = r;
        return "ok\n";
    }
    if (cmd == "qmi" && a.size() == 3) {
        int kind = a[1] == "phantom" || a[1] == "0" ? 0 : a[1] == "statistics" || a[1] == "1" ? 1 : -1;
        if (kind < 0)
            return error("no QMI kind " + a[1] + " (phantom or statistics)");
        std::vector<std::vector<uint8_t>> units;
        if (a[2] != "none") {
            for (const std::string& s : split(a[2], ',')) {
                size_t n;
                if (!parse_num(s, &n) || n == 0 || n > MAX_QMI_UNIT)
                    return error("bad unit size " + s + " (1 to " + std::to_string(MAX_QMI_UNIT) + ")");
                units.push_back(qmi_canned_unit(units.size(), n));
            }
            if (units.size() > MAX_QMI_UNITS)
                return error("too many units");
        }
        qmi_units_[kind] = std::move(units);
        return "ok\n";
    }
    if (cmd == "log" && a.size() >= 5) {
        int b = log_buffer_id(a[1]);
        if (b < 0)
            return error("no log buffer " + a[1]);
        LogEntry e;
        static const std::string letters = "VDIWEF";
        unsigned prio;
        if (a[2].size() == 1 && letters.find(a[2][0]) != std::string::npos)
            e.prio = uint8_t(2 + letters.find(a[2][0]));
        else if (parse_num(a[2], &prio) && prio >= 2 && prio <= 7)
            e.prio = uint8_t(prio);
        else
            return error("bad priority " + a[2]);
        e.tag = a[3];
        for (size_t i = 4; i < a.size(); i++)
            e.msg += (i > 4 ? " " : "") + a[i];
        struct timespec ts;
        clock_gettime(CLOCK_REALTIME, &ts);
        e.pid = e.tid = int32_t(getpid());
        e.sec = int32_t(ts.tv_sec);
        e.nsec = int32_t(ts.tv_nsec);
        log_entry(b, e);
        return "ok\n";
    }
    if (cmd == "flood" && a.size() == 4) {
        int b = log_buffer_id(a[1]);
        if (b < 0)
            return error("no log buffer " + a[1]);
        unsigned rate;
        uint64_t count;
        if (!parse_num(a[2], &rate) || rate == 0 || rate > 1000000)
            return error("bad rate " + a[2] + " (1 to 1000000)");
        if (!parse_num(a[3], &count))
            return error("bad count " + a[3]);
        floods_[b].rate = rate;
        floods_[b].left = count;
        floods_[b].due = 0;
        return "ok\n";
    }
    if (cmd == "fault")
        return control_fault(a);
    if (cmd == "clear-requests" && a.size() == 1) {
        requests_.clear();
        return "ok\n";
    }
    return error("unknown or malformed command '" + cmd + "'; try help");
}
