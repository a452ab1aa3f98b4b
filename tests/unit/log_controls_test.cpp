// Buffer size, output path, commit and the status queries, against the
// recording platform.
#include "handler_test_support.h"
#include "logging/tovak_log_controls.h"

namespace {

TEST(CaptureDir, FollowsTheOutPathUpToItsLastSlash)
{
    struct Case {
        const char* out_path;
        const char* dir; // nullptr: refused
    };
    const Case cases[] = {
        { "/sdcard/logs/dm", "/sdcard/logs/" },
        { "/sdcard/logs/", "/sdcard/logs/" },
        { "/a/b/c/d/e", "/a/b/c/d/" }, // 5 slashes, the most taken
        { "/a/b/c/d/e/f", nullptr },
        { "/a/b/c/d/e/", nullptr },
        { "//////", nullptr },
        { "/dm", "/" },
        { "/", "/" },
        { "//x", "//" },
        { "a/b", "a/" },
        { "dm", "//" }, // no slash at all
        { "", "//" },
    };
    for (const Case& c : cases) {
        char dir[TOVAK_OUT_PATH_SIZE] = "unchanged";
        int ok = tovak_capture_dir_for(c.out_path, dir, sizeof dir);
        EXPECT_EQ(c.dir != nullptr ? 1 : 0, ok) << c.out_path;
        if (c.dir != nullptr) {
            EXPECT_STREQ(c.dir, dir) << c.out_path;
        }
    }
    // The longest path the command keeps still fits with its slash.
    std::string longest = "/" + std::string(97, 'd') + "/";
    char dir[TOVAK_OUT_PATH_SIZE];
    ASSERT_EQ(1, tovak_capture_dir_for(longest.c_str(), dir, sizeof dir));
    EXPECT_EQ(longest, dir);
}

using LogControls = HandlerTest;

TEST_F(LogControls, LogSizeSavesTheSizeThenAsksThePlatform)
{
    struct Case {
        const char* what;
        Bytes req;
        int32_t log_state;
        int answer;           // the platform's answer, -1 for the size asked
        uint32_t result;
        int32_t reply;
        const char* saved;    // BufferSize in the file afterwards, nullptr for no save
    };
    const Case cases[] = {
        { "plain", le32(2000000), LOG_STATE_IDLE, -1, 1, 2000000, "2000000" },
        { "exactly 4 bytes, smallest size", le32(1), LOG_STATE_IDLE, -1, 1, 1, "1" },
        { "bytes after the size ignored", le32(3000000) + le32(7), LOG_STATE_STOP, -1, 1, 3000000, "3000000" },
        { "platform clamps", le32(5), LOG_STATE_IDLE, 1048576, 1, 1048576, "5" },
        { "platform fails: still done", le32(700), LOG_STATE_IDLE, 0, 1, 0, "700" },
        { "size 0", le32(0), LOG_STATE_IDLE, -1, 0, -1, nullptr },
        { "negative size", le32(uint32_t(-5)), LOG_STATE_IDLE, -1, 0, -1, nullptr },
        { "short request", Bytes{ 0x40, 0x42, 0x0f }, LOG_STATE_IDLE, -1, 0, -1, nullptr },
        { "empty request", Bytes{}, LOG_STATE_IDLE, -1, 0, -1, nullptr },
        { "logging runs", le32(2000000), LOG_STATE_START, -1, 0, -1, nullptr },
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        platform().reset();
        unlink(config_path.c_str());
        tovak_log_state = c.log_state;
        platform().buffer_size_answer = c.answer;
        std::string file_at_call = "<not called>";
        platform().on_buffer_change = [&] { file_at_call = saved(); };

        HandlerReply r = call(handler_log_size, c.req);
        EXPECT_EQ(c.result, r.result);
        EXPECT_EQ(4u, r.len);
        EXPECT_EQ(uint32_t(c.reply), r.u32());
        if (c.saved == nullptr) {
            EXPECT_EQ(std::vector<std::string>{}, calls());
            EXPECT_EQ("", saved());
            continue;
        }
        std::string want = std::string("<BufferSize>") + c.saved + "</BufferSize>";
        EXPECT_NE(std::string::npos, file_at_call.find(want)) << file_at_call;
        EXPECT_TRUE(saved_has(want));
        EXPECT_EQ(uint32_t(atoi(c.saved)), tovak_config_get_buffer_size());
        EXPECT_TRUE(platform().logged("set log_size to " + std::string(c.saved) + " Bytes, changed size = " +
                                      std::to_string(c.reply) + "\n"));
    }
}

TEST_F(LogControls, OutPathChangesTheModemPathEvenWhenALaterStepFails)
{
    // Log capture is not running in this process, so its setter refuses:
    // the modem path is taken all the same.
    struct Case {
        const char* what;
        Bytes req;
        int platform_result;
        const char* modem_path; // what the platform was given, nullptr for no call
        const char* capture_dir; // the directory derived, nullptr when none
    };
    const std::string long_path = "/sdcard/" + std::string(120, 'p');
    const Case cases[] = {
        { "derived", text_bytes("/sdcard/logs/dm") + Bytes{ 0 }, 1, "/sdcard/logs/dm", "/sdcard/logs/" },
        { "text ends at its zero byte", text_bytes("/data/x") + Bytes{ 0 } + text_bytes("/junk"), 1, "/data/x",
          "/data/" },
        { "cut to 99", text_bytes(long_path), 1, "", "/sdcard/" },
        { "6 slashes", text_bytes("/a/b/c/d/e/f") + Bytes{ 0 }, 1, "/a/b/c/d/e/f", nullptr },
        { "platform refuses", text_bytes("relative") + Bytes{ 0 }, 0, "relative", nullptr },
        { "one byte", text_bytes("/"), 1, nullptr, nullptr },
        { "empty", Bytes{}, 1, nullptr, nullptr },
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        platform().reset();
        platform().output_path_result = c.platform_result;
        HandlerReply r = call(handler_out_path, c.req);
        EXPECT_EQ(0u, r.result);
        EXPECT_EQ(4u, r.len);
        EXPECT_EQ(0xFFFFFFFFu, r.u32());
        std::vector<std::string> asked = platform().calls_named("diag_change_output_path");
        if (c.modem_path == nullptr) {
            EXPECT_TRUE(asked.empty());
            continue;
        }
        std::string path = *c.modem_path != '\0' ? c.modem_path : long_path.substr(0, 99);
        EXPECT_EQ(std::vector<std::string>{ "diag_change_output_path(" + path + ")" }, asked);
        EXPECT_EQ(c.platform_result ? path : "", platform().output_path);
        EXPECT_TRUE(platform().logged("DMLogging out_path_name is " + path));
        if (c.capture_dir != nullptr)
            EXPECT_TRUE(platform().logged(std::string("ADB_LOG out_path_name is ") + c.capture_dir));
        else
            EXPECT_FALSE(platform().logged_starting("ADB_LOG"));
    }
    EXPECT_EQ("", saved()); // nothing of this is configuration
}

TEST_F(LogControls, CommitWorksInEveryLoggingState)
{
    for (int32_t state : { LOG_STATE_IDLE, LOG_STATE_START, LOG_STATE_STOP }) {
        platform().reset();
        tovak_log_state = state;
        HandlerReply r = call(handler_commit_log, le32(99));
        EXPECT_EQ(1u, r.result) << state;
        EXPECT_EQ(0u, r.len) << state;
        EXPECT_EQ(std::vector<std::string>{ "diag_commit_log()" }, calls()) << state;
        EXPECT_TRUE(platform().logged("commit log\n"));
    }
}

TEST_F(LogControls, QueriesReportWhatThePlatformAndTheStateSay)
{
    platform().buffer_size = 2000000;
    HandlerReply r = call(handler_get_buffer_size, le32(5));
    EXPECT_EQ(1u, r.result);
    EXPECT_EQ(le32(2000000), r.written());

    // Only the started state counts as running.
    for (auto [state, running] : { std::pair{ LOG_STATE_IDLE, 0u }, { LOG_STATE_START, 1u }, { LOG_STATE_STOP, 0u } }) {
        tovak_log_state = state;
        r = call(handler_get_log_state);
        EXPECT_EQ(1u, r.result);
        EXPECT_EQ(le32(running), r.written()) << state;
    }

    platform().range_first = 0x01020304;
    platform().range_second = 0xA0B0C0D0;
    r = call(handler_get_range);
    EXPECT_EQ(1u, r.result);
    EXPECT_EQ(le32(0x01020304) + le32(0xA0B0C0D0), r.written());
    // A platform that fills nothing reads as zeros, never as stack bytes.
    platform().range_fills = false;
    r = call(handler_get_range);
    EXPECT_EQ(Bytes(8, 0), r.written());

    // Replies go through the bounded writer: no room, no bytes.
    r = call(handler_get_range, {}, 6);
    EXPECT_EQ(4u, r.len);
    EXPECT_EQ(Bytes(4, 0), r.written());
    EXPECT_EQ(STALE_BYTE, r.data[4]);
}

} // namespace
