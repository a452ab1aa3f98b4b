#include "common/tovak_cmd.h"

#include "common/tovak_log.h"

#define LOG_MODULE "tovak_handler"

std::atomic<uint8_t> tovak_handler_initialized{ 0 };
std::atomic<uint8_t> adblog_handler_initialized{ 0 };

bool tovak_gate_t(const uint8_t* rsp)
{
    if (tovak_handler_initialized && rsp != nullptr)
        return true;
    TLOG_ERR();
    return false;
}

bool tovak_gate_a(const uint8_t* rsp)
{
    if (adblog_handler_initialized && rsp != nullptr)
        return true;
    TLOG_ERR();
    return false;
}

void tovak_reply_u32(uint32_t* rsp_len, uint8_t* rsp, std::initializer_list<uint32_t> values)
{
    if (rsp == nullptr)
        return;
    tovak_reply reply(rsp_len, rsp);
    for (uint32_t v : values)
        reply.u32(v);
    reply.finish();
}
