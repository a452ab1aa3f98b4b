// Modem data save, subscriber number and autosave, against the recording
// platform.
#include <thread>

#include "handler_test_support.h"
#include "handlers/tovak_modem_data_cmds.h"

namespace {

// A unit of n bytes, each telling its unit and place apart.
RecordedQmiUnit unit(uint8_t tag, size_t n, uint32_t after)
{
    RecordedQmiUnit u;
    u.len = int(n);
    u.unit_count = after;
    for (size_t j = 0; j < n; j++)
        u.bytes.push_back(uint8_t(tag + j % 7));
    return u;
}

Bytes concat(const std::vector<RecordedQmiUnit>& units)
{
    Bytes all;
    for (const RecordedQmiUnit& u : units)
        all.insert(all.end(), u.bytes.begin(), u.bytes.end());
    return all;
}

Bytes msisdn_req(const std::string& number, int n = -1)
{
    return le16(uint16_t(n < 0 ? int(number.size()) + 1 : n)) + text_bytes(number) + Bytes{ 0 };
}

class ModemData : public HandlerTest {
protected:
    std::vector<RecordedQmiSave> saves()
    {
        std::lock_guard<std::mutex> hold(platform().mu);
        return platform().qmi_saves;
    }
    // The number the next save is tagged with.
    std::string number()
    {
        platform().reset();
        call(handler_save_modem_data, le32(7)); // a kind that saves nothing
        call(handler_save_modem_data, le32(MODEM_DATA_KIND_STATISTICS));
        std::vector<RecordedQmiSave> s = saves();
        return s.size() == 1 ? s[0].number : "<no save>";
    }
};

TEST_F(ModemData, AutosaveIsOnOnlyForExactlyOne)
{
    struct Case {
        Bytes req;
        const char* stored;
    };
    const Case cases[] = {
        { le32(1), "1" }, { le32(0), "0" }, { le32(2), "0" }, { le32(0x101), "0" }, { Bytes{}, "0" }, { Bytes{ 1 }, "0" },
    };
    for (const Case& c : cases) {
        platform().reset();
        HandlerReply r = call(handler_set_autosave, c.req);
        EXPECT_EQ(1u, r.result);
        EXPECT_EQ(0u, r.len);
        EXPECT_EQ(std::vector<std::string>{ std::string("property_set(persist.dmlogging.phantom, ") + c.stored + ")" },
                  calls());
        EXPECT_TRUE(platform().logged("Autosave State set\n"));
    }
}

TEST_F(ModemData, AutosaveReadsThePropertyAsANumberAndUnsetAsOne)
{
    struct Case {
        const char* property; // nullptr: unset
        uint32_t value;
    };
    const Case cases[] = { { nullptr, 1 }, { "1", 1 }, { "0", 0 }, { "7", 7 }, { "on", 0 }, { "", 0 } };
    for (const Case& c : cases) {
        platform().reset();
        if (c.property)
            platform().properties[TOVAK_AUTOSAVE_PROPERTY] = c.property;
        HandlerReply r = call(handler_get_autosave);
        EXPECT_EQ(1u, r.result);
        EXPECT_EQ(le32(c.value), r.written()) << (c.property ? c.property : "unset");
    }
}

TEST_F(ModemData, NumberTakesAtMost19BytesAndKeepsBytesPastTheNewOne)
{
    struct Step {
        Bytes req;
        uint32_t result;
        const char* number; // tagged on the next save
    };
    const Step steps[] = {
        { msisdn_req("123456789012345678"), 1, "123456789012345678" }, // 19 with its zero byte
        { msisdn_req("1234567890123456789"), 0, "123456789012345678" }, // 20: refused
        { msisdn_req("0101234567"), 1, "0101234567" },                 // its zero byte ends the text
        { msisdn_req("999", 3), 1, "9991234567" },                     // no zero byte: old digits follow
        { msisdn_req("55", 0xFFFF), 1, "9991234567" },                 // negative: nothing copied
        { msisdn_req("55", 30), 0, "9991234567" },
        { le16(10) + text_bytes("77"), 1, "9991234567" },              // shorter than it says: nothing copied
    };
    for (size_t i = 0; i < std::size(steps); i++) {
        SCOPED_TRACE(i);
        HandlerReply r = call(handler_set_msisdn, steps[i].req);
        EXPECT_EQ(steps[i].result, r.result);
        EXPECT_EQ(0u, r.len);
        EXPECT_EQ(steps[i].number, number());
    }
    call(handler_set_msisdn, msisdn_req("0101234567"));
    EXPECT_TRUE(platform().logged("get MSISDN info = 11, 0101234567\n"));
}

TEST_F(ModemData, UnitsAreGatheredInOrderAndSavedUnderTheirKind)
{
    struct Case {
        const char* what;
        Bytes req;
        std::vector<RecordedQmiUnit> units;
        const char* kind;    // nullptr: nothing saved
        Bytes data;          // what is saved
        const char* logged;
    };
    const std::vector<RecordedQmiUnit> three = { unit('a', 100, 2), unit('k', 200, 1), unit('v', 50, 0) };
    const std::string phantom_default = PHANTOM_DEFAULT_RECORD;
    const Case cases[] = {
        { "statistics", le32(MODEM_DATA_KIND_STATISTICS), three, "Statstics", concat(three), "Stastics file saved\n" },
        { "phantom", le32(MODEM_DATA_KIND_PHANTOM), three, "Phantom", concat(three), "PHANTOM Logging file saved\n" },
        { "phantom without data", le32(MODEM_DATA_KIND_PHANTOM), {}, "Phantom", text_bytes(phantom_default),
          "PHANTOM Logging file saved\n" },
        { "a missing kind is phantom", Bytes{}, {}, "Phantom", text_bytes(phantom_default),
          "PHANTOM Logging file saved\n" },
        { "statistics without data", le32(MODEM_DATA_KIND_STATISTICS), {}, "Statstics", Bytes{},
          "Stastics file saved\n" },
        { "other kind", le32(2), three, nullptr, Bytes{}, "Recieved Info : len = 50, all_data_len = 300, unit_cnt = 0" },
        { "count 0 ends it", le32(MODEM_DATA_KIND_STATISTICS), { unit('a', 10, 0), unit('b', 10, 0) }, "Statstics",
          concat({ unit('a', 10, 0) }), "Stastics file saved\n" },
        { "length 0 ends it", le32(MODEM_DATA_KIND_STATISTICS), { unit('a', 10, 3), unit('b', 0, 2), unit('c', 5, 0) },
          "Statstics", concat({ unit('a', 10, 3) }), "Stastics file saved\n" },
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        platform().reset();
        platform().qmi_units = c.units;
        HandlerReply r = call(handler_save_modem_data, c.req);
        EXPECT_EQ(1u, r.result);
        EXPECT_EQ(0u, r.len);
        std::vector<std::string> got = calls();
        ASSERT_GE(got.size(), 3u);
        EXPECT_EQ("qmi_tovak_init()", got.front());
        EXPECT_EQ("qmi_tovak_deinit()", got.back());
        std::vector<RecordedQmiSave> s = saves();
        if (c.kind == nullptr) {
            EXPECT_TRUE(s.empty());
        } else {
            ASSERT_EQ(1u, s.size());
            EXPECT_EQ(c.kind, s[0].kind);
            EXPECT_EQ(c.data, s[0].data);
        }
        EXPECT_TRUE(platform().logged(c.logged));
    }
    EXPECT_EQ(std::vector<std::string>{}, platform().calls_named("property")); // no property involved
}

TEST_F(ModemData, AUnitThatStoresNoBufferIsNeitherCopiedNorFreedTwice)
{
    RecordedQmiUnit silent;
    silent.store = false;
    platform().qmi_units = { unit('a', 40, 1), silent };
    call(handler_save_modem_data, le32(MODEM_DATA_KIND_STATISTICS));
    std::vector<RecordedQmiSave> s = saves();
    ASSERT_EQ(1u, s.size());
    EXPECT_EQ(concat({ unit('a', 40, 1) }), s[0].data);
}

TEST_F(ModemData, CopyingStopsAtTheEndOfTheBuffer)
{
    const std::vector<RecordedQmiUnit> big = { unit('a', 300000, 1), unit('m', 300000, 0) };
    platform().qmi_units = big;
    call(handler_save_modem_data, le32(MODEM_DATA_KIND_STATISTICS));
    std::vector<RecordedQmiSave> s = saves();
    ASSERT_EQ(1u, s.size());
    Bytes all = concat(big);
    EXPECT_EQ(Bytes(all.begin(), all.begin() + MODEM_DATA_BUFFER_SIZE), s[0].data);

    // A library that never says "last" is stopped by the full buffer.
    platform().reset();
    platform().qmi_endless = true;
    platform().qmi_endless_unit = unit('z', 100000, 1);
    HandlerReply r = call(handler_save_modem_data, le32(MODEM_DATA_KIND_PHANTOM));
    EXPECT_EQ(1u, r.result);
    s = saves();
    ASSERT_EQ(1u, s.size());
    EXPECT_EQ(size_t(MODEM_DATA_BUFFER_SIZE), s[0].data.size());
    EXPECT_EQ(5u, platform().calls_named("qmi_tovak_get_data").size());
}

TEST_F(ModemData, ConcurrentSavesDoNotMixTheirUnits)
{
    const std::vector<RecordedQmiUnit> three = { unit('a', 3000, 2), unit('k', 2000, 1), unit('v', 1000, 0) };
    platform().qmi_units = three;
    const int threads = 4;
    const int rounds = 25;
    std::vector<std::thread> clients;
    for (int t = 0; t < threads; t++) {
        clients.emplace_back([] {
            for (int i = 0; i < rounds; i++)
                call(handler_save_modem_data, le32(MODEM_DATA_KIND_STATISTICS));
        });
    }
    for (std::thread& t : clients)
        t.join();
    std::vector<RecordedQmiSave> s = saves();
    ASSERT_EQ(size_t(threads * rounds), s.size());
    for (const RecordedQmiSave& save : s)
        ASSERT_EQ(concat(three), save.data);
    // Each save ran from init to deinit with no other in between.
    const std::vector<std::string> one_save = {
        "qmi_tovak_init()",         "qmi_tovak_get_data(1, 0)",       "qmi_tovak_get_data(1, 1)",
        "qmi_tovak_get_data(1, 2)", "qmi_tovak_save_log(Statstics, 6000)", "qmi_tovak_deinit()",
    };
    std::vector<std::string> got = calls();
    ASSERT_EQ(one_save.size() * threads * rounds, got.size());
    for (size_t i = 0; i < got.size(); i++)
        ASSERT_EQ(one_save[i % one_save.size()], got[i]) << i;
}

} // namespace
