#include "host_properties.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <cutils/properties.h>

#include "host_link.h"
#include "sim_files.h"
#include "sim_root.h"

static bool key_ok(const char* key)
{
    size_t n = key == nullptr ? 0 : strlen(key);
    // A key names a file of its own, so it may not leave the directory.
    return n > 0 && n < PROPERTY_KEY_MAX && strchr(key, '/') == nullptr && strcmp(key, ".") != 0 &&
           strcmp(key, "..") != 0;
}

int sim_property_get_in(const char* dir, const char* key, char* value, const char* default_value)
{
    int fd = -1;
    if (key_ok(key))
        fd = open((std::string(dir) + "/" + key).c_str(), O_RDONLY | O_CLOEXEC);
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
    const std::string path = std::string(dir) + "/" + key;
    // A private temporary name per writer; the rename publishes it whole.
    static std::atomic<unsigned> counter{ 0 };
    const std::string tmp_name =
        std::string(dir) + "/." + key + "." + std::to_string(getpid()) + "." + std::to_string(counter.fetch_add(1));
    const char* tmp = tmp_name.c_str();
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return -1;
    size_t len = strlen(value);
    bool ok = write(fd, value, len) == ssize_t(len);
    ok = close(fd) == 0 && ok;
    if (!ok || rename(tmp, path.c_str()) != 0) {
        unlink(tmp);
        return -1;
    }
    return 0;
}

int sim_property_clear_in(const char* dir, const char* key)
{
    if (!key_ok(key))
        return -1;
    return unlink((std::string(dir) + "/" + key).c_str()) == 0 || errno == ENOENT ? 0 : -1;
}

// The device's property directory, or "" for a process that set no root
// and runs outside a device (a test): it must never reach the host's own
// /data/property.
static std::string property_dir()
{
    std::string dir = sim_host_path(SIM_PROPERTY_DIR);
    if (dir != SIM_PROPERTY_DIR || access(SIM_SANDBOX_MARK, F_OK) == 0)
        return dir;
    static std::atomic<bool> told{ false };
    if (!told.exchange(true))
        fprintf(stderr, "host properties: no device root set (sim_host_set_root) and not inside a simulated "
                        "device; properties read as their defaults and cannot be set\n");
    return "";
}

extern "C" int property_get(const char* key, char* value, const char* default_value)
{
    std::string dir = property_dir();
    if (dir.empty()) {
        snprintf(value, PROPERTY_VALUE_MAX, "%s", default_value ? default_value : "");
        return int(strlen(value));
    }
    return sim_property_get_in(dir.c_str(), key, value, default_value);
}

extern "C" int property_set(const char* key, const char* value)
{
    std::string dir = property_dir();
    return dir.empty() || !sim_make_dirs(dir) ? -1 : sim_property_set_in(dir.c_str(), key, value);
}
