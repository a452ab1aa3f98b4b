// The log capture core: device discovery, one capture thread per log
// device, categories, sizes and commits. One file a little over the usual
// length: the threads and the operations that drive them share the
// per-category records and their locks, which read best side by side.
#include "adblog/adblog_core.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/tovak_log.h"
#include "common/tovak_mutex.h"
#include "common/tovak_paths.h"
#include "platform/syslog_capture.h"

#define LOG_MODULE "adblog_core"

#define MAX_NUM_OF_READ_TRY 10
#define ADBLOG_READ_BUFFER_SIZE 10000
#define ADBLOG_WAIT_SECONDS 30
#define ADBLOG_READ_ERROR_SLEEP 2
#define ADBLOG_CREATE_FAILURE_LIMIT 9
#define ADBLOG_CREATE_FAILURE_SLEEP 10
#define ADBLOG_STANDARD_CATEGORIES TOVAK_CAPTURE_STANDARD_CATEGORIES
#define ADBLOG_DEVICE_PREFIX "log/"

struct adblog_wait {
    pthread_cond_t cond;
    pthread_mutex_t mutex;
};

struct AdblogCategory {
    char device_name[ADBLOG_NAME_SIZE];
    tovak_mutex lock;
    syslog_object* log_object GUARDED_BY(lock);
    // Read by the capture thread while a client may change it.
    std::atomic<int32_t> size;
    adblog_wait* state_wait;
    adblog_wait* category_wait;
    int32_t index;
    // Its capture thread could not be started; capture on tries again.
    std::atomic<uint8_t> thread_missing;
};

// The standard categories are named after their devices.
static const char* const* const standard_devices = tovak_capture_category_names;

// The categories, one per log device; the first four are fixed.
static AdblogCategory categories[ADBLOG_MAX_CATEGORIES];
// One enable byte per category, read by its thread unlocked and handed out
// live.
static std::atomic<uint8_t> enabled_bytes[ADBLOG_MAX_CATEGORIES];
// Set once initialisation has finished.
static std::atomic<uint8_t> initialised;
// 4 plus the extra devices found.
static std::atomic<int32_t> category_count;
// Capture on or off; written under state_mutex, read by the threads freely.
static std::atomic<uint8_t> capture_state;
static tovak_mutex state_mutex;
// Consecutive failed creations of capture objects, over all categories.
static std::atomic<uint32_t> creation_failures;
// Where the next commit goes; serves one successful commit.
static tovak_mutex output_dir_mutex;
static char output_dir[ADBLOG_NAME_SIZE] GUARDED_BY(output_dir_mutex) = TOVAK_CAPTURE_OUTPUT_DIR;

static bool in_range(int category)
{
    return category >= 0 && category < category_count.load();
}

// Waits up to 30 seconds while *off is 0; whatever ends the wait, the
// caller re-tests. The flag is tested again under the pair's mutex, so a
// change stored and signalled just before the wait is not slept through. The
// deadline is on the monotonic clock (as the condition's), so setting the
// time neither stretches nor cuts the wait.
static int timed_wait(adblog_wait* w, const std::atomic<uint8_t>* off)
{
    int rc = 0;
    pthread_mutex_lock(&w->mutex);
    if (*off == 0) {
        timespec deadline;
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += ADBLOG_WAIT_SECONDS;
        rc = pthread_cond_timedwait(&w->cond, &w->mutex, &deadline);
        if (rc < 0)
            TLOG("ADBLOG: !!!!! Error: Timed Wait expired errno = %d", errno);
    }
    pthread_mutex_unlock(&w->mutex);
    return rc;
}

static void signal_wait(adblog_wait* w)
{
    pthread_mutex_lock(&w->mutex);
    pthread_cond_signal(&w->cond);
    pthread_mutex_unlock(&w->mutex);
}

static void close_log_object(int category)
{
    if (!in_range(category)) {
        TLOG_ERR("capture category out of range");
        return;
    }
    AdblogCategory* c = &categories[category];
    tovak_lock hold(c->lock);
    if (c->log_object != nullptr) {
        syslog_object* obj = c->log_object;
        c->log_object = nullptr;
        TLOG("ADBLOG: Destroy log object for category #%s", c->device_name);
        syslog_destroy(&obj);
    }
}

static syslog_object_head* head_of(syslog_object* obj)
{
    return reinterpret_cast<syslog_object_head*>(obj);
}

