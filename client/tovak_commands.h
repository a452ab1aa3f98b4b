// The client's one table of tovakd's commands. A row says how tovakctl reads
// the arguments, how the reply is read and shown when the daemon did or
// refused the command, and what to tell a person; the wire layout, the
// limits and the gate are the command's layout in protocol/tovak_layouts.h,
// which each row is checked against when it is compiled. The typed helpers
// of TovakClient, tovakctl's parsing, help, JSON output and completion are
// all made from it.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "protocol/tovak_cmd_ids.h"
#include "protocol/tovak_layouts.h"
#include "protocol/tovak_pkt.h"

// Replies carry no status word: a verdict is read from what the command
// left in the reply frame.
enum class TovakVerdict {
    done,       // the reply has the command's success shape
    refused,    // the reply has the command's refusal shape
    unknown,    // this command answers alike whether it worked or not
    unexpected, // no version of the command answers like this
};

// What one reply shows.
struct TovakShown {
    TovakVerdict verdict = TovakVerdict::unexpected;
    // Why the verdict is not plainly done, for people; empty when done.
    std::string note;
};

using TovakMsgEntry = tovak_wire_msg; // the daemon lists only the low 16 bits of a mask
using TovakDplIface = tovak_wire_dpl_iface;

struct TovakPair {
    uint32_t first = 0;
    uint32_t second = 0;
};

// The output of commands whose reply holds nothing.
struct TovakNone {};

// A decoded reply for people and for --json: text lines and ready-made JSON
// members (key, JSON text).
struct TovakReport {
    std::string text;
    std::vector<std::pair<std::string, std::string>> json;
};

// How one request field is read from tovakctl's words; it is written as its
// layout says (tovak_request_of).
enum class TovakField : uint8_t {
    none,
    u16,         // decimal or 0x hex
    hex16,       // hex, 0x optional (log codes)
    u32,         //
    size,        // u32 from 1 to the row's limit
    on_off,      // u32 1 or 0
    kind,        // u32: phantom 0, statistics 1
    levels,      // u32 mask: LEVEL... (bit n is level n) or --mask M (hex, 0x optional)
    category,    // u32: a number or a standard category's name
    out_path,    // the text and its zero byte; at most limit characters, fewer than 6 '/'
    text,        // u16 count, the text and its zero byte; at most limit characters
    device_path, // as text, naming a file on the device
};

// One argument of a typed helper.
struct TovakArg {
    int64_t num = 0;
    std::string text;
    TovakArg(int64_t n) : num(n) {}
    TovakArg(const std::string& s) : text(s) {}
    TovakArg(const char* s) : text(s) {}
};
using TovakArgs = std::vector<TovakArg>;

struct TovakCommand {
    uint32_t id;
    const char* name; // tovakctl's subcommand; a second word picks among rows of one name
    const char* syntax;
    TovakField fields[2];
    // Largest size or longest text the daemon takes, for size and text fields.
    uint64_t limit;
    // Which start-up flag the daemon tests before it does the command.
    tovak_gate gate;
    // JSON key of what the reply holds; two blank-separated keys for a pair.
    const char* key;
    // Decodes the reply into the report.
    TovakShown (*show)(const tovak_pkt& rsp, const char* key, TovakReport* report);
    // -1, or the logging state (command 0x10) the command leaves when it worked.
    int confirm;
    const char* help;
    // What makes the daemon refuse besides its start-up flag, or null.
    const char* refusal;
    // What the daemon may wait for before it answers, or null.
    const char* waits;
};

// Reply kinds: the layout they read, what a reply of it holds (Out), how it
// is read, how it is shown; confirm as in TovakCommand.
#define TOVAK_REPLY_KIND(kind, reply_layout, out_type, confirm_state)                  \
    struct TovakReply##kind {                                                          \
        static constexpr tovak_reply_layout layout = tovak_reply_layout::reply_layout; \
        using Out = out_type;                                                          \
        static constexpr int confirm = confirm_state;                                  \
        static TovakShown decode(const tovak_pkt& rsp, Out* out);                      \
        static void report(const Out& value, const char* key, TovakReport* rep);       \
    };
