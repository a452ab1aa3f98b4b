// What every command handler shares: its signature, the two start-up flags
// that gate the commands, and the request reader and reply writer.
#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>

#include "protocol/byte_buffer.h"

// (request length, request payload, reply length [in: room, out: written],
// reply payload) -> 1 success, 0 failure.
typedef uint32_t (*command_handler)(uint32_t req_len, uint8_t* req, uint32_t* rsp_len, uint8_t* rsp);

// Set once at start-up, by tovak_handler_init and adblog_handler_init; the
// session tests them before it runs a gated command.
extern std::atomic<uint8_t> tovak_handler_initialized;
extern std::atomic<uint8_t> adblog_handler_initialized;

// A request payload read field by field. A field the request does not hold
// reads as 0; the byte buffer logs the short read.
class tovak_request {
public:
    tovak_request(uint8_t* data, uint32_t len) { byte_buffer_init(&in_, data, len); }
    uint16_t u16() { return read(byte_buffer_read_u16); }
    uint32_t u32() { return read(byte_buffer_read_u32); }
    // All n bytes or none.
    bool bytes(void* dest, uint32_t n) { return byte_buffer_read_bytes(&in_, dest, n) == 1; }

private:
    template <typename T>
    T read(uint32_t (*op)(byte_buffer*, T*))
    {
        T v = 0;
        op(&in_, &v);
        return v;
    }
    byte_buffer in_ = {};
};

// A reply written over the reply payload, whose length on entry is the room.
// Each field is written whole or refused alone (the byte buffer logs the
// refusal), so a listing written as one field goes out whole or not at all;
// finish() stores the bytes written as the reply length.
class tovak_reply {
public:
    tovak_reply(uint32_t* len, uint8_t* data) : len_(len) { byte_buffer_init(&out_, data, *len); }
    tovak_reply& u8(uint8_t v) { return next(byte_buffer_write_u8(&out_, v)); }
    tovak_reply& u16(uint16_t v) { return next(byte_buffer_write_u16(&out_, v)); }
    tovak_reply& u32(uint32_t v) { return next(byte_buffer_write_u32(&out_, v)); }
    tovak_reply& bytes(const void* src, uint32_t n) { return next(n == 0 || byte_buffer_write_bytes(&out_, src, n)); }
    void finish() { *len_ = byte_buffer_length(&out_); }

private:
    tovak_reply& next(uint32_t) { return *this; }
    uint32_t* len_;
    byte_buffer out_ = {};
};

// Answers with u32 values, each written alone; nothing without a reply area.
void tovak_reply_u32(uint32_t* rsp_len, uint8_t* rsp, std::initializer_list<uint32_t> values);
