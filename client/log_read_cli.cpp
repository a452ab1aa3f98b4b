// tovakctl log-read: lists, summarises and exports modem logs and capture
// files on this machine; it never talks to the daemon.
#include <sys/stat.h>

#include <cinttypes>
#include <cmath>
#include <cstring>
#include <ctime>
#include <fstream>
#include <ostream>
#include <sstream>

#include "log_read.h"
#include "log_read_names.h"
#include "tovakctl.h"

namespace {

// The device's configuration as the daemon reads it at start-up.
#define DEVICE_DM_CFG "/data/media/0/dm.cfg"
// Where logcat finds the names of binary event tags.
#define DEVICE_EVENT_TAGS "/system/etc/event-log-tags"
#define READ_CHUNK (1 << 20)

struct Filters {
    std::set<uint16_t> codes, events, ssids;
    std::set<int> kinds;
    bool since_set = false, until_set = false;
    int64_t since = 0, until = 0; // microseconds since 1970
};

struct Run {
    Filters f;
    bool json = false, summary = false;
    std::string config, pcap;
    std::vector<std::string> files;
    std::map<uint32_t, std::string> tags; // event tag names, when the device has them
};

std::string json_text(const std::string& s)
{
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c < 0x20 || c >= 0x7F) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += char(c);
        }
    }
    return out + "\"";
}

std::string hex_bytes(const uint8_t* p, size_t n, size_t max = 64)
{
    std::string out;
    char buf[4];
    for (size_t i = 0; i < n && i < max; i++) {
        snprintf(buf, sizeof buf, "%02x", p[i]);
        out += buf;
    }
    if (n > max)
        out += "...";
    return out;
}

std::string utc_text(int64_t us)
{
    const int64_t sec = us >= 0 ? us / 1000000 : (us - 999999) / 1000000;
    const time_t t = time_t(sec);
    struct tm tm;
    char buf[48] = "-";
    if (gmtime_r(&t, &tm)) {
        size_t n = strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
        snprintf(buf + n, sizeof buf - n, ".%03d", int((us - sec * 1000000) / 1000));
    }
    return buf;
}

std::string unix_text(int64_t us)
{
    char buf[32];
    snprintf(buf, sizeof buf, "%s%lld.%06lld", us < 0 ? "-" : "", (long long)(llabs(us) / 1000000),
             (long long)(llabs(us) % 1000000));
    return buf;
}

// Seconds since 1970, or UTC "YYYY-MM-DD HH:MM:SS[.fff]" (or with a T);
// in microseconds.
bool parse_time(const std::string& s, int64_t* t)
{
    char* end = nullptr;
    double v = strtod(s.c_str(), &end);
    if (!s.empty() && *end == '\0' && s.find('-') == std::string::npos) {
        if (!(v >= 0 && v < 1e11))
            return false;
        *t = llround(v * 1e6);
        return true;
    }
    struct tm tm = {};
    double frac = 0;
    int n = 0;
    if (sscanf(s.c_str(), "%4d-%2d-%2d%*1[ T]%2d:%2d:%2d%n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour,
               &tm.tm_min, &tm.tm_sec, &n) != 6)
        return false;
    if (s[size_t(n)] == '.') {
        frac = strtod(s.c_str() + n, &end);
        if (*end != '\0')
            return false;
    } else if (s[size_t(n)] != '\0') {
        return false;
    }
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    *t = int64_t(timegm(&tm)) * 1000000 + llround(frac * 1e6);
    return true;
}

// A comma-separated list of numbers in base.
bool parse_ids(const std::string& s, int base, std::set<uint16_t>* out)
{
    std::stringstream ss(s);
    std::string item;
    bool any = false;
    while (std::getline(ss, item, ',')) {
        char* end = nullptr;
        errno = 0;
        unsigned long v = strtoul(item.c_str(), &end, base);
        if (item.empty() || *end != '\0' || errno != 0 || v > 0xFFFF || item[0] == '-')
            return false;
        out->insert(uint16_t(v));
        any = true;
    }
    return any;
}

int usage(std::ostream& err, const std::string& why)
{
    err << "tovakctl log-read: " << why << "\n" << ctl_usage_of("log-read");
    return CTL_EXIT_USAGE;
}

