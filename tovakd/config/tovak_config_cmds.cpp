// Commands that choose and report the configuration file.
#include "config/tovak_config_cmds.h"

#include <cstring>

#include "common/tovak_log.h"
#include "config/tovak_config.h"
#include "protocol/tovak_layouts.h"

#define LOG_MODULE "tovak_handler"

uint32_t handler_set_config_file(uint32_t req_len, uint8_t* req, uint32_t*, uint8_t*)
{
    tovak_request in(req, req_len);
    const int16_t len = int16_t(in.u16());
    if (len > TOVAK_CONFIG_NAME_COUNT_MAX || len < 0) {
        TLOG_ERR("configuration file name: length out of range");
        return 0;
    }
    // Ended at the given length, whether or not the client sent a zero.
    char name[TOVAK_CONFIG_NAME_COUNT_MAX + 1] = {};
    in.bytes(name, uint32_t(len));
    name[len] = '\0';
    TLOG("Set config file size = %d, %s\n", int(len), name);
    if (tovak_config_set_file(name) == 0)
        return 1;
    TLOG_ERR("configuration file not chosen: name too long for its property");
    return 0;
}

uint32_t handler_get_config_file(uint32_t, uint8_t*, uint32_t* rsp_len, uint8_t* rsp)
{
    const char* name = tovak_config_get_file();
    const uint16_t n = uint16_t(strlen(name) + 1);
    // A reply too small for the name keeps only what fitted.
    tovak_reply(rsp_len, rsp).u16(n).bytes(name, n).finish();
    return 1;
}
