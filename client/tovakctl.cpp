#include "tovakctl.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <utility>

namespace {

// Said on Ctrl-C while a command waits for its reply; the signal handler
// writes it as it stands.
char interrupt_note[512];
volatile sig_atomic_t interrupt_armed;

void on_interrupt(int)
{
    if (interrupt_armed) {
        ssize_t ignored = write(STDERR_FILENO, interrupt_note, strlen(interrupt_note));
        (void)ignored;
    }
    _exit(CTL_EXIT_INTERRUPTED);
}

struct Ctl {
    CtlOptions opt;
    std::ostream& out;
    std::ostream& err;
};

int usage_error(Ctl& c, const std::string& word, const std::string& why)
{
    c.err << "tovakctl: " << word << ": " << why << "\n" << ctl_usage_of(word);
    return CTL_EXIT_USAGE;
}

void print_json(Ctl& c, const std::string& name, uint32_t id, std::vector<std::pair<std::string, std::string>> members)
{
    // tovakctl's own subcommands send several commands, or none of their own.
    bool own = ctl_is_extra(name) && name != "raw";
    members.insert(members.begin(),
                   { { "command", tovak_json_string(name) }, { "id", own ? "null" : std::to_string(id) } });
    c.out << tovak_json_object(members) << "\n";
}

// Seconds with up to three decimals.
bool parse_seconds(const std::string& text, int* ms)
{
    size_t dot = text.find('.');
    uint64_t whole = 0, frac = 0;
    std::string decimals = dot == std::string::npos ? "" : text.substr(dot + 1);
    if (!tovak_parse_number(text.substr(0, dot), 86400, false, &whole) || decimals.size() > 3 ||
        (!decimals.empty() && !tovak_parse_number(decimals, 999, false, &frac)))
        return false;
    for (size_t i = decimals.size(); i < 3; i++)
        frac *= 10;
    *ms = int(whole * 1000 + frac);
    return *ms > 0;
}

// What the user is waiting for, on a terminal: after a second, a line on
// stderr with the time, what the command waits for, and tovakd's latest
// log line.
class Progress {
public:
    Progress(const Ctl& c, const std::string& name, const char* waits)
        : head_("tovakctl: " + name + ": "),
          waits_(waits ? waits : "tovakd's reply"),
          active_(&c.err == &std::cerr && isatty(STDERR_FILENO))
    {
        if (active_)
            log_.open(c.opt, true);
    }
    ~Progress() { clear(); }
    void tick()
    {
        for (const std::string& msg : active_ ? log_.read() : std::vector<std::string>())
            last_ = msg;
        auto s = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start_).count();
        if (!active_ || s < 1)
            return;
        std::string line =
            head_ + std::to_string(s) + " s, waiting for " + waits_ + (last_.empty() ? "" : "; tovakd: " + last_);
        winsize ws = {};
        size_t width = ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 1 ? ws.ws_col - 1 : 79;
        std::cerr << "\r\033[K" << line.substr(0, width) << std::flush;
        shown_ = true;
    }
    void clear()
    {
        if (std::exchange(shown_, false))
            std::cerr << "\r\033[K" << std::flush;
    }

private:
    std::string head_, waits_, last_;
    bool active_, shown_ = false;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    CtlLog log_;
};

bool connect(Ctl& c, TovakClient& client)
{
    if (c.opt.fd < 0)
        return client.connect(c.opt.socket);
    client.adopt(c.opt.fd);
    return true;
}

