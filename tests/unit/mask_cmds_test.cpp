// Commands 0x06 to 0x0e called as the session calls them: the unchecked
// request reads, the save after every edit, the listings. Their gate is in
// handler_gate_test.cpp.
#include "handler_test_support.h"

namespace {

Bytes u16s(const std::vector<uint16_t>& v)
{
    Bytes b;
    for (uint16_t x : v)
        b = b + le16(x);
    return b;
}

template <typename T>
std::vector<T> got(int (*get)(T**, int*))
{
    T* a = nullptr;
    int n = -1;
    get(&a, &n);
    std::vector<T> v(a, a + std::max(n, 0));
    free(a);
    return v;
}

std::vector<std::pair<uint16_t, uint32_t>> msgs()
{
    std::vector<std::pair<uint16_t, uint32_t>> v;
    for (const tovak_msg_entry& e : got(tovak_config_get_msgs))
        v.emplace_back(e.ssid, e.mask);
    return v;
}

using MaskCmds = HandlerTest;

TEST_F(MaskCmds, EditsChangeTheSetsAndRewriteTheFile)
{
    using Sets = std::function<bool()>;
    auto events_are = [](std::vector<uint16_t> want) { return [want] { return got(tovak_config_get_events) == want; }; };
    const std::vector<uint16_t> dflt_events = { 1498, 1499, 1501, 1503, 1606, 1607, 1608,
                                                1611, 1612, 1613, 1685, 1970, 1971, 1972 };
    auto with = [&](std::vector<uint16_t> v, uint16_t id) {
        v.insert(std::lower_bound(v.begin(), v.end(), id), id);
        return v;
    };
    auto without = [&](std::vector<uint16_t> v, uint16_t id) {
        v.erase(std::find(v.begin(), v.end(), id));
        return v;
    };
    auto log_present = [](uint16_t code, bool want) {
        return [=] {
            auto codes = got(tovak_config_get_logs);
            return (std::find(codes.begin(), codes.end(), code) != codes.end()) == want;
        };
    };
    auto msg_is = [](uint16_t ssid, int64_t mask) {
        return [=] {
            for (auto [s, m] : msgs())
                if (s == ssid)
                    return int64_t(m) == mask;
            return mask < 0;
        };
    };
    struct Case {
        const char* name;
        command_handler h;
        Bytes req;
        Sets sets;
    };
    const Case cases[] = {
        { "add an event", handler_add_event, { 0x34, 0x02 }, events_are(with(dflt_events, 564)) },
        { "add a present event", handler_add_event, { 0xda, 0x05 }, events_are(dflt_events) },
        { "empty request adds id 0", handler_add_event, {}, events_are(with(dflt_events, 0)) },
        { "one byte is too short: id 0", handler_add_event, { 0x07 }, events_are(with(dflt_events, 0)) },
        { "bytes past the field are ignored", handler_add_event, { 0x01, 0x00, 0x02, 0x00 },
          events_are(with(dflt_events, 1)) },
        { "remove an event", handler_rm_event, { 0xda, 0x05 }, events_are(without(dflt_events, 1498)) },
        { "remove an absent event", handler_rm_event, { 0x01, 0x00 }, events_are(dflt_events) },
        { "add a log code", handler_add_log, { 0x34, 0x12 }, log_present(0x1234, true) },
        { "empty request adds log code 0", handler_add_log, {}, log_present(0, true) },
        { "remove a log code", handler_rm_log, { 0x2f, 0x41 }, log_present(0x412f, false) },
        { "remove an absent log code", handler_rm_log, { 0x00, 0x10 }, log_present(0x412f, true) },
        { "a new mask replaces the old one", handler_add_msg, { 5, 0, 0x01, 0x00, 0x01, 0x00 }, msg_is(5, 0x10001) },
        { "a new SSID", handler_add_msg, { 0x10, 0x27, 0x00, 0x00, 0x00, 0x80 }, msg_is(10000, 0x80000000) },
        { "SSID without mask stores mask 0", handler_add_msg, { 5, 0 }, msg_is(5, 0) },
        { "remove an SSID", handler_rm_msg, { 15, 0 }, msg_is(15, -1) },
        { "remove an absent SSID", handler_rm_msg, { 16, 0 }, msg_is(15, 0x18) },
    };
    for (const Case& c : cases) {
        SetUp();
        unlink(config_path.c_str());
        HandlerReply r = call(c.h, c.req);
        EXPECT_EQ(1u, r.result) << c.name;
        EXPECT_EQ(0u, r.len) << c.name;
        EXPECT_TRUE(c.sets()) << c.name;
        // Saved every time, an edit that changed nothing included.
        EXPECT_EQ(tovak_config_text(), saved()) << c.name;
    }
}

TEST_F(MaskCmds, ListingsInAscendingOrderWithSixteenBitMasks)
{
    HandlerReply r = call(handler_get_events);
    EXPECT_EQ(1u, r.result);
    EXPECT_EQ(u16s({ 1498, 1499, 1501, 1503, 1606, 1607, 1608, 1611, 1612, 1613, 1685, 1970, 1971, 1972 }), r.written());

    ASSERT_EQ(0, tovak_config_add_log(0x0001));
    r = call(handler_get_logs, {}, 100);
    EXPECT_EQ(1u, r.result);
    EXPECT_EQ(u16s({ 0x0001, 0x412f, 0x713f, 0x7140, 0x7143, 0x7144, 0xb061, 0xb062, 0xb0c0, 0xb0e2, 0xb0e3, 0xb0ec,
                     0xb0ed, 0xb167, 0xb168, 0xb169, 0xb16a }),
              r.written());

    // 65537 has bits 16 and 0: it is kept whole but listed as 1.
    Bytes req = { 5, 0, 0x01, 0x00, 0x01, 0x00 };
    ASSERT_EQ(1u, call(handler_add_msg, req).result);
    ASSERT_EQ(1u, call(handler_add_msg, { 0xff, 0xff, 0x00, 0x00, 0x0f, 0xf0 }).result);
    r = call(handler_get_msg);
    EXPECT_EQ(1u, r.result);
    // clang-format off
    const Bytes want = {
        0x05, 0x00, 0, 0,  0x01, 0x00, 0, 0,
        0x0f, 0x00, 0, 0,  0x18, 0x00, 0, 0,
        0x14, 0x00, 0, 0,  0x18, 0x00, 0, 0,
        0xbe, 0x0b, 0, 0,  0x18, 0x00, 0, 0,
        0xbf, 0x0b, 0, 0,  0x18, 0x00, 0, 0,
        0xc0, 0x0b, 0, 0,  0x18, 0x00, 0, 0,
        0xc2, 0x0b, 0, 0,  0x18, 0x00, 0, 0,
        0xff, 0xff, 0, 0,  0x00, 0x00, 0, 0,
    };
    // clang-format on
    EXPECT_EQ(want, r.written());
    EXPECT_EQ((std::pair<uint16_t, uint32_t>(5, 65537)), msgs().front());
    EXPECT_EQ((std::pair<uint16_t, uint32_t>(0xffff, 0xf00f0000)), msgs().back());
    EXPECT_NE(std::string::npos, saved().find("<MessageLevels>\n00005/00,00005/16,00015/03"));
}

TEST_F(MaskCmds, AListThatDoesNotFitGivesAnEmptyReply)
{
    struct Case {
        const char* name;
        command_handler h;
        int entries;       // how many the set holds
        uint32_t capacity; // the reply length on entry
        uint32_t want_len;
    };
    const Case cases[] = {
        { "events filling the frame", handler_get_events, 2560, 5120, 5120 },
        { "one event too many", handler_get_events, 2561, 5120, 0 },
        { "logs fitting a small reply", handler_get_logs, 3, 6, 6 },
        { "logs one byte short", handler_get_logs, 3, 5, 0 },
        { "no room at all", handler_get_logs, 1, 0, 0 },
        { "message entries filling the frame", handler_get_msg, 640, 5120, 5120 },
        { "one message entry too many", handler_get_msg, 641, 5120, 0 },
        { "an empty set", handler_get_events, 0, 5120, 0 },
    };
    for (const Case& c : cases) {
        reset_config();
        tovak_config_load_text("");
        for (int i = 0; i < c.entries; i++) {
            tovak_config_add_event(uint32_t(i));
            tovak_config_add_log(uint32_t(i));
            tovak_config_add_msg(uint32_t(i), 1);
        }
        HandlerReply r = call(c.h, {}, c.capacity);
        EXPECT_EQ(1u, r.result) << c.name;
        EXPECT_EQ(c.want_len, r.len) << c.name;
        if (c.want_len == 0)
            continue;
        // The first and the last entry: whole, in order.
        if (c.h == handler_get_msg) {
            EXPECT_EQ(0, r.data[0]) << c.name;
            EXPECT_EQ(uint8_t(c.entries - 1), r.data[c.want_len - 8]) << c.name;
        } else {
            EXPECT_EQ(0, r.data[0] | r.data[1]) << c.name;
            EXPECT_EQ(c.entries - 1, r.data[c.want_len - 2] | r.data[c.want_len - 1] << 8) << c.name;
        }
    }
}

TEST_F(MaskCmds, WithoutAConfigurationEditsStillSucceedAndListsFail)
{
    reset_config();
    {
        tovak_config_locked c;
        snprintf(c.file_name(), TOVAK_CONFIG_FILE_NAME_SIZE, "%s", config_path.c_str());
    }
    for (command_handler h : { handler_add_event, handler_rm_log, handler_add_msg }) {
        HandlerReply r = call(h, { 1, 0 });
        EXPECT_EQ(1u, r.result);
        EXPECT_EQ(0u, r.len);
    }
    for (command_handler h : { handler_get_events, handler_get_logs, handler_get_msg }) {
        HandlerReply r = call(h);
        EXPECT_EQ(0u, r.result);
        EXPECT_TRUE(r.untouched());
    }
    EXPECT_TRUE(platform().logged_starting("tovak_handler ERR >> "));
}

} // namespace
