#include "ip_packets.h"

#include <cstddef>

namespace {

const uint8_t V4_PHONE[4] = { 10, 64, 12, 7 };
const uint8_t V4_PEER[4] = { 142, 250, 74, 36 };
const uint8_t V6_PHONE[16] = { 0x20, 0x01, 0x0d, 0xb8, 0x12, 0x34, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x07 };
const uint8_t V6_PEER[16] = { 0x20, 0x01, 0x0d, 0xb8, 0xff, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x24 };

enum { PROTO_ICMP = 1, PROTO_TCP = 6, PROTO_UDP = 17, PROTO_ICMPV6 = 58 };

void put16(std::vector<uint8_t>& v, size_t at, uint16_t x)
{
    v[at] = uint8_t(x >> 8);
    v[at + 1] = uint8_t(x);
}

uint32_t sum_bytes(const uint8_t* p, size_t n, uint32_t sum)
{
    for (size_t i = 0; i + 1 < n; i += 2)
        sum += uint32_t(p[i] << 8 | p[i + 1]);
    if (n % 2)
        sum += uint32_t(p[n - 1] << 8);
    return sum;
}

// The transport segment for proto: header with its checksum left 0, and where
// that checksum goes.
std::vector<uint8_t> segment(int proto, uint32_t seq, size_t* csum_at)
{
    static const char text[] = "tovak-sim data";
    std::vector<uint8_t> s;
    const uint16_t port = uint16_t(40000 + seq % 20000);
    if (proto == PROTO_TCP) {
        s.assign(20, 0);
        put16(s, 0, port);
        put16(s, 2, 443);
        put16(s, 4, uint16_t(seq >> 16));
        put16(s, 6, uint16_t(seq * 1448));
        s[12] = 5 << 4;      // data offset
        s[13] = 0x18;        // PSH ACK
        put16(s, 14, 64240); // window
        *csum_at = 16;
    } else if (proto == PROTO_UDP) {
        s.assign(8, 0);
        put16(s, 0, port);
        put16(s, 2, 7); // echo: any payload is fine
        *csum_at = 6;
    } else {
        s.assign(8, 0);
        s[0] = proto == PROTO_ICMP ? 8 : 128; // echo request
        put16(s, 4, 0x7ead);
        put16(s, 6, uint16_t(seq));
        *csum_at = 2;
    }
    s.insert(s.end(), text, text + sizeof text - 1);
    s.push_back(uint8_t('0' + seq % 10));
    if (proto == PROTO_UDP)
        put16(s, 4, uint16_t(s.size()));
    return s;
}

} // namespace

uint16_t ip_checksum(const uint8_t* data, size_t len, uint32_t sum)
{
    sum = sum_bytes(data, len, sum);
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return uint16_t(~sum);
}

std::vector<uint8_t> sim_ip_packet(unsigned kind, uint32_t seq)
{
    static const int protos[3] = { PROTO_TCP, PROTO_UDP, PROTO_ICMP };
    const bool v6 = kind % 6 >= 3;
    int proto = protos[kind % 3];
    if (v6 && proto == PROTO_ICMP)
        proto = PROTO_ICMPV6;
    size_t csum_at = 0;
    std::vector<uint8_t> seg = segment(proto, seq, &csum_at);
    const bool out = seq % 2 == 1;
    std::vector<uint8_t> ip;
    uint32_t pseudo = 0;
    if (!v6) {
        ip.assign(20, 0);
        ip[0] = 0x45;
        put16(ip, 2, uint16_t(20 + seg.size()));
        put16(ip, 4, uint16_t(seq));
        ip[6] = 0x40; // don't fragment
        ip[8] = 64;
        ip[9] = uint8_t(proto);
        for (int i = 0; i < 4; i++) {
            ip[12 + i] = out ? V4_PHONE[i] : V4_PEER[i];
            ip[16 + i] = out ? V4_PEER[i] : V4_PHONE[i];
        }
        put16(ip, 10, ip_checksum(ip.data(), 20));
        pseudo = sum_bytes(ip.data() + 12, 8, 0) + uint32_t(proto) + uint32_t(seg.size());
    } else {
        ip.assign(40, 0);
        ip[0] = 0x60;
        put16(ip, 4, uint16_t(seg.size()));
        ip[6] = uint8_t(proto);
        ip[7] = 64;
        for (int i = 0; i < 16; i++) {
            ip[8 + i] = out ? V6_PHONE[i] : V6_PEER[i];
            ip[24 + i] = out ? V6_PEER[i] : V6_PHONE[i];
        }
        pseudo = sum_bytes(ip.data() + 8, 32, 0) + uint32_t(seg.size()) + uint32_t(proto);
    }
    // IPv4 ICMP has no pseudo header; every other transport does.
    uint16_t c = ip_checksum(seg.data(), seg.size(), proto == PROTO_ICMP ? 0 : pseudo);
    if (c == 0 && proto == PROTO_UDP)
        c = 0xFFFF; // 0 would mean "no checksum"
    put16(seg, csum_at, c);
    ip.insert(ip.end(), seg.begin(), seg.end());
    return ip;
}
