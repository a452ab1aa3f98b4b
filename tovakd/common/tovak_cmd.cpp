#include "common/tovak_cmd.h"

std::atomic<uint8_t> tovak_handler_initialized{ 0 };
std::atomic<uint8_t> adblog_handler_initialized{ 0 };

void tovak_reply_u32(uint32_t* rsp_len, uint8_t* rsp, std::initializer_list<uint32_t> values)
{
    if (rsp == nullptr)
        return;
    tovak_reply reply(rsp_len, rsp);
    for (uint32_t v : values)
        reply.u32(v);
    reply.finish();
}