// A failed exchange; returns the exit status.
int failure(Ctl& c, const TovakClient& client, const std::string& name, uint32_t id, TovakStatus status,
            const TovakCommand* row)
{
    std::string what = client.error();
    if (status == TovakStatus::closed && client.step() == TovakStep::receive)
        what = row ? "tovakd closed the session without a reply to " + ctl_hex_id(id) +
                         ", a command it knows: it may have ended while handling it (see its log)"
                   : "tovakd closed the session without a reply: it has no command " + ctl_hex_id(id);
    if (status == TovakStatus::timeout && client.step() == TovakStep::receive && row && row->confirm >= 0)
        what +=
            std::string("; logging may still go ") + (row->confirm ? "on" : "off") + ": check with `tovakctl state`";
    else if (status == TovakStatus::timeout && client.step() == TovakStep::receive && row && row->waits)
        what += "; it may still finish: check with `tovakctl status`";
    if (c.opt.json)
        print_json(c, name, id,
                   { { "refused", "\"unknown\"" },
                     { "error", tovak_json_string(what) },
                     { "failure", tovak_json_string(ctl_failure_kind(client, status)) } });
    c.err << "tovakctl: " << name << ": " << what << "\n";
    // A daemon that vanished mid-command is as unsure an outcome as a time-out.
    bool vanished = status == TovakStatus::closed && row;
    return status == TovakStatus::timeout || vanished ? CTL_EXIT_TIMEOUT : CTL_EXIT_FAILED;
}

// Why a command was refused, when its start-up flag is the likely cause:
// another command behind the same flag, which asks for nothing, tells.
std::string explain_refusal(TovakClient& client, const TovakCommand& row)
{
    bool logging = row.gate == tovak_gate::logging;
    TovakResult probe = logging                           ? client.get_capture_limits()
                        : row.gate == tovak_gate::capture ? client.get_capture_state()
                                                          : TovakResult();
    if (probe.status == TovakStatus::ok && probe.shown.verdict == TovakVerdict::refused)
        return std::string("; it refuses every ") + (logging ? "logging" : "capture") + " command because its " +
               (logging ? "start-up of modem logging failed (a usual cause: a negative <BufferSize> in "
                          "/data/media/0/dm.cfg)"
                        : "Android log capture did not start") +
               "; `tovakctl status` shows more";
    return row.refusal ? std::string("; it refuses ") + row.refusal : "";
}

