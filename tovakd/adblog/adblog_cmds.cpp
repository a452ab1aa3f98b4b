// Android log capture commands and their start-up.
#include "adblog/adblog_cmds.h"

#include <cstdlib>
#include <cstring>

#include "adblog/adblog_core.h"
#include "common/tovak_log.h"
#include "config/tovak_config.h"

#define LOG_MODULE "tovak_handler"

#define ADBLOG_NAMES_SIZE 100

static uint32_t set_capture(uint32_t* rsp_len, int state, const char* entry_line)
{
    TLOG("%s", entry_line);
    *rsp_len = 0;
    // Both under one hold of the configuration lock, so that two clients
    // switching at once leave the capture and the saved state agreeing.
    tovak_config_edit_and_save([&](tovak_config& c) REQUIRES(tovak_config_mutex) {
        adblog_core_set_state(state);
        c.adblog_state = uint32_t(state);
    });
    return 1;
}

uint32_t adblog_on(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t*)
{
    return set_capture(rsp_len, 1, "process adblog_on\n");
}

uint32_t adblog_off(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t*)
{
    return set_capture(rsp_len, 0, "process adblog_off\n");
}

uint32_t adblog_commit(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t*)
{
    TLOG("process adblog_commit\n");
    int result = adblog_core_commit();
    *rsp_len = 0;
    return result ? 1 : 0;
}

uint32_t adblog_get_state(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    TLOG("process adblog_get_state\n");
    tovak_reply_u32(rsp_len, rsp, { adblog_core_get_state() != 0 ? 1u : 0u });
    return 1;
}

static uint32_t set_category(uint32_t req_len, uint8_t* req, int state, const char* entry_line, const char* change_line)
{
    TLOG("%s", entry_line);
    const uint32_t category = tovak_request(req, req_len).u32();
    TLOG(change_line, int(category));
    // Out of range changes nothing and is no error here.
    adblog_core_set_category_state(int(category), state);
    return 1;
}

uint32_t adblog_add_category(uint32_t req_len, uint8_t* req, uint32_t*, uint8_t*)
{
    return set_category(req_len, req, 1, "process adblog_add_category\n", "adblog add category : %d\n");
}

uint32_t adblog_rm_category(uint32_t req_len, uint8_t* req, uint32_t*, uint8_t*)
{
    return set_category(req_len, req, 0, "process adblog_rm_category\n", "adblog remove category : %d\n");
}

// The core's live enable bytes as 0/1 values, logged one by one.
template <typename T>
static T* enable_values(int* count)
{
    const std::atomic<uint8_t>* enabled = nullptr;
    *count = 0;
    adblog_core_get_categories(&enabled, count);
    T* values = static_cast<T*>(malloc(sizeof(T) * size_t(*count > 0 ? *count : 1)));
    if (values == nullptr)
        return nullptr;
    TLOG("Get Categories..\n");
    for (int i = 0; i < *count; i++) {
        values[i] = enabled[i] != 0 ? 1 : 0;
        TLOG("Category[%d] : %d\n", i, int(values[i]));
    }
    return values;
}

uint32_t adblog_get_categories(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    TLOG("process adblog_get_categories\n");
    int count;
    uint32_t* values = enable_values<uint32_t>(&count);
    if (values == nullptr) {
        TLOG_ERR("capture categories: no reply area or capture not started");
        return 0;
    }
    // One write: a reply too small for all of them gets none.
    tovak_reply(rsp_len, rsp).bytes(values, uint32_t(count) * 4).finish();
    free(values);
    return 1;
}

uint32_t adblog_set_categories(uint32_t, uint8_t*, uint32_t*, uint8_t*)
{
    TLOG("process adblog_set_categories\n");
    int count;
    uint16_t* values = enable_values<uint16_t>(&count);
    if (values == nullptr) {
        TLOG_ERR("capture categories: no reply area or capture not started");
        return 0;
    }
    tovak_config_edit_and_save([&](tovak_config& c) REQUIRES(tovak_config_mutex) {
        tovak_config_set_adblog_categories_locked(c, values, count);
    });
    free(values);
    return 1;
}

