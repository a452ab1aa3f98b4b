// tovakctl's help, usage lines and bash completion, all made from the
// command table and tovakctl's own few subcommands.
#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <set>
#include <sstream>

#include "tovakctl.h"

namespace {

// tovakctl's own subcommands, beside the table's.
struct Extra {
    const char* name;
    const char* syntax;
    const char* help;
};
const Extra extras[] = {
    { "status", "", "read everything a person asks first and point at what looks wrong" },
    { "raw", "ID [HEX]", "send any frame (payload in hex) and print the reply's length and payload" },
    { "log-read", "[--summary [--config DM_CFG]] [--pcap OUT] [--json] [FILTER...] FILE...",
      "read modem logs and capture files here, without tovakd; FILTER: --code HEX,.. --event ID,.. "
      "--ssid ID,.. --kind log|event|message|other|bad --since TIME --until TIME (UTC)" },
    { "completion", "bash", "print a bash completion script: eval \"$(tovakctl completion bash)\"" },
    { "help", "[SUBCOMMAND]", "all subcommands, or one in full" },
};

// Help by task: a subcommand's group, an example, when its change takes
// effect and whether it survives a restart of tovakd (null: it changes
// nothing). A local subcommand (one that reads files and contacts no
// daemon) is one more row, in the group "reading logs".
struct Guide {
    const char* word;
    const char* group;
    const char* example;
    const char* effect;
    const char* lasts;
};
const char* const groups[] = { "logging", "items",       "modem log",    "capture", "configuration",
                               "device",  "diagnostics", "reading logs", "help" };
#define SAVED "yes: saved in dm.cfg at once"
#define NEXT_LOG_ON "saved at once; reaches the modem at the next log on (while logging is on: log-off, then log-on)"
// clang-format off
const Guide guides[] = {
    { "status",          "logging",       "tovakctl status",                 nullptr, nullptr },
    { "log-on",          "logging",       "tovakctl log-on",                 "at once: the modem gets dm.cfg's items (a second log on sends nothing)", "yes: logging comes on again after a restart" },
    { "log-off",         "logging",       "tovakctl log-off",                "at once: the modem's masks are cleared; no file is written", "yes: logging stays off after a restart" },
    { "state",           "logging",       "tovakctl state",                  nullptr, nullptr },
    { "add-event",       "items",         "tovakctl add-event 1609",         NEXT_LOG_ON, SAVED },
    { "rm-event",        "items",         "tovakctl rm-event 1609",          NEXT_LOG_ON, SAVED },
    { "events",          "items",         "tovakctl events",                 nullptr, nullptr },
    { "add-log",         "items",         "tovakctl add-log 0xb0c0",         NEXT_LOG_ON, SAVED },
    { "rm-log",          "items",         "tovakctl rm-log b0c0",            NEXT_LOG_ON, SAVED },
    { "logs",            "items",         "tovakctl logs",                   nullptr, nullptr },
    { "add-msg",         "items",         "tovakctl add-msg 5 3 4     (or: add-msg 5 --mask 18)", NEXT_LOG_ON, SAVED },
    { "rm-msg",          "items",         "tovakctl rm-msg 5",               NEXT_LOG_ON, SAVED },
    { "msgs",            "items",         "tovakctl msgs",                   nullptr, nullptr },
    { "commit",          "modem log",     "tovakctl commit",                 "at once: the modem log so far goes to a file in the output directory", nullptr },
    { "log-size",        "modem log",     "tovakctl log-size 50000000",      "at once (logging must be off); the platform may adjust the size", "yes: dm.cfg keeps the size asked, and the platform adjusts it again at each start" },
    { "buffer-size",     "modem log",     "tovakctl buffer-size",            nullptr, nullptr },
    { "out-path",        "modem log",     "tovakctl out-path /sdcard/logs/dm", "modem logs go to PATH from the next commit on; capture files go beside it for the next capture commit only, then to /sdcard/syslog again", "no: after a restart the platform's default applies again" },
    { "range",           "modem log",     "tovakctl range",                  nullptr, nullptr },
    { "capture",         "capture",       "tovakctl capture on",             "at once", "yes: saved in dm.cfg at once" },
    { "capture-state",   "capture",       "tovakctl capture-state",          nullptr, nullptr },
    { "capture-commit",  "capture",       "tovakctl capture-commit",         "at once (capture must be on): one file per category in /sdcard/syslog, or beside an output path set since the last capture commit", nullptr },
    { "categories",      "capture",       "tovakctl categories",             nullptr, nullptr },
    { "category-add",    "capture",       "tovakctl category-add events",    "at once", "no, unless tovakctl categories-save follows" },
    { "category-rm",     "capture",       "tovakctl category-rm system",     "at once", "no, unless tovakctl categories-save follows" },
    { "categories-save", "capture",       "tovakctl categories-save",        "at once", "yes: the categories on now are saved in dm.cfg" },
    { "category-names",  "capture",       "tovakctl category-names",         nullptr, nullptr },
    { "capture-size",    "capture",       "tovakctl capture-size main 2000000", "at once (capture must be off), kept within the limits", "yes: dm.cfg keeps the size asked, and the limits apply again at each start" },
    { "capture-limits",  "capture",       "tovakctl capture-limits",         nullptr, nullptr },
    { "set-config-file", "configuration", "tovakctl set-config-file /sdcard/dm.cfg", "for later saves and log ons", "the name does, but at start-up tovakd reads /data/media/0/dm.cfg" },
    { "config-file",     "configuration", "tovakctl config-file",            nullptr, nullptr },
    { "autosave",        "device",        "tovakctl autosave on",            "at once", "yes: a persistent property" },
    { "msisdn",          "device",        "tovakctl msisdn 0101234567",      "for later saves of modem data", "no: kept in memory only" },
    { "save-modem-data", "device",        "tovakctl save-modem-data statistics", "at once", nullptr },
    { "dpl",             "device",        "tovakctl dpl on",                 "at once", SAVED },
    { "dpl-state",       "device",        "tovakctl dpl-state",              nullptr, nullptr },
    { "dpl-ifaces",      "device",        "tovakctl dpl-ifaces",             nullptr, nullptr },
    { "dpl-list",        "device",        "tovakctl dpl-list",               nullptr, nullptr },
    { "dpl-add",         "device",        "tovakctl dpl-add 1",              "at once", SAVED },
    { "dpl-reset",       "device",        "tovakctl dpl-reset",              "at once", SAVED },
    { "system",          "diagnostics",   "tovakctl system \"@@#ps\"",       "at once; its output is in tovakd's log", nullptr },
    { "raw",             "diagnostics",   "tovakctl raw 0x0f",               nullptr, nullptr },
    { "log-read",        "reading logs",  "tovakctl log-read --summary device/data/media/0/diag_logs/*.qmdl", nullptr, nullptr },
    { "help",            "help",          "tovakctl help add-msg",           nullptr, nullptr },
    { "completion",      "help",          "eval \"$(tovakctl completion bash)\"", nullptr, nullptr },
};
// clang-format on

const Guide* guide_of(const std::string& word)
{
    for (const Guide& g : guides)
        if (word == g.word)
            return &g;
    return nullptr;
}

// What the subcommand's arguments are written as.
std::string argument_notes(const TovakCommand& row)
{
    std::string notes;
    for (TovakField f : row.fields) {
        if (f == TovakField::u16)
            notes += "  Numbers: decimal, or hex with 0x (0x5dc), 0 to 65535.\n";
        else if (f == TovakField::hex16)
            notes += "  Log codes: hex, 0x optional (b0c0 or 0xB0C0).\n";
        else if (f == TovakField::levels)
            notes += "  LEVEL: 0 to 31, bit n of the mask is level n; --mask M gives the whole mask in hex, 0x "
                     "optional, as msgs prints it.\n";
        else if (f == TovakField::category)
            notes += "  CATEGORY: main, radio, events, system, or its number (0 to 3).\n";
    }
    return notes;
}

const Extra* extra_named(const std::string& word)
{
    for (const Extra& e : extras)
        if (word == e.name)
            return &e;
    return nullptr;
}

std::string form(const std::string& name, const std::string& syntax)
{
    return "tovakctl " + name + (syntax.empty() ? "" : " " + syntax);
}

} // namespace

