#include "protocol/byte_buffer.h"

#include <cstdio>
#include <cstring>

// Unlike the rest of the daemon this module reports on stdout only.
#define BB_ERR() printf("%s ERR >> %d\n", "byte_buffer", __LINE__)

static bool bb_ready(const byte_buffer* bb)
{
    return bb != nullptr && bb->magic == BYTE_BUFFER_MAGIC;
}

// Room left is tested as a difference so that no count can wrap around.
static bool bb_has(const byte_buffer* bb, uint32_t count)
{
    return count <= bb->capacity - bb->position;
}

uint32_t byte_buffer_init(byte_buffer* bb, void* data, uint32_t size)
{
    if (bb == nullptr || data == nullptr || size == 0) {
        BB_ERR();
        return 0;
    }
    bb->data = static_cast<uint8_t*>(data);
    bb->capacity = size;
    bb->position = 0;
    bb->magic = BYTE_BUFFER_MAGIC;
    return 1;
}

static uint32_t bb_read_le(byte_buffer* bb, uint32_t width, uint32_t* out)
{
    if (!bb_ready(bb) || out == nullptr || !bb_has(bb, width)) {
        BB_ERR();
        return 0;
    }
    uint32_t v = 0;
    for (uint32_t i = 0; i < width; i++)
        v |= uint32_t(bb->data[bb->position + i]) << (8 * i);
    bb->position += width;
    *out = v;
    return 1;
}

static uint32_t bb_write_le(byte_buffer* bb, uint32_t width, uint32_t value)
{
    if (!bb_ready(bb) || !bb_has(bb, width)) {
        BB_ERR();
        return 0;
    }
    for (uint32_t i = 0; i < width; i++)
        bb->data[bb->position + i] = uint8_t(value >> (8 * i));
    bb->position += width;
    return 1;
}

uint32_t byte_buffer_read_u32(byte_buffer* bb, uint32_t* out)
{
    return bb_read_le(bb, 4, out);
}

uint32_t byte_buffer_read_u16(byte_buffer* bb, uint16_t* out)
{
    uint32_t v;
    if (out == nullptr || !bb_read_le(bb, 2, &v)) {
        if (out == nullptr)
            BB_ERR();
        return 0;
    }
    *out = uint16_t(v);
    return 1;
}

uint32_t byte_buffer_read_bytes(byte_buffer* bb, void* dest, uint32_t count)
{
    if (!bb_ready(bb) || dest == nullptr || !bb_has(bb, count)) {
        BB_ERR();
        return 0;
    }
    if (count != 0)
        memcpy(dest, bb->data + bb->position, count);
    bb->position += count;
    return 1;
}

uint32_t byte_buffer_write_u32(byte_buffer* bb, uint32_t value)
{
    return bb_write_le(bb, 4, value);
}

uint32_t byte_buffer_write_u16(byte_buffer* bb, uint16_t value)
{
    return bb_write_le(bb, 2, value);
}

uint32_t byte_buffer_write_u8(byte_buffer* bb, uint8_t value)
{
    return bb_write_le(bb, 1, value);
}

uint32_t byte_buffer_write_bytes(byte_buffer* bb, const void* src, uint32_t count)
{
    if (!bb_ready(bb) || src == nullptr || !bb_has(bb, count)) {
        BB_ERR();
        return 0;
    }
    if (count != 0)
        memcpy(bb->data + bb->position, src, count);
    bb->position += count;
    return 1;
}

uint32_t byte_buffer_length(const byte_buffer* bb)
{
    if (!bb_ready(bb)) {
        BB_ERR();
        return 0;
    }
    return bb->position;
}
