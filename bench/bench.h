// tovak-bench: each measurement of tovakd next to a baseline taken in the
// same run, on simulated devices of its own.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "devsim_ctl.h"
#include "protocol/tovak_pkt.h"
#include "sim_device.h"

using Clock = std::chrono::steady_clock;

double seconds_between(Clock::time_point from, Clock::time_point to);
// p (0 to 1) of an ascending list; not a number when it is empty.
double percentile(const std::vector<double>& sorted, double p);

struct Options {
    bool quick = false;            // a few seconds in all, for trying the program out
    bool faults = false;           // the fault runs instead of the table's figures
    std::vector<std::string> only; // sections to run; empty: all
    int logread_mb = 8;            // size of the generated files the log reading section reads
    bool wants(const char* section) const;
    // n, or a fifth of it (at least 1) when quick.
    int count(int n) const { return quick ? std::max(1, n / 5) : n; }
};

// A goal on the ratio to the baseline, or on the value itself.
struct Goal {
    enum Kind { none, ratio_at_least, ratio_at_most, value_below } kind = none;
    double limit = 0;
    std::string text() const;
};

struct Figure {
    std::string name;
    std::string unit;
    double value = NAN; // tovakd's
    std::string baseline;
    double base = NAN;
    Goal goal;
    std::string note; // why a figure is missing, or what else to know
    double ratio() const { return std::isnan(base) || base == 0 ? NAN : value / base; }
    // 1 met, 0 missed, -1 no goal or nothing measured.
    int met() const;
};

class Report {
public:
    void add(Figure f) { figures_.push_back(std::move(f)); }
    // A line printed above the table (what was measured how).
    void note(const std::string& text) { notes_.push_back(text); }
    // Something that could not be measured; the run then fails.
    void error(const std::string& text)
    {
        notes_.push_back("error: " + text);
        failed_ = true;
    }
    bool failed() const { return failed_; }
    void print(FILE* out) const;
    // The table as Markdown, with the date and the machine it was taken on.
    void markdown(FILE* out) const;
    nlohmann::json json() const;

private:
    std::vector<Figure> figures_;
    std::vector<std::string> notes_;
    bool failed_ = false;
};

// The machine the figures were taken on: cores, CPU model, kernel.
nlohmann::json machine_info();

// Starts `tovak-sim up` on dev; with daemon set, that program runs in the
// daemon's place (as native code, whatever wrapper the environment names).
bool start_device(SimDevice& dev, std::string* why, const std::string& daemon = "",
                  const std::vector<std::string>& args = {});
// The daemon's pid as the host sees it, or -1.
pid_t daemon_pid(const SimDevice& dev);
// A number from /proc/PID/status ("VmRSS" in KiB, "Threads"), or -1.
long proc_status(pid_t pid, const char* field);
// `tovak-sim ctl ROOT args`; false with the simulator's answer in why.
bool ctl(const SimDevice& dev, const std::vector<std::string>& args, std::string* why = nullptr);

// The request every round trip sends: 0x13 with a text the whitelist
// refuses, so the daemon logs and answers at once without running anything.
tovak_pkt cheap_request();
// The reply length to expect: tovakd never writes 0x13's reply, an echo
// returns the request.
uint32_t cheap_reply_len(bool echo);

struct RoundTrips {
    long requests = 0;
    long errors = 0;
    double seconds = 0;
    // Not a number until measured.
    double p50_us = NAN;
    double p99_us = NAN;
    double rate() const { return seconds > 0 ? double(requests) / seconds : NAN; }
};
// clients connections, each sending per_client requests after a short
// warm-up, all starting together.
RoundTrips round_trips(const std::string& socket, int clients, int per_client, bool echo);

// The sections, each adding its figures to the report.
void bench_round_trips(const Options& opt, Report& report);
void bench_capture(const Options& opt, Report& report);
void bench_edits(const Options& opt, Report& report);
void bench_log_on(const Options& opt, Report& report);
void bench_idle_sessions(const Options& opt, Report& report);
void bench_faults(const Options& opt, Report& report);
void bench_log_read(const Options& opt, Report& report);