bool passes(const Filters& f, const LrRecord& r)
{
    if (!f.kinds.empty() && !f.kinds.count(int(r.kind)))
        return false;
    const bool any_id = !f.codes.empty() || !f.events.empty() || !f.ssids.empty();
    if (any_id &&
        !((r.kind == LrKind::log && f.codes.count(r.code)) || (r.kind == LrKind::event && f.events.count(r.event_id)) ||
          (r.kind == LrKind::message && f.ssids.count(r.ssid))))
        return false;
    if ((f.since_set || f.until_set) && !r.has_time)
        return false;
    const int64_t t = lr_stamp_us(r.stamp);
    return !(f.since_set && t < f.since) && !(f.until_set && t > f.until);
}

void print_record(std::ostream& out, const std::string& file, const LrRecord& r, bool json)
{
    const int64_t t = lr_stamp_us(r.stamp);
    char buf[96];
    if (json) {
        out << "{\"file\":" << json_text(file) << ",\"offset\":" << r.offset << ",\"kind\":\"" << lr_kind_name(r.kind)
            << "\"";
        if (r.has_time)
            out << ",\"time\":\"" << utc_text(t) << "\",\"unix\":" << unix_text(t);
        switch (r.kind) {
        case LrKind::log: {
            const char* name = lr_code_name(r.code);
            snprintf(buf, sizeof buf, "\"0x%04X\"", r.code);
            out << ",\"code\":" << buf << ",\"equipment\":" << (r.code >> 12) << ",\"length\":" << r.body_len;
            if (name)
                out << ",\"name\":" << json_text(name);
            break;
        }
        case LrKind::event: {
            const char* name = lr_event_name(r.event_id);
            out << ",\"id\":" << r.event_id << ",\"payload\":\"" << hex_bytes(r.body, r.body_len, SIZE_MAX) << "\"";
            if (name)
                out << ",\"name\":" << json_text(name);
            break;
        }
        case LrKind::message:
            out << ",\"ssid\":" << r.ssid << ",\"level_mask\":" << r.level_mask << ",\"source\":" << json_text(r.file)
                << ",\"line\":" << r.line << ",\"text\":" << json_text(r.text);
            break;
        case LrKind::other:
            snprintf(buf, sizeof buf, "\"0x%02X\"", r.cmd);
            out << ",\"command\":" << buf << ",\"length\":" << r.body_len;
            break;
        case LrKind::bad:
            out << ",\"length\":" << r.body_len;
            break;
        }
        if (!r.problem.empty())
            out << ",\"problem\":" << json_text(r.problem);
        out << "}\n";
        return;
    }
    out << (r.has_time ? utc_text(t) : std::string(23, ' ').replace(0, 1, "-")) << "  ";
    snprintf(buf, sizeof buf, "%-8s", lr_kind_name(r.kind));
    out << buf;
    switch (r.kind) {
    case LrKind::log: {
        const char* name = lr_code_name(r.code);
        snprintf(buf, sizeof buf, "0x%04X  equip %2u  len %4zu", r.code, unsigned(r.code >> 12), r.body_len);
        out << buf << (name ? std::string("  ") + name : "");
        break;
    }
    case LrKind::event: {
        const char* name = lr_event_name(r.event_id);
        out << r.event_id << (name ? std::string("  ") + name : "");
        if (r.body_len)
            out << "  payload " << hex_bytes(r.body, r.body_len);
        break;
    }
    case LrKind::message: {
        int level = -1;
        for (int l = 31; l >= 0; l--)
            if (r.level_mask >> l & 1)
                level = l;
        out << "SSID " << r.ssid << " level " << level << "  " << r.file << ":" << r.line << "  " << r.text;
        break;
    }
    case LrKind::other:
        snprintf(buf, sizeof buf, "command 0x%02X  len %zu", r.cmd, r.body_len);
        out << buf;
        break;
    case LrKind::bad:
        snprintf(buf, sizeof buf, "at byte %" PRIu64 ", %zu bytes", r.offset, r.body_len);
        out << buf;
        break;
    }
    if (!r.problem.empty())
        out << "  [" << r.problem << "]";
    out << "\n";
}

int64_t entry_us(const LrLogEntry& e)
{
    return int64_t(e.sec) * 1000000 + e.nsec % 1000000000u / 1000;
}