uint32_t adblog_get_category_name(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    if (rsp == nullptr) {
        TLOG_ERR("capture category names: no reply area");
        return 0;
    }
    TLOG("process adblog_get_category_name\n");
    char names[ADBLOG_NAMES_SIZE] = {};
    adblog_core_get_category_names(names);
    tovak_reply(rsp_len, rsp).bytes(names, uint32_t(strlen(names) + 1)).finish();
    return 1;
}

uint32_t adblog_set_size_with_cat(uint32_t req_len, uint8_t* req, uint32_t*, uint8_t*)
{
    TLOG("process adblog_set_size_with_cat\n");
    if (req_len < 4) {
        TLOG_ERR("capture size: request shorter than its category");
        return 0;
    }
    tovak_request in(req, req_len);
    const uint32_t category = in.u32();
    const uint32_t size = in.u32();
    TLOG("Set size cat = %d, size = %d\n", int(category), int(size));
    if (size == 0 || adblog_core_get_state() != 0) {
        TLOG_ERR("capture size: size 0, or capture is on");
        return 0;
    }
    adblog_core_set_size(int(category), int(size));
    // The file keeps the size as asked; the next start-up clamps it again.
    tovak_config_edit_and_save(
        [&](tovak_config& c) REQUIRES(tovak_config_mutex) { tovak_config_set_adblog_size_locked(c, category, size); });
    return 1;
}

uint32_t adblog_get_size_with_cat(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)
{
    const uint32_t category = tovak_request(req, req_len).u32();
    TLOG("process adblog_get_size_with_cat cat = %d\n", int(category));
    int size = adblog_core_get_size(int(category));
    TLOG("adblog size cat = %d, size = %d\n", int(category), size);
    tovak_reply_u32(rsp_len, rsp, { uint32_t(size) });
    return 1;
}

uint32_t adblog_get_size_limits(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    int min, max;
    adblog_core_get_size_limits(&min, &max);
    tovak_reply_u32(rsp_len, rsp, { uint32_t(min), uint32_t(max) });
    return 1;
}

uint32_t adblog_handler_init()
{
    TLOG("adblog_handler_init()\n");
    if (adblog_core_init() == 1) {
        TLOG("adblog handler is initialized successfully\n");
        adblog_handler_initialized = 1;
    }

    uint16_t* cfg_categories = nullptr;
    int cfg_category_count = 0;
    tovak_config_get_adblog_categories(&cfg_categories, &cfg_category_count);
    const std::atomic<uint8_t>* enabled = nullptr;
    int core_count = 0;
    adblog_core_get_categories(&enabled, &core_count);
    TLOG("core_cat_size = %d\n", core_count);
    for (int i = 0; i < cfg_category_count && i < core_count; i++) {
        TLOG("cfg[%d]:%d\n", i, int(cfg_categories[i]));
        adblog_core_set_category_state(i, cfg_categories[i] == 1 ? 1 : 0);
    }

    uint32_t* cfg_sizes = nullptr;
    int cfg_size_count = 0;
    tovak_config_get_adblog_sizes(&cfg_sizes, &cfg_size_count);
    TLOG("Number of ADB size info %d, core_cat_size = %d\n", cfg_size_count, core_count);
    for (int i = 0; i < cfg_size_count && i < core_count; i++) {
        TLOG("ADB log buffe SIZE cfg[%d]:%d\n", i, int(cfg_sizes[i]));
        adblog_core_set_size(i, int(cfg_sizes[i]));
    }

    // The sizes in force replace the configured ones in memory; at most one
    // per category slot.
    int kept = cfg_category_count < ADBLOG_MAX_CATEGORIES ? cfg_category_count : ADBLOG_MAX_CATEGORIES;
    uint32_t in_force[ADBLOG_MAX_CATEGORIES] = {};
    for (int i = 0; i < kept; i++) {
        in_force[i] = uint32_t(adblog_core_get_size(i));
        TLOG("cat = %d, size = %d\n", i, int(in_force[i]));
    }
    tovak_config_set_adblog_sizes(in_force, kept < 0 ? 0 : kept);

    uint32_t state = tovak_config_get_adblog_state();
    TLOG("Current ADB Log state = %d\n", int(state));
    adblog_core_set_state(state != 0 ? 1 : 0);

    free(cfg_categories);
    free(cfg_sizes);
    return 1;
}
