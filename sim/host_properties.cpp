#include "host_properties.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/properties.h"

static bool key_ok(const char* key)
{
    size_t n = key == nullptr ? 0 : strlen(key);
    // A key names a file of its own, so it may not leave the directory.
    return n > 0 && n < PROPERTY_KEY_MAX && strchr(key, '/') == nullptr && strcmp(key, ".") != 0 &&
           strcmp(key, "..") != 0;
}

int sim_property_get_in(const char* dir, const char* key, char* value, const char* default_value)
{
    char path[256];
    int fd = -1;
    if (key_ok(key)) {
        snprintf(path, sizeof path, "%s/%s", dir, key);
        fd = open(path, O_RDONLY | O_CLOEXEC);
    }
    if (fd >= 0) {
        ssize_t n = read(fd, value, PROPERTY_VALUE_MAX - 1);
        close(fd);
        if (n >= 0) {
            value[n] = '\0';
            return int(n);
        }
    }
    if (default_value == nullptr)
        default_value = "";
    snprintf(value, PROPERTY_VALUE_MAX, "%s", default_value);
    return int(strlen(value));
}

int sim_property_set_in(const char* dir, const char* key, const char* value)
{
    if (!key_ok(key) || value == nullptr || strlen(value) >= PROPERTY_VALUE_MAX)
        return -1;
    char path[256];
    char tmp[288];
    snprintf(path, sizeof path, "%s/%s", dir, key);
    // A private temporary name per writer; the rename publishes it whole.
    static unsigned counter;
    snprintf(tmp, sizeof tmp, "%s/.%s.%d.%u", dir, key, int(getpid()),
             __atomic_fetch_add(&counter, 1, __ATOMIC_RELAXED));
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return -1;
    size_t len = strlen(value);
    bool ok = write(fd, value, len) == ssize_t(len);
    ok = close(fd) == 0 && ok;
    if (!ok || rename(tmp, path) != 0) {
        unlink(tmp);
        return -1;
    }
    return 0;
}

int sim_property_clear_in(const char* dir, const char* key)
{
    if (!key_ok(key))
        return -1;
    char path[256];
    snprintf(path, sizeof path, "%s/%s", dir, key);
    return unlink(path) == 0 || errno == ENOENT ? 0 : -1;
}

extern "C" int property_get(const char* key, char* value, const char* default_value)
{
    return sim_property_get_in(SIM_PROPERTY_DIR, key, value, default_value);
}

extern "C" int property_set(const char* key, const char* value)
{
    return sim_property_set_in(SIM_PROPERTY_DIR, key, value);
}