void print_entry(std::ostream& out, const std::string& file, const LrLogEntry& entry, bool json,
                 const std::map<uint32_t, std::string>& tags)
{
    LrLogEntry named;
    const LrLogEntry& e = entry.binary && !entry.tag.empty() ? named : entry;
    if (&e == &named) {
        named = entry;
        auto it = tags.find(uint32_t(strtoul(entry.tag.c_str(), nullptr, 10)));
        if (it != tags.end())
            named.tag = it->second;
        else if (!json) // as logcat shows a tag it has no name for
            named.tag = "[" + entry.tag + "]";
    }
    if (json) {
        const int64_t t = entry_us(e);
        out << "{\"file\":" << json_text(file) << ",\"offset\":" << e.offset;
        if (e.problem.empty() || !e.tag.empty() || e.sec) {
            out << ",\"time\":\"" << utc_text(t) << "\",\"unix\":" << unix_text(t) << ",\"pid\":" << e.pid
                << ",\"tid\":" << e.tid;
            if (e.binary)
                out << ",\"event\":" << json_text(e.tag) << ",\"values\":" << json_text(e.msg);
            else
                out << ",\"priority\":" << int(e.prio) << ",\"tag\":" << json_text(e.tag)
                    << ",\"message\":" << json_text(e.msg);
        }
        if (!e.problem.empty())
            out << ",\"problem\":" << json_text(e.problem);
        out << "}\n";
        return;
    }
    if (e.problem.empty() || !e.tag.empty())
        out << lr_threadtime(e);
    if (!e.problem.empty())
        out << "-- at byte " << e.offset << ": " << e.problem << "\n";
}

struct Totals {
    LrSummary s;
    uint64_t entries = 0, bad_entries = 0, exported = 0;
    bool failed = false; // a file not read, or not what it should be
};

void read_file(const Run& run, const std::string& path, std::ostream& out, std::ostream& err, Totals& tot,
               LrPcapWriter* pcap)
{
    FILE* in = fopen(path.c_str(), "rb");
    if (in == nullptr) {
        err << "tovakctl log-read: cannot open " << path << ": " << strerror(errno) << "\n";
        tot.failed = true;
        return;
    }
    std::vector<uint8_t> buf(READ_CHUNK);
    size_t n = fread(buf.data(), 1, buf.size(), in);
    const bool capture = lr_looks_like_capture(buf.data(), n);
    uint64_t good = 0, bytes = 0;
    if (capture) {
        const std::string base = path.substr(path.rfind('/') + 1);
        LrCaptureReader reader(
            [&](const LrLogEntry& e) {
                tot.entries++;
                if (!e.problem.empty())
                    tot.bad_entries++;
                const int64_t t = entry_us(e);
                if (!e.problem.empty() ||
                    !((run.f.since_set && t < run.f.since) || (run.f.until_set && t > run.f.until)))
                    if (!run.summary)
                        print_entry(out, path, e, run.json, run.tags);
            },
            base.find("events") != std::string::npos);
        for (; n > 0; n = fread(buf.data(), 1, buf.size(), in))
            reader.feed(buf.data(), n);
        reader.finish();
    } else {
        LrDiagReader reader([&](const LrRecord& r) {
            if (r.kind != LrKind::bad)
                good++;
            if (!passes(run.f, r))
                return;
            tot.s.add(r);
            if (pcap && pcap->add(r))
                tot.exported++;
            if (!run.summary && !pcap)
                print_record(out, path, r, run.json);
        });
        for (; n > 0; n = fread(buf.data(), 1, buf.size(), in)) {
            reader.feed(buf.data(), n);
            bytes += n;
        }
        reader.finish();
        if (good == 0 && bytes > 0) {
            err << "tovakctl log-read: " << path << " is not a modem log or a capture file: no good frame in it\n";
            tot.failed = true;
        }
    }
    if (ferror(in)) {
        err << "tovakctl log-read: reading " << path << ": " << strerror(errno) << "\n";
        tot.failed = true;
    }
    fclose(in);
}

