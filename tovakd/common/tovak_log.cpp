#include "common/tovak_log.h"

#include <cstdarg>
#include <cstdio>

#include "platform/android_log.h"

void tovak_log_line(int line, const char* tag, const char* fmt, ...)
{
    char msg[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(msg, sizeof msg, fmt, ap);
    va_end(ap);

    // Keep the two stdout halves of one line together across client threads.
    flockfile(stdout);
    printf("%d: ", line);
    __android_log_print(ANDROID_LOG_DEBUG, tag, "%s", msg);
    fputs(msg, stdout);
    // Some messages carry no newline; they must not wait for the next one.
    fflush(stdout);
    funlockfile(stdout);
}

void tovak_log_err(const char* module, int line)
{
    tovak_log_line(line, TOVAK_LOG_TAG, "%s ERR >> %d\n", module, line);
}
