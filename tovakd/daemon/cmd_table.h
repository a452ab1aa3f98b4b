// The client command table: per command its handler, the start-up flag it
// waits for and what it answers when refused, the last two from the
// command's layout. The session checks the gate and answers a refusal;
// handlers only do the work.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/tovak_cmd.h"
#include "protocol/tovak_layouts.h"

struct cmd_entry {
    uint32_t id;
    command_handler handler;
    tovak_gate gate;
    tovak_refusal refusal;
};

extern const cmd_entry cmd_table[];
extern const size_t cmd_table_size;

// The entry of id, or null (id above CMD_ID_MAX or not in the table).
const cmd_entry* find_cmd(uint32_t id);
// The handler of id, or null.
command_handler find_cmd_handler(uint32_t id);

// Runs one command: a closed gate (or no reply area) logs the ERR line,
// answers the entry's refusal and returns 0; otherwise the handler's result.
uint32_t cmd_run(const cmd_entry& cmd, uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