std::string ctl_hex_id(uint32_t id)
{
    char buf[16];
    snprintf(buf, sizeof buf, "0x%02" PRIx32, id);
    return buf;
}

std::string ctl_first_word(const std::string& name)
{
    return name.substr(0, name.find(' '));
}

std::vector<const TovakCommand*> ctl_rows_named(const std::string& word)
{
    std::vector<const TovakCommand*> rows;
    for (size_t i = 0; i < tovak_command_count; i++)
        if (ctl_first_word(tovak_commands[i].name) == word)
            rows.push_back(&tovak_commands[i]);
    return rows;
}

bool ctl_is_extra(const std::string& word)
{
    return extra_named(word) != nullptr;
}

std::vector<std::string> ctl_subcommand_names()
{
    std::vector<std::string> names;
    for (size_t i = 0; i < tovak_command_count; i++)
        if (std::find(names.begin(), names.end(), ctl_first_word(tovak_commands[i].name)) == names.end())
            names.push_back(ctl_first_word(tovak_commands[i].name));
    for (const Extra& e : extras)
        names.push_back(e.name);
    return names;
}

// Edits between two words, a swap of neighbours counting one.
static size_t distance(const std::string& a, const std::string& b)
{
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); i++)
        for (size_t j = 0; j <= b.size(); j++) {
            if (i == 0 || j == 0) {
                d[i][j] = i + j;
                continue;
            }
            d[i][j] = std::min({ d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (a[i - 1] != b[j - 1]) });
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    return d[a.size()][b.size()];
}

