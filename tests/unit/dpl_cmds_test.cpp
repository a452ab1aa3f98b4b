// DPL interface commands against the recording platform: what reaches the
// modem, in which order, and what the configuration keeps.
#include "handler_test_support.h"
#include "handlers/tovak_dpl_cmds.h"

namespace {

Bytes hex(const std::string& text)
{
    Bytes out;
    std::string digits;
    for (char ch : text)
        if (ch != ' ')
            digits += ch;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(uint8_t(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return out;
}

TEST(DplIfaceRecord, FourEntriesNamingTheInterfaceAndZerosElsewhere)
{
    // clang-format off
    const Bytes want = hex(
        "2c 04 0000 00 000000"                              // id, entry count, unwritten, 0, unwritten
        "01000000 2c 00 00 00 00000000 00 000000"           // kind 1, variant 0
        "02000000 2c 00 00 00 00000000 00 000000"           // kind 2, variant 0
        "01000000 2c 00 01 00 00000000 00 000000"           // kind 1, variant 1
        "02000000 2c 00 01 00 00000000");                   // kind 2, variant 1: 12 bytes
    // clang-format on
    ASSERT_EQ(size_t(DIAG_DPL_IFACE_RECORD_SIZE), want.size());
    uint8_t rec[DIAG_DPL_IFACE_RECORD_SIZE];
    memset(rec, 0x5A, sizeof rec);
    tovak_dpl_iface_record(0x2c, rec);
    EXPECT_EQ(want, Bytes(rec, rec + sizeof rec));
}

class DplCmds : public HandlerTest {
protected:
    std::vector<uint16_t> listed()
    {
        HandlerReply r = call(handler_dpl_get_if_list);
        EXPECT_EQ(1u, r.result);
        std::vector<uint16_t> ids;
        if (r.len < 4 || r.len != 4 + 2 * r.u32())
            return { 0xFFFF }; // malformed
        for (uint32_t i = 0; i < r.u32(); i++)
            ids.push_back(uint16_t(r.data[4 + 2 * i] | r.data[5 + 2 * i] << 8));
        return ids;
    }
    uint32_t state() { return call(handler_dpl_get_state).u32(); }
};

TEST_F(DplCmds, SwitchingOnProgramsEachConfiguredInterfaceInOrderByItsLowByte)
{
    ASSERT_EQ(0, tovak_config_add_dpl_if(300));
    ASSERT_EQ(0, tovak_config_add_dpl_if(2));
    HandlerReply r = call(handler_dpl_set_state, le32(1));
    EXPECT_EQ(1u, r.result);
    EXPECT_EQ(0u, r.len);
    EXPECT_EQ((std::vector<std::string>{
                  "diag_dpl_set_iface_logging_with_ifid(1)",
                  "diag_dpl_set_iface_logging_with_ifid(2)",
                  "diag_dpl_set_iface_logging_with_ifid(15)",
                  "diag_dpl_set_iface_logging_with_ifid(19)",
                  "diag_dpl_set_iface_logging_with_ifid(44)", // 300
              }),
              calls());
    EXPECT_TRUE(platform().logged("tovak_config_get_dpl_ifs result = 0, size = 5\n"));
    EXPECT_EQ(1u, state());
    EXPECT_TRUE(saved_has("<DplState>on</DplState>"));
    // Listed as stored, not as the modem saw it.
    EXPECT_EQ((std::vector<uint16_t>{ 1, 2, 15, 19, 300 }), listed());
}

TEST_F(DplCmds, SetStateRefusesTheStateItAlreadyHasAndStoresOnlyPositiveAsOn)
{
    struct Step {
        Bytes req;
        uint32_t result;
        const char* modem; // the one call expected, "" for none, "on" for the three interfaces
        uint32_t state_after;
    };
    const Step steps[] = {
        { le32(0), 0, "", 0 },                                  // off while off
        { Bytes{}, 0, "", 0 },                                  // a missing field reads 0
        { le32(1), 1, "on", 1 },
        { le32(1), 0, "", 1 },                                  // on while on
        { le32(5), 1, "on", 1 },                                // not equal to 1, so taken
        { le32(0), 1, "diag_dpl_reset_logging()", 0 },
        { le32(0xFFFFFFFF), 1, "on", 0 },                       // negative: switched on, stored off
        { le32(0xFFFFFFFF), 1, "on", 0 },                       // and again, since 0 is stored
    };
    for (size_t i = 0; i < std::size(steps); i++) {
        const Step& s = steps[i];
        SCOPED_TRACE(i);
        platform().reset();
        unlink(config_path.c_str());
        HandlerReply r = call(handler_dpl_set_state, s.req);
        EXPECT_EQ(s.result, r.result);
        std::vector<std::string> want;
        if (std::string(s.modem) == "on")
            want = { "diag_dpl_set_iface_logging_with_ifid(1)", "diag_dpl_set_iface_logging_with_ifid(15)",
                     "diag_dpl_set_iface_logging_with_ifid(19)" };
        else if (*s.modem != '\0')
            want = { s.modem };
        EXPECT_EQ(want, calls());
        if (s.result == 0) {
            EXPECT_TRUE(r.untouched());
            EXPECT_EQ("", saved());
        } else {
            EXPECT_EQ(0u, r.len);
            EXPECT_TRUE(saved_has(s.state_after ? "<DplState>on</DplState>" : "<DplState>off</DplState>"));
        }
        EXPECT_EQ(s.state_after, state());
    }
}

TEST_F(DplCmds, SwitchingOnWithoutAConfigurationProgramsNothing)
{
    reset_config();
    HandlerReply r = call(handler_dpl_set_state, le32(1));
    EXPECT_EQ(1u, r.result);
    EXPECT_EQ(std::vector<std::string>{}, calls());
    EXPECT_TRUE(platform().logged("tovak_config_get_dpl_ifs result = -1, size = -1\n"));
    // Nor can the list be copied.
    r = call(handler_dpl_get_if_list);
    EXPECT_EQ(0u, r.result);
    EXPECT_TRUE(r.untouched());
}

TEST_F(DplCmds, AllInterfacesAreListedWithTheirDescriptions)
{
    platform().iface_count = 3;
    platform().iface_ids = { 1, 15, 19 };
    platform().iface_descs = { { 1, desc_area("rmnet0") },
                               { 15, desc_area("") },
                               { 19, desc_area(std::string(99, 'x')) } }; // the longest that ends in time
    HandlerReply r = call(handler_dpl_get_all_if_list);
    EXPECT_EQ(1u, r.result);
    const Bytes want = le32(3) + Bytes{ 1, 6 } + text_bytes("rmnet0") + Bytes{ 15, 0 } + Bytes{ 19, 99 } +
                       text_bytes(std::string(99, 'x'));
    EXPECT_EQ(want, r.written());

    platform().iface_count = 0;
    r = call(handler_dpl_get_all_if_list);
    EXPECT_EQ(1u, r.result);
    EXPECT_EQ(le32(0), r.written());
}

TEST_F(DplCmds, ADescriptionThatDoesNotEndWithinItsAreaIsRefused)
{
    platform().iface_count = 2;
    platform().iface_ids = { 1, 2 };
    platform().iface_descs = { { 1, desc_area("rmnet0") }, { 2, std::vector<char>(DIAG_DPL_DESC_SIZE, 'y') } };
    HandlerReply r = call(handler_dpl_get_all_if_list);
    EXPECT_EQ(0u, r.result);
    EXPECT_EQ(uint32_t(TOVAK_PKT_DATA_SIZE), r.len);
    EXPECT_FALSE(platform().logged_starting("id = 2"));
}

TEST_F(DplCmds, AListLongerThanTheLibraryHoldsIsCutAtItsCapacity)
{
    platform().iface_count = 250;
    platform().iface_ids = Bytes(DIAG_DPL_MAX_IFACES, 7);
    platform().iface_descs = { { 7, desc_area("r") } };
    HandlerReply r = call(handler_dpl_get_all_if_list);
    EXPECT_EQ(1u, r.result);
    EXPECT_EQ(uint32_t(DIAG_DPL_MAX_IFACES), r.u32());
    EXPECT_EQ(4u + DIAG_DPL_MAX_IFACES * 3, r.len);
    EXPECT_EQ(size_t(DIAG_DPL_MAX_IFACES), platform().calls_named("diag_dpl_get_iface_desc").size());
}

TEST_F(DplCmds, EachPartOfTheInterfaceListIsWrittenOnItsOwn)
{
    // A reply area too small for the first description still takes the
    // smaller parts after it: malformed, yet done.
    platform().iface_count = 2;
    platform().iface_ids = { 1, 2 };
    platform().iface_descs = { { 1, desc_area("rmnet0") }, { 2, desc_area("ab") } };
    HandlerReply r = call(handler_dpl_get_all_if_list, {}, 10);
    EXPECT_EQ(1u, r.result);
    const Bytes want = le32(2) + Bytes{ 1, 6, 2, 2 } + text_bytes("ab");
    EXPECT_EQ(want, r.written());
}

TEST_F(DplCmds, ConfiguredListIsCountedAndWholeOrNothing)
{
    HandlerReply r = call(handler_dpl_get_if_list);
    EXPECT_EQ(1u, r.result);
    EXPECT_EQ(le32(3) + le16(1) + le16(15) + le16(19), r.written());
    // Too long for the reply: the count goes out alone.
    r = call(handler_dpl_get_if_list, {}, 9);
    EXPECT_EQ(1u, r.result);
    EXPECT_EQ(le32(3), r.written());
    EXPECT_EQ(std::vector<std::string>{}, calls());
}

TEST_F(DplCmds, SetIfProgramsTheModemAtOnceAndAddsTheId)
{
    for (int round = 0; round < 2; round++) { // a repeat programs the modem again
        platform().reset();
        HandlerReply r = call(handler_dpl_set_if, le16(300));
        EXPECT_EQ(1u, r.result);
        EXPECT_EQ(0u, r.len);
        EXPECT_EQ(std::vector<std::string>{ "diag_dpl_set_iface_logging(44)" }, calls());
        uint8_t want[DIAG_DPL_IFACE_RECORD_SIZE];
        tovak_dpl_iface_record(44, want);
        std::lock_guard<std::mutex> hold(platform().mu);
        ASSERT_EQ(1u, platform().iface_records.size());
        EXPECT_EQ(Bytes(want, want + sizeof want), platform().iface_records[0]);
        EXPECT_EQ(std::vector<int>{ 4 }, platform().iface_rsp_lens);
    }
    EXPECT_EQ((std::vector<uint16_t>{ 1, 15, 19, 300 }), listed());
    EXPECT_TRUE(saved_has("1, 15, 19, 300"));
    // The DPL state is not the command's business.
    EXPECT_EQ(0u, state());
    EXPECT_TRUE(saved_has("<DplState>off</DplState>"));

    // A missing field reads 0, which is added.
    platform().reset();
    call(handler_dpl_set_if);
    EXPECT_EQ(std::vector<std::string>{ "diag_dpl_set_iface_logging(0)" }, calls());
    EXPECT_EQ((std::vector<uint16_t>{ 0, 1, 15, 19, 300 }), listed());
}

TEST_F(DplCmds, ResetClearsTheInterfacesAndTheStateAndNeverWritesItsReply)
{
    call(handler_dpl_set_state, le32(1));
    platform().reset();
    HandlerReply r = call(handler_dpl_reset, le32(1));
    EXPECT_EQ(1u, r.result);
    EXPECT_TRUE(r.untouched());
    EXPECT_EQ(std::vector<std::string>{ "diag_dpl_reset_logging()" }, calls());
    EXPECT_EQ(std::vector<uint16_t>{}, listed());
    EXPECT_EQ(0u, state());
    EXPECT_TRUE(saved_has("<DplState>off</DplState>"));
    EXPECT_TRUE(saved_has("<IfIDs>\n\n</IfIDs>"));
    // Now on programs nothing.
    platform().reset();
    call(handler_dpl_set_state, le32(1));
    EXPECT_EQ(std::vector<std::string>{}, calls());
}

} // namespace
