// Modem logging state, shared by the logging, buffer and status commands,
// and the routines that switch logging on and off.
#pragma once

#include <atomic>
#include <cstdint>

#define LOG_STATE_IDLE 0
#define LOG_STATE_START 1
#define LOG_STATE_STOP 2

// At most this many mask packets go to the modem in each pass.
#define TOVAK_MAX_PACKETS_PER_PASS 100
// How long logging on waits once when the phone has not finished booting.
#define TOVAK_BOOT_WAIT_SECONDS 10
#define TOVAK_BOOT_COMPLETE_PROPERTY "dev.bootcomplete"

// Run-time logging state; only equality with LOG_STATE_START is tested.
extern std::atomic<int32_t> tovak_log_state;
// Non-zero when a remote (MDM) modem is attached; asked at every log on.
extern std::atomic<uint16_t> tovak_has_remote_device;

// Programs the modem with the configured masks and starts logging; 1 always.
uint32_t tovak_log_on();
// Clears the local modem's masks and stops logging; 0 when it was not running.
uint32_t tovak_log_off();
// Event reporting off, all log codes off, all message masks 0; 1 when all
// three were answered.
uint32_t tovak_disable_all_reports();
// Event reporting on; 1 when answered.
uint32_t tovak_enable_event_report();
// One pass over the stored mask packets, to the remote modem as well when
// one is attached; the number of packets sent.
uint32_t tovak_send_dm_packets();
