// Bounded little-endian cursor over a caller-owned byte area; every request
// and reply payload is read and written through one.
#pragma once

#include <cstdint>

#define BYTE_BUFFER_MAGIC 0x12345678u

struct byte_buffer {
    uint8_t* data;
    uint32_t capacity;
    uint32_t position;
    uint32_t magic;
};

// All return 1 on success and 0 on failure; a failure changes nothing.
uint32_t byte_buffer_init(byte_buffer* bb, void* data, uint32_t size);
uint32_t byte_buffer_read_u32(byte_buffer* bb, uint32_t* out);
uint32_t byte_buffer_read_u16(byte_buffer* bb, uint16_t* out);
uint32_t byte_buffer_read_bytes(byte_buffer* bb, void* dest, uint32_t count);
uint32_t byte_buffer_write_u32(byte_buffer* bb, uint32_t value);
uint32_t byte_buffer_write_u16(byte_buffer* bb, uint16_t value);
uint32_t byte_buffer_write_u8(byte_buffer* bb, uint8_t value);
uint32_t byte_buffer_write_bytes(byte_buffer* bb, const void* src, uint32_t count);
// Bytes consumed or produced so far; 0 for a record that is not initialised.
uint32_t byte_buffer_length(const byte_buffer* bb);
