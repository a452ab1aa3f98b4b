// The 68-byte interface logging record, written apart from the daemon's
// builder: kinds 1, 2, 1, 2 and variants 0, 0, 1, 1, each naming the interface.
#pragma once

#include <cstdint>
#include <vector>

inline std::vector<uint8_t> dpl_iface_record(uint8_t id)
{
    std::vector<uint8_t> rec(68, 0);
    rec[0] = id, rec[1] = 4;
    for (size_t k = 0; k < 4; k++)
        rec[8 + 16 * k] = uint8_t(k % 2 + 1), rec[8 + 16 * k + 4] = id, rec[8 + 16 * k + 6] = uint8_t(k / 2);
    return rec;
}
