// Host Android log: one logcat-style line on stderr.
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "platform/android_log.h"

static char priority_letter(int prio)
{
    static const char letters[] = "??VDIWEFS";
    return prio >= 0 && prio <= ANDROID_LOG_SILENT ? letters[prio] : '?';
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...)
{
    char msg[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(msg, sizeof msg, fmt, ap);
    va_end(ap);
    if (n < 0)
        return 0;
    size_t len = size_t(n) < sizeof msg ? size_t(n) : sizeof msg - 1;
    while (len > 0 && msg[len - 1] == '\n')
        msg[--len] = '\0';
    fprintf(stderr, "%c/%s(%d): %s\n", priority_letter(prio), tag ? tag : "", int(getpid()), msg);
    return int(len);
}
