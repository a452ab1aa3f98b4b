// Before start-up has opened the modem interface, or with no reply area, the
// mask list, modem log, DPL and modem data commands refuse and touch nothing.
#include "handler_test_support.h"

namespace {

struct Gated {
    const char* name;
    command_handler handler;
    bool answers_minus_one; // 0x03 and 0x04 write -1 when refused
};

// clang-format off
const Gated gated[] = {
    { "add_event",          handler_add_event,           false },
    { "rm_event",           handler_rm_event,            false },
    { "get_events",         handler_get_events,          false },
    { "add_log",            handler_add_log,             false },
    { "rm_log",             handler_rm_log,              false },
    { "get_logs",           handler_get_logs,            false },
    { "add_msg",            handler_add_msg,             false },
    { "rm_msg",             handler_rm_msg,              false },
    { "get_msg",            handler_get_msg,             false },
    { "log_size",           handler_log_size,            true  },
    { "out_path",           handler_out_path,            true  },
    { "commit_log",         handler_commit_log,          false },
    { "get_buffer_size",    handler_get_buffer_size,     false },
    { "get_log_state",      handler_get_log_state,       false },
    { "get_range",          handler_get_range,           false },
    { "dpl_set_state",      handler_dpl_set_state,       false },
    { "dpl_get_state",      handler_dpl_get_state,       false },
    { "dpl_get_all_if_list", handler_dpl_get_all_if_list, false },
    { "dpl_get_if_list",    handler_dpl_get_if_list,     false },
    { "dpl_set_if",         handler_dpl_set_if,          false },
    { "dpl_reset",          handler_dpl_reset,           false },
    { "set_autosave",       handler_set_autosave,        false },
    { "save_modem_data",    handler_save_modem_data,     false },
    { "set_msisdn",         handler_set_msisdn,          false },
    { "get_autosave",       handler_get_autosave,        false },
};
// clang-format on

using HandlerGate = HandlerTest;

TEST_F(HandlerGate, NotInitialisedRefusesWithoutTouchingAnything)
{
    tovak_handler_initialized = 0;
    const std::string before = tovak_config_text();
    // A request every handler would act on.
    const Bytes req = le32(1) + text_bytes("/sdcard/x") + Bytes{ 0 };
    for (const Gated& g : gated) {
        HandlerReply r = call(g.handler, req);
        EXPECT_EQ(0u, r.result) << g.name;
        if (g.answers_minus_one) {
            EXPECT_EQ(4u, r.len) << g.name;
            EXPECT_EQ(0xFFFFFFFFu, r.u32()) << g.name;
        } else {
            EXPECT_TRUE(r.untouched()) << g.name;
        }
    }
    EXPECT_EQ(std::vector<std::string>{}, calls());
    EXPECT_EQ("", saved());
    EXPECT_EQ(before, tovak_config_text());
    // One ERR line each.
    std::lock_guard<std::mutex> hold(platform().mu);
    EXPECT_EQ(std::size(gated), size_t(std::count_if(platform().log.begin(), platform().log.end(), [](const std::string& m) {
                  return m.rfind("tovak_handler ERR >> ", 0) == 0;
              })));
}

TEST_F(HandlerGate, NoReplyAreaRefusesEvenWhenInitialised)
{
    Bytes frame(TOVAK_PKT_DATA_SIZE, 0);
    memcpy(frame.data(), "\x01\x00\x00\x00", 4);
    for (const Gated& g : gated) {
        uint32_t len = TOVAK_PKT_DATA_SIZE;
        EXPECT_EQ(0u, g.handler(4, frame.data(), &len, nullptr)) << g.name;
        EXPECT_EQ(uint32_t(TOVAK_PKT_DATA_SIZE), len) << g.name;
    }
    EXPECT_EQ(std::vector<std::string>{}, calls());
    EXPECT_EQ("", saved());
}

} // namespace
