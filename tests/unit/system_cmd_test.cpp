#include "handlers/tovak_system_cmd.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace {

TEST(SystemCommandWhitelist, MatchesByPrefixInOrder)
{
    struct Case {
        const char* text;
        int position; // 1-based as listed; 0 = refused
    };
    const Case cases[] = {
        { "@@#ps -t", 3 },
        { "@@#psx", 3 },              // a prefix is all that is checked
        { "@@#ps; rm -rf /x", 3 },    // shell syntax after the prefix included
        { "@@#killall x", 19 },       // plain kill, not the by-name path
        { "@@#+=killall logcat", 20 },
        { "@@#bugreport", 1 },
        { "@@#dumpcrash now", 18 },
        { "@@#getprop ro.x", 15 },
        { "ls", 0 },
        { "ps", 0 },                  // the marker is part of the prefix
        { "@@#", 0 },
        { "@@#p", 0 },
        { "@@ #ps", 0 },
        { "", 0 },
    };
    for (const Case& c : cases) {
        int got = tovak_system_command_match(c.text);
        EXPECT_EQ(c.position - 1, got) << c.text;
    }
}

TEST(SystemCommandWhitelist, HasTwentyMarkedPrefixes)
{
    for (const char* prefix : SYSTEM_COMMAND_WHITELIST)
        EXPECT_EQ(0, std::string(prefix).rfind("@@#", 0)) << prefix;
    EXPECT_STREQ("@@#+=killall", SYSTEM_COMMAND_WHITELIST[SYSTEM_COMMAND_WHITELIST_SIZE - 1]);
}

TEST(GetProcessID, FindsAProcessByAPartOfItsExecutablePath)
{
    char exe[512];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    ASSERT_GT(n, 0);
    exe[n] = '\0';
    // Our own test binary has a name unlikely to be anyone else's.
    std::string name = std::string(exe).substr(std::string(exe).rfind('/') + 1);
    int pid = getProcessID(name.c_str());
    ASSERT_NE(0, pid);
    char other[512];
    std::string link = "/proc/" + std::to_string(pid) + "/exe";
    ssize_t m = readlink(link.c_str(), other, sizeof other - 1);
    ASSERT_GT(m, 0);
    other[m] = '\0';
    EXPECT_NE(std::string::npos, std::string(other).find(name));
}

TEST(GetProcessID, ReturnsZeroWhenNothingMatches)
{
    EXPECT_EQ(0, getProcessID("no-such-program-b7f3c2"));
}

} // namespace
