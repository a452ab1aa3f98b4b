#include "protocol/tovak_layouts.h"

#include <cstring>

void tovak_put_u16(tovak_bytes* out, uint16_t v)
{
    out->push_back(uint8_t(v));
    out->push_back(uint8_t(v >> 8));
}

void tovak_put_u32(tovak_bytes* out, uint32_t v)
{
    tovak_put_u16(out, uint16_t(v));
    tovak_put_u16(out, uint16_t(v >> 16));
}

uint16_t tovak_get_u16(const uint8_t* at)
{
    return uint16_t(at[0] | at[1] << 8);
}

uint32_t tovak_get_u32(const uint8_t* at)
{
    return uint32_t(tovak_get_u16(at)) | uint32_t(tovak_get_u16(at + 2)) << 16;
}

tovak_bytes tovak_pack_u16(uint16_t v)
{
    tovak_bytes out;
    tovak_put_u16(&out, v);
    return out;
}

tovak_bytes tovak_pack_u32(uint32_t v)
{
    tovak_bytes out;
    tovak_put_u32(&out, v);
    return out;
}

tovak_bytes tovak_pack_u16_u32(uint16_t key, uint32_t value)
{
    tovak_bytes out = tovak_pack_u16(key);
    tovak_put_u32(&out, value);
    return out;
}

tovak_bytes tovak_pack_u32_u32(uint32_t first, uint32_t second)
{
    tovak_bytes out = tovak_pack_u32(first);
    tovak_put_u32(&out, second);
    return out;
}

tovak_bytes tovak_pack_text(const std::string& text)
{
    tovak_bytes out(text.begin(), text.end());
    out.push_back(0);
    return out;
}

tovak_bytes tovak_pack_counted_text(const std::string& text, int32_t count)
{
    tovak_bytes out = tovak_pack_u16(uint16_t(count < 0 ? text.size() + 1 : size_t(count)));
    out.insert(out.end(), text.begin(), text.end());
    out.push_back(0);
    return out;
}

void tovak_pack_msg_entry(tovak_bytes* out, uint16_t ssid, uint32_t mask)
{
    tovak_put_u16(out, ssid);
    tovak_put_u16(out, 0);
    tovak_put_u32(out, mask & 0xffff);
}

bool tovak_unpack_u32s(const uint8_t* data, uint32_t len, std::vector<uint32_t>* values)
{
    for (uint32_t at = 0; at + 4 <= len; at += 4)
        values->push_back(tovak_get_u32(data + at));
    return len % 4 == 0;
}

bool tovak_unpack_ids(const uint8_t* data, uint32_t len, std::vector<uint16_t>* ids)
{
    for (uint32_t at = 0; at + 2 <= len; at += 2)
        ids->push_back(tovak_get_u16(data + at));
    return len % 2 == 0;
}

bool tovak_unpack_counted_ids(const uint8_t* data, uint32_t len, std::vector<uint16_t>* ids)
{
    return len >= 4 && uint64_t(tovak_get_u32(data)) * 2 == len - 4 && tovak_unpack_ids(data + 4, len - 4, ids);
}

bool tovak_unpack_msgs(const uint8_t* data, uint32_t len, std::vector<tovak_wire_msg>* entries)
{
    for (uint32_t at = 0; at + TOVAK_MSG_ENTRY_SIZE <= len; at += TOVAK_MSG_ENTRY_SIZE)
        entries->push_back({ tovak_get_u16(data + at), tovak_get_u32(data + at + 4) });
    return len % TOVAK_MSG_ENTRY_SIZE == 0;
}

bool tovak_unpack_text(const uint8_t* data, uint32_t len, std::string* text)
{
    const void* zero = len == 0 ? nullptr : memchr(data, 0, len);
    if (zero == nullptr || zero != data + len - 1)
        return false;
    text->assign(reinterpret_cast<const char*>(data), len - 1);
    return true;
}

bool tovak_unpack_counted_text(const uint8_t* data, uint32_t len, std::string* text)
{
    return len >= 2 && tovak_get_u16(data) == len - 2 && tovak_unpack_text(data + 2, len - 2, text);
}

bool tovak_unpack_dpl_ifaces(const uint8_t* data, uint32_t len, std::vector<tovak_wire_dpl_iface>* ifaces)
{
    if (len < 4)
        return false;
    const uint32_t count = tovak_get_u32(data);
    uint32_t at = 4;
    for (uint32_t i = 0; i < count; i++) {
        if (len - at < 2 || data[at + 1] > len - at - 2)
            return false;
        ifaces->push_back({ data[at], std::string(reinterpret_cast<const char*>(data + at + 2), data[at + 1]) });
        at += 2 + data[at + 1];
    }
    return at == len;
}
