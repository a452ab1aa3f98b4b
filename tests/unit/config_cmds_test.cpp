// Commands 0x11 and 0x12 called directly: the gate, the length checks and a
// reply too small for the name. Cases that reach the property system run end
// to end instead, where the property store is the device's.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "config/tovak_config.h"
#include "config_test_support.h"
#include "daemon/tovak_pkt.h"
#include "handlers/tovak_handler.h"

namespace {

class ConfigCommands : public ::testing::Test {
protected:
    void SetUp() override
    {
        reset_config();
        saved_gate = tovak_handler_initialized;
        tovak_handler_initialized = 1;
        tovak_config_locked c;
        strcpy(c.file_name(), "/data/x.cfg");
    }
    void TearDown() override
    {
        tovak_handler_initialized = saved_gate;
        reset_config();
    }

    // Runs 0x11 with the u16 length field n and the given name bytes; the
    // daemon's stdout meanwhile goes to out.
    uint32_t set_file(uint16_t n, const std::string& bytes, std::string* out)
    {
        std::vector<uint8_t> req(2 + bytes.size());
        req[0] = uint8_t(n);
        req[1] = uint8_t(n >> 8);
        memcpy(req.data() + 2, bytes.data(), bytes.size());
        uint32_t len = TOVAK_PKT_DATA_SIZE;
        testing::internal::CaptureStdout();
        uint32_t rc = handler_set_config_file(uint32_t(req.size()), req.data(), &len, rsp);
        *out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(uint32_t(TOVAK_PKT_DATA_SIZE), len);
        return rc;
    }

    uint8_t saved_gate = 0;
    uint8_t rsp[TOVAK_PKT_DATA_SIZE] = {};
};

TEST_F(ConfigCommands, BothRefuseUntilInitialisedOrWithoutAReply)
{
    for (uint8_t gate : { 0, 1 }) {
        tovak_handler_initialized = gate;
        uint8_t req[4] = { 3, 0, 'a', 0 };
        memset(rsp, 0xaa, sizeof rsp);
        uint32_t len = TOVAK_PKT_DATA_SIZE;
        uint8_t* reply = gate ? nullptr : rsp;
        EXPECT_EQ(0u, handler_set_config_file(sizeof req, req, &len, reply)) << int(gate);
        EXPECT_EQ(0u, handler_get_config_file(0, nullptr, &len, reply)) << int(gate);
        EXPECT_EQ(uint32_t(TOVAK_PKT_DATA_SIZE), len);
        EXPECT_EQ(0xaa, rsp[0]);
    }
    EXPECT_STREQ("/data/x.cfg", tovak_config_get_file());
}

TEST_F(ConfigCommands, GetWritesLengthAndNameWithItsZero)
{
    uint32_t len = TOVAK_PKT_DATA_SIZE;
    ASSERT_EQ(1u, handler_get_config_file(0, nullptr, &len, rsp));
    ASSERT_EQ(14u, len);
    EXPECT_EQ(12, rsp[0] | rsp[1] << 8);
    EXPECT_EQ(0, memcmp(rsp + 2, "/data/x.cfg", 12));
}

TEST_F(ConfigCommands, GetIntoTooSmallAReplyKeepsWhatFitted)
{
    struct Case {
        uint32_t room;
        uint32_t written;
    };
    for (Case c : { Case{ 14, 14 }, Case{ 13, 2 }, Case{ 2, 2 }, Case{ 1, 0 } }) {
        memset(rsp, 0xaa, sizeof rsp);
        uint32_t len = c.room;
        EXPECT_EQ(1u, handler_get_config_file(0, nullptr, &len, rsp)) << c.room;
        EXPECT_EQ(c.written, len) << c.room;
        EXPECT_EQ(0xaa, rsp[c.written]) << c.room;
    }
}

TEST_F(ConfigCommands, SetChecksTheLengthField)
{
    // Long enough that the property step refuses it before anything changes.
    const std::string name = "/" + std::string(97, 'n');
    struct Case {
        uint16_t n;
        bool reaches_set_file;
    };
    for (Case c : { Case{ 100, false }, Case{ 0xffff, false }, Case{ 0x8000, false }, Case{ 99, true },
                    Case{ 98, true } }) {
        std::string out;
        EXPECT_EQ(0u, set_file(c.n, name + std::string(1, '\0'), &out)) << c.n;
        EXPECT_EQ(c.reaches_set_file, out.find("Set config file size = ") != std::string::npos) << c.n << out;
        EXPECT_NE(std::string::npos, out.find("tovak_handler ERR >> ")) << c.n;
    }
    EXPECT_STREQ("/data/x.cfg", tovak_config_get_file());
}

TEST_F(ConfigCommands, SetEndsTheNameAtItsLength)
{
    // No zero byte after the name, and more bytes behind it.
    const std::string name = "/" + std::string(94, 'p');
    std::string out;
    EXPECT_EQ(0u, set_file(95, name + "XYZ", &out));
    EXPECT_NE(std::string::npos, out.find("Set config file size = 95, " + name + "\n")) << out;
    EXPECT_NE(std::string::npos, out.find("Critical Error: fail to save config file into property system\n"));
}

TEST_F(ConfigCommands, SetWithoutANameIsRefused)
{
    std::string out;
    EXPECT_EQ(0u, set_file(0, "", &out));
    EXPECT_NE(std::string::npos, out.find("Set config file size = 0, \n")) << out;
    EXPECT_NE(std::string::npos, out.find("Critical Error: Missing Config File\n")) << out;
    // A length with no bytes behind it reads nothing.
    EXPECT_EQ(0u, set_file(40, "", &out));
    EXPECT_NE(std::string::npos, out.find("Set config file size = 40, \n")) << out;
    EXPECT_STREQ("/data/x.cfg", tovak_config_get_file());
}

} // namespace
