// The simulator's control verbs: one table row each (verb, usage, what it
// does, handler). Canned data stays in the parts; this file only turns
// words into calls.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "device.h"

namespace {

using Args = std::vector<std::string>;

template <typename T>
bool parse_num(const std::string& s, T* out)
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

Args split(const std::string& s, char sep)
{
    Args out;
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

std::string done(const std::string& why_not)
{
    return why_not.empty() ? "ok\n" : error(why_not);
}

bool on_off(const std::string& s, bool* on)
{
    *on = s == "on";
    return s == "on" || s == "off";
}

std::string remote_modem(Device& d, const Args& a)
{
    bool on;
    if (!on_off(a[1], &on))
        return error("remote-modem takes on or off");
    d.modem.set_remote(on);
    return "ok\n";
}

// event-count, log-items and ssid-ranges: new ranges start the modem over.
std::string ranges(Device& d, const Args& a)
{
    if (a[1] != "local" && a[1] != "remote")
        return error("no modem " + a[1] + " (local or remote)");
    Modem& m = d.modem.modem(a[1] == "remote");
    ModemRanges r = m.ranges();
    if (a[0] == "event-count") {
        if (!parse_num(a[2], &r.event_count) || r.event_count == 0 || r.event_count > 4096)
            return error("bad event count " + a[2] + " (1 to 4096)");
    } else if (a[0] == "log-items") {
        Args items = split(a[2], ',');
        if (items.size() > 16)
            return error("at most 16 last items");
        r.log_last_items.fill(0);
        for (size_t i = 0; i < items.size(); i++)
            if (!parse_num(items[i], &r.log_last_items[i]) || r.log_last_items[i] > 4095)
                return error("bad last item " + items[i] + " (0 to 4095)");
    } else {
        r.ssid_ranges.clear();
        for (const std::string& s : split(a[2], ',')) {
            Args ends = split(s, '-');
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

std::string buffer_range(Device& d, const Args& a)
{
    int lo, hi;
    if (!parse_num(a[1], &lo) || !parse_num(a[2], &hi) || lo < 1 || lo > hi)
        return error("bad range (1 <= MIN <= MAX)");
    d.modem.set_buffer_range(lo, hi);
    return "ok\n";
}

std::string rate(Device& d, const Args& a)
{
    unsigned r;
    if (a[1] == "auto") {
        d.modem.set_rate(-1);
        return "ok\n";
    }
    if (!parse_num(a[1], &r) || r > 10000000)
        return error("bad rate " + a[1] + " (0 to 10000000, or auto)");
    d.modem.set_rate(r);
    return "ok\n";
}

std::string qmi(Device& d, const Args& a)
{
    int kind = a[1] == "phantom" || a[1] == "0" ? 0 : a[1] == "statistics" || a[1] == "1" ? 1 : -1;
    if (kind < 0)
        return error("no QMI kind " + a[1] + " (phantom or statistics)");
    std::vector<size_t> sizes;
    if (a[2] != "none") {
        for (const std::string& s : split(a[2], ',')) {
            size_t n;
            if (!parse_num(s, &n))
                return error("bad unit size " + s);
            sizes.push_back(n);
        }
    }
    return done(d.qmi.set_units(kind, sizes));
}

int buffer_of(const std::string& name, std::string* err)
{
    int b = log_buffer_id(name);
    if (b < 0)
        *err = error("no log buffer " + name + " (main, radio, events, system)");
    return b;
}

std::string log(Device& d, const Args& a)
{
    std::string err;
    int b = buffer_of(a[1], &err);
    if (b < 0)
        return err;
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
    d.logger.entry(b, e);
    return "ok\n";
}

std::string flood(Device& d, const Args& a)
{
    std::string err;
    int b = buffer_of(a[1], &err);
    if (b < 0)
        return err;
    unsigned r;
    uint64_t count;
    if (!parse_num(a[2], &r) || r == 0 || r > 10000000)
        return error("bad rate " + a[2] + " (1 to 10000000)");
    if (!parse_num(a[3], &count))
        return error("bad count " + a[3]);
    d.logger.flood(b, r, count);
    return "ok\n";
}

std::string chatter(Device& d, const Args& a)
{
    bool on;
    if (!on_off(a[1], &on))
        return error("chatter takes on or off");
    d.logger.set_chatter(on);
    return "ok\n";
}

std::string fault(Device& d, const Args& a)
{
    const std::string usage = "usage: fault drop N | corrupt N | delay MS | stall BUFFER on|off | silent on|off | "
                              "logger-absent on|off | size-refused on|off | clear";
    Faults& f = d.faults;
    bool on;
    if (a.size() == 2 && a[1] == "clear") {
        f.clear_answers();
        d.logger.clear_stalls();
        if (f.logger_absent && d.on_logger_absent)
            d.on_logger_absent(false);
        f.logger_absent = false;
        return "ok\n";
    }
    if (a.size() == 3 && (a[1] == "drop" || a[1] == "corrupt" || a[1] == "delay")) {
        unsigned n = 0;
        if (!parse_num(a[2], &n) || (a[1] == "delay" && n > 60000))
            return error("bad count " + a[2]);
        if (a[1] == "drop")
            f.drop_next = n;
        else if (a[1] == "corrupt")
            f.corrupt_next = n;
        else
            f.delay_ms = int(n);
        return "ok\n";
    }
    if (a.size() == 3 && (a[1] == "silent" || a[1] == "logger-absent" || a[1] == "size-refused")) {
        if (!on_off(a[2], &on))
            return error(a[1] + " takes on or off");
        if (a[1] == "silent") {
            f.modem_silent = on;
        } else if (a[1] == "size-refused") {
            f.size_refused = on;
        } else {
            if (on != f.logger_absent && d.on_logger_absent)
                d.on_logger_absent(on);
            f.logger_absent = on;
        }
        return "ok\n";
    }
    if (a.size() == 4 && a[1] == "stall") {
        std::string err;
        int b = buffer_of(a[2], &err);
        if (b < 0)
            return err;
        if (!on_off(a[3], &on))
            return error("stall takes on or off");
        d.logger.set_stalled(b, on);
        return "ok\n";
    }
    return error(usage);
}

std::string disk(Device& d, const Args& a)
{
    if (a[1] == "fill")
        return done(d.disk.fill(a[2]));
    if (a[1] == "free")
        return done(d.disk.free(a[2]));
    return error("usage: disk fill PATH | disk free PATH");
}

std::string daemon_kill(Device& d, const Args& a)
{
    int sig = a.size() > 1 ? parse_signal(a[1]) : 9;
    if (sig == 0)
        return error("bad signal " + a[1]);
    return done(d.system.kill_daemon(sig));
}

std::string prop(Device& d, const Args& a)
{
    if (a[1] == "get" && a.size() == 3) {
        std::string value;
        std::string err = d.system.get_property(a[2], &value);
        return err.empty() ? value + "\n" : error(err);
    }
    if (a[1] == "set" && a.size() == 4)
        return done(d.system.set_property(a[2], a[3]));
    if (a[1] == "clear" && a.size() == 3)
        return done(d.system.clear_property(a[2]));
    return error("usage: prop get KEY | prop set KEY VALUE | prop clear KEY");
}

std::string clear_requests(Device& d, const Args&)
{
    d.modem.clear_requests();
    return "ok\n";
}

std::string status(Device& d, const Args&)
{
    return d.status().dump(1) + "\n";
}

std::string hex4(unsigned v)
{
    char b[8];
    snprintf(b, sizeof b, "0x%04x", v);
    return b;
}

// What each modem holds, a few lines each: what a person checks after a log on.
std::string modem_summary(Device& d, const Args&)
{
    std::string out;
    for (bool remote : { false, true }) {
        if (remote && !d.modem.remote_enabled())
            continue;
        const Modem& m = d.modem.modem(remote);
        std::string events, codes, msgs, dpl;
        auto add = [](std::string& list, char sep, const std::string& item) {
            if (!list.empty())
                list += sep;
            list += item;
        };
        for (uint16_t id : m.enabled_events())
            add(events, ' ', std::to_string(id));
        for (uint16_t code : m.enabled_log_codes())
            add(codes, ' ', hex4(code));
        for (const auto& [ssid, mask] : m.msg_masks()) {
            std::string levels;
            for (unsigned bit = 0; bit < 32; bit++)
                if (mask & (1u << bit))
                    add(levels, ',', std::to_string(bit));
            add(msgs, ' ', std::to_string(ssid) + ":" + (levels.empty() ? "-" : levels));
        }
        for (const DplIface& i : m.dpl_ifaces())
            if (i.logging)
                add(dpl, ' ', std::to_string(i.id) + "(" + i.name + ")");
        out += std::string(remote ? "remote" : "local") + " modem: event reporting " +
               (m.event_reporting() ? "on" : "off") + ", " + std::to_string(m.enabled_events().size()) + " of " +
               std::to_string(m.ranges().event_count) + " event ids\n";
        out += "  events:     " + (events.empty() ? "none" : events) + "\n";
        out += "  log codes:  " + (codes.empty() ? "none" : codes) + "\n";
        out += "  messages:   " + (msgs.empty() ? "none" : msgs) + "  (ssid:levels)\n";
        out += "  dpl:        " + (dpl.empty() ? "none logging" : dpl) + "\n";
    }
    return out;
}

struct Verb {
    const char* name;
    size_t min_args, max_args; // words after the verb
    const char* usage;
    const char* what;
    std::string (*run)(Device&, const Args&);
};

// clang-format off
const Verb VERBS[] = {
    { "status",         0, 0,  "status",                        "the device state as JSON", status },
    { "modem",          0, 0,  "modem",                         "what each modem holds: events, log codes (hex), message levels, DPL", modem_summary },
    { "remote-modem",   1, 1,  "remote-modem on|off",           "attach or detach the remote modem", remote_modem },
    { "event-count",    2, 2,  "event-count MODEM N",           "number of event ids (MODEM: local or remote)", ranges },
    { "log-items",      2, 2,  "log-items MODEM L0,L1,...",     "last item per equipment id (up to 16, the rest 0)", ranges },
    { "ssid-ranges",    2, 2,  "ssid-ranges MODEM F-L,F-L,...", "message SSID ranges", ranges },
    { "buffer-range",   2, 2,  "buffer-range MIN MAX",          "the range diag_change_buffer_size clamps into", buffer_range },
    { "rate",           1, 1,  "rate N|auto",                   "traffic packets per second per modem (auto: as the items imply)", rate },
    { "qmi",            2, 2,  "qmi phantom|statistics SIZES",  "data units of the kind (e.g. 100,200,50, or none)", qmi },
    { "log",            4, 99, "log BUFFER PRIO TAG MESSAGE...", "inject one entry (PRIO: V D I W E F or 2-7)", log },
    { "flood",          3, 3,  "flood BUFFER RATE COUNT",       "inject COUNT entries at RATE per second", flood },
    { "chatter",        1, 1,  "chatter on|off",                "the phone's own background logging", chatter },
    { "fault",          1, 3,  "fault drop N|corrupt N|delay MS|stall BUFFER on|off|silent on|off|logger-absent on|off|size-refused on|off|clear",
                                                                "faults on the modem's answers, the modem, the logger, the buffer size", fault },
    { "disk",           2, 2,  "disk fill PATH | disk free PATH", "fill the filesystem holding PATH (at most 256 MiB free), or free it", disk },
    { "daemon-kill",    0, 1,  "daemon-kill [SIGNAL]",          "signal the running tovakd (default 9)", daemon_kill },
    { "prop",           2, 3,  "prop get|set|clear KEY [VALUE]", "the device's system properties", prop },
    { "clear-requests", 0, 0,  "clear-requests",                "forget the recent requests", clear_requests },
};
// clang-format on

std::string help()
{
    std::string out = "commands:\n";
    for (const Verb& v : VERBS) {
        std::string usage = v.usage;
        out += "  " + usage + std::string(usage.size() < 32 ? 32 - usage.size() : 1, ' ') + v.what + "\n";
    }
    return out + "  help                            this list\n";
}

} // namespace

std::string Device::control(const std::vector<std::string>& a)
{
    if (a.empty() || a[0] == "help")
        return help();
    for (const Verb& v : VERBS) {
        if (a[0] != v.name)
            continue;
        if (a.size() - 1 < v.min_args || a.size() - 1 > v.max_args)
            return error(std::string("usage: ") + v.usage);
        return v.run(*this, a);
    }
    return error("unknown command '" + a[0] + "'; try help");
}
