#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "daemon/cmd_table.h"
#include "daemon/tovak.h"
#include "protocol/tovak_cmd_ids.h"
#include "handlers/tovak_handler.h"
#include "sim_device.h"

namespace {

TEST(CommandTable, LookupFindsEveryEntryAndNothingElse)
{
    for (const cmd_entry& e : cmd_table)
        EXPECT_EQ(e.handler, find_cmd_handler(e.id)) << e.id;
    for (uint32_t id : { 0x15u, 0x2eu, 0x31u, 0x34u, 0x35u, 0x3eu, 0x45u, 0x4au, 0x4fu, 0x56u, 0x59u })
        EXPECT_EQ(nullptr, find_cmd_handler(id)) << id;
    for (uint32_t id : { 90u, 91u, 0x100u, 0xffffffffu })
        EXPECT_EQ(nullptr, find_cmd_handler(id)) << id;
}

TEST(CommandTable, DisconnectIsTheLastEntryAndNeverTouchesTheReply)
{
    EXPECT_EQ(uint32_t(CMD_DISCONNECT), cmd_table[CMD_TABLE_SIZE - 1].id);
    uint8_t rsp[4] = { 9, 9, 9, 9 };
    uint32_t len = 5120;
    EXPECT_EQ(1u, cmd_table[CMD_TABLE_SIZE - 1].handler(0, nullptr, &len, rsp));
    EXPECT_EQ(5120u, len);
    EXPECT_EQ(9, rsp[0]);
}

TEST(DefaultFiles, CopiesByteForByteWithMode0666)
{
    TempDir dir;
    std::string source = dir.path() + "/src";
    std::string user = dir.path() + "/user";
    std::string text;
    for (int i = 0; i < 1234; i++) // several 200-byte chunks and a partial one
        text.push_back(char('a' + i % 26));
    ASSERT_TRUE(write_file(source, text));
    mode_t old = umask(0);
    EXPECT_EQ(0, tovak_copy_default_file(user.c_str(), source.c_str()));
    umask(old);
    EXPECT_EQ(text, read_file(user));
    struct stat st;
    ASSERT_EQ(0, stat(user.c_str(), &st));
    EXPECT_EQ(0666u, st.st_mode & 07777);
}

TEST(DefaultFiles, LeavesAnExistingUserFileAlone)
{
    TempDir dir;
    std::string source = dir.path() + "/src";
    std::string user = dir.path() + "/user";
    ASSERT_TRUE(write_file(source, "factory"));
    ASSERT_TRUE(write_file(user, "mine"));
    EXPECT_EQ(0, tovak_copy_default_file(user.c_str(), source.c_str()));
    EXPECT_EQ("mine", read_file(user));
}

TEST(DefaultFiles, FailsWithoutSourceOrTargetDirectory)
{
    TempDir dir;
    std::string source = dir.path() + "/src";
    ASSERT_TRUE(write_file(source, "factory"));
    EXPECT_EQ(-1, tovak_copy_default_file((dir.path() + "/user").c_str(), (dir.path() + "/missing").c_str()));
    EXPECT_FALSE(file_exists(dir.path() + "/user"));
    EXPECT_EQ(-1, tovak_copy_default_file((dir.path() + "/no/dir/user").c_str(), source.c_str()));
}

} // namespace
