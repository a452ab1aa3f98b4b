#include "handlers/tovak_shell.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/tovak_log.h"
#include "common/tovak_paths.h"

#define KILL_COMMAND_SIZE 200

int tovak_shell_run(const char* command)
{
    // The child must not repeat what stdio still holds.
    fflush(nullptr);
    return system(command);
}

// Id of the first process under /proc whose executable path contains name,
// or 0. Its two lines go to stdout only.
static int getProcessID(const char* name)
{
    TLOG("killall process_name = %s\n", name);
    // opendir's descriptor is close-on-exec in bionic and glibc alike.
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

int tovak_shell_kill(const char* name)
{
    int pid = getProcessID(name);
    TLOG("pid = %d\n", pid);
    if (pid == 0)
        return -1;
    char command[KILL_COMMAND_SIZE] = {};
    snprintf(command, sizeof command, "kill %d", pid);
    return tovak_shell_run(command);
}