std::vector<std::string> ctl_nearest(const std::string& word, const std::vector<std::string>& names)
{
    size_t best = word.size() < 4 ? 1 : 2;
    std::vector<std::string> near;
    for (const std::string& n : names) {
        size_t dist = n.compare(0, word.size(), word) == 0 && word.size() >= 3 ? 1 : distance(word, n);
        if (dist < best)
            near.clear();
        if (dist <= best && near.size() < 3 && std::find(near.begin(), near.end(), n) == near.end()) {
            near.push_back(n);
            best = dist;
        }
    }
    return near;
}

std::string ctl_usage_of(const std::string& word)
{
    std::string text;
    for (const TovakCommand* row : ctl_rows_named(word))
        text += (text.empty() ? "usage: " : "       ") + form(row->name, row->syntax) + "\n";
    if (const Extra* e = extra_named(word))
        text += "usage: " + form(e->name, e->syntax) + "\n";
    return text;
}

const char* ctl_group_of(const std::string& word)
{
    const Guide* g = guide_of(word);
    return g ? g->group : nullptr;
}

std::string ctl_overall_help()
{
    std::ostringstream s;
    s << "usage: tovakctl [OPTIONS] SUBCOMMAND [ARGS] [OPTIONS]\n"
         "       tovakctl SUBCOMMAND --help      (or: tovakctl help SUBCOMMAND)\n"
         "\n"
         "Options, before or after the subcommand (--opt VALUE or --opt=VALUE):\n"
         "  -r, --root ROOT       a simulated device at ROOT (environment: TOVAK_ROOT)\n"
         "  -s, --socket PATH     tovakd's socket (environment: TOVAK_SOCKET; default " TOVAK_SOCKET_PATH ")\n"
         "  -j, --json            one JSON object on standard output\n"
         "  -t, --timeout SECONDS bounds connecting, sending and each reply (default 60)\n"
         "  --version, --help\n"
         "Numbers are decimal or 0x hex; log codes and masks are hex, 0x optional.\n"
         "Exit status: 0 done (or the reply cannot tell), 1 refused or failed, 2 bad usage, 3 timed out or\n"
         "tovakd vanished, 130 interrupted.\n";
    for (const char* group : groups) {
        std::string lines;
        for (const Guide& g : guides) {
            if (std::string(g.group) != group)
                continue;
            for (const TovakCommand* row : ctl_rows_named(g.word)) {
                std::string use = form(row->name, row->syntax).substr(9);
                lines += "  " + use + std::string(use.size() < 34 ? 34 - use.size() : 1, ' ') + row->help + "\n";
            }
            if (const Extra* e = extra_named(g.word)) {
                // A long form gets a line of its own; the help, up to its
                // details, the next.
                std::string use = form(e->name, e->syntax).substr(9), help = e->help;
                lines += "  " + use +
                         (use.size() < 34 ? std::string(34 - use.size(), ' ') : "\n" + std::string(36, ' ')) +
                         help.substr(0, help.find(';')) + "\n";
            }
        }
        if (!lines.empty())
            s << "\n" << group << ":\n" << lines;
    }
    s << "\nExamples:\n"
         "  tovakctl -r device status             the settings at a glance, and what looks wrong\n"
         "  tovakctl add-event 1609 -r device     saved now; the modem gets it at the next log on\n"
         "  tovakctl log-off; tovakctl log-on     apply edits made while logging was on\n"
         "  tovakctl commit                       write the modem log to a file, and name it\n";
    return s.str();
}

