// Start-up, the socket server and the client session.
#pragma once

#include "common/tovak_cmd.h"

// Runs the daemon; returns only on a fatal socket or thread failure, with 1.
int tovak_main();

// 0 when all four user files exist or were created, -1 otherwise.
int tovak_daemon_init();
// 0 when the user file exists or was copied whole from source, -1 on failure.
int tovak_copy_default_file(const char* user, const char* source);

// Session thread; the argument carries the client descriptor.
void* process_pkt(void* arg);

// Command 2's table entry; the session ends before any lookup of it.
uint32_t handler_dummy(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