int run_row(Ctl& c, const TovakCommand& row, const std::vector<std::string>& words)
{
    TovakArgs args;
    std::string why;
    tovak_pkt req;
    if (!tovak_parse_words(row, words, &args, &why) || !tovak_encode(row, args, &req, &why))
        return usage_error(c, ctl_first_word(row.name), why);
    std::vector<std::pair<std::string, std::string>> json;
    if (row.fields[0] == TovakField::device_path) {
        std::string file = ctl_device_file(c.opt, args[0].text);
        if (!file.empty() && access(file.c_str(), F_OK) != 0) {
            std::string warning = args[0].text + " does not exist on the device: tovakd takes the name anyway, "
                                                 "and saves every later change there";
            c.err << "tovakctl: warning: " << warning << "\n";
            json.emplace_back("warning", tovak_json_string(warning));
        }
    }
    TovakClient client(c.opt.timeout_ms);
    if (!connect(c, client))
        return failure(c, client, row.name, row.id, client.last_status(), &row);
    CtlEffects effects(c.opt, client, row, args);
    effects.before();
    if (client.last_status() != TovakStatus::ok)
        return failure(c, client, row.name, row.id, client.last_status(), &row);
    Progress progress(c, row.name, row.waits);
    client.on_wait([&] { progress.tick(); });
    TovakReport report;
    ctl_interrupt_note(&row);
    TovakResult res = client.run(row, args, &report);
    ctl_interrupt_note(nullptr);
    progress.clear();
    client.on_wait(nullptr);
    if (res.status != TovakStatus::ok)
        return failure(c, client, row.name, row.id, res.status, &row);
    CtlEffect effect;
    if (res.status == TovakStatus::ok && row.id == CMD_LOG_SIZE && res.shown.verdict == TovakVerdict::done) {
        for (const auto& [key, value] : report.json)
            if (key == row.key)
                effects.taken_size = atoll(value.c_str());
        report.text.clear();
    }
    if (res.shown.verdict == TovakVerdict::refused)
        res.shown.note += explain_refusal(client, row);
    effects.after(&res.shown, &effect);
    client.disconnect();

    for (const std::string& w : effect.warnings)
        c.err << "tovakctl: warning: " << w << "\n";
    std::string lines;
    for (const std::string& l : effect.lines)
        lines += l + "\n";
    bool failed = res.shown.verdict == TovakVerdict::refused || res.shown.verdict == TovakVerdict::unexpected;
    // Answered, but what it did is out of sight: as unsure as a time-out.
    const bool unsure = !failed && !effect.missing.empty();
    const std::string unseen =
        unsure ? "tovakd answered, but " + effect.missing + " is missing, so tovakctl cannot tell what was written"
               : "";
    if (unsure)
        effect.json.emplace_back("error", tovak_json_string(unseen));
    if (c.opt.json) {
        json.insert(json.begin(), { { "reply_len", std::to_string(res.reply_len) },
                                    { "refused", res.shown.verdict == TovakVerdict::unknown   ? "\"unknown\""
                                                 : res.shown.verdict == TovakVerdict::refused ? "true"
                                                                                              : "false" } });
        if (!res.shown.note.empty())
            json.emplace_back(res.shown.verdict == TovakVerdict::unexpected ? "error" : "note",
                              tovak_json_string(res.shown.note));
        json.insert(json.end(), report.json.begin(), report.json.end());
        json.insert(json.end(), effect.json.begin(), effect.json.end());
        print_json(c, row.name, row.id, json);
    } else if (unsure) {
        c.err << "tovakctl: " << row.name << ": " << unseen << "\n";
    } else if (res.shown.verdict == TovakVerdict::done) {
        c.out << (report.text.empty() && lines.empty() ? "done\n" : report.text + lines);
    } else if (res.shown.verdict == TovakVerdict::unknown) {
        c.out << report.text << "sent; " << res.shown.note << "\n" << lines;
    } else {
        c.err << "tovakctl: " << row.name << ": " << (res.shown.verdict == TovakVerdict::refused ? "refused: " : "")
              << res.shown.note << "\n";
    }
    return failed ? CTL_EXIT_FAILED : unsure ? CTL_EXIT_TIMEOUT : CTL_EXIT_OK;
}

// Pairs of hex digits; blanks and colons are ignored.
bool parse_hex(const std::string& text, std::vector<uint8_t>* out)
{
    std::string digits;
    for (char ch : text)
        digits += ch == ' ' || ch == ':' ? "" : std::string(1, ch);
    uint64_t byte;
    for (size_t i = 0; i < digits.size(); i += 2, out->push_back(uint8_t(byte)))
        if (i + 1 == digits.size() || !tovak_parse_number(digits.substr(i, 2), 0xff, true, &byte))
            return false;
    return true;
}