template <typename M>
void counts(std::ostream& out, const char* title, const M& m, bool hex, const char* (*name)(uint16_t))
{
    if (m.empty())
        return;
    out << title << ":\n";
    char buf[32];
    for (const auto& [id, n] : m) {
        snprintf(buf, sizeof buf, hex ? "  0x%04X %8" PRIu64 : "  %-6u %8" PRIu64, unsigned(id), uint64_t(n));
        const char* nm = name ? name(uint16_t(id)) : nullptr;
        out << buf << (nm ? std::string("  ") + nm : "") << "\n";
    }
}

template <typename M>
std::string json_counts(const M& m, bool hex)
{
    std::string s = "{";
    char buf[16];
    for (const auto& [id, n] : m) {
        snprintf(buf, sizeof buf, hex ? "0x%04X" : "%u", unsigned(id));
        s += (s.size() > 1 ? ",\"" : "\"") + std::string(buf) + "\":" + std::to_string(n);
    }
    return s + "}";
}

std::string json_items(const std::vector<LrItem>& items)
{
    std::string s = "[";
    for (const LrItem& i : items) {
        if (s.size() > 1)
            s += ',';
        s += json_text(lr_item_text(i));
    }
    return s + "]";
}

// The summary and the configuration check; whether anything is wrong.
bool print_summary(const Run& run, const Totals& tot, const LrConfig* cfg, const std::string& cfg_path,
                   std::ostream& out)
{
    const LrSummary& s = tot.s;
    LrCheck check;
    if (cfg)
        check = lr_check(s, *cfg);
    const bool wrong = s.bad > 0 || tot.bad_entries > 0 || !check.missing.empty();
    if (run.json) {
        out << "{\"records\":" << s.records << ",\"bad\":" << s.bad;
        if (s.has_time)
            out << ",\"first\":\"" << utc_text(lr_stamp_us(s.first)) << "\",\"last\":\""
                << utc_text(lr_stamp_us(s.last)) << "\"";
        out << ",\"log_codes\":" << json_counts(s.codes, true) << ",\"events\":" << json_counts(s.events, false)
            << ",\"ssids\":" << json_counts(s.ssids, false) << ",\"dpl_interfaces\":" << json_counts(s.ifaces, false)
            << ",\"other\":" << json_counts(s.others, true);
        if (tot.entries)
            out << ",\"capture_entries\":" << tot.entries << ",\"capture_bad\":" << tot.bad_entries;
        if (cfg)
            out << ",\"config\":" << json_text(cfg_path) << ",\"missing\":" << json_items(check.missing)
                << ",\"not_configured\":" << json_items(check.unconfigured);
        if (!run.pcap.empty())
            out << ",\"exported\":" << tot.exported;
        out << "}\n";
        return wrong;
    }
    out << s.records << " records, " << s.bad << " bad\n";
    if (s.has_time)
        out << "from " << utc_text(lr_stamp_us(s.first)) << " to " << utc_text(lr_stamp_us(s.last)) << " UTC\n";
    counts(out, "log codes", s.codes, true, lr_code_name);
    counts(out, "events", s.events, false, lr_event_name);
    counts(out, "messages by SSID", s.ssids, false, nullptr);
    counts(out, "DPL interfaces", s.ifaces, false, nullptr);
    counts(out, "other responses by command", s.others, true, nullptr);
    if (tot.entries)
        out << tot.entries << " capture entries, " << tot.bad_entries << " bad\n";
    if (!run.pcap.empty())
        out << tot.exported << " packets exported to " << run.pcap << "\n";
    if (!cfg) {
        out << "not checked: no configuration (give --config FILE)\n";
        return wrong;
    }
    out << "checked against " << cfg_path << ":\n";
    out << "  configured, never seen:" << (check.missing.empty() ? " none" : "") << "\n";
    for (const LrItem& i : check.missing)
        out << "    " << lr_item_text(i) << "\n";
    out << "  seen, not configured:" << (check.unconfigured.empty() ? " none" : "") << "\n";
    for (const LrItem& i : check.unconfigured)
        out << "    " << lr_item_text(i) << "\n";
    return wrong;
}

} // namespace

