// tovak-bench: runs the benchmark sections and prints one table (or JSON).
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <sstream>

#include "bench.h"

namespace {

struct Section {
    const char* name;
    void (*run)(const Options&, Report&);
};

const Section SECTIONS[] = {
    { "roundtrip", bench_round_trips }, { "capture", bench_capture },    { "edits", bench_edits },
    { "logon", bench_log_on },          { "idle", bench_idle_sessions }, { "logread", bench_log_read },
};

void usage(FILE* out)
{
    fprintf(out, "usage: tovak-bench [--json | --markdown] [--quick] [--only SECTION,...] [--faults] [--logread-mb N]\n"
                 "  Measures tovakd on simulated devices against baselines taken in the same run\n"
                 "  and prints one table: each figure, its baseline, the ratio and the goal.\n"
                 "  --json      the same as JSON\n"
                 "  --markdown  the same as a Markdown table, dated, for bench/README.md\n"
                 "  --quick     a fifth of the work, to try things out (figures are rougher)\n"
                 "  --only      sections: roundtrip, capture, edits, logon, idle, logread\n"
                 "  --faults    instead of the sections: other sessions' p99 while a fault is\n"
                 "              injected (stalled logger, absent logger, full disk, silent modem)\n"
                 "  --logread-mb  size in MiB of the files logread reads (default 8; 500 for\n"
                 "              the full measure)\n");
}

// 10,000 idle sessions need as many descriptors here and in the daemon,
// which inherits the limit through the launcher.
void raise_file_limit()
{
    const rlim_t want = 16384;
    struct rlimit r;
    if (getrlimit(RLIMIT_NOFILE, &r) != 0)
        return;
    // Anyone may go up to the hard limit; only root may raise it.
    rlim_t reach = r.rlim_max == RLIM_INFINITY ? want : std::max(r.rlim_max, want);
    struct rlimit raised = { reach, r.rlim_max == RLIM_INFINITY ? RLIM_INFINITY : reach };
    if (setrlimit(RLIMIT_NOFILE, &raised) != 0 && r.rlim_max != RLIM_INFINITY) {
        r.rlim_cur = r.rlim_max;
        setrlimit(RLIMIT_NOFILE, &r);
    }
}

} // namespace

int main(int argc, char** argv)
{
    Options opt;
    bool json = false;
    bool markdown = false;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--json") {
            json = true;
        } else if (a == "--markdown") {
            markdown = true;
        } else if (a == "--quick") {
            opt.quick = true;
        } else if (a == "--logread-mb" && i + 1 < argc) {
            char* end = nullptr;
            long mb = strtol(argv[++i], &end, 10);
            if (*end != '\0' || mb < 1 || mb > 4096) {
                fprintf(stderr, "tovak-bench: bad --logread-mb %s: expected 1 to 4096\n", argv[i]);
                return 2;
            }
            opt.logread_mb = int(mb);
        } else if (a == "--faults") {
            opt.faults = true;
        } else if (a == "--only" && i + 1 < argc) {
            std::stringstream list(argv[++i]);
            std::string name;
            while (std::getline(list, name, ',')) {
                bool known = false;
                for (const Section& s : SECTIONS)
                    known = known || name == s.name;
                if (!known) {
                    fprintf(stderr, "tovak-bench: no section %s\n", name.c_str());
                    return 2;
                }
                opt.only.push_back(name);
            }
        } else if (a == "-h" || a == "--help") {
            usage(stdout);
            return 0;
        } else {
            fprintf(stderr, "tovak-bench: bad argument %s\n", a.c_str());
            usage(stderr);
            return 2;
        }
    }
    raise_file_limit();

    Report report;
    if (opt.faults) {
        bench_faults(opt, report);
    } else {
        for (const Section& s : SECTIONS) {
            if (!opt.wants(s.name))
                continue;
            fprintf(stderr, "tovak-bench: %s\n", s.name);
            s.run(opt, report);
        }
    }
    if (json) {
        printf("%s\n", report.json().dump(1).c_str());
    } else if (markdown) {
        report.markdown(stdout);
    } else {
        nlohmann::json m = machine_info();
        printf("machine: %ld cores, %s, %s\n", m["cores"].get<long>(), m["cpu"].get<std::string>().c_str(),
               m["kernel"].get<std::string>().c_str());
        report.print(stdout);
    }
    return report.failed() ? 1 : 0;
}
