// Commands that choose and report the configuration file.
#include <cstring>

#include "config/tovak_config.h"
#include "protocol/byte_buffer.h"
#include "daemon/tovak_log.h"
#include "handlers/tovak_handler.h"

#define LOG_MODULE "tovak_handler"

#define CONFIG_NAME_BUFFER_SIZE 100

uint32_t handler_set_config_file(uint32_t req_len, uint8_t* req, uint32_t*, uint8_t* rsp)
{
    if (!tovak_handler_initialized || rsp == nullptr) {
        TLOG_ERR();
        return 0;
    }
    byte_buffer in = {};
    byte_buffer_init(&in, req, req_len);
    uint16_t field = 0;
    byte_buffer_read_u16(&in, &field);
    int16_t len = int16_t(field);
    if (len > CONFIG_NAME_BUFFER_SIZE - 1 || len < 0) {
        TLOG_ERR();
        return 0;
    }
    // Ended at the given length, whether or not the client sent a zero.
    char name[CONFIG_NAME_BUFFER_SIZE] = {};
    byte_buffer_read_bytes(&in, name, uint32_t(len));
    name[len] = '\0';
    TLOG("Set config file size = %d, %s\n", int(len), name);
    if (tovak_config_set_file(name) == 0)
        return 1;
    TLOG_ERR();
    return 0;
}

uint32_t handler_get_config_file(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    if (!tovak_handler_initialized || rsp == nullptr || rsp_len == nullptr) {
        TLOG_ERR();
        return 0;
    }
    const char* name = tovak_config_get_file();
    uint16_t n = uint16_t(strlen(name) + 1);
    byte_buffer out = {};
    byte_buffer_init(&out, rsp, *rsp_len);
    // A reply too small for the name keeps only what fitted.
    byte_buffer_write_u16(&out, n);
    byte_buffer_write_bytes(&out, name, n);
    *rsp_len = byte_buffer_length(&out);
    return 1;
}