TOVAK_REPLY_KIND(Empty, empty, TovakNone, -1)
TOVAK_REPLY_KIND(NoReply, none, TovakNone, -1)
TOVAK_REPLY_KIND(Committed, empty, TovakNone, -1) // whether or not it committed
TOVAK_REPLY_KIND(LogOn, zero, TovakNone, 1)
TOVAK_REPLY_KIND(LogOff, zero, TovakNone, 0)
TOVAK_REPLY_KIND(Status, status, TovakNone, -1)
TOVAK_REPLY_KIND(LogSize, size, int32_t, -1)
TOVAK_REPLY_KIND(U32, u32, uint32_t, -1)
TOVAK_REPLY_KIND(Flag, u32, bool, -1) // 0 or 1
TOVAK_REPLY_KIND(Pair, pair, TovakPair, -1)
TOVAK_REPLY_KIND(Ids, ids, std::vector<uint16_t>, -1)
TOVAK_REPLY_KIND(HexIds, ids, std::vector<uint16_t>, -1)
TOVAK_REPLY_KIND(Msgs, msgs, std::vector<TovakMsgEntry>, -1)
TOVAK_REPLY_KIND(Path, counted_text, std::string, -1)
TOVAK_REPLY_KIND(Categories, u32s, std::vector<bool>, -1)
TOVAK_REPLY_KIND(Names, text, std::vector<std::string>, -1)
TOVAK_REPLY_KIND(DplIfaces, dpl_ifaces, std::vector<TovakDplIface>, -1)
TOVAK_REPLY_KIND(DplIds, counted_ids, std::vector<uint16_t>, -1)

// The request layout that a row's two fields make.
constexpr tovak_request_layout tovak_request_of(TovakField f1, TovakField f2)
{
    using F = TovakField;
    using L = tovak_request_layout;
    auto one = [](F f) {
        return f == F::none                          ? L::none
               : f == F::u16 || f == F::hex16        ? L::u16
               : f == F::out_path                    ? L::text
               : f == F::text || f == F::device_path ? L::counted_text
                                                     : L::u32;
    };
    if (f2 == F::none)
        return one(f1);
    return one(f1) == L::u16 && one(f2) == L::u32   ? L::u16_u32
           : one(f1) == L::u32 && one(f2) == L::u32 ? L::u32_u32
                                                    : L::none;
}

extern const TovakCommand tovak_commands[];
extern const size_t tovak_command_count;

// The row of a command id, or null.
const TovakCommand* tovak_command(uint32_t id);

// Words the command takes after its name (the name's second word not counted).
int tovak_min_words(const TovakCommand& row);
int tovak_max_words(const TovakCommand& row);

// tovakctl's words (after the name) into arguments; false with the reason.
bool tovak_parse_words(const TovakCommand& row, const std::vector<std::string>& words, TovakArgs* args,
                       std::string* why);
// The request frame for the arguments; false with the reason when they do
// not fit the fields or the daemon is known to refuse them.
bool tovak_encode(const TovakCommand& row, const TovakArgs& args, tovak_pkt* req, std::string* why);

// A whole number: decimal (leading zeros allowed) or 0x-prefixed hex; with
// hex_only, hex with or without the prefix. False when not a number or above max.
bool tovak_parse_number(const std::string& text, uint64_t max, bool hex_only, uint64_t* out);

// JSON texts for TovakReport members.
std::string tovak_json_string(const std::string& text);
std::string tovak_json_array(const std::vector<std::string>& items);
std::string tovak_json_object(const std::vector<std::pair<std::string, std::string>>& members);

// A request frame of the u16 count, the text and its zero byte, counted;
// false, leaving len 0, when the text is longer than the command takes.
bool tovak_req_counted_text(tovak_pkt* req, uint32_t cmd, const std::string& text);
// Any payload as it stands.
bool tovak_req_raw(tovak_pkt* req, uint32_t cmd, const std::vector<uint8_t>& payload);

