#include "handlers/tovak_system_cmd.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "protocol/byte_buffer.h"
#include "daemon/tovak_log.h"
#include "daemon/tovak_paths.h"
#include "handlers/tovak_handler.h"
#include "handlers/tovak_shell.h"

#define LOG_MODULE "tovak_handler"

#define SYSTEM_COMMAND_BUFFER_SIZE 200
#define SYSTEM_COMMAND_MARKER_LEN 3 // "@@#"
#define KILLALL_PREFIX "@@#+=killall"
#define KILLALL_PREFIX_LEN 12

// The prefix is the only restriction on what runs; anything may follow it.
const char* const SYSTEM_COMMAND_WHITELIST[SYSTEM_COMMAND_WHITELIST_SIZE] = {
    "@@#bugreport", "@@#cat",      "@@#ps",       "@@#vmstat",   "@@#top",
    "@@#procrank",  "@@#librank",  "@@#netcfg",   "@@#netstat",  "@@#ifconfig",
    "@@#tcpdump",   "@@#iftop",    "@@#route",    "@@#setprop",  "@@#getprop",
    "@@#dumpsys",   "@@#dumpstate", "@@#dumpcrash", "@@#kill",   "@@#+=killall",
};

int tovak_system_command_match(const char* text)
{
    for (int i = 0; i < SYSTEM_COMMAND_WHITELIST_SIZE; i++) {
        const char* prefix = SYSTEM_COMMAND_WHITELIST[i];
        if (strncmp(text, prefix, strlen(prefix)) == 0)
            return i;
    }
    return -1;
}

int getProcessID(const char* name)
{
    TLOG("killall process_name = %s\n", name);
    DIR* dir = opendir(TOVAK_PROC_DIR);
    if (dir == nullptr) {
        printf("getProcessID(%s) : id = 0 (could not find process)\n", name);
        return 0;
    }
    while (dirent* entry = readdir(dir)) {
        if (strspn(entry->d_name, "0123456789") != strlen(entry->d_name))
            continue;
        char proc_dir[40];
        char exe_path[252];
        char target[252];
        // Only all-digit names get here, so the bound never cuts one.
        snprintf(proc_dir, sizeof proc_dir, "%s%.20s/", TOVAK_PROC_DIR, entry->d_name);
        snprintf(exe_path, sizeof exe_path, "%sexe", proc_dir);
        ssize_t n = readlink(exe_path, target, sizeof target - 1);
        if (n < 1)
            continue;
        target[n] = '\0';
        if (strstr(target, name) != nullptr) {
            int id = atoi(entry->d_name);
            printf("getProcessID(%s) :Found. id = %d\n", name, id);
            closedir(dir);
            return id;
        }
    }
    closedir(dir);
    printf("getProcessID(%s) : id = 0 (could not find process)\n", name);
    return 0;
}

uint32_t handler_system_command(uint32_t req_len, uint8_t* req, uint32_t*, uint8_t* rsp)
{
    if (!tovak_handler_initialized || rsp == nullptr) {
        TLOG_ERR();
        return 0;
    }
    byte_buffer in;
    byte_buffer_init(&in, req, req_len);
    uint16_t n = 0;
    byte_buffer_read_u16(&in, &n);
    if (int16_t(n) > SYSTEM_COMMAND_BUFFER_SIZE - 1) {
        TLOG_ERR();
        return 0;
    }
    // Cleared so that a text without its zero byte still ends in the buffer.
    char text[SYSTEM_COMMAND_BUFFER_SIZE] = {};
    byte_buffer_read_bytes(&in, text, n);

    int match = tovak_system_command_match(text);
    if (match < 0) {
        TLOG("System command %s is not allowed\n", text);
        return 1;
    }
    int result;
    if (strncmp(text, KILLALL_PREFIX, KILLALL_PREFIX_LEN) != 0) {
        TLOG("System command = %d, %s\n", int(n), text + SYSTEM_COMMAND_MARKER_LEN);
        result = tovak_shell_run(text + SYSTEM_COMMAND_MARKER_LEN);
    } else {
        // Logged from "killall"; the name follows the prefix and one separator.
        TLOG("System command = %d, %s\n", int(n), text + 5);
        result = tovak_shell_kill(text + KILLALL_PREFIX_LEN + 1);
    }
    TLOG("Result of system command = %d\n", result);
    return 1;
}
