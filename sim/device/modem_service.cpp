#include "modem_service.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "faults.h"
#include "hdlc.h"
#include "le.h"
#include "sim_files.h"
#include "sim_link.h"

namespace {

const size_t MAX_REQUEST_RECORDS = 256;

nlohmann::json modem_json(Modem& m)
{
    using nlohmann::json;
    const ModemRanges& r = m.ranges();
    auto hex_codes = [](const std::vector<uint16_t>& codes) {
        json out = json::array();
        for (uint16_t c : codes) {
            char b[8];
            snprintf(b, sizeof b, "0x%04x", c);
            out.push_back(b);
        }
        return out;
    };
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
        { "log_codes_hex", hex_codes(m.enabled_log_codes()) },
        { "msg_masks", msgs },
        { "event_reporting", m.event_reporting() },
        { "dpl", dpl },
        { "traffic",
          { { "bytes", m.traffic_bytes() },
            { "frames", m.traffic_frames() },
            { "produced", m.produced() },
            { "dropped", m.dropped() },
            { "natural_rate", m.natural_rate() } } },
    };
}

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

int create_new_file(const std::string& dir, const std::string& base, const std::string& ext, std::string* name)
{
    for (int n = 1; n < 1000; n++) {
        *name = base;
        if (n > 1)
            name->append("_").append(std::to_string(n));
        name->append(ext);
        int fd = open((dir + "/" + *name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd >= 0 || errno != EEXIST)
            return fd;
    }
    return -1;
}

std::string file_stamp(uint64_t unix_ns)
{
    time_t t = time_t(unix_ns / 1000000000ull);
    struct tm tm;
    localtime_r(&t, &tm);
    char buf[32];
    strftime(buf, sizeof buf, "%Y%m%d_%H%M%S", &tm);
    return buf;
}

LinkAnswer link_result(int32_t value, const std::vector<uint8_t>& data)
{
    LinkAnswer a;
    a.send = true;
    a.bytes.reserve(4 + data.size());
    put_u32(a.bytes, uint32_t(value));
    a.bytes.insert(a.bytes.end(), data.begin(), data.end());
    return a;
}

ModemService::ModemService(Faults& faults) : faults_(faults)
{
}

void ModemService::record(RequestRecord r)
{
    request_count_++;
    requests_.push_back(std::move(r));
    while (requests_.size() > MAX_REQUEST_RECORDS)
        requests_.pop_front();
}

void ModemService::set_buffer_range(int lo, int hi)
{
    buffer_min_ = lo;
    buffer_max_ = hi;
    buffer_size_ = std::clamp(buffer_size_, lo, hi);
}

LinkAnswer ModemService::diag_request(const uint8_t* msg, size_t len)
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
    if (faults_.modem_silent) {
        rec.outcome = "silent (fault)";
        record(std::move(rec));
        return {};
    }
    std::vector<uint8_t> ans = modem(remote).handle(req);
    modem(remote).trim(size_t(buffer_size_));
    if (ans.empty()) {
        rec.outcome = "silent";
        record(std::move(rec));
        return {};
    }
    rec.answer = to_hex(ans);
    if (faults_.drop_next > 0) {
        faults_.drop_next--;
        rec.outcome = "dropped";
        record(std::move(rec));
        return {};
    }
    LinkAnswer out;
    out.send = true;
    if (faults_.corrupt_next > 0) {
        faults_.corrupt_next--;
        out.bytes = hdlc_frame(ans.data(), ans.size(), 0xFFFF);
        rec.outcome = "corrupted";
    } else {
        out.bytes = hdlc_frame(ans);
        rec.outcome = "answered";
    }
    if (faults_.delay_ms > 0) {
        out.delay_ms = faults_.delay_ms;
        rec.outcome += ", delayed";
    }
    record(std::move(rec));
    return out;
}