// The typed helpers of TovakClient, one per row, in the row's words:
// X(id, method, name, syntax, field 1, field 2, reply kind, key, help, refusal, waits).
// Reply kinds are the Reply* types of tovak_commands.cpp; their Out is what
// the helper's last argument receives.
// clang-format off
#define TOVAK_COMMANDS(X) \
    X(CMD_LOG_ON,                   log_on,             "log-on",          "",                    none,        none,   LogOn,       "",            "switch modem diagnostic logging on", nullptr, \
      "boot completion (10 s when dev.bootcomplete is not 1), then the modem's answer to each mask request") \
    X(CMD_LOG_OFF,                  log_off,            "log-off",         "",                    none,        none,   LogOff,      "",            "switch modem diagnostic logging off", nullptr, \
      "the modem's answers to the requests that clear its masks") \
    X(CMD_LOG_SIZE,                 set_log_size,       "log-size",        "BYTES",               size,        none,   LogSize,     "size",        "set the modem log buffer size (logging must be off)", \
      "a size while modem logging runs: switch it off first (tovakctl log-off)", nullptr) \
    X(CMD_OUT_PATH,                 set_out_path,       "out-path",        "PATH",                out_path,    none,   Status,      "", "set the modem log output path (the next capture commit goes beside it)", \
      "a path the platform does not take (a relative one, say), or any path when Android log capture failed at tovakd's start-up (capture merely off is fine)", nullptr) \
    X(CMD_COMMIT_LOG,               commit_log,         "commit",          "",                    none,        none,   Empty,       "",            "commit the modem log to its file", nullptr, nullptr) \
    X(CMD_ADD_EVENT,                add_event,          "add-event",       "ID",                  u16,         none,   Empty,       "",            "add an event id", nullptr, nullptr) \
    X(CMD_RM_EVENT,                 rm_event,           "rm-event",        "ID",                  u16,         none,   Empty,       "",            "remove an event id", nullptr, nullptr) \
    X(CMD_GET_EVENTS,               get_events,         "events",          "",                    none,        none,   Ids,         "events",      "list the event ids", nullptr, nullptr) \
    X(CMD_ADD_LOG,                  add_log,            "add-log",         "CODE",                hex16,       none,   Empty,       "",            "add a log code (hex)", nullptr, nullptr) \
    X(CMD_RM_LOG,                   rm_log,             "rm-log",          "CODE",                hex16,       none,   Empty,       "",            "remove a log code (hex)", nullptr, nullptr) \
    X(CMD_GET_LOGS,                 get_logs,           "logs",            "",                    none,        none,   HexIds,      "log_codes",   "list the log codes", nullptr, nullptr) \
    X(CMD_ADD_MSG,                  add_msg,            "add-msg",         "SSID LEVEL...|--mask M", u16,      levels, Empty,       "",            "set a subsystem's message levels (replaces its mask)", nullptr, nullptr) \
    X(CMD_RM_MSG,                   rm_msg,             "rm-msg",          "SSID",                u16,         none,   Empty,       "",            "remove a subsystem's message entry", nullptr, nullptr) \
    X(CMD_GET_MSG,                  get_msgs,           "msgs",            "",                    none,        none,   Msgs,        "messages",    "list the message entries (low 16 bits of each mask)", nullptr, nullptr) \
    X(CMD_GET_BUFFER_SIZE,          get_buffer_size,    "buffer-size",     "",                    none,        none,   U32,         "buffer_size", "report the modem log buffer size in force", nullptr, nullptr) \
    X(CMD_GET_LOG_STATE,            get_log_state,      "state",           "",                    none,        none,   Flag,        "logging",     "report whether modem logging runs", nullptr, nullptr) \
    X(CMD_SET_CONFIG_FILE,          set_config_file,    "set-config-file", "PATH",                device_path, none,   NoReply,     "", "choose the configuration file for later saves and log-on", nullptr, nullptr) \
    X(CMD_GET_CONFIG_FILE,          get_config_file,    "config-file",     "",                    none,        none,   Path,        "path",        "report the configuration file", nullptr, nullptr) \
    X(CMD_SYSTEM_COMMAND,           run_system,         "system",          "TEXT",                text,        none,   NoReply,     "", "run a whitelisted shell diagnostic (\"@@#ps\"); its output is in tovakd's log", nullptr, \
      "the shell command to finish") \
    X(CMD_GET_RANGE,                get_range,          "range",           "",                    none,        none,   Pair,        "first second", "report the modem's range pair", nullptr, nullptr) \
    X(CMD_ADBLOG_ON,                capture_on,         "capture on",      "",                    none,        none,   Empty,       "",            "start Android log capture", nullptr, nullptr) \
    X(CMD_ADBLOG_OFF,               capture_off,        "capture off",     "",                    none,        none,   Empty,       "",            "stop Android log capture", nullptr, nullptr) \
    X(CMD_ADBLOG_COMMIT,            capture_commit,     "capture-commit",  "",                    none,        none,   Committed,   "",            "commit the captured Android logs (capture must be on)", nullptr, nullptr) \
    X(CMD_ADBLOG_GET_STATE,         get_capture_state,  "capture-state",   "",                    none,        none,   Flag,        "capture",     "report whether Android log capture runs", nullptr, nullptr) \
    X(CMD_ADBLOG_ADD_CATEGORY,      add_category,       "category-add",    "CATEGORY",            category,       none,   NoReply,     "",            "enable a capture category (until restart unless saved)", nullptr, nullptr) \
    X(CMD_ADBLOG_RM_CATEGORY,       rm_category,        "category-rm",     "CATEGORY",            category,       none,   NoReply,     "",            "disable a capture category (until restart unless saved)", nullptr, nullptr) \
    X(CMD_ADBLOG_GET_CATEGORIES,    get_categories,     "categories",      "",                    none,        none,   Categories,  "enabled",     "report every capture category's on/off", nullptr, nullptr) \
    X(CMD_ADBLOG_SET_CATEGORIES,    save_categories,    "categories-save", "",                    none,        none,   NoReply,     "",            "store the live category choice in the configuration", nullptr, nullptr) \
    X(CMD_ADBLOG_GET_CATEGORY_NAME, get_category_names, "category-names",  "",                    none,        none,   Names,          "names",       "report the capture category names", nullptr, nullptr) \
    X(CMD_ADBLOG_SET_SIZE,          set_capture_size,   "capture-size",    "CATEGORY BYTES",      category,    size,   NoReply,     "",            "set a category's capture size (capture must be off; kept within the limits)", nullptr, nullptr) \
    X(CMD_ADBLOG_GET_SIZE,          get_capture_size,   "capture-size",    "CATEGORY",            category,    none,   U32,         "size",        "report a category's capture size (0: no such category)", nullptr, nullptr) \
    X(CMD_ADBLOG_GET_SIZE_LIMITS,   get_capture_limits, "capture-limits",  "",                    none,        none,   Pair,        "min max",     "report the capture size limits", nullptr, nullptr) \
    X(CMD_SET_AUTOSAVE,             set_autosave,       "autosave",        "on|off",              on_off,      none,   Empty,       "",            "set the phantom autosave property", nullptr, nullptr) \
    X(CMD_SAVE_MODEM_DATA,          save_modem_data,    "save-modem-data", "phantom|statistics",  kind,        none,   Empty,       "",            "fetch modem data over QMI and save it", nullptr, \
      "the modem's data over QMI") \
    X(CMD_SET_MSISDN,               set_msisdn,         "msisdn",          "NUMBER",              text,        none,   Empty,       "", "store the subscriber number for saves of modem data", nullptr, nullptr) \
    X(CMD_GET_AUTOSAVE,             get_autosave,       "autosave",        "",                    none,        none,   U32,         "autosave",    "report the phantom autosave property (1 on, 0 off)", nullptr, nullptr) \
    X(CMD_DPL_SET_STATE,            set_dpl_state,      "dpl",             "on|off",              on_off,      none,   Empty,       "",            "switch DPL logging on or off", \
      "the state DPL is already in", nullptr) \
    X(CMD_DPL_GET_STATE,            get_dpl_state,      "dpl-state",       "",                    none,        none,   Flag,        "dpl",         "report the DPL state", nullptr, nullptr) \
    X(CMD_DPL_GET_ALL_IF_LIST,      get_dpl_all_ifaces, "dpl-ifaces",      "",                    none,        none,   DplIfaces,   "interfaces",  "list the modem's DPL interfaces with descriptions", nullptr, nullptr) \
    X(CMD_DPL_GET_IF_LIST,          get_dpl_ifaces,     "dpl-list",        "",                    none,        none,   DplIds,      "interfaces",  "list the configured DPL interfaces", nullptr, nullptr) \
    X(CMD_DPL_SET_IF,               add_dpl_iface,      "dpl-add",         "ID",                  u16,         none,   Empty,       "",            "add and start one DPL interface", nullptr, nullptr) \
    X(CMD_DPL_RESET,                reset_dpl,          "dpl-reset",       "",                    none,        none,   NoReply,     "",            "clear the DPL interfaces and stop DPL logging", nullptr, nullptr)
// clang-format on
