// Round trips of a cheap request at 1, 16 and 64 clients: tovakd, the raw
// echo, and the echo that logs what tovakd logs per request.
#include <cstdlib>
#include <string>

#include "bench.h"

namespace {

const char* const LOG_ECHO = "echo + log lines";
const char* const RAW_ECHO = "raw echo";

struct LogSnapshot {
    size_t lines = 0;
    size_t bytes = 0;
    long entries = 0; // received by the simulated logger's main buffer
    bool operator==(const LogSnapshot&) const = default;
};

LogSnapshot snapshot(const SimDevice& dev)
{
    LogSnapshot s;
    std::string out = dev.daemon_stdout();
    s.bytes = out.size();
    s.lines = size_t(std::count(out.begin(), out.end(), '\n'));
    nlohmann::json st = devsim_status(dev.root());
    if (!st.is_discarded())
        s.entries = st["logger"]["main"]["received"].get<long>();
    return s;
}

// What the daemon logged once it stops changing: lines reach the copy
// under ROOT and the logger a moment after the reply.
LogSnapshot settled(const SimDevice& dev)
{
    LogSnapshot last = snapshot(dev);
    auto since = Clock::now();
    wait_until(
        [&] {
            LogSnapshot s = snapshot(dev);
            if (!(s == last)) {
                last = s;
                since = Clock::now();
            }
            return Clock::now() - since >= std::chrono::milliseconds(200);
        },
        std::chrono::seconds(10));
    return last;
}

struct LogOutput {
    double lines = 0;      // stdout lines a request
    double line_bytes = 0; // average length of those lines
    double entries = 0;    // platform log entries a request
};

bool measure_log_output(SimDevice& dev, int requests, LogOutput* out)
{
    auto client = dev.connect();
    tovak_pkt req = cheap_request(), rsp;
    if (!client || client->exchange(req, &rsp) != TovakStatus::ok)
        return false;
    LogSnapshot before = settled(dev);
    for (int i = 0; i < requests; i++)
        if (client->exchange(req, &rsp) != TovakStatus::ok)
            return false;
    LogSnapshot after = settled(dev);
    size_t lines = after.lines - before.lines;
    if (lines == 0)
        return false;
    out->lines = double(lines) / requests;
    out->line_bytes = double(after.bytes - before.bytes) / double(lines);
    out->entries = double(after.entries - before.entries) / requests;
    return true;
}

const int CLIENTS[] = { 1, 16, 64 };

struct Target {
    const char* what;
    SimDevice dev;
    bool echo;
    RoundTrips at[3];
};

void add(Report& report, const std::string& name, const char* unit, double value, double log_echo, double raw,
         Goal goal = {})
{
    report.add({ name, unit, value, LOG_ECHO, log_echo, goal, "" });
    report.add({ name, unit, value, RAW_ECHO, raw, {}, "" });
}

} // namespace

void bench_round_trips(const Options& opt, Report& report)
{
    Target tovakd{ "tovakd", {}, false, {} };
    std::string why;
    LogOutput log;
    if (!start_device(tovakd.dev, &why)) {
        report.error("tovakd: " + why);
        return;
    }
    if (!measure_log_output(tovakd.dev, 200, &log)) {
        report.error("cannot count the lines tovakd logs a request");
        return;
    }
    const std::string echo = SimDevice::bin("tovak-bench-echo");
    const int lines = int(log.lines + 0.5);
    const int line_bytes = int(log.line_bytes + 0.5);
    Target raw{ "raw echo", {}, true, {} }, logged{ "echo with log lines", {}, true, {} };
    setenv("TOVAK_BENCH_ECHO_LINES", "0", 1);
    bool up = start_device(raw.dev, &why, echo);
    setenv("TOVAK_BENCH_ECHO_LINES", std::to_string(lines).c_str(), 1);
    setenv("TOVAK_BENCH_ECHO_LINE_BYTES", std::to_string(line_bytes).c_str(), 1);
    up = up && start_device(logged.dev, &why, echo);
    if (!up)
        report.error("echo: " + why);

    // The three take turns at each client count, three times, and each keeps
    // its fastest run: on two shared cores a neighbour's burst, or one of the
    // other devices' own processes, falls on one run, not on one target.
    const int per_client[] = { opt.count(5000), opt.count(1000), opt.count(300) };
    for (int i = 0; i < 3; i++) {
        for (int turn = 0; turn < 3; turn++) {
            for (Target* t : { &tovakd, &raw, &logged }) {
                if (!t->dev.running())
                    continue;
                RoundTrips run = round_trips(t->dev.socket_path(), CLIENTS[i], per_client[i], t->echo);
                if (run.errors > 0)
                    report.error(std::string(t->what) + ": " + std::to_string(run.errors) + " requests failed at " +
                                 std::to_string(CLIENTS[i]) + " clients");
                if (turn == 0 || run.rate() > t->at[i].rate())
                    t->at[i] = run;
            }
        }
    }

    char text[200];
    snprintf(text, sizeof text,
             "round trips: 0x13 refused by the whitelist; tovakd logs %.2f lines of %.0f bytes (%.2f platform log "
             "entries) a request, the echo %d of %d bytes",
             log.lines, log.line_bytes, log.entries, lines, line_bytes);
    report.note(text);
    for (int i = 0; i < 3; i++) {
        const RoundTrips &d = tovakd.at[i], &r = raw.at[i], &l = logged.at[i];
        std::string name = "round trips " + std::to_string(CLIENTS[i]) + (CLIENTS[i] == 1 ? " client" : " clients");
        bool goals = CLIENTS[i] <= 16;
        add(report, name, "req/s", d.rate(), l.rate(), r.rate(), goals ? Goal{ Goal::ratio_at_least, 0.8 } : Goal{});
        add(report, name, "p50 us", d.p50_us, l.p50_us, r.p50_us);
        add(report, name, "p99 us", d.p99_us, l.p99_us, r.p99_us,
            CLIENTS[i] == 16 ? Goal{ Goal::ratio_at_most, 2.0 } : Goal{});
    }
}
