// The client command table and its lookup.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/tovak_cmd.h"

struct cmd_entry {
    uint32_t id;
    command_handler handler;
};

#define CMD_TABLE_SIZE 43

extern const cmd_entry cmd_table[CMD_TABLE_SIZE];

// The handler of id, or null (id above CMD_ID_MAX or not in the table).
command_handler find_cmd_handler(uint32_t id);