static void capture(int category, const char* data, uint32_t len)
{
    AdblogCategory* c = &categories[category];
    if (creation_failures > ADBLOG_CREATE_FAILURE_LIMIT) {
        creation_failures = 0;
        sleep(ADBLOG_CREATE_FAILURE_SLEEP);
        TLOG_ERR("capture file object not created, five times in a row");
        return;
    }
    char name[ADBLOG_NAME_SIZE];
    snprintf(name, sizeof name, "adb%s", c->device_name + strlen(ADBLOG_DEVICE_PREFIX));
    tovak_lock hold(c->lock);
    if (c->log_object == nullptr) {
        creation_failures++;
        TLOG("syslog create: cat = %d, size = %d, tmp_path = %s", category, int(c->size), name);
        if (syslog_create2(&c->log_object, c->size, name, 1, 2) == 0)
            c->log_object = nullptr;
    }
    if (c->log_object != nullptr) {
        creation_failures = 0;
        head_of(c->log_object)->write(c->log_object, data, len);
    }
}

static void* capture_thread(void* arg)
{
    const int category = *static_cast<int32_t*>(arg);
    AdblogCategory* c = &categories[category];
    // Room for any device name: a cut path would open another device.
    char path[sizeof TOVAK_DEV_DIR + ADBLOG_NAME_SIZE];
    snprintf(path, sizeof path, "%s%s", TOVAK_DEV_DIR, c->device_name);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        TLOG("[ADBLOG] Error : Can't open %s\n", path);
        TLOG_ERR_ERRNO(path, err);
        return nullptr;
    }
    TLOG("ADBLOG: %s adb_fd = %d\n", path, fd);
    int read_errors = 0;
    char buf[ADBLOG_READ_BUFFER_SIZE];
    for (;;) {
        if (capture_state == 0) {
            timed_wait(c->state_wait, &capture_state);
            close_log_object(category);
            continue;
        }
        if (enabled_bytes[category] == 0) {
            close_log_object(category);
            timed_wait(c->category_wait, &enabled_bytes[category]);
            continue;
        }
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) {
            // Counted over the thread's life, so every eleventh failure
            // sleeps, consecutive or not.
            if (++read_errors <= MAX_NUM_OF_READ_TRY)
                continue;
            TLOG("ADBLOG: Critical Error: The number of read err cnt exceeds MAX_NUM_OF_READ_TRY(%%)so wait 2 seconds "
                 "to "
                 "avoid excessive cpu usage\n");
            read_errors = 0;
            sleep(ADBLOG_READ_ERROR_SLEEP);
            continue;
        }
        if (!in_range(category)) {
            TLOG_ERR("capture category out of range");
            continue;
        }
        capture(category, buf, uint32_t(n));
    }
}

static adblog_wait* new_wait()
{
    auto* w = static_cast<adblog_wait*>(malloc(sizeof(adblog_wait)));
    if (w == nullptr)
        return nullptr;
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&w->cond, &attr);
    pthread_condattr_destroy(&attr);
    if (pthread_mutex_init(&w->mutex, nullptr) != 0)
        pthread_cond_destroy(&w->cond);
    return w;
}

// A failure is logged and remembered, so that the next capture on retries.
static void start_capture_thread(int category)
{
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    int rc = pthread_create(&thread, &attr, capture_thread, &categories[category].index);
    pthread_attr_destroy(&attr);
    categories[category].thread_missing = rc != 0;
    if (rc != 0) {
        TLOG("[ADBLOG] Error : Can't start the thread of %s, errno = %d\n", categories[category].device_name, rc);
        TLOG_ERR_ERRNO("capture thread not started", rc);
    }
}

static void discover_devices(int* extra)
{
    *extra = 0;
    DIR* dir = opendir(TOVAK_LOG_DEVICE_DIR);
    if (dir == nullptr)
        return;
    while (dirent* e = readdir(dir)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0)
            continue;
        int slot = -1;
        for (int i = 0; i < ADBLOG_STANDARD_CATEGORIES; i++) {
            if (strcmp(e->d_name, standard_devices[i]) == 0)
                slot = i;
        }
        if (slot < 0) {
            if (ADBLOG_STANDARD_CATEGORIES + *extra >= ADBLOG_MAX_CATEGORIES)
                continue; // no slot left
            slot = ADBLOG_STANDARD_CATEGORIES + (*extra)++;
        }
        snprintf(categories[slot].device_name, ADBLOG_NAME_SIZE, ADBLOG_DEVICE_PREFIX "%.45s", e->d_name);
    }
    closedir(dir);
}

int adblog_core_init()
{
    if (initialised) {
        TLOG_ERR("capture started twice");
        return 0;
    }
    int extra;
    discover_devices(&extra);
    const int count = ADBLOG_STANDARD_CATEGORIES + extra;
    TLOG("ADBLOG: num_of_adblog_device = %d as follow\n", count);
    for (int i = 0; i < count; i++)
        TLOG("%d: %s\n", i, categories[i].device_name);

    for (AdblogCategory& c : categories)
        c.size = ADBLOG_DEFAULT_SIZE;
    for (int i = 0; i < count; i++) {
        if ((categories[i].state_wait = new_wait()) == nullptr)
            return 0;
    }
    for (int i = 0; i < count; i++) {
        if ((categories[i].category_wait = new_wait()) == nullptr)
            return 0;
    }

    // Published before the threads start: they test their number against it.
    category_count = count;
    for (int i = 0; i < count; i++) {
        categories[i].index = i;
        start_capture_thread(i);
    }
    initialised = 1;
    return 1;
}

