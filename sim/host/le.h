// Little-endian fields in byte vectors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

inline void put_u8(std::vector<uint8_t>& v, uint8_t x)
{
    v.push_back(x);
}
inline void put_u16(std::vector<uint8_t>& v, uint16_t x)
{
    v.push_back(uint8_t(x));
    v.push_back(uint8_t(x >> 8));
}
inline void put_u32(std::vector<uint8_t>& v, uint32_t x)
{
    for (int i = 0; i < 4; i++)
        v.push_back(uint8_t(x >> (8 * i)));
}
inline void put_u64(std::vector<uint8_t>& v, uint64_t x)
{
    for (int i = 0; i < 8; i++)
        v.push_back(uint8_t(x >> (8 * i)));
}
inline uint16_t get_u16(const uint8_t* p)
{
    return uint16_t(p[0] | p[1] << 8);
}
inline uint32_t get_u32(const uint8_t* p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
inline uint64_t get_u64(const uint8_t* p)
{
    return uint64_t(get_u32(p)) | uint64_t(get_u32(p + 4)) << 32;
}