int run_raw(Ctl& c, const std::vector<std::string>& words)
{
    uint64_t id = 0;
    std::vector<uint8_t> payload;
    tovak_pkt req, rsp;
    if (words.empty() || words.size() > 2 || !tovak_parse_number(words[0], UINT32_MAX, false, &id))
        return usage_error(c, "raw", "expected a command id from 0 to 4294967295 and at most one payload");
    if (words.size() == 2 && !parse_hex(words[1], &payload))
        return usage_error(c, "raw", "bad payload: expected pairs of hex digits, blanks or colons between bytes");
    if (!tovak_req_raw(&req, uint32_t(id), payload))
        return usage_error(c, "raw", "payload too long: at most " + std::to_string(TOVAK_PKT_DATA_SIZE) + " bytes");
    TovakClient client(c.opt.timeout_ms);
    if (!connect(c, client))
        return failure(c, client, "raw", req.cmd, client.last_status(), nullptr);
    ctl_interrupt_say("raw: interrupted; tovakd goes on with the command if it took it: check with `tovakctl status`");
    TovakStatus st = client.exchange(req, &rsp);
    ctl_interrupt_note(nullptr);
    if (st == TovakStatus::closed && req.cmd == CMD_DISCONNECT) {
        if (c.opt.json)
            print_json(c, "raw", req.cmd, { { "closed", "true" }, { "refused", "false" } });
        else
            c.out << "tovakd ended the session, as asked\n";
        return CTL_EXIT_OK;
    }
    if (st != TovakStatus::ok)
        return failure(c, client, "raw", req.cmd, st, tovak_command(req.cmd));
    client.disconnect();
    std::string hex;
    for (uint32_t i = 0; i < rsp.len && i < TOVAK_PKT_DATA_SIZE; i++) {
        char b[4];
        snprintf(b, sizeof b, "%02x", rsp.data[i]);
        hex += b;
    }
    if (c.opt.json)
        print_json(c, "raw", req.cmd,
                   { { "reply_len", std::to_string(rsp.len) },
                     { "refused", "\"unknown\"" },
                     { "payload", tovak_json_string(hex) } });
    else
        c.out << "len " << rsp.len << "\npayload " << hex << "\n";
    return CTL_EXIT_OK;
}

// Global options, long and short; each takes a value but --json.
struct GlobalOption {
    const char* name;
    const char* short_name;
};
const GlobalOption global_options[] = {
    { "--socket", "-s" },
    { "--root", "-r" },
    { "--timeout", "-t" },
    { "--json", "-j" },
};
// What the subcommands themselves take.
const char* const subcommand_options[] = { "--mask", "--help", "-h", "--man" };

bool looks_like_option(const std::string& a)
{
    return a.size() > 1 && a[0] == '-' && !(a[1] >= '0' && a[1] <= '9');
}

std::string did_you_mean(const std::string& word, const std::vector<std::string>& names)
{
    std::vector<std::string> near = ctl_nearest(word, names);
    std::string text;
    for (size_t i = 0; i < near.size(); i++)
        text += (i == 0 ? ": did you mean `" : i + 1 == near.size() ? "` or `" : "`, `") + near[i];
    return text.empty() ? "" : text + "`?";
}

int set_option(Ctl& c, const std::string& name, const std::string& v, bool* socket, bool* root)
{
    if (name == "--timeout" && !parse_seconds(v, &c.opt.timeout_ms)) {
        c.err << "tovakctl: bad time-out '" << v << "': expected seconds from 0.001 to 86400\n";
        return CTL_EXIT_USAGE;
    }
    if (name == "--socket") {
        c.opt.socket = v;
        c.opt.device_files = false;
        c.opt.root.clear();
        *socket = true;
    } else if (name == "--root") {
        // A simulated device shows the phone's paths under its root.
        c.opt.socket = v + TOVAK_SOCKET_PATH;
        c.opt.root = v;
        c.opt.device_files = true;
        *root = true;
    }
    return -1;
}

