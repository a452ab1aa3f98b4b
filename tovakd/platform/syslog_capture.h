// Capture-file library (libsyslog).
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct syslog_object;

typedef int (*syslog_commit_fn)(struct syslog_object* obj, const char* dir);
typedef int (*syslog_write_fn)(struct syslog_object* obj, const void* data, uint32_t len);

// The object begins with machine words; callers reach the commit operation
// through the third and the write operation through the fifth.
struct syslog_object_head {
    void* word0;
    void* word1;
    syslog_commit_fn commit;
    void* word3;
    syslog_write_fn write;
};

// Non-zero on success, *slot then holds the new object.
int syslog_create2(struct syslog_object** slot, int capacity, const char* name, int a, int b);
void syslog_destroy(struct syslog_object** obj);

#ifdef __cplusplus
}
#endif
