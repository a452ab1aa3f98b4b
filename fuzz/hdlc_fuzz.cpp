// The host diag library's HDLC decoder on arbitrary bytes: it stays inside
// both areas, and a frame it accepts encodes back to the same bytes.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/diag.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    // The first byte picks the output area's size, so that short areas are tried too.
    std::vector<uint8_t> src(data + 1, data + size), dest(size_t(data[0]) * 8 + 1);
    diag_hdlc_decode_type h = { src.data(), 0, unsigned(src.size()), dest.data(), 0, unsigned(dest.size()), 0 };
    int ok = diag_hdlc_decode(&h);
    if (h.src_idx > h.src_size || h.dest_idx > h.dest_size)
        abort();
    if (!ok)
        return 0;
    // The decoded frame is the packet, its CRC and the closing flag.
    if (h.dest_idx < 4)
        abort();
    std::vector<uint8_t> framed(2 * h.dest_idx + 8);
    diag_send_desc_type from = { dest.data(), dest.data() + h.dest_idx - 4, 0, 1 };
    diag_hdlc_dest_type to = { framed.data(), framed.data() + framed.size() - 1 };
    diag_hdlc_encode(&from, &to);
    std::vector<uint8_t> again(h.dest_idx);
    diag_hdlc_decode_type back = {
        framed.data(),          0, unsigned(static_cast<uint8_t*>(to.dest) - framed.data()), again.data(), 0,
        unsigned(again.size()), 0
    };
    if (!diag_hdlc_decode(&back) || back.dest_idx != h.dest_idx || memcmp(again.data(), dest.data(), h.dest_idx) != 0)
        abort();
    return 0;
}
