#include "common/tovak_log.h"

#include <unistd.h>

#include <android/log.h>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "common/tovak_file.h"

// The longest message kept; a longer one is cut.
#define TOVAK_LOG_MESSAGE_MAX 1024
// Room for "%d: " of any line number.
#define TOVAK_LOG_PREFIX_MAX 16

void tovak_log_line(int line, const char* tag, const char* fmt, ...)
{
    // The stdout line as one piece: "%d: ", the message, then one newline
    // whether or not the message ends in one.
    char out[TOVAK_LOG_PREFIX_MAX + TOVAK_LOG_MESSAGE_MAX + 1];
    const int prefix = snprintf(out, TOVAK_LOG_PREFIX_MAX, "%d: ", line);
    char* msg = out + prefix;
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(msg, TOVAK_LOG_MESSAGE_MAX, fmt, ap);
    va_end(ap);
    size_t len = n < 0 ? 0 : size_t(n) < TOVAK_LOG_MESSAGE_MAX ? size_t(n) : TOVAK_LOG_MESSAGE_MAX - 1;
    msg[len] = '\0';

    __android_log_print(ANDROID_LOG_DEBUG, tag, "%s", msg);
    if (len == 0 || msg[len - 1] != '\n')
        msg[len++] = '\n';
    // One write and no lock: a pipe takes a line this short whole, so lines
    // of concurrent sessions never interleave and none waits for another.
    tovak_write_all(STDOUT_FILENO, out, size_t(prefix) + len);
}

void tovak_log_err(const char* module, const char* file, int line, const char* what, int err)
{
    tovak_log_line(line, TOVAK_LOG_TAG, "%s ERR >> %d\n", module, line);
    tovak_log_cause(file, line, what, err);
}

void tovak_log_cause(const char* file, int line, const char* what, int err)
{
    const char* slash = strrchr(file, '/');
    const char* name = slash != nullptr ? slash + 1 : file;
    char out[TOVAK_LOG_PREFIX_MAX + TOVAK_LOG_MESSAGE_MAX];
    int n;
    if (err != 0)
        n = snprintf(out, sizeof out, "tovakd: %s:%d: %s: %s (errno %d)\n", name, line, what, strerror(err), err);
    else
        n = snprintf(out, sizeof out, "tovakd: %s:%d: %s\n", name, line, what);
    if (n > 0)
        tovak_write_all(STDERR_FILENO, out, size_t(n) < sizeof out ? size_t(n) : sizeof out - 1);
}
