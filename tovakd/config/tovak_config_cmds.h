// Commands that choose and report the configuration file.
#pragma once

#include "common/tovak_cmd.h"

uint32_t handler_set_config_file(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
uint32_t handler_get_config_file(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);
