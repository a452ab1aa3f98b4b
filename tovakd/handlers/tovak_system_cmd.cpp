// Command 0x13: the whitelisted shell diagnostics.
#include <cstdint>
#include <cstring>

#include "common/tovak_cmd.h"
#include "common/tovak_log.h"
#include "handlers/tovak_handler.h"
#include "handlers/tovak_shell.h"
#include "protocol/tovak_layouts.h"

#define LOG_MODULE "tovak_handler"

#define SYSTEM_COMMAND_MARKER_LEN 3 // "@@#"
#define KILLALL_PREFIX "@@#+=killall"
#define KILLALL_PREFIX_LEN 12
// The logged text of a kill starts at "killall".
#define KILLALL_LOGGED_FROM 5

// The prefix is the only restriction on what runs; anything may follow it.
static const char* const SYSTEM_COMMAND_WHITELIST[] = {
    "@@#bugreport", "@@#cat",     "@@#ps",        "@@#vmstat",    "@@#top",   "@@#procrank",  "@@#librank",
    "@@#netcfg",    "@@#netstat", "@@#ifconfig",  "@@#tcpdump",   "@@#iftop", "@@#route",     "@@#setprop",
    "@@#getprop",   "@@#dumpsys", "@@#dumpstate", "@@#dumpcrash", "@@#kill",  "@@#+=killall",
};
static_assert(sizeof SYSTEM_COMMAND_WHITELIST / sizeof *SYSTEM_COMMAND_WHITELIST == 20, "twenty prefixes");

static bool allowed(const char* text)
{
    for (const char* prefix : SYSTEM_COMMAND_WHITELIST) {
        if (strncmp(text, prefix, strlen(prefix)) == 0)
            return true;
    }
    return false;
}

uint32_t handler_system_command(uint32_t req_len, uint8_t* req, uint32_t*, uint8_t*)
{
    tovak_request in(req, req_len);
    const int16_t n = int16_t(in.u16());
    if (n > TOVAK_SYSTEM_TEXT_COUNT_MAX) {
        TLOG_ERR("shell diagnostic text too long");
        return 0;
    }
    // Cleared so that a text without its zero byte still ends in the buffer;
    // a negative count is refused by the reader and copies nothing.
    char text[TOVAK_SYSTEM_TEXT_COUNT_MAX + 1] = {};
    in.bytes(text, uint32_t(int32_t(n)));

    if (!allowed(text)) {
        TLOG("System command %s is not allowed\n", text);
        return 1;
    }
    int result;
    if (strncmp(text, KILLALL_PREFIX, KILLALL_PREFIX_LEN) != 0) {
        TLOG("System command = %d, %s\n", int(n), text + SYSTEM_COMMAND_MARKER_LEN);
        result = tovak_shell_run(text + SYSTEM_COMMAND_MARKER_LEN);
    } else {
        // The name follows the prefix and one separator.
        TLOG("System command = %d, %s\n", int(n), text + KILLALL_LOGGED_FROM);
        result = tovak_shell_kill(text + KILLALL_PREFIX_LEN + 1);
    }
    TLOG("Result of system command = %d\n", result);
    return 1;
}
