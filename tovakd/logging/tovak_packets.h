// Mask request packets for the modem, built from plain selections and the
// modem's limits. Layouts are the modem's own; every field little-endian.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "config/tovak_config_lists.h"

#define DIAG_CMD_EVENT_REPORT 0x60
#define DIAG_CMD_LOG_CONFIG 0x73
#define DIAG_CMD_EXT_MSG_CONFIG 0x7d
#define DIAG_CMD_EVENT_MASK_GET 0x81
#define DIAG_CMD_EVENT_MASK_SET 0x82

#define LOG_CONFIG_OP_DISABLE_ALL 0
#define LOG_CONFIG_OP_RETRIEVE_ID_RANGES 1
#define LOG_CONFIG_OP_SET_MASK 3
#define EXT_MSG_RETRIEVE_SSID_RANGES 1
#define EXT_MSG_SET_RT_MASK 4
#define EXT_MSG_SET_ALL_RT_MASKS 5

// The store keeps 16 bits of a packet's length; nothing longer is built.
#define TOVAK_MAX_PACKET_SIZE 0xffff

using tovak_packet = std::vector<uint8_t>;

// 0x82: limit n, then an (n >> 3) + 1 byte mask; ids past the mask are left out.
tovak_packet tovak_build_event_mask_packet(const std::vector<uint16_t>& ids, uint16_t n);

// 0x73 set mask, one per equipment id with a non-zero last item and at least
// one configured code; codes ascending, the walk ends at the first code past
// the last item.
std::vector<tovak_packet> tovak_build_log_mask_packets(const std::vector<uint16_t>& codes,
                                                       const uint32_t last_items[TOVAK_EQUIPMENT_ID_COUNT]);

// 0x7D 4, one per range whether or not any of its SSIDs is configured.
std::vector<tovak_packet> tovak_build_msg_mask_packets(const std::vector<std::pair<uint16_t, uint32_t>>& masks,
                                                       const std::vector<tovak_msg_range>& ranges);
