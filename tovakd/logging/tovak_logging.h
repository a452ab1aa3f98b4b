// Modem logging: its run-time state, the start-up step that opens the modem
// interface, switching logging on and off, and the logging commands.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/tovak_cmd.h"

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

// Loads the configuration, opens the modem interface and restores the saved
// logging state; sets tovak_handler_initialized. 1, or 0 on failure.
uint32_t tovak_handler_init();

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
// While logging is not running: configures and saves size, then resizes the
// platform's buffer; 1 with the platform's answer in *changed. 0, and
// nothing done, while logging runs.
uint32_t tovak_log_set_buffer_size(int32_t size, int* changed);

uint32_t handler_log_on(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_log_off(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_log_size(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_out_path(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_commit_log(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_get_buffer_size(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_get_log_state(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_get_range(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
