#include <dirent.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <latch>
#include <map>
#include <thread>

#include "bench.h"
#include "protocol/tovak_cmd_ids.h"
#include "tovak_client.h"

double seconds_between(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
}

double percentile(const std::vector<double>& sorted, double p)
{
    if (sorted.empty())
        return NAN;
    size_t i = size_t(p * double(sorted.size() - 1) + 0.5);
    return sorted[std::min(i, sorted.size() - 1)];
}

bool Options::wants(const char* section) const
{
    return only.empty() || std::find(only.begin(), only.end(), section) != only.end();
}

static std::string number(double v)
{
    if (std::isnan(v))
        return "-";
    char buf[32];
    double a = std::fabs(v);
    snprintf(buf, sizeof buf, a >= 100 || v == std::floor(v) ? "%.0f" : a >= 10 ? "%.1f" : "%.2f", v);
    return buf;
}

std::string Goal::text() const
{
    switch (kind) {
    case ratio_at_least:
        return ">= " + number(limit) + "x";
    case ratio_at_most:
        return "<= " + number(limit) + "x";
    case value_below:
        return "< " + number(limit);
    case none:
        break;
    }
    return "";
}

int Figure::met() const
{
    double r = ratio();
    switch (goal.kind) {
    case Goal::ratio_at_least:
        return std::isnan(r) ? -1 : r >= goal.limit;
    case Goal::ratio_at_most:
        return std::isnan(r) ? -1 : r <= goal.limit;
    case Goal::value_below:
        return std::isnan(value) ? -1 : value < goal.limit;
    case Goal::none:
        break;
    }
    return -1;
}

static std::string label(const Figure& f)
{
    return f.name + ", " + f.unit;
}

void Report::print(FILE* out) const
{
    for (const std::string& n : notes_)
        fprintf(out, "%s\n", n.c_str());
    size_t w = 6, bw = 8;
    for (const Figure& f : figures_) {
        w = std::max(w, label(f).size());
        bw = std::max(bw, f.baseline.size());
    }
    fprintf(out, "\n%-*s %10s  %-*s %10s %7s  %-9s %s\n", int(w), "figure", "tovakd", int(bw), "baseline", "baseline",
            "ratio", "goal", "met");
    for (const Figure& f : figures_) {
        int met = f.met();
        std::string verdict = f.goal.kind == Goal::none ? "" : met < 0 ? "?" : met ? "yes" : "NO";
        char line[512];
        snprintf(line, sizeof line, "%-*s %10s  %-*s %10s %7s  %-9s %s", int(w), label(f).c_str(),
                 number(f.value).c_str(), int(bw), f.baseline.c_str(), number(f.base).c_str(),
                 number(f.ratio()).c_str(), f.goal.text().c_str(), verdict.c_str());
        std::string text = line;
        if (!f.note.empty())
            text += " (" + f.note + ")";
        fprintf(out, "%s\n", text.substr(0, text.find_last_not_of(' ') + 1).c_str());
    }
}

void Report::markdown(FILE* out) const
{
    // Dated and placed, so a pasted table says where it came from.
    char when[32] = "";
    const time_t now = time(nullptr);
    struct tm utc;
    if (gmtime_r(&now, &utc) != nullptr)
        strftime(when, sizeof when, "%Y-%m-%d %H:%M UTC", &utc);
    nlohmann::json m = machine_info();
    fprintf(out, "Taken %s on %ld cores, %s, %s.\n\n", when, m["cores"].get<long>(),
            m["cpu"].get<std::string>().c_str(), m["kernel"].get<std::string>().c_str());
    for (const std::string& n : notes_)
        fprintf(out, "- %s\n", n.c_str());
    if (!notes_.empty())
        fprintf(out, "\n");
    fprintf(out,
            "| figure | tovakd | baseline | baseline value | ratio | goal | met |\n|---|---|---|---|---|---|---|\n");
    for (const Figure& f : figures_) {
        const int met = f.met();
        const std::string verdict = f.goal.kind == Goal::none ? "" : met < 0 ? "?" : met ? "yes" : "**no**";
        std::string name = label(f);
        if (!f.note.empty())
            name += " (" + f.note + ")";
        fprintf(out, "| %s | %s | %s | %s | %s | %s | %s |\n", name.c_str(), number(f.value).c_str(),
                f.baseline.c_str(), number(f.base).c_str(), number(f.ratio()).c_str(), f.goal.text().c_str(),
                verdict.c_str());
    }
}