bool ModemService::op(uint32_t code, const uint8_t* args, size_t len, uint64_t unix_ns, LinkAnswer* out)
{
    switch (code) {
    case SIM_OP_GET_MODE:
        *out = link_result(mode_);
        return true;
    case SIM_OP_SWITCH_LOGGING: {
        int32_t m = len >= 4 ? int32_t(get_u32(args)) : 0;
        if (m == 1 || m == 2) {
            mode_ = m;
            stopped_ = stopped_ && m != 2;
        }
        *out = link_result(m == 1 || m == 2 ? 1 : 0);
        return true;
    }
    case SIM_OP_CHANGE_BUFFER_SIZE:
        if (faults_.size_refused) {
            *out = link_result(0);
            return true;
        }
        if (len >= 4) {
            buffer_size_ = std::clamp(int32_t(get_u32(args)), buffer_min_, buffer_max_);
            local_.trim(size_t(buffer_size_));
            remote_.trim(size_t(buffer_size_));
        }
        *out = link_result(len >= 4 ? buffer_size_ : 0);
        return true;
    case SIM_OP_GET_BUFFER_SIZE:
        *out = link_result(buffer_size_);
        return true;
    case SIM_OP_CHANGE_OUTPUT_PATH: {
        std::string path(reinterpret_cast<const char*>(args), strnlen(reinterpret_cast<const char*>(args), len));
        bool ok = !path.empty() && path[0] == '/' && path.size() <= 255;
        if (ok)
            output_path_ = path;
        *out = link_result(ok ? 1 : 0);
        return true;
    }
    case SIM_OP_COMMIT:
        *out = link_result(commit(unix_ns));
        return true;
    case SIM_OP_STOP:
        stopped_ = true;
        *out = link_result(1);
        return true;
    case SIM_OP_GET_RANGE: {
        std::vector<uint8_t> d;
        put_u32(d, uint32_t(buffer_min_));
        put_u32(d, uint32_t(buffer_max_));
        *out = link_result(1, d);
        return true;
    }
    case SIM_OP_HAS_REMOTE:
        *out = link_result(remote_enabled_ ? 1 : 0);
        return true;
    default:
        return false;
    }
}

int ModemService::commit(uint64_t unix_ns)
{
    if (!sim_make_dirs(output_path_))
        return 0;
    const std::string base = file_stamp(unix_ns);
    bool ok = true;
    for (int remote = 0; remote < 2; remote++) {
        if (remote && !remote_enabled_)
            continue;
        std::string name;
        int fd = create_new_file(output_path_, (remote ? "mdm_diag_log_" : "diag_log_") + base, ".qmdl", &name);
        if (fd < 0) {
            ok = false;
            continue;
        }
        std::vector<uint8_t> data = modem(remote).take_traffic();
        bool written = sim_write_all(fd, data.data(), data.size());
        written = close(fd) == 0 && written;
        // A log that did not fit (a full disk) is no log: leave no stump.
        if (!written)
            unlink((output_path_ + "/" + name).c_str());
        ok = ok && written;
    }
    commit_seq_++;
    return ok ? 1 : 0;
}

bool ModemService::busy() const
{
    bool active = mode_ == 2 && !stopped_ && !faults_.modem_silent;
    return active && (local_.has_enabled_items() || (remote_enabled_ && remote_.has_enabled_items()));
}

void ModemService::tick(double elapsed_s, uint64_t unix_ns)
{
    if (!busy())
        return;
    local_.produce(elapsed_s, traffic_rate_, unix_ns, size_t(buffer_size_));
    if (remote_enabled_)
        remote_.produce(elapsed_s, traffic_rate_, unix_ns, size_t(buffer_size_));
}

nlohmann::json ModemService::status()
{
    using nlohmann::json;
    json local = modem_json(local_);
    json remote = modem_json(remote_);
    local["enabled"] = true;
    remote["enabled"] = remote_enabled_;
    json reqs = json::array();
    for (const RequestRecord& r : requests_)
        reqs.push_back(
            { { "modem", r.modem }, { "request", r.request }, { "answer", r.answer }, { "outcome", r.outcome } });
    return {
        { "modems", { { "local", local }, { "remote", remote } } },
        { "mode", mode_ },
        { "logging_stopped", stopped_ },
        { "buffer_size", buffer_size_ },
        { "buffer_range", { buffer_min_, buffer_max_ } },
        { "output_path", output_path_ },
        { "traffic_rate", traffic_rate_ < 0 ? local_.natural_rate() : traffic_rate_ },
        { "traffic_rate_natural", traffic_rate_ < 0 },
        { "commits", commit_seq_ },
        { "request_count", request_count_ },
        { "requests", reqs },
    };
}
