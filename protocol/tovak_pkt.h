// The 5128-byte frame used for every request and reply on the client socket.
// Shared by the daemon, the client library and the tests.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

// Where the daemon listens on a phone.
#define TOVAK_SOCKET_PATH "/dev/ps_socket/tovak"

#define TOVAK_PKT_SIZE 5128
#define TOVAK_PKT_DATA_SIZE 5120

// The frame is little-endian on the wire and read and written as it stands.
static_assert(std::endian::native == std::endian::little, "the frame layout assumes a little-endian host");

struct tovak_pkt {
    uint32_t cmd;
    uint32_t len;
    uint8_t data[TOVAK_PKT_DATA_SIZE];
};
static_assert(sizeof(tovak_pkt) == TOVAK_PKT_SIZE, "tovak_pkt must match the wire frame");
static_assert(offsetof(tovak_pkt, data) == 8, "tovak_pkt must match the wire frame");
