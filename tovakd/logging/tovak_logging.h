// Modem logging state, shared by the logging, buffer and status commands.
#pragma once

#include <atomic>
#include <cstdint>

#define LOG_STATE_IDLE 0
#define LOG_STATE_START 1
#define LOG_STATE_STOP 2

// Run-time logging state; only equality with LOG_STATE_START is tested.
extern std::atomic<int32_t> tovak_log_state;