std::string ctl_subcommand_help(const std::string& word)
{
    std::string text = ctl_usage_of(word);
    const Guide* g = guide_of(word);
    for (const TovakCommand* row : ctl_rows_named(word)) {
        std::string help = row->help;
        help[0] = char(toupper(help[0]));
        text += "\n" + (ctl_rows_named(word).size() > 1 ? form(row->name, row->syntax) + ": " : std::string()) + help +
                " (command " + ctl_hex_id(row->id) + ").\n" + argument_notes(*row);
        if (row->gate != tovak_gate::none)
            text += std::string("  Refused when tovakd's start-up of ") +
                    (row->gate == tovak_gate::logging ? "modem logging" : "Android log capture") + " failed" +
                    (row->refusal ? std::string(", and for ") + row->refusal : "") + ".\n";
        bool size = row->fields[0] == TovakField::size || row->fields[1] == TovakField::size;
        if (row->limit && row->fields[0] != TovakField::u32 && row->fields[0] != TovakField::category)
            text += "  At most " + std::to_string(row->limit) + (size ? " bytes.\n" : " characters.\n");
        if (row->waits)
            text += std::string("  It may wait for ") + row->waits + ".\n";
    }
    if (const Extra* e = extra_named(word)) {
        std::string help = e->help;
        help[0] = char(toupper(help[0]));
        text += "\n" + help + ".\n";
    }
    if (g && g->effect)
        text += std::string("Takes effect: ") + g->effect + ".\n";
    if (g && g->lasts)
        text += std::string("Survives a restart of tovakd: ") + g->lasts + ".\n";
    if (g)
        text += std::string("Example: ") + g->example + "\n";
    return text;
}

// A manual page in man(7) markup, from the same tables as --help.
std::string ctl_man_page()
{
    auto esc = [](std::string t) {
        std::string out;
        for (char ch : t)
            out += ch == '\\' ? "\\e" : ch == '-' ? "\\-" : std::string(1, ch);
        if (!out.empty() && (out[0] == '.' || out[0] == '\''))
            out = "\\&" + out;
        return out;
    };
    std::string m =
        ".TH TOVAKCTL 1 \"\" \"tovakctl " TOVAKCTL_VERSION "\" \"User Commands\"\n"
        ".SH NAME\ntovakctl \\- commands to the modem diagnostics daemon tovakd\n"
        ".SH SYNOPSIS\n.B tovakctl\n[\\fIOPTIONS\\fR] \\fISUBCOMMAND\\fR [\\fIARGS\\fR]\n"
        ".SH DESCRIPTION\n"
        "tovakctl sends one command to tovakd and says what the phone did: whether an edit reaches the "
        "modem now or at the next log on, which files a commit wrote, what lasts until a restart.\n"
        ".SH OPTIONS\n"
        ".TP\n\\fB\\-r\\fR, \\fB\\-\\-root\\fR \\fIROOT\\fR\na simulated device at ROOT (environment: TOVAK_ROOT)\n"
        ".TP\n\\fB\\-s\\fR, \\fB\\-\\-socket\\fR \\fIPATH\\fR\ntovakd's socket (environment: TOVAK_SOCKET)\n"
        ".TP\n\\fB\\-j\\fR, \\fB\\-\\-json\\fR\none JSON object on standard output\n"
        ".TP\n\\fB\\-t\\fR, \\fB\\-\\-timeout\\fR \\fISECONDS\\fR\nbounds connecting, sending and each reply\n";
    for (const char* group : groups) {
        std::string part;
        for (const Guide& g : guides) {
            if (std::string(g.group) != group)
                continue;
            std::string help = ctl_subcommand_help(g.word);
            // The usage lines end at the first blank line; the forms say them.
            std::string body =
                help.substr(help.find("\n\n") == std::string::npos ? help.size() : help.find("\n\n") + 2);
            // The first form is the tag; any others open the body.
            std::istringstream forms(ctl_usage_of(g.word));
            std::string tag = ".TP\n";
            for (std::string form; std::getline(forms, form);)
                part += tag + ".B " + esc(form.substr(form.find("tovakctl ") + 9)) + "\n", tag = ".br\n";
            if (tag == ".br\n" && ctl_rows_named(g.word).size() > 1)
                part += ".br\n";
            std::istringstream lines(body);
            for (std::string line; std::getline(lines, line);)
                if (!line.empty())
                    part += esc(line.substr(
                                line.find_first_not_of(' ') == std::string::npos ? 0 : line.find_first_not_of(' '))) +
                            "\n.br\n";
        }
        if (!part.empty()) {
            std::string title = group;
            for (char& ch : title)
                ch = char(toupper(ch));
            m += ".SH " + title + "\n" + part;
        }
    }
    m += ".SH EXIT STATUS\n0 done (or the reply cannot tell), 1 refused or failed, 2 bad usage, 3 timed out, 130 "
         "interrupted.\n.SH SEE ALSO\n.BR tovak\\-sim (1)\n";
    return m;
}