int ctl_log_read(const CtlOptions& opt, const std::vector<std::string>& words, std::ostream& out, std::ostream& err)
{
    Run run;
    run.json = opt.json;
    bool options = true;
    for (size_t i = 0; i < words.size(); i++) {
        const std::string& a = words[i];
        if (a == "--" && options) {
            options = false;
            continue;
        }
        if (!options || a.size() < 2 || a.compare(0, 2, "--") != 0) {
            run.files.push_back(a);
            continue;
        }
        if (a == "--json") {
            run.json = true;
            continue;
        }
        if (a == "--summary") {
            run.summary = true;
            continue;
        }
        if (i + 1 >= words.size())
            return usage(err, a + " needs a value");
        const std::string& v = words[++i];
        if (a == "--code") {
            if (!parse_ids(v, 16, &run.f.codes))
                return usage(err, "bad --code '" + v + "': expected hexadecimal log codes, comma-separated");
        } else if (a == "--event") {
            if (!parse_ids(v, 10, &run.f.events))
                return usage(err, "bad --event '" + v + "': expected event ids, comma-separated");
        } else if (a == "--ssid") {
            if (!parse_ids(v, 10, &run.f.ssids))
                return usage(err, "bad --ssid '" + v + "': expected SSIDs, comma-separated");
        } else if (a == "--kind") {
            std::stringstream ss(v);
            std::string k;
            while (std::getline(ss, k, ',')) {
                const int kind = lr_kind_by_name(k);
                if (kind < 0)
                    return usage(err, "bad --kind '" + k + "': expected log, event, message, other or bad");
                run.f.kinds.insert(kind);
            }
        } else if (a == "--since" || a == "--until") {
            int64_t t = 0;
            if (!parse_time(v, &t))
                return usage(err,
                             "bad " + a + " '" + v + "': expected UTC YYYY-MM-DD HH:MM:SS[.fff] or seconds since 1970");
            (a == "--since" ? run.f.since : run.f.until) = t;
            (a == "--since" ? run.f.since_set : run.f.until_set) = true;
        } else if (a == "--config") {
            run.config = v;
        } else if (a == "--pcap") {
            run.pcap = v;
        } else {
            return usage(err, "unknown option " + a);
        }
    }
    if (run.files.empty())
        return usage(err, "no file given");

    if (opt.device_files) {
        const std::string tags = ctl_device_file(opt, DEVICE_EVENT_TAGS);
        std::ifstream f(tags);
        std::stringstream text;
        if (!tags.empty() && f) {
            text << f.rdbuf();
            run.tags = lr_event_tags(text.str());
        }
    }

    LrConfig cfg;
    bool have_cfg = false;
    std::string cfg_path = run.config;
    if (run.summary) {
        if (cfg_path.empty() && opt.device_files) {
            const std::string dev = ctl_device_file(opt, DEVICE_DM_CFG);
            struct stat st;
            if (!dev.empty() && stat(dev.c_str(), &st) == 0)
                cfg_path = dev;
        }
        if (!cfg_path.empty()) {
            std::ifstream f(cfg_path);
            std::stringstream text;
            text << f.rdbuf();
            if (!f || !lr_parse_config(text.str(), &cfg)) {
                err << "tovakctl log-read: " << cfg_path << " is not a readable dm.cfg\n";
                return CTL_EXIT_FAILED;
            }
            have_cfg = true;
        }
    }

    FILE* pcap_file = nullptr;
    LrPcapWriter pcap;
    if (!run.pcap.empty()) {
        pcap_file = fopen(run.pcap.c_str(), "wb");
        if (pcap_file == nullptr || !pcap.open(pcap_file)) {
            err << "tovakctl log-read: cannot write " << run.pcap << ": " << strerror(errno) << "\n";
            if (pcap_file)
                fclose(pcap_file);
            return CTL_EXIT_FAILED;
        }
    }
    Totals tot;
    for (const std::string& path : run.files)
        read_file(run, path, out, err, tot, pcap_file ? &pcap : nullptr);
    if (pcap_file) {
        const bool failed = pcap.failed() || fclose(pcap_file) != 0;
        if (failed) {
            err << "tovakctl log-read: writing " << run.pcap << " failed\n";
            tot.failed = true;
        } else if (!run.summary) {
            out << tot.exported << " packets exported to " << run.pcap << "\n";
        }
    }
    bool wrong = false;
    if (run.summary)
        wrong = print_summary(run, tot, have_cfg ? &cfg : nullptr, cfg_path, out);
    return tot.failed || wrong ? CTL_EXIT_FAILED : CTL_EXIT_OK;
}
