// Modem log buffer size, output path, commit and status commands.
#include "logging/tovak_log_controls.h"

#include <cstdio>
#include <cstring>

#include "adblog/adblog_core.h"
#include "config/tovak_config.h"
#include "protocol/byte_buffer.h"
#include "daemon/tovak_log.h"
#include "handlers/tovak_handler.h"
#include "logging/tovak_logging.h"
#include "platform/diag.h"

#define LOG_MODULE "tovak_handler"

// The walk for the last '/' gives up at this many.
#define OUT_PATH_MAX_SLASHES 6

int tovak_capture_dir_for(const char* out_path, char* dir, size_t size)
{
    const char* last = nullptr;
    int slashes = 0;
    for (const char* p = strchr(out_path, '/'); p != nullptr; p = strchr(p + 1, '/')) {
        if (++slashes >= OUT_PATH_MAX_SLASHES)
            return 0;
        last = p;
    }
    if (last == nullptr)
        snprintf(dir, size, "//");
    else
        snprintf(dir, size, "%.*s/", int(last - out_path), out_path);
    return 1;
}

// 0x03 and 0x04 answer one i32 whether they worked or not.
static void reply_i32(uint32_t* rsp_len, uint8_t* rsp, uint32_t capacity, int32_t value)
{
    if (rsp == nullptr)
        return;
    byte_buffer out;
    byte_buffer_init(&out, rsp, capacity);
    byte_buffer_write_u32(&out, uint32_t(value));
    *rsp_len = byte_buffer_length(&out);
}

static void reply_u32(uint32_t* rsp_len, uint8_t* rsp, uint32_t value)
{
    byte_buffer out;
    byte_buffer_init(&out, rsp, *rsp_len);
    byte_buffer_write_u32(&out, value);
    *rsp_len = byte_buffer_length(&out);
}

uint32_t handler_log_size(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)
{
    const uint32_t capacity = *rsp_len;
    if (!tovak_gate_t(rsp)) {
        TLOG_ERR();
        reply_i32(rsp_len, rsp, capacity, -1);
        return 0;
    }
    *rsp_len = 0;
    TLOG("process log_size\n");
    byte_buffer in;
    byte_buffer_init(&in, req, req_len);
    uint32_t field = 0;
    if (req_len < 4 || !byte_buffer_read_u32(&in, &field)) {
        TLOG_ERR();
        reply_i32(rsp_len, rsp, capacity, -1);
        return 0;
    }
    const int32_t size = int32_t(field);
    if (size < 1) {
        TLOG_ERR();
        reply_i32(rsp_len, rsp, capacity, -1);
        return 0;
    }
    // The platform resizes its buffer only while nothing is written to it.
    if (tovak_log_state == LOG_STATE_START) {
        TLOG_ERR();
        reply_i32(rsp_len, rsp, capacity, -1);
        return 0;
    }
    // Saved first: the next start-up applies it even if the platform balks now.
    tovak_config_edit_and_save([&] { tovak_config_set_buffer_size(uint32_t(size)); });
    int changed = diag_change_buffer_size(size);
    TLOG("set log_size to %d Bytes, changed size = %d\n", size, changed);
    reply_i32(rsp_len, rsp, capacity, changed);
    return 1;
}

uint32_t handler_out_path(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp)
{
    const uint32_t capacity = *rsp_len;
    if (!tovak_gate_t(rsp)) {
        TLOG_ERR();
        reply_i32(rsp_len, rsp, capacity, -1);
        return 0;
    }
    *rsp_len = 0;
    TLOG("make out path for log..\n");
    if (req_len <= 1) {
        TLOG_ERR();
        reply_i32(rsp_len, rsp, capacity, -1);
        return 0;
    }
    char path[TOVAK_OUT_PATH_SIZE] = {};
    byte_buffer in;
    byte_buffer_init(&in, req, req_len);
    byte_buffer_read_bytes(&in, path, req_len < sizeof path - 1 ? req_len : uint32_t(sizeof path - 1));
    TLOG("DMLogging out_path_name is %s", path);
    if (diag_change_output_path(path) == 0) {
        TLOG_ERR();
        reply_i32(rsp_len, rsp, capacity, -1);
        return 0;
    }
    // From here on a failure leaves the modem log's new path in force.
    char dir[TOVAK_OUT_PATH_SIZE];
    if (!tovak_capture_dir_for(path, dir, sizeof dir)) {
        TLOG_ERR();
        reply_i32(rsp_len, rsp, capacity, -1);
        return 0;
    }
    TLOG("ADB_LOG out_path_name is %s", dir);
    if (adblog_core_set_output_path(dir) == 0) {
        TLOG_ERR();
        reply_i32(rsp_len, rsp, capacity, -1);
        return 0;
    }
    reply_i32(rsp_len, rsp, capacity, 0);
    return 1;
}

uint32_t handler_commit_log(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    if (!tovak_gate_t(rsp)) {
        TLOG_ERR();
        return 0;
    }
    *rsp_len = 0;
    TLOG("commit log\n");
    // Whatever the logging state: a stopped log still holds what it caught.
    diag_commit_log();
    return 1;
}

uint32_t handler_get_buffer_size(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    if (!tovak_gate_t(rsp)) {
        TLOG_ERR();
        return 0;
    }
    reply_u32(rsp_len, rsp, uint32_t(diag_get_buffer_size()));
    return 1;
}

uint32_t handler_get_log_state(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    if (!tovak_gate_t(rsp)) {
        TLOG_ERR();
        return 0;
    }
    reply_u32(rsp_len, rsp, tovak_log_state == LOG_STATE_START ? 1 : 0);
    return 1;
}

uint32_t handler_get_range(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    if (!tovak_gate_t(rsp)) {
        TLOG_ERR();
        return 0;
    }
    // Zeros stand when the platform fills nothing.
    uint32_t first = 0;
    uint32_t second = 0;
    diag_get_range(&first, &second);
    byte_buffer out;
    byte_buffer_init(&out, rsp, *rsp_len);
    byte_buffer_write_u32(&out, first);
    byte_buffer_write_u32(&out, second);
    *rsp_len = byte_buffer_length(&out);
    return 1;
}