static nlohmann::json maybe(double v)
{
    return std::isnan(v) ? nlohmann::json(nullptr) : nlohmann::json(v);
}

nlohmann::json Report::json() const
{
    nlohmann::json figures = nlohmann::json::array();
    for (const Figure& f : figures_) {
        int met = f.met();
        figures.push_back({
            { "figure", f.name },
            { "unit", f.unit },
            { "tovakd", maybe(f.value) },
            { "baseline", f.baseline },
            { "baseline_value", maybe(f.base) },
            { "ratio", maybe(f.ratio()) },
            { "goal", f.goal.text() },
            { "met", met < 0 ? nlohmann::json(nullptr) : nlohmann::json(met == 1) },
            { "note", f.note },
        });
    }
    return { { "machine", machine_info() }, { "notes", notes_ }, { "figures", figures }, { "failed", failed_ } };
}

nlohmann::json machine_info()
{
    std::string cpu;
    std::string info = read_file("/proc/cpuinfo");
    size_t at = info.find("model name");
    if (at != std::string::npos) {
        size_t colon = info.find(':', at);
        size_t end = info.find('\n', at);
        if (colon != std::string::npos && colon < end)
            cpu = info.substr(colon + 2, end - colon - 2);
    }
    struct utsname u;
    std::string kernel = uname(&u) == 0 ? std::string(u.sysname) + " " + u.release : "";
    return { { "cores", sysconf(_SC_NPROCESSORS_ONLN) }, { "cpu", cpu }, { "kernel", kernel } };
}

bool start_device(SimDevice& dev, std::string* why, const std::string& daemon, const std::vector<std::string>& args)
{
    std::vector<std::string> all = args;
    // A wrapper the environment names (qemu-arm) is for the daemon under
    // test; the baselines are host programs.
    const char* env_wrapper = getenv("TOVAK_SIM_DAEMON_WRAPPER");
    std::string wrapper = env_wrapper ? env_wrapper : "";
    if (!daemon.empty()) {
        all.insert(all.begin(), { "--daemon", daemon });
        unsetenv("TOVAK_SIM_DAEMON_WRAPPER");
    }
    bool up = dev.start(all);
    if (env_wrapper)
        setenv("TOVAK_SIM_DAEMON_WRAPPER", wrapper.c_str(), 1);
    if (!up && !daemon.empty() && dev.failure().find("usage:") != std::string::npos) {
        *why = "this launcher does not take --daemon, which runs the echo baselines";
        return false;
    }
    if (!up) {
        std::string failure = dev.failure();
        if (failure.size() > 1500)
            failure = "..." + failure.substr(failure.size() - 1500);
        *why = "the simulated device did not come up: " + failure;
        return false;
    }
    std::string name = daemon.substr(daemon.rfind('/') + 1);
    if (!daemon.empty() && !dev.wait_stdout(name + ":", std::chrono::seconds(5))) {
        *why = "the launcher did not run " + daemon + " in the daemon's place (does it take --daemon?)";
        return false;
    }
    return true;
}

static long leading_number(const std::string& text, const std::string& key)
{
    size_t at = text.find(key);
    return at == std::string::npos ? -1 : atol(text.c_str() + at + key.size());
}

