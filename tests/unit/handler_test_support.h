// Handlers driven as the session drives them, against the recording platform
// and a configuration of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "config_test_support.h"
#include "daemon/cmd_table.h"
#include "protocol/tovak_pkt.h"
#include "handlers/tovak_handler.h"
#include "logging/tovak_logging.h"
#include "recording_platform.h"
#include "sim_device.h"

using Bytes = std::vector<uint8_t>;

// Bytes an earlier reply left in the frame.
#define STALE_BYTE 0xEE

struct HandlerReply {
    uint32_t result = 0;
    uint32_t len = TOVAK_PKT_DATA_SIZE;
    Bytes data = Bytes(TOVAK_PKT_DATA_SIZE, STALE_BYTE);

    Bytes written() const { return Bytes(data.begin(), data.begin() + std::min<uint32_t>(len, TOVAK_PKT_DATA_SIZE)); }
    uint32_t u32(size_t at = 0) const
    {
        uint32_t v;
        memcpy(&v, data.data() + at, 4);
        return v;
    }
    // Length and payload as the session preset them.
    bool untouched() const { return len == TOVAK_PKT_DATA_SIZE && data == Bytes(TOVAK_PKT_DATA_SIZE, STALE_BYTE); }
};

// The request in a frame of its own (zeros past it); capacity as the reply length on entry.
inline HandlerReply call(command_handler h, const Bytes& req = {}, uint32_t capacity = TOVAK_PKT_DATA_SIZE)
{
    Bytes frame(TOVAK_PKT_DATA_SIZE, 0);
    std::copy(req.begin(), req.end(), frame.begin());
    HandlerReply r;
    r.len = capacity;
    r.result = h(uint32_t(req.size()), frame.data(), &r.len, r.data.data());
    return r;
}

inline Bytes le16(uint16_t v)
{
    return { uint8_t(v), uint8_t(v >> 8) };
}

inline Bytes le32(uint32_t v)
{
    return { uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24) };
}

inline Bytes operator+(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

inline Bytes text_bytes(const std::string& s)
{
    return Bytes(s.begin(), s.end());
}

class HandlerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        platform().reset();
        reset_config();
        tovak_config_load_text(DEFAULT_CONFIG_TEXT);
        {
            tovak_config_locked c;
            snprintf(c.file_name(), TOVAK_CONFIG_FILE_NAME_SIZE, "%s", config_path.c_str());
        }
        tovak_handler_initialized = 1;
        tovak_log_state = LOG_STATE_IDLE;
    }
    void TearDown() override
    {
        tovak_handler_initialized = 0;
        tovak_log_state = LOG_STATE_IDLE;
        reset_config();
        platform().reset();
    }

    // The configuration file as last saved; empty when never saved.
    std::string saved() const { return read_file(config_path); }
    bool saved_has(const std::string& text) const { return saved().find(text) != std::string::npos; }
    std::vector<std::string> calls()
    {
        std::lock_guard<std::mutex> hold(platform().mu);
        return platform().calls;
    }

    TempDir dir;
    std::string config_path = dir.path() + "/dm.cfg";
};
