// Where command 0x13 reaches outside the daemon: the shell and the killing
// of a process. A file of their own, so that a build which must never run
// either (fuzzing) links a recording stand-in instead.
#pragma once

// Runs command with the shell and waits for it; what system() returns.
int tovak_shell_run(const char* command);

// Kills the first process whose executable path contains name; the kill's
// result, or -1 when there is none.
int tovak_shell_kill(const char* name);
