// The configuration record, the dm.cfg reader and writer, and the item sets
// that commands edit. Operations return 0 for success and -1 for failure
// unless stated.
//
// tovak_config_mutex guards the record and the file-name buffer. The plain
// functions below take it for their own duration; code that needs several
// fields at once, or writes the modem-range fields, holds a
// tovak_config_locked for that span and calls only the _locked ones
// meanwhile (the lock is not recursive). Never keep a pointer into the
// record past the lock: every load replaces the lists.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/tovak_mutex.h"
#include "config/tovak_config_lists.h"
#include "protocol/tovak_layouts.h"

#define TOVAK_CONFIG_FILE_PROPERTY "persist.dmlogging.config_file"
// The platform's property value limit, and so the longest path plus its zero.
#define TOVAK_CONFIG_FILE_NAME_SIZE (TOVAK_CONFIG_NAME_MAX + 1)
// The largest file a load reads; the factory dm.cfg is well under 1 KiB.
#define TOVAK_CONFIG_MAX_SIZE (1024 * 1024)

extern const char DEFAULT_CONFIG_TEXT[];

struct tovak_config {
    // The path last given to tovak_config_load_file, opened or not.
    std::string path;
    std::unique_ptr<tovak_event_list> events;
    std::unique_ptr<tovak_log_list> log_codes;
    std::unique_ptr<tovak_msg_list> messages;
    std::unique_ptr<tovak_if_list> dpl_ifs;
    uint32_t log_state = 0;
    uint32_t dpl_state = 0;
    uint32_t buffer_size = 0;
    std::vector<uint16_t> adblog_categories;
    uint32_t adblog_state = 0;
    std::vector<uint32_t> adblog_sizes;
    // Filled by the modem range query; never read from or written to the file,
    // and kept across loads.
    uint8_t ranges_known = 0;
    uint16_t event_id_count = 0;
    std::vector<uint32_t> msg_ssid_ranges; // low 16 bits first SSID, high 16 bits last
    std::vector<uint32_t> log_last_items;  // per equipment id
};

extern tovak_mutex tovak_config_mutex;

// Holds the configuration lock while it lives and gives the record.
class SCOPED_CAPABILITY tovak_config_locked {
public:
    tovak_config_locked() ACQUIRE(tovak_config_mutex);
    ~tovak_config_locked() RELEASE();
    tovak_config_locked(const tovak_config_locked&) = delete;
    tovak_config_locked& operator=(const tovak_config_locked&) = delete;

    tovak_config& operator*() const { return *config_; }
    tovak_config* operator->() const { return config_; }
    // The file-name buffer behind tovak_config_get_file; empty until first use.
    char* file_name() const REQUIRES(tovak_config_mutex);

private:
    tovak_config* config_;
};

// -1, the record unchanged but for its path, when path can't be opened, is
// not a regular file or holds more than TOVAK_CONFIG_MAX_SIZE bytes.
int tovak_config_load_file(const char* path) EXCLUDES(tovak_config_mutex);
// 0 always.
int tovak_config_load_text(const char* text) EXCLUDES(tovak_config_mutex);
// 0 always: a file that can't be written is left as it was.
int tovak_config_save_file(const char* path) EXCLUDES(tovak_config_mutex);
// The record as tovak_config_save_file writes it.
std::string tovak_config_text() EXCLUDES(tovak_config_mutex);
// The start-up load: /data/media/0/dm.cfg, or the built-in text; 0.
int tovak_config_init() EXCLUDES(tovak_config_mutex);
// Loads the current file as the buffer names it, without filling it from
// the property first; 0.
int tovak_config_reload() EXCLUDES(tovak_config_mutex);
// The current configuration file path, filled from the property on first use.
// The pointer is to this thread's copy, valid until its next call.
const char* tovak_config_get_file() EXCLUDES(tovak_config_mutex);
int tovak_config_set_file(const char* name) EXCLUDES(tovak_config_mutex);

// Applies edit to the locked record (it calls only _locked functions) and
// writes the record to the current configuration file.
// Every write and every load of a file happens under one save lock, so saves
// land in the order of their edits and a load never reads a file that is
// behind the record; the configuration lock is held only for the edit and
// the copy of the text, never across the disk.
void tovak_config_edit_and_save(const std::function<void(tovak_config&)>& edit) EXCLUDES(tovak_config_mutex);

