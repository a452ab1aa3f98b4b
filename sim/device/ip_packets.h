// Small, valid IP packets for data-path logging: IPv4 and IPv6 carrying TCP,
// UDP or ICMP, every checksum right.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Kind k % 6: IPv4 TCP, IPv4 UDP, IPv4 ICMP echo, then the same over IPv6.
// seq varies ports, sequence numbers and payload.
std::vector<uint8_t> sim_ip_packet(unsigned kind, uint32_t seq);
// The Internet checksum of data (ones' complement of the ones' complement sum).
uint16_t ip_checksum(const uint8_t* data, size_t len, uint32_t sum = 0);
