// The daemon's log lines: each goes to the Android log as it is, and to
// stdout as "%d: " with the source line, then the message ending in exactly
// one newline, in one write. A file that logs defines LOG_MODULE, the source
// name its ERR lines carry.
#pragma once

#define TOVAK_LOG_TAG "TOVAK"

void tovak_log_line(int line, const char* tag, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
// "%s ERR >> %d\n" three ways; then, for whoever maintains the daemon, what
// failed and err's text (none for 0) as tovak_log_cause does: the module
// names in the ERR lines are shared by many files and say no cause.
void tovak_log_err(const char* module, const char* file, int line, const char* what, int err);

// Why a call failed, for whoever maintains the daemon: one line on stderr,
// "tovakd: FILE:LINE: WHAT: the error's text (errno N)", or without the
// error part for err 0. Not in the log lines, which stay as they are.
void tovak_log_cause(const char* file, int line, const char* what, int err);

#define TLOG(...) tovak_log_line(__LINE__, TOVAK_LOG_TAG, __VA_ARGS__)
#define TLOG_TAG(tag, ...) tovak_log_line(__LINE__, (tag), __VA_ARGS__)
#define TLOG_ERR(what) tovak_log_err(LOG_MODULE, __FILE__, __LINE__, (what), 0)
#define TLOG_ERR_ERRNO(what, err) tovak_log_err(LOG_MODULE, __FILE__, __LINE__, (what), (err))
#define TLOG_CAUSE(what, err) tovak_log_cause(__FILE__, __LINE__, (what), (err))