// Global options anywhere (up to a "--"), as --opt VALUE, --opt=VALUE or
// -o VALUE; the environment fills what they leave. The rest goes to words,
// the subcommand first. Returns -1 to go on, else the exit status.
int parse_options(const std::vector<std::string>& args, Ctl& c, std::vector<std::string>* words)
{
    bool socket = false, root = false, rest = false;
    for (size_t at = 0; at < args.size(); at++) {
        const std::string& a = args[at];
        if (rest || !looks_like_option(a)) {
            words->push_back(a);
            continue;
        }
        if (a == "--") {
            rest = true;
            if (!words->empty() && (*words)[0] == "log-read")
                words->push_back(a);
            continue;
        }
        std::string name = a.substr(0, a.find('=')), value;
        const GlobalOption* opt = nullptr;
        for (const GlobalOption& g : global_options)
            if (name == g.name || name == g.short_name)
                opt = &g;
        if (!opt) {
            bool subcommand_option = std::find(std::begin(subcommand_options), std::end(subcommand_options), name) !=
                                     std::end(subcommand_options);
            // log-read parses its own filters and outputs.
            if (!words->empty() && (*words)[0] == "log-read" && a.compare(0, 2, "--") == 0 && a != "--help") {
                words->push_back(a);
                continue;
            }
            if (!words->empty() && subcommand_option) {
                words->push_back(a);
                if (a == "--mask" && at + 1 < args.size())
                    words->push_back(args[++at]);
                continue;
            }
            if (words->empty() && (a == "--help" || a == "-h")) {
                c.out << ctl_overall_help();
                return CTL_EXIT_OK;
            }
            if (words->empty() && (a == "--version" || a == "-V")) {
                c.out << "tovakctl " TOVAKCTL_VERSION "\n";
                return CTL_EXIT_OK;
            }
            std::vector<std::string> names = { "--help", "--version", "--mask" };
            for (const GlobalOption& g : global_options)
                names.push_back(g.name);
            c.err << "tovakctl: unknown option " << name << did_you_mean(name, names)
                  << " (tovakctl --help lists the options)\n";
            return CTL_EXIT_USAGE;
        }
        name = opt->name;
        if (name == "--json") {
            if (a.find('=') != std::string::npos) {
                c.err << "tovakctl: --json takes no value\n";
                return CTL_EXIT_USAGE;
            }
            c.opt.json = true;
            continue;
        }
        if (a.find('=') != std::string::npos && a.compare(0, 2, "--") == 0) {
            value = a.substr(a.find('=') + 1);
        } else if (a.find('=') != std::string::npos || ++at >= args.size()) {
            c.err << "tovakctl: " << a << " needs a value (" << name << " VALUE or " << name << "=VALUE)\n";
            return CTL_EXIT_USAGE;
        } else {
            value = args[at];
        }
        int rc = set_option(c, name, value, &socket, &root);
        if (rc >= 0)
            return rc;
    }
    if (socket && root) {
        c.err << "tovakctl: --socket and --root name the socket twice; give one\n";
        return CTL_EXIT_USAGE;
    }
    const char* env_root = getenv("TOVAK_ROOT");
    const char* env_socket = getenv("TOVAK_SOCKET");
    bool has_root = env_root && *env_root, has_socket = env_socket && *env_socket;
    if (!socket && !root && has_root && has_socket) {
        c.err << "tovakctl: TOVAK_ROOT and TOVAK_SOCKET name the socket twice; set one\n";
        return CTL_EXIT_USAGE;
    }
    if (!socket && !root && (has_root || has_socket))
        set_option(c, has_root ? "--root" : "--socket", has_root ? env_root : env_socket, &socket, &root);
    if (words->empty()) {
        c.err << "tovakctl: no subcommand given\n" << ctl_overall_help();
        return CTL_EXIT_USAGE;
    }
    return -1;
}

} // namespace

std::string ctl_failure_kind(const TovakClient& client, TovakStatus status)
{
    const char* step = client.step() == TovakStep::connect ? "connect"
                       : client.step() == TovakStep::send  ? "send"
                                                           : "receive";
    return std::string(status == TovakStatus::timeout  ? "timeout_"
                       : status == TovakStatus::closed ? "closed_"
                                                       : "error_") +
           step;
}

void ctl_interrupt_note(const TovakCommand* row)
{
    interrupt_armed = 0;
    if (!row)
        return;
    std::string what = row->confirm == 1   ? "logging still comes on when it is done: check with `tovakctl state`"
                       : row->confirm == 0 ? "logging still goes off when it is done: check with `tovakctl state`"
                                           : "it finishes the command anyway: check with `tovakctl status`";
    ctl_interrupt_say(std::string(row->name) + ": interrupted; tovakd does not notice a client that leaves, and " +
                      what);
}

