// tovakctl: the table of subcommands and the driver behind the program.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tovak_cmd_codec.h"

#define CTL_EXIT_OK 0
// Refused, unexpected reply, session closed, daemon unreachable.
#define CTL_EXIT_FAILED 1
#define CTL_EXIT_USAGE 2

// The row of `raw`: the id comes from the arguments.
#define CTL_ANY_ID UINT32_MAX

// What one call shows: lines for people and fields for --json.
struct CtlReport {
    std::string text;
    nlohmann::ordered_json fields = nlohmann::ordered_json::object();
};

using CtlArgs = std::vector<std::string>;

struct CtlCommand {
    const char* name;
    // A first argument that picks this row among rows of the same name, or null.
    const char* word;
    const char* syntax;
    // Argument count, word included.
    int min_args;
    int max_args;
    uint32_t id;
    const char* summary;
    // Fills the request from the arguments (those after the name); false with
    // the reason in *why on bad usage.
    bool (*build)(const CtlArgs& args, tovak_pkt* req, std::string* why);
    // Reads the reply to req.
    TovakShown (*show)(const tovak_pkt& req, const tovak_pkt& rsp, CtlReport* report);
    // Printed after a refusal, or null: what usually makes the daemon refuse.
    const char* refusal_hint;
};

extern const CtlCommand ctl_commands[];
extern const size_t ctl_command_count;

// The row for a command line (name first, then its arguments); null with the
// reason in *why when there is none.
const CtlCommand* ctl_find(const CtlArgs& words, std::string* why);

// The --help text.
std::string ctl_usage();

// A whole number: decimal (leading zeros allowed) or 0x-prefixed hex; with
// hex_only, hex with or without the prefix. False when not a number or above max.
bool ctl_parse_number(const std::string& text, uint64_t max, bool hex_only, uint64_t* out);

// tovakctl with its arguments (program name excluded); returns the exit status.
int tovakctl_main(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
