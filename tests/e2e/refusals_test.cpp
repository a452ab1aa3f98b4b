// What a refused command leaves behind, and where every length, size, count
// and index stops being accepted. A refusal must answer in its own shape and
// change nothing: not dm.cfg, not the modem, not the capture.
#include <dirent.h>

#include "device_test.h"

namespace {

using json = nlohmann::json;

// What the size limits command answers; a refusal that leaves the reply
// untouched leaves these bytes in it.
const Bytes LIMITS_REPLY = tovak_pack_u32_u32(500000, 20000000);

enum class Shape { untouched, minus_one, four_zeros, empty };

size_t files_in(const std::string& dir)
{
    size_t n = 0;
    DIR* d = opendir(dir.c_str());
    while (dirent* e = d ? readdir(d) : nullptr)
        n += e->d_name[0] != '.';
    if (d)
        closedir(d);
    return n;
}

class Refusals : public DeviceTest {
protected:
    // Everything a command could change, as one comparable value.
    json seen()
    {
        json st = status();
        json local = st["modems"]["local"];
        local.erase("traffic");
        json capture = { tovak_get_u32(send(CMD_ADBLOG_GET_STATE).data), tovak_get_u32(send(CMD_GET_LOG_STATE).data) };
        tovak_pkt cats = send(CMD_ADBLOG_GET_CATEGORIES);
        capture.push_back(Bytes(cats.data, cats.data + cats.len));
        for (uint32_t c = 0; c < 4; c++)
            capture.push_back(tovak_get_u32(send(CMD_ADBLOG_GET_SIZE, tovak_pack_u32(c)).data));
        return { { "dm.cfg", read_file(user_config()) },
                 { "modem", local },
                 { "mode", st["mode"] },
                 { "buffer", st["buffer_size"] },
                 { "path", st["output_path"] },
                 { "commits", st["commits"] },
                 { "requests", st["request_count"] },
                 { "saves", st["qmi"]["saves"].size() },
                 { "captured", files_in(dev.path("data/media/0/syslog")) },
                 { "capture", capture },
                 { "config_file", dev.property("persist.dmlogging.config_file") } };
    }
};

// Each row in the state it names; the reply is checked to the byte, and all
// the device's state before and after.
TEST_F(Refusals, EachAnswersInItsShapeAndChangesNothing)
{
    struct Row {
        const char* what;
        uint32_t cmd;
        Bytes req;
        Shape shape;
    };
    struct State {
        const char* name;
        std::vector<uint32_t> enter;
        std::vector<Row> rows;
    };
    Bytes dpl_on = tovak_pack_u32(1);
    // clang-format off
    const State states[] = {
        { "idle", {}, {
            { "log off while off",         CMD_LOG_OFF,         {},                       Shape::four_zeros },
            { "log size of no bytes",      CMD_LOG_SIZE,        {},                       Shape::minus_one },
            { "log size of 3 bytes",       CMD_LOG_SIZE,        { 0x10, 0x27, 0x00 },     Shape::minus_one },
            { "log size 0",                CMD_LOG_SIZE,        tovak_pack_u32(0),                   Shape::minus_one },
            { "log size -1",               CMD_LOG_SIZE,        tovak_pack_u32(0xffffffff),          Shape::minus_one },
            { "log size -2^31",            CMD_LOG_SIZE,        tovak_pack_u32(0x80000000),          Shape::minus_one },
            { "out path of no bytes",      CMD_OUT_PATH,        {},                       Shape::minus_one },
            { "out path of 1 byte",        CMD_OUT_PATH,        Bytes{ '/' },            Shape::minus_one },
            { "out path diag refuses",     CMD_OUT_PATH,        tovak_pack_text("relative/dm"),      Shape::minus_one },
            { "config name of 100",        CMD_SET_CONFIG_FILE, tovak_pack_counted_text("/x", 100),       Shape::untouched },
            { "config name negative",      CMD_SET_CONFIG_FILE, tovak_pack_counted_text("/x", 0xffff),    Shape::untouched },
            { "shell text of 200",         CMD_SYSTEM_COMMAND,  tovak_pack_counted_text("@@#ps", 200),    Shape::untouched },
            { "capture size of 3 bytes",   CMD_ADBLOG_SET_SIZE, { 1, 0, 0 },              Shape::untouched },
            { "capture size missing",      CMD_ADBLOG_SET_SIZE, tovak_pack_u32(1),                   Shape::untouched },
            { "capture size 0",            CMD_ADBLOG_SET_SIZE, tovak_pack_u32_u32(1, 0), Shape::untouched },
            { "capture commit while off",  CMD_ADBLOG_COMMIT,   {},                       Shape::empty },
            { "subscriber number of 20",   CMD_SET_MSISDN,      tovak_pack_counted_text(std::string(19, '7'), 20), Shape::empty },
            { "DPL off while off",         CMD_DPL_SET_STATE,   tovak_pack_u32(0),                   Shape::untouched },
        } },
        { "logging", { CMD_LOG_ON }, {
            { "log on while on",           CMD_LOG_ON,          {},                       Shape::four_zeros },
            { "log size while logging",    CMD_LOG_SIZE,        tovak_pack_u32(1000000),             Shape::minus_one },
        } },
        { "capturing", { CMD_LOG_OFF, CMD_ADBLOG_ON }, {
            { "capture size while on",     CMD_ADBLOG_SET_SIZE, tovak_pack_u32_u32(1, 600000), Shape::untouched },
        } },
        { "DPL on", { CMD_ADBLOG_OFF, CMD_DPL_SET_STATE }, {
            { "DPL on while on",           CMD_DPL_SET_STATE,   tovak_pack_u32(1),                   Shape::untouched },
        } },
    };
    // clang-format on
    start();
    for (const State& s : states) {
        for (uint32_t cmd : s.enter)
            send(cmd, cmd == CMD_DPL_SET_STATE ? dpl_on : Bytes{});
        for (const Row& r : s.rows) {
            const json before = seen();
            ASSERT_EQ(8u, send(CMD_ADBLOG_GET_SIZE_LIMITS).len);
            tovak_pkt reply = send(r.cmd, r.req);
            const Bytes got(reply.data, reply.data + std::min<uint32_t>(reply.len, 8));
            switch (r.shape) {
            case Shape::untouched:
                EXPECT_EQ(5120u, reply.len) << s.name << ": " << r.what;
                EXPECT_EQ(LIMITS_REPLY, got) << s.name << ": " << r.what;
                break;
            case Shape::minus_one:
                EXPECT_EQ(tovak_pack_u32(0xffffffff), got) << s.name << ": " << r.what;
                break;
            case Shape::four_zeros:
                EXPECT_EQ(tovak_pack_u32(0), got) << s.name << ": " << r.what;
                break;
            case Shape::empty:
                EXPECT_EQ(0u, reply.len) << s.name << ": " << r.what;
                break;
            }
            EXPECT_EQ(before, seen()) << s.name << ": " << r.what;
        }
    }
    // A refused switch is logged as an error twice: by the switch, then by
    // the command.
    send(CMD_LOG_OFF);
    EXPECT_TRUE(wait_until([&] {
        const std::string out = dev.daemon_stdout();
        const size_t at = out.rfind("not LOG_STATE_START so do nothing\n");
        return at != std::string::npos && count(out.substr(at), "tovak_handler ERR >> ") == 2;
    }));
}

// Frames whose length field claims more than the frame holds: every reader
// stops at the frame's end, whatever the field says.
TEST_F(Refusals, LengthFieldsLargerThanTheFrameReadNothingPastIt)
{
    start();
    const json before = seen();
    for (uint32_t len : { 5121u, 0xffffffffu }) {
        for (uint32_t cmd : { CMD_SET_MSISDN, CMD_SYSTEM_COMMAND, CMD_SET_CONFIG_FILE, CMD_OUT_PATH, CMD_ADD_MSG }) {
            tovak_pkt req = {};
            req.cmd = cmd;
            req.len = len;
            // A negative count: past the frame unless the length is cut to it.
            req.data[0] = 0xfd;
            req.data[1] = 0xff;
            memset(req.data + 2, '/', sizeof req.data - 2);
            tovak_pkt reply;
            ASSERT_EQ(TovakStatus::ok, client->exchange(req, &reply)) << cmd << " " << len;
        }
    }
    EXPECT_EQ(before["modem"], seen()["modem"]);
    EXPECT_EQ(8u, send(CMD_ADBLOG_GET_SIZE_LIMITS).len) << "the session goes on";
}

class Limits : public Refusals {};

// The last value each field takes and the first it refuses, command by
// command, seen where the command leaves its mark.
TEST_F(Limits, EachFieldAtItsEdgeAndOnePast)
{
    start();
    auto cfg_has = [&](const std::string& t) { return read_file(user_config()).find(t) != std::string::npos; };

    // 0x03: sizes from 1 up to 2^31 - 1; 4 bytes are enough.
    for (uint32_t size : { 1u, 0x7fffffffu }) {
        tovak_pkt r = send(CMD_LOG_SIZE, tovak_pack_u32(size));
        EXPECT_EQ(4u, r.len) << size;
        EXPECT_NE(0xffffffffu, tovak_get_u32(r.data)) << size;
        EXPECT_TRUE(cfg_has("<BufferSize>" + std::to_string(size) + "</BufferSize>")) << size;
    }

    // 0x04: 99 characters are kept, the 100th is cut; 2 bytes are enough;
    // the shortest is "/" and its zero.
    const std::string p97 = "/sdcard/" + std::string(89, 'p');
    for (auto [path, kept] : { std::pair{ p97, p97 }, { p97 + "pp", p97 + "pp" }, { p97 + "ppq", p97 + "pp" } }) {
        EXPECT_EQ(0u, tovak_get_u32(send(CMD_OUT_PATH, tovak_pack_text(path)).data));
        EXPECT_EQ(kept, status()["output_path"]) << path.size();
    }
    EXPECT_EQ(0u, tovak_get_u32(send(CMD_OUT_PATH, tovak_pack_text("/")).data));
    EXPECT_EQ("/", status()["output_path"]);

    // 0x13: a text of 199 bytes runs, 200 is refused.
    const std::string cmd199 = "@@#cat /dev/null" + std::string(182, ' ');
    send(CMD_SYSTEM_COMMAND, tovak_pack_counted_text(cmd199, 199));
    EXPECT_TRUE(dev.wait_stdout("System command = 199, cat /dev/null"));
    send(CMD_SYSTEM_COMMAND, tovak_pack_counted_text(cmd199 + " ", 200));
    EXPECT_EQ(std::string::npos, dev.daemon_stdout().find("System command = 200"));
    // A kill by a name no process has runs nothing and says -1.
    send(CMD_SYSTEM_COMMAND, tovak_pack_counted_text("@@#+=killall no-such-exe-tovak"));
    EXPECT_TRUE(dev.wait_stdout("pid = 0\n"));
    EXPECT_TRUE(dev.wait_stdout("Result of system command = -1\n"));

    // 0x48: a number of 19 bytes with its zero is kept, 20 is refused; a
    // shorter one then ends at its own zero byte.
    auto saved_number = [&](const Bytes& number_req) {
        send(CMD_SET_MSISDN, number_req);
        EXPECT_EQ(0u, send(CMD_SAVE_MODEM_DATA, tovak_pack_u32(1)).len);
        return status()["qmi"]["saves"].back()["number"].get<std::string>();
    };
    const std::string n18(18, '9');
    EXPECT_EQ(n18, saved_number(tovak_pack_counted_text(n18, 19)));
    EXPECT_EQ(n18, saved_number(tovak_pack_counted_text(n18 + "8", 20)));
    EXPECT_EQ("0101234567", saved_number(tovak_pack_counted_text("0101234567")));
    EXPECT_EQ("0101234567", saved_number(tovak_pack_counted_text("", 0xffff))) << "a negative count copies nothing";

    // 0x08, 0x0e: a list emptied is an empty reply, not a refused one.
    for (auto [get, rm, width] : { std::tuple{ CMD_GET_EVENTS, CMD_RM_EVENT, 2u }, { CMD_GET_MSG, CMD_RM_MSG, 8u } }) {
        tovak_pkt listed = send(get);
        for (uint32_t at = 0; at < listed.len; at += width)
            send(rm, Bytes(listed.data + at, listed.data + at + 2));
        EXPECT_EQ(0u, send(get).len) << get;
    }

    // 0x47: kinds 0 and 1 save, 2 saves nothing; a unit of one byte counts.
    ctl({ "qmi", "phantom", "1,3,1" });
    const size_t saves = status()["qmi"]["saves"].size();
    send(CMD_SAVE_MODEM_DATA, tovak_pack_u32(0));
    send(CMD_SAVE_MODEM_DATA, tovak_pack_u32(2));
    json all = status()["qmi"]["saves"];
    ASSERT_EQ(saves + 1, all.size());
    EXPECT_EQ("Phantom", all.back()["kind"]);
    EXPECT_EQ("AHIJO", read_file(dev.path("sim/" + all.back()["file"].get<std::string>())));

    // 0x46: only 1 is "1".
    for (auto [v, want] : { std::pair{ 1u, "1" }, { 2u, "0" }, { 1u, "1" }, { 0u, "0" } }) {
        send(CMD_SET_AUTOSAVE, tovak_pack_u32(v));
        EXPECT_EQ(want, dev.property("persist.dmlogging.phantom")) << v;
        EXPECT_EQ(std::string(want) == "1" ? 1u : 0u, tovak_get_u32(send(CMD_GET_AUTOSAVE).data)) << v;
    }

    // 0x36, 0x37, 0x3c: category 3 is the last, 4 and -1 are none.
    auto enabled = [&] {
        tovak_pkt r = send(CMD_ADBLOG_GET_CATEGORIES);
        std::vector<uint32_t> values;
        EXPECT_TRUE(tovak_unpack_u32s(r.data, r.len, &values));
        std::string s;
        for (uint32_t v : values)
            s += char('0' + v);
        return s;
    };
    EXPECT_EQ("1101", enabled());
    send(CMD_ADBLOG_RM_CATEGORY, tovak_pack_u32(3));
    send(CMD_ADBLOG_ADD_CATEGORY, tovak_pack_u32(2));
    for (uint32_t c : { 4u, 0xffffffffu }) {
        send(CMD_ADBLOG_RM_CATEGORY, tovak_pack_u32(c));
        EXPECT_EQ(0u, tovak_get_u32(send(CMD_ADBLOG_GET_SIZE, tovak_pack_u32(c)).data)) << c;
    }
    EXPECT_EQ("1110", enabled());
    EXPECT_EQ(20000000u, tovak_get_u32(send(CMD_ADBLOG_GET_SIZE, tovak_pack_u32(3)).data));

    // 0x3b: sizes clamp to 500000..20000000, the file keeps what was asked;
    // category 3 is stored, 4 nowhere.
    struct Size {
        uint32_t asked, in_force;
    };
    for (Size s :
         { Size{ 499999, 500000 }, { 500001, 500001 }, { 19999999, 19999999 }, { 20000001, 20000000 }, { 1, 500000 } }) {
        send(CMD_ADBLOG_SET_SIZE, tovak_pack_u32_u32(3, s.asked));
        EXPECT_EQ(s.in_force, tovak_get_u32(send(CMD_ADBLOG_GET_SIZE, tovak_pack_u32(3)).data)) << s.asked;
        EXPECT_TRUE(cfg_has(",5000000," + std::to_string(s.asked) + "\n</AdbSizeInfo>")) << s.asked;
    }
    const std::string cfg = read_file(user_config());
    send(CMD_ADBLOG_SET_SIZE, tovak_pack_u32_u32(4, 600000));
    EXPECT_EQ(0u, tovak_get_u32(send(CMD_ADBLOG_GET_SIZE, tovak_pack_u32(4)).data));
    EXPECT_EQ(cfg, read_file(user_config()));
}

} // namespace
