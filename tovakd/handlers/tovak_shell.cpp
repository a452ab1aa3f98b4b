#include "handlers/tovak_shell.h"

#include <cstdio>
#include <cstdlib>

#include "daemon/tovak_log.h"
#include "handlers/tovak_system_cmd.h"

#define LOG_MODULE "tovak_handler"

int tovak_shell_run(const char* command)
{
    fflush(nullptr);
    return system(command);
}

int tovak_shell_kill(const char* name)
{
    int pid = getProcessID(name);
    TLOG("pid = %d\n", pid);
    if (pid == 0)
        return -1;
    char kill_command[32];
    snprintf(kill_command, sizeof kill_command, "kill %d", pid);
    fflush(nullptr);
    return system(kill_command);
}
