// Host capture-file library: each object is a CaptureRing behind the word
// layout callers rely on (commit in the third word, write in the fifth).
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include "capture_ring.h"
#include "host_link.h"
#include "platform/syslog_capture.h"

// Where the rings live, under /data like the device's own capture buffers.
#define SYSLOG_RING_DIR "/data/local/syslog"

namespace {

struct Capture {
    std::mutex mutex; // one writer and one committer may meet
    std::string name;
    CaptureRing ring;
};

} // namespace

struct syslog_object {
    syslog_object_head head;
    Capture* capture;
};

static int capture_write(syslog_object* obj, const void* data, uint32_t len)
{
    if (obj == nullptr || obj->capture == nullptr)
        return -1;
    std::lock_guard<std::mutex> lock(obj->capture->mutex);
    return obj->capture->ring.append(data, len) ? int(len) : -1;
}

static int capture_commit(syslog_object* obj, const char* dir)
{
    if (obj == nullptr || obj->capture == nullptr || dir == nullptr || dir[0] == '\0')
        return 0;
    std::lock_guard<std::mutex> lock(obj->capture->mutex);
    return obj->capture->ring.commit(dir, obj->capture->name, time(nullptr)) ? 1 : 0;
}

extern "C" int syslog_create2(struct syslog_object** slot, int capacity, const char* name, int a, int b)
{
    // a and b select the device library's file modes. The rings have only
    // the one the daemon asks for with 1 and 2; any other is refused, not
    // served as that one.
    if (slot == nullptr)
        return 0;
    *slot = nullptr;
    if (a != 1 || b != 2 || capacity <= 0 || name == nullptr || name[0] == '\0' || strchr(name, '/') != nullptr ||
        strlen(name) > 64)
        return 0;
    static std::atomic<unsigned> seq{ 0 };
    auto* capture = new (std::nothrow) Capture;
    if (capture == nullptr)
        return 0;
    capture->name = name;
    std::string path = sim_host_path(SYSLOG_RING_DIR) + "/" + name + "." + std::to_string(getpid()) + "." +
                       std::to_string(seq.fetch_add(1)) + ".ring";
    if (!capture->ring.open(path, size_t(capacity))) {
        delete capture;
        return 0;
    }
    auto* obj = new (std::nothrow) syslog_object{};
    if (obj == nullptr) {
        delete capture;
        return 0;
    }
    obj->head.word0 = obj;
    obj->head.commit = capture_commit;
    obj->head.write = capture_write;
    obj->capture = capture;
    *slot = obj;
    return 1;
}

extern "C" void syslog_destroy(struct syslog_object** obj)
{
    if (obj == nullptr || *obj == nullptr)
        return;
    delete (*obj)->capture;
    delete *obj;
    *obj = nullptr;
}