void adblog_core_set_state(int state)
{
    if (!initialised)
        return;
    tovak_lock hold(state_mutex);
    capture_state = uint8_t(state);
    for (int i = 0; i < category_count; i++) {
        if (state != 0 && categories[i].thread_missing)
            start_capture_thread(i);
        signal_wait(categories[i].state_wait);
        signal_wait(categories[i].category_wait);
    }
}

int adblog_core_get_state()
{
    if (!initialised)
        return 0;
    tovak_lock hold(state_mutex);
    return capture_state;
}

int adblog_core_set_category_state(int category, int state)
{
    if (!initialised || !in_range(category))
        return 0;
    // The signal comes before the store: a thread woken early goes back to
    // sleep and sees the change at its next wake-up.
    signal_wait(categories[category].category_wait);
    TLOG("ADBLOG: set cate(%d), state(%d)\n", category, state);
    enabled_bytes[category] = uint8_t(state);
    return 1;
}

int adblog_core_get_categories(const std::atomic<uint8_t>** enabled, int* count)
{
    if (!initialised)
        return 0;
    *enabled = enabled_bytes;
    *count = category_count;
    return 1;
}

// The work buffer bounds the whole text; what does not fit is cut.
static void append_bounded(char* work, size_t size, const char* text)
{
    size_t used = strlen(work);
    while (*text != '\0' && used + 1 < size)
        work[used++] = *text++;
    work[used] = '\0';
}

int adblog_core_get_category_names(char* dest)
{
    if (!initialised)
        return 0;
    char work[ADBLOG_NAME_SIZE] = {};
    for (int i = 0; i < category_count; i++) {
        const char* name = categories[i].device_name;
        if (strncmp(name, ADBLOG_DEVICE_PREFIX, strlen(ADBLOG_DEVICE_PREFIX)) == 0)
            name += strlen(ADBLOG_DEVICE_PREFIX);
        append_bounded(work, sizeof work, name);
        append_bounded(work, sizeof work, ",");
    }
    size_t len = strlen(work);
    if (len > 0)
        memcpy(dest, work, len - 1);
    return 1;
}

int adblog_core_get_size(int category)
{
    if (!initialised || !in_range(category))
        return 0;
    return categories[category].size;
}

int adblog_core_set_size(int category, int size)
{
    if (!initialised || !in_range(category))
        return 0;
    if (size > ADBLOG_SIZE_MAX)
        size = ADBLOG_SIZE_MAX;
    if (size < ADBLOG_SIZE_MIN)
        size = ADBLOG_SIZE_MIN;
    AdblogCategory* c = &categories[category];
    // Decided under the state mutex, so capture can't come on between the
    // check and the store.
    bool changed;
    {
        tovak_lock hold(state_mutex);
        changed = capture_state != 1 && size != c->size;
        if (changed)
            c->size = size;
        size = c->size;
    }
    if (!changed)
        return size;
    // Sizes change only while capture is off, when the threads have closed
    // their objects; the new size applies to the next object created.
    close_log_object(0);
    return size;
}

void adblog_core_get_size_limits(int* min, int* max)
{
    *min = ADBLOG_SIZE_MIN;
    *max = ADBLOG_SIZE_MAX;
}

int adblog_core_set_output_path(const char* dir)
{
    if (!initialised || dir == nullptr)
        return 0;
    tovak_lock hold(output_dir_mutex);
    snprintf(output_dir, sizeof output_dir, "%s", dir);
    return 1;
}

// A failed commit leaves its category's lock held, as it always has: a
// scoped hold can't say that, so this one is not analysed.
int adblog_core_commit() NO_THREAD_SAFETY_ANALYSIS
{
    if (adblog_core_get_state() == 0) {
        TLOG("ADBLOG: state is off so commit operation is not allowed\n");
        return 0;
    }
    char dir[ADBLOG_NAME_SIZE];
    output_dir_mutex.lock();
    memcpy(dir, output_dir, sizeof dir);
    output_dir_mutex.unlock();
    for (int i = 0; i < category_count; i++) {
        AdblogCategory* c = &categories[i];
        if (!enabled_bytes[i])
            continue;
        c->lock.lock();
        if (c->log_object != nullptr && head_of(c->log_object)->commit(c->log_object, dir) == 0) {
            // The category's lock stays held, as it always has after a failed
            // commit.
            TLOG_ERR("capture commit failed; the category stays locked");
            return 0;
        }
        c->lock.unlock();
    }
    adblog_core_set_output_path(TOVAK_CAPTURE_OUTPUT_DIR);
    return 1;
}