pid_t daemon_pid(const SimDevice& dev)
{
    if (!dev.running())
        return -1;
    std::map<pid_t, pid_t> parent;
    if (DIR* proc = opendir("/proc")) {
        while (dirent* e = readdir(proc)) {
            pid_t pid = atoi(e->d_name);
            std::string stat = pid > 0 ? read_file("/proc/" + std::to_string(pid) + "/stat") : "";
            size_t close = stat.rfind(')');
            if (close != std::string::npos && close + 4 < stat.size())
                parent[pid] = atoi(stat.c_str() + close + 4);
        }
        closedir(proc);
    }
    std::vector<pid_t> tree = { dev.launcher_pid() };
    for (size_t i = 0; i < tree.size(); i++)
        for (const auto& [pid, ppid] : parent)
            if (ppid == tree[i])
                tree.push_back(pid);
    // The launcher names the daemon's pid as its sandbox sees it; the host's
    // is the outer one of the NSpid line.
    long inner = leading_number(read_file(dev.path("sim/tovakd.state")), "pid ");
    for (pid_t pid : tree) {
        std::string base = "/proc/" + std::to_string(pid);
        if (inner > 0) {
            std::string status = read_file(base + "/status");
            size_t at = status.find("NSpid:");
            size_t end = status.find('\n', at);
            if (at == std::string::npos)
                continue;
            std::string line = status.substr(at + 6, end - at - 6);
            size_t last = line.find_last_of(" \t");
            bool nested = last != std::string::npos && line.find_first_not_of(" \t") < last;
            if (nested && atol(line.c_str() + last + 1) == inner)
                return pid;
            continue;
        }
        char exe[512];
        ssize_t n = readlink((base + "/exe").c_str(), exe, sizeof exe - 1);
        if (n > 0 && std::string(exe, size_t(n)).ends_with("/tovakd"))
            return pid;
    }
    return -1;
}

long proc_status(pid_t pid, const char* field)
{
    if (pid <= 0)
        return -1;
    std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    std::string key = "\n";
    key += field;
    key += ':';
    return leading_number(status, key);
}

bool ctl(const SimDevice& dev, const std::vector<std::string>& args, std::string* why)
{
    std::string out, err;
    if (devsim_ctl(dev.root(), args, &out, &err) == 0)
        return true;
    if (why) {
        *why = err.empty() ? out : err;
        while (!why->empty() && why->back() == '\n')
            why->pop_back();
        if (why->rfind("error: ", 0) == 0)
            why->erase(0, 7);
    }
    return false;
}

tovak_pkt cheap_request()
{
    tovak_pkt req;
    memset(&req, 0, sizeof req);
    tovak_req_counted_text(&req, CMD_SYSTEM_COMMAND, "bench: not a whitelisted command");
    return req;
}

uint32_t cheap_reply_len(bool echo)
{
    return echo ? cheap_request().len : TOVAK_PKT_DATA_SIZE;
}

RoundTrips round_trips(const std::string& socket, int clients, int per_client, bool echo)
{
    const int warmup = 20;
    const tovak_pkt req = cheap_request();
    const uint32_t want_len = cheap_reply_len(echo);
    std::vector<std::vector<double>> latencies(static_cast<size_t>(clients));
    std::atomic<long> errors{ 0 };
    std::latch ready(clients + 1);
    std::latch go(1);
    std::vector<std::thread> threads;
    for (int k = 0; k < clients; k++) {
        threads.emplace_back([&, k] {
            TovakClient client(30000);
            bool up = client.connect(socket);
            tovak_pkt rsp;
            for (int i = 0; up && i < warmup; i++)
                up = client.exchange(req, &rsp) == TovakStatus::ok;
            std::vector<double>& lat = latencies[size_t(k)];
            lat.reserve(size_t(per_client));
            ready.count_down();
            go.wait();
            if (!up) {
                errors += per_client;
                return;
            }
            for (int i = 0; i < per_client; i++) {
                auto t0 = Clock::now();
                TovakStatus st = client.exchange(req, &rsp);
                auto t1 = Clock::now();
                if (st != TovakStatus::ok) {
                    errors += per_client - i;
                    return;
                }
                if (rsp.len != want_len)
                    errors++;
                lat.push_back(seconds_between(t0, t1) * 1e6);
            }
            client.disconnect();
        });
    }
    ready.arrive_and_wait();
    auto start = Clock::now();
    go.count_down();
    for (std::thread& t : threads)
        t.join();
    RoundTrips r;
    r.seconds = seconds_between(start, Clock::now());
    std::vector<double> all;
    for (const auto& l : latencies)
        all.insert(all.end(), l.begin(), l.end());
    std::sort(all.begin(), all.end());
    r.requests = long(all.size());
    r.errors = errors;
    r.p50_us = percentile(all, 0.50);
    r.p99_us = percentile(all, 0.99);
    return r;
}
