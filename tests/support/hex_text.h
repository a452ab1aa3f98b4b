// Bytes as "xx xx xx" text, so that a failing byte comparison reads well.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

inline std::string hex_text(const std::vector<uint8_t>& bytes)
{
    std::string s;
    char b[4];
    for (uint8_t c : bytes) {
        snprintf(b, sizeof b, "%02x ", c);
        s += b;
    }
    if (!s.empty())
        s.pop_back();
    return s;
}
