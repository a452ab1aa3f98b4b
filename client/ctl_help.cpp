// tovakctl's help, usage lines and bash completion, all made from the
// command table and tovakctl's own few subcommands.
#include <algorithm>
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
    { "raw", "ID [HEX]", "send any frame (payload in hex); prints the reply's length and payload" },
    { "completion", "bash", "print a bash completion script: eval \"$(tovakctl completion bash)\"" },
    { "help", "[SUBCOMMAND]", "all subcommands, or one in full" },
};

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

std::string ctl_overall_help()
{
    std::ostringstream s;
    s << "usage: tovakctl [--socket PATH | --root ROOT] [--json] [--timeout SECONDS] SUBCOMMAND [ARGS]\n"
         "       tovakctl SUBCOMMAND --help\n"
         "\n"
         "Talks to tovakd over " TOVAK_SOCKET_PATH "; --root ROOT talks to the simulated device at ROOT.\n"
         "--json prints one JSON object; --timeout bounds connecting, sending and each reply (default 60 s).\n"
         "Numbers are decimal or 0x-prefixed hex; log codes are always hex.\n"
         "Exit status: 0 done (or the reply cannot tell), 1 refused or failed, 2 bad usage, 3 timed out.\n\n";
    auto line = [&](const std::string& id, const std::string& use, const char* help) {
        s << "  " << id << std::string(6 - id.size(), ' ') << use
          << std::string(use.size() < 40 ? 40 - use.size() : 1, ' ') << help << "\n";
    };
    for (size_t i = 0; i < tovak_command_count; i++) {
        const TovakCommand& row = tovak_commands[i];
        line(ctl_hex_id(row.id), form(row.name, row.syntax).substr(9), row.help);
    }
    for (const Extra& e : extras)
        line("", form(e.name, e.syntax).substr(9), e.help);
    return s.str();
}

std::string ctl_subcommand_help(const std::string& word)
{
    std::string text = ctl_usage_of(word);
    for (const TovakCommand* row : ctl_rows_named(word)) {
        text.append("\n").append(form(row->name, row->syntax)) += "  (command " + ctl_hex_id(row->id) + ")\n  " + row->help + ".\n";
        if (row->gate != TovakGate::none)
            text += std::string("  Refused when tovakd's start-up of ") +
                    (row->gate == TovakGate::logging ? "modem logging" : "Android log capture") + " failed" +
                    (row->refusal ? std::string(", and for ") + row->refusal : "") + ".\n";
        bool size = row->fields[0] == TovakField::size || row->fields[1] == TovakField::size;
        if (row->limit && row->fields[0] != TovakField::u32)
            text += "  At most " + std::to_string(row->limit) + (size ? " bytes.\n" : " characters.\n");
        if (row->waits)
            text += std::string("  It may wait for ") + row->waits + ".\n";
    }
    if (const Extra* e = extra_named(word))
        text += std::string("\n  ") + e->help + ".\n";
    return text;
}

// Subcommands, and the words each takes first.
std::string ctl_completion_bash()
{
    std::string names, cases;
    std::set<std::string> seen;
    for (size_t i = 0; i < tovak_command_count; i++) {
        std::string word = ctl_first_word(tovak_commands[i].name), choices;
        if (!seen.insert(word).second)
            continue;
        names += word + " ";
        for (const TovakCommand* row : ctl_rows_named(word)) {
            choices += row->name == word ? "" : std::string(row->name).substr(word.size() + 1) + " ";
            choices += row->fields[0] == TovakField::on_off ? "on off " : "";
            choices += row->fields[0] == TovakField::kind ? "phantom statistics " : "";
        }
        cases += choices.empty() ? "" : "    " + word + ") words=\"" + choices + "\" ;;\n";
    }
    for (const Extra& e : extras)
        names += std::string(e.name) + " ";
    return "# eval \"$(tovakctl completion bash)\"\n"
           "_tovakctl() {\n"
           "    local cur=${COMP_WORDS[COMP_CWORD]} sub= n=0 i words=--help\n"
           "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
           "        case ${COMP_WORDS[i]} in --socket | --root | --timeout) ((i++)) ;; -*) ;;\n"
           "        *) if [ -z \"$sub\" ]; then sub=${COMP_WORDS[i]}; else ((n++)); fi ;; esac\n"
           "    done\n"
           "    case ${COMP_WORDS[COMP_CWORD-1]} in\n"
           "    --root) COMPREPLY=($(compgen -d -- \"$cur\")); return ;;\n"
           "    --socket) COMPREPLY=($(compgen -f -- \"$cur\")); return ;;\n"
           "    --timeout) return ;; esac\n"
           "    [ -z \"$sub\" ] && words=\"" + names + "--socket --root --json --timeout --help\"\n"
           "    [ -n \"$sub\" ] && [ $n -eq 0 ] && case $sub in\n" + cases +
           "    completion) words=bash ;; help) words=\"" + names + "\" ;; esac\n"
           "    COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
           "}\n"
           "complete -F _tovakctl tovakctl\n";
}

