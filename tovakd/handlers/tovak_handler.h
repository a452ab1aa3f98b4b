// Commands of the mask lists, DPL and the device utilities.
#pragma once

#include "common/tovak_cmd.h"

// Event, log and message masks.
uint32_t handler_add_event(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_rm_event(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_get_events(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_add_log(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_rm_log(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_get_logs(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_add_msg(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_rm_msg(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_get_msg(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);

// DPL interfaces.
uint32_t handler_dpl_set_state(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_dpl_get_state(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_dpl_get_all_if_list(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_dpl_get_if_list(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_dpl_set_if(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_dpl_reset(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);

// Device utilities.
uint32_t handler_system_command(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_set_autosave(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_save_modem_data(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_set_msisdn(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_get_autosave(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