std::vector<std::string> ctl_completion_values(const CtlOptions& opt, const std::string& word)
{
    std::vector<std::string> values;
    if (word == "category-add" || word == "category-rm" || word == "capture-size")
        values.assign(std::begin(tovak_capture_category_names), std::end(tovak_capture_category_names));
    else if (word == "help")
        values = ctl_subcommand_names();
    else if (word == "completion")
        values = { "bash", "zsh" };
    for (const TovakCommand* row : ctl_rows_named(word)) {
        if (std::string(row->name) != word)
            values.push_back(std::string(row->name).substr(word.size() + 1));
        if (row->fields[0] == TovakField::on_off)
            values.insert(values.end(), { "on", "off" });
        if (row->fields[0] == TovakField::kind)
            values.insert(values.end(), { "phantom", "statistics" });
    }
    // The ids the remove commands can take: what dm.cfg holds.
    const char* tag = word == "rm-event" ? "EventIDs"
                      : word == "rm-log" ? "LogCodes"
                      : word == "rm-msg" ? "MessageLevels"
                                         : nullptr;
    std::string file = tag ? ctl_device_file(opt, "/sdcard/dm.cfg") : "";
    std::istringstream items(file.empty() ? "" : ctl_config_element(file, tag));
    for (std::string item; std::getline(items, item, ',');) {
        if (word == "rm-msg")
            item = item.substr(0, item.find('/'));
        if (word != "rm-log")
            item.erase(0, std::min(item.find_first_not_of('0'), item.size() - 1));
        if (!item.empty() && std::find(values.begin(), values.end(), item) == values.end())
            values.push_back(item);
    }
    return values;
}

// Subcommands, and the values of their first argument (asked of tovakctl
// itself, which reads dm.cfg but never asks tovakd).
std::string ctl_completion_bash()
{
    std::string names;
    for (const std::string& n : ctl_subcommand_names())
        names += n + " ";
    return "# eval \"$(tovakctl completion bash)\"\n"
           "_tovakctl() {\n"
           "    local cur=${COMP_WORDS[COMP_CWORD]} sub= n=0 i words= opts=()\n"
           "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
           "        case ${COMP_WORDS[i]} in\n"
           "        --socket | --root | --timeout | -s | -r | -t) opts+=(\"${COMP_WORDS[i]}\" \"${COMP_WORDS[i+1]}\"); "
           "((i++)) ;;\n"
           "        -*) ;;\n"
           "        *) if [ -z \"$sub\" ]; then sub=${COMP_WORDS[i]}; else ((n++)); fi ;; esac\n"
           "    done\n"
           "    case ${COMP_WORDS[COMP_CWORD-1]} in\n"
           "    --root | -r) COMPREPLY=($(compgen -d -- \"$cur\")); return ;;\n"
           "    --socket | -s) COMPREPLY=($(compgen -f -- \"$cur\")); return ;;\n"
           "    --timeout | -t) return ;; esac\n"
           "    if [ -z \"$sub\" ]; then\n"
           "        words=\"" +
           names +
           "--socket --root --json --timeout --help --version\"\n"
           "    elif [ \"$sub\" = log-read ]; then\n"
           "        case $cur in\n"
           "        -*) words=\"--summary --config --pcap --json --code --event --ssid --kind --since --until --help\" "
           ";;\n"
           "        *) COMPREPLY=($(compgen -f -- \"$cur\")); return ;; esac\n"
           "    elif [ $n -eq 0 ]; then\n"
           "        case $sub in\n"
           "        out-path | set-config-file) COMPREPLY=($(compgen -f -- \"$cur\")); return ;;\n"
           "        *) words=\"$(\"${COMP_WORDS[0]}\" \"${opts[@]}\" completion values \"$sub\" 2>/dev/null) --help\" "
           ";; esac\n"
           "    else\n"
           "        words=\"--help --json\"\n"
           "    fi\n"
           "    COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
           "}\n"
           "complete -F _tovakctl tovakctl\n";
}
