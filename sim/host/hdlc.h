// HDLC framing of diag packets: 0x7E flag, 0x7D escape with XOR 0x20 and a
// CRC-16/X-25 sent low byte first. Shared by the host diag library and the
// device simulator.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#define HDLC_FLAG 0x7E
#define HDLC_ESC 0x7D
#define HDLC_ESC_XOR 0x20

// CRC-16/X-25: reflected 0x1021, init 0xFFFF, final XOR 0xFFFF.
uint16_t hdlc_crc16(const uint8_t* data, size_t len, uint16_t crc = 0xFFFF);
// The CRC before its final XOR, for running over data in pieces.
uint16_t hdlc_crc16_update(uint16_t crc, uint8_t byte);

// Escaped packet, CRC and closing flag. A non-zero crc_xor spoils the CRC,
// as a noisy line would.
std::vector<uint8_t> hdlc_frame(const uint8_t* pkt, size_t len, uint16_t crc_xor = 0);
// The same frame appended to out; its length.
size_t hdlc_frame_append(std::vector<uint8_t>& out, const uint8_t* pkt, size_t len, uint16_t crc_xor = 0);
inline std::vector<uint8_t> hdlc_frame(const std::vector<uint8_t>& pkt)
{
    return hdlc_frame(pkt.data(), pkt.size());
}

enum class HdlcResult { ok, incomplete, bad_escape, bad_crc, too_short, too_long };

// Unframes the first frame of data: leading flags are skipped, the packet
// comes back without its CRC. *used (if given) is set to the bytes consumed.
HdlcResult hdlc_unframe(const uint8_t* data, size_t len, std::vector<uint8_t>* pkt, size_t* used = nullptr,
                        size_t max_pkt = 1 << 20);
const char* hdlc_result_name(HdlcResult r);