// Ordered sets; ids arrive as 32 bits and only the low 16 are used. The gets
// hand out a malloc'd array the caller frees, and set *count to -1 on failure.
int tovak_config_add_event(uint32_t id) EXCLUDES(tovak_config_mutex);
int tovak_config_rm_event(uint32_t id) EXCLUDES(tovak_config_mutex);
int tovak_config_get_events(uint16_t** ids, int* count) EXCLUDES(tovak_config_mutex);
int tovak_config_add_log(uint32_t code) EXCLUDES(tovak_config_mutex);
int tovak_config_rm_log(uint32_t code) EXCLUDES(tovak_config_mutex);
int tovak_config_get_logs(uint16_t** codes, int* count) EXCLUDES(tovak_config_mutex);
int tovak_config_add_dpl_if(uint32_t id) EXCLUDES(tovak_config_mutex);
int tovak_config_rm_dpl_if(uint32_t id) EXCLUDES(tovak_config_mutex);
int tovak_config_get_dpl_ifs(uint16_t** ids, int* count) EXCLUDES(tovak_config_mutex);

// One message-level entry as handed out: 8 bytes, as listed to clients.
struct tovak_msg_entry {
    uint16_t ssid;
    uint32_t mask;
};
static_assert(sizeof(tovak_msg_entry) == 8, "message entries are listed as 8-byte records");

// Replaces the SSID's mask; it never merges.
int tovak_config_add_msg(uint32_t ssid, uint32_t mask) EXCLUDES(tovak_config_mutex);
int tovak_config_rm_msg(uint32_t ssid) EXCLUDES(tovak_config_mutex);
int tovak_config_get_msgs(tovak_msg_entry** entries, int* count) EXCLUDES(tovak_config_mutex);

// Log-capture sequences.
int tovak_config_get_adblog_categories(uint16_t** values, int* count) EXCLUDES(tovak_config_mutex);
int tovak_config_set_adblog_categories(const uint16_t* values, int count) EXCLUDES(tovak_config_mutex);
int tovak_config_get_adblog_sizes(uint32_t** values, int* count) EXCLUDES(tovak_config_mutex);
int tovak_config_set_adblog_sizes(const uint32_t* values, int count) EXCLUDES(tovak_config_mutex);
// -1 when index is not below the number of sizes; never extends them.
int tovak_config_set_adblog_size(uint32_t index, uint32_t size) EXCLUDES(tovak_config_mutex);

// State values: setters return 0, getters the value.
int tovak_config_set_log_state(uint32_t state) EXCLUDES(tovak_config_mutex);
uint32_t tovak_config_get_log_state() EXCLUDES(tovak_config_mutex);
int tovak_config_set_dpl_state(uint32_t state) EXCLUDES(tovak_config_mutex);
uint32_t tovak_config_get_dpl_state() EXCLUDES(tovak_config_mutex);
int tovak_config_set_buffer_size(uint32_t size) EXCLUDES(tovak_config_mutex);
uint32_t tovak_config_get_buffer_size() EXCLUDES(tovak_config_mutex);
int tovak_config_set_adblog_state(uint32_t state) EXCLUDES(tovak_config_mutex);
uint32_t tovak_config_get_adblog_state() EXCLUDES(tovak_config_mutex);

// The edits above for a caller that holds the lock (an edit of
// tovak_config_edit_and_save): the same results, on the record given.
int tovak_config_add_event_locked(tovak_config& c, uint32_t id) REQUIRES(tovak_config_mutex);
int tovak_config_rm_event_locked(tovak_config& c, uint32_t id) REQUIRES(tovak_config_mutex);
int tovak_config_add_log_locked(tovak_config& c, uint32_t code) REQUIRES(tovak_config_mutex);
int tovak_config_rm_log_locked(tovak_config& c, uint32_t code) REQUIRES(tovak_config_mutex);
int tovak_config_add_dpl_if_locked(tovak_config& c, uint32_t id) REQUIRES(tovak_config_mutex);
int tovak_config_rm_dpl_if_locked(tovak_config& c, uint32_t id) REQUIRES(tovak_config_mutex);
int tovak_config_add_msg_locked(tovak_config& c, uint32_t ssid, uint32_t mask) REQUIRES(tovak_config_mutex);
int tovak_config_rm_msg_locked(tovak_config& c, uint32_t ssid) REQUIRES(tovak_config_mutex);
int tovak_config_set_adblog_categories_locked(tovak_config& c, const uint16_t* values, int count)
    REQUIRES(tovak_config_mutex);
int tovak_config_set_adblog_size_locked(tovak_config& c, uint32_t index, uint32_t size) REQUIRES(tovak_config_mutex);
