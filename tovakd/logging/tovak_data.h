// The modem's own ranges and the mask request packets built from the
// configuration with them.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <vector>

#include "config/tovak_config.h"
#include "logging/tovak_packets.h"

// Asks the modem, once per process, for its log item ranges, SSID ranges and
// number of event ids, and appends them to the configuration's modem-range
// fields. 1 when they are known, now or from an earlier call; 0 otherwise.
int getVariousInfoOnEventLogMessage();

// The checks of each of the three answers (log item ranges, SSID ranges,
// event mask): true and the values appended to c, or false with the reason
// logged.
bool tovak_data_take_log_ranges(const std::vector<uint8_t>& answer, tovak_config& c);
bool tovak_data_take_ssid_ranges(const std::vector<uint8_t>& answer, tovak_config& c);
bool tovak_data_take_event_count(const std::vector<uint8_t>& answer, tovak_config& c);

// The packets for a record, in sending order: the event mask, the log masks
// per equipment id, the message masks per SSID range. Empty when no
// configuration has been parsed.
std::vector<tovak_packet> tovak_data_build_packets(const tovak_config& c);

// Rebuilds the packet store from the configuration; 0, or -1 when a packet
// copy could not be allocated.
int tovak_data_load_dm_packet();

// Replaces the store with copies of packets taken from alloc (released with
// free). When an allocation fails the entries filled so far stay and false is
// returned.
bool tovak_data_store_packets(const std::vector<tovak_packet>& packets, void* (*alloc)(size_t) = malloc);

// A copy of the stored packet at index, or nothing past the end.
std::optional<tovak_packet> tovak_data_get_dm_packet(uint32_t index);
uint32_t tovak_data_dm_packet_count();
