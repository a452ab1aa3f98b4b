// Modem log buffer size, output path, commit and status commands.
#include <cstdio>
#include <cstring>

#include "adblog/adblog_core.h"
#include "common/tovak_cmd.h"
#include "common/tovak_log.h"
#include "logging/tovak_logging.h"
#include "platform/diag.h"
#include "protocol/tovak_layouts.h"

#define LOG_MODULE "tovak_handler"

// The output path as the daemon keeps it, and its zero byte.
#define OUT_PATH_SIZE (TOVAK_OUT_PATH_MAX + 1)
// What 0x03 and 0x04 answer when they fail.
#define REFUSED uint32_t(-1)

// The Android log capture directory that goes with a modem log output path:
// the path up to its last '/', then "/"; "//" for a path without one. False
// for a path of 6 or more '/' characters.
static bool capture_dir_for(const char* out_path, char* dir, size_t size)
{
    const char* last = nullptr;
    int slashes = 0;
    for (const char* p = strchr(out_path, '/'); p != nullptr; p = strchr(p + 1, '/')) {
        if (++slashes >= TOVAK_OUT_PATH_MAX_SLASHES)
            return false;
        last = p;
    }
    if (last == nullptr)
        snprintf(dir, size, "//");
    else
        snprintf(dir, size, "%.*s/", int(last - out_path), out_path);
    return true;
}

// 0x03 and 0x04 answer one i32 whether they worked or not.
static uint32_t refuse(uint32_t* rsp_len, uint8_t* rsp)
{
    tovak_reply_u32(rsp_len, rsp, { REFUSED });
    return 0;
}

uint32_t handler_log_size(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)
{
    TLOG("process log_size\n");
    tovak_request in(req, req_len);
    const int32_t size = req_len < 4 ? 0 : int32_t(in.u32());
    int changed = 0;
    if (size < 1 || !tovak_log_set_buffer_size(size, &changed)) {
        TLOG_ERR("log size below 1, or not set while logging is on");
        return refuse(rsp_len, rsp);
    }
    TLOG("set log_size to %d Bytes, changed size = %d\n", size, changed);
    tovak_reply_u32(rsp_len, rsp, { uint32_t(changed) });
    return 1;
}

uint32_t handler_out_path(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)
{
    TLOG("make out path for log..\n");
    if (req_len <= 1) {
        TLOG_ERR("output path empty");
        return refuse(rsp_len, rsp);
    }
    char path[OUT_PATH_SIZE] = {};
    tovak_request(req, req_len).bytes(path, req_len < sizeof path - 1 ? req_len : uint32_t(sizeof path - 1));
    TLOG("DMLogging out_path_name is %s", path);
    if (diag_change_output_path(path) == 0) {
        TLOG_ERR("output path refused by the diag library");
        return refuse(rsp_len, rsp);
    }
    // From here on a failure leaves the modem log's new path in force.
    char dir[OUT_PATH_SIZE];
    if (!capture_dir_for(path, dir, sizeof dir)) {
        TLOG_ERR("no capture directory beside the output path");
        return refuse(rsp_len, rsp);
    }
    TLOG("ADB_LOG out_path_name is %s", dir);
    if (adblog_core_set_output_path(dir) == 0) {
        TLOG_ERR("capture directory not taken");
        return refuse(rsp_len, rsp);
    }
    tovak_reply_u32(rsp_len, rsp, { 0 });
    return 1;
}

uint32_t handler_commit_log(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t*)
{
    *rsp_len = 0;
    TLOG("commit log\n");
    // Whatever the logging state: a stopped log still holds what it caught.
    diag_commit_log();
    return 1;
}

uint32_t handler_get_buffer_size(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    tovak_reply_u32(rsp_len, rsp, { uint32_t(diag_get_buffer_size()) });
    return 1;
}

uint32_t handler_get_log_state(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    tovak_reply_u32(rsp_len, rsp, { tovak_log_state == LOG_STATE_START ? 1u : 0u });
    return 1;
}

uint32_t handler_get_range(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    // Zeros stand when the platform fills nothing.
    uint32_t first = 0;
    uint32_t second = 0;
    diag_get_range(&first, &second);
    tovak_reply_u32(rsp_len, rsp, { first, second });
    return 1;
}