void ctl_interrupt_say(const std::string& note)
{
    interrupt_armed = 0;
    snprintf(interrupt_note, sizeof interrupt_note, "\ntovakctl: %s\n", note.c_str());
    interrupt_armed = 1;
}

void ctl_catch_interrupt()
{
    struct sigaction sa = {};
    sa.sa_handler = on_interrupt;
    sigaction(SIGINT, &sa, nullptr);
}

int tovakctl_main(const std::vector<std::string>& args, std::ostream& out, std::ostream& err, int fd)
{
    Ctl c = { CtlOptions(), out, err };
    c.opt.fd = fd;
    std::vector<std::string> words;
    int rc = parse_options(args, c, &words);
    if (rc >= 0)
        return rc;
    const std::string word = words[0];
    words.erase(words.begin());
    std::vector<const TovakCommand*> rows = ctl_rows_named(word);
    if (rows.empty() && !ctl_is_extra(word)) {
        err << "tovakctl: unknown subcommand '" << word << "'" << did_you_mean(word, ctl_subcommand_names())
            << " (tovakctl --help lists them)\n";
        return CTL_EXIT_USAGE;
    }
    for (const std::string& w : words) {
        if (w == "--help" || w == "-h") {
            out << ctl_subcommand_help(word);
            return CTL_EXIT_OK;
        }
    }
    if (word == "help" && words.size() == 1 && words[0] == "--man") {
        out << ctl_man_page();
        return CTL_EXIT_OK;
    }
    if (word == "help" && words.size() <= 1) {
        bool known = words.empty() || !ctl_rows_named(words[0]).empty() || ctl_is_extra(words[0]);
        if (!known)
            return usage_error(c, "help", "unknown subcommand '" + words[0] + "'");
        out << (words.empty() ? ctl_overall_help() : ctl_subcommand_help(words[0]));
        return CTL_EXIT_OK;
    }
    if (word == "completion" && words.size() == 1 && words[0] == "bash") {
        out << ctl_completion_bash();
        return CTL_EXIT_OK;
    }
    if (word == "completion" && words.size() == 1 && words[0] == "zsh") {
        err << "tovakctl: completion: only bash has a script; in zsh, load bash's completion first:\n"
               "  autoload -U +X bashcompinit && bashcompinit && eval \"$(tovakctl completion bash)\"\n";
        return CTL_EXIT_USAGE;
    }
    if (word == "completion" && words.size() == 2 && words[0] == "values") {
        for (const std::string& v : ctl_completion_values(c.opt, words[1]))
            out << v << "\n";
        return CTL_EXIT_OK;
    }
    if (word == "completion")
        return usage_error(c, word,
                           words.empty() ? "name a shell: bash" : "unknown shell '" + words[0] + "': only bash");
    if (word == "raw")
        return run_raw(c, words);
    if (word == "log-read")
        return ctl_log_read(c.opt, words, out, err);
    if (word == "status") {
        if (!words.empty())
            return usage_error(c, word, "status takes no arguments");
        TovakClient client(c.opt.timeout_ms);
        if (!connect(c, client))
            return failure(c, client, word, CMD_GET_LOG_STATE, client.last_status(), nullptr);
        ctl_interrupt_say("status: interrupted; it only asks, so nothing changed");
        return ctl_status(c.opt, client, out, err);
    }
    // Among rows of one name, the second word, or else the number of words, picks.
    for (const TovakCommand* row : rows) {
        std::string name = row->name;
        if (name != word) {
            if (!words.empty() && words[0] == name.substr(word.size() + 1))
                return run_row(c, *row, std::vector<std::string>(words.begin() + 1, words.end()));
        } else if (rows.size() == 1 ||
                   (int(words.size()) >= tovak_min_words(*row) && int(words.size()) <= tovak_max_words(*row))) {
            return run_row(c, *row, words);
        }
    }
    return usage_error(c, word, words.empty() ? "missing argument" : "unexpected arguments");
}
