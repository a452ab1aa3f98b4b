// The 68-byte interface logging record as the modem expects it, written out
// here apart from the daemon's own builder: four entries of kinds 1, 2, 1, 2
// and variants 0, 0, 1, 1, each naming the interface; every other byte 0.
#pragma once

#include <cstdint>
#include <vector>

inline std::vector<uint8_t> dpl_iface_record(uint8_t id)
{
    std::vector<uint8_t> rec(68, 0);
    rec[0] = id;
    rec[1] = 4;
    for (size_t k = 0; k < 4; k++) {
        rec[8 + 16 * k] = uint8_t(k % 2 + 1);
        rec[8 + 16 * k + 4] = id;
        rec[8 + 16 * k + 6] = uint8_t(k / 2);
    }
    return rec;
}
