// Android log capture commands and their start-up.
#pragma once

#include "common/tovak_cmd.h"

// Starts the capture core after the configured state, categories and sizes;
// sets adblog_handler_initialized when the core is up. 1 always.
uint32_t adblog_handler_init();

uint32_t adblog_on(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t adblog_off(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t adblog_commit(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t adblog_get_state(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t adblog_add_category(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t adblog_rm_category(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t adblog_get_categories(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t adblog_set_categories(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t adblog_get_category_name(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t adblog_set_size_with_cat(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t adblog_get_size_with_cat(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t adblog_get_size_limits(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
