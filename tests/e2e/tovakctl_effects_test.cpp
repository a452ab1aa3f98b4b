// tovakctl against the simulated phone: what each command says it did is
// what the phone did.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <sstream>

#include "device_test.h"
#include "tovakctl.h"

namespace {

class CtlEffectsTest : public DeviceTest {
protected:
    struct Run {
        int rc;
        std::string out, err;
        std::string all() const { return out + err; }
    };
    Run run(std::vector<std::string> args)
    {
        args.insert(args.begin(), { "--root", dev.root() });
        std::ostringstream out, err;
        int rc = tovakctl_main(args, out, err);
        return { rc, out.str(), err.str() };
    }
    // Runs, and expects the exit status and every text in the output.
    void expect(const std::vector<std::string>& args, int rc, std::initializer_list<const char*> says)
    {
        Run r = run(args);
        EXPECT_EQ(rc, r.rc) << args[0] << ": " << r.all();
        for (const char* s : says)
            EXPECT_NE(std::string::npos, r.all().find(s)) << args[0] << " should say " << s << ": " << r.all();
    }
};

TEST_F(CtlEffectsTest, ModemLoggingEditsCommitsAndSizes)
{
    start();
    // clang-format off
    expect({ "add-event", "1498" }, 0, { "nothing changed: it was already there" });
    expect({ "rm-log", "0x1234" }, 0, { "nothing changed: it was not there" });
    expect({ "--json", "add-event", "1609" }, 0, { "\"changed\":true", "\"pending\":false" });
    expect({ "log-on" }, 0, { "logging on: the modem got the items dm.cfg holds" });
    expect({ "log-on" }, 0, { "nothing changed: logging was already on, so tovakd sent nothing" });
    expect({ "--json", "rm-event", "1609" }, 0, { "\"pending\":true" });
    expect({ "add-event", "4096" }, 0, { "saved in the configuration file; the modem gets it at the next log on, not now",
                                         "the modem reports 2200 event ids (0 to 2199): it will not log event 4096" });
    expect({ "status" }, 1, { "2 item edit(s) made while logging is on: dm.cfg and the modem may differ" });
    expect({ "log-size", "5" }, 1, { "while modem logging runs" });
    expect({ "commit" }, 0, { "wrote /sdcard/diag_logs/diag_log_" });
    expect({ "log-off" }, 0, { "no modem log file was written: log off writes none" });
    expect({ "log-off" }, 1, { "logging was already off" });
    expect({ "dpl-reset" }, 0, { "DPL off, with no interfaces; dm.cfg keeps that" });
    expect({ "--json", "dpl", "off" }, 1, { "nothing changed: DPL was already off", "\"changed\":false" });
    expect({ "--json", "log-size", "5" }, 0, { "\"asked\":5", "\"in_use\":1048576", "\"config_keeps\":5" });
    expect({ "log-size", "5" }, 0, { "nothing changed: the size was already so" });
    // clang-format on
    Run commit = run({ "commit" });
    size_t at = commit.out.find("wrote /sdcard/");
    ASSERT_NE(std::string::npos, at) << commit.all();
    std::string file = commit.out.substr(at + 14, commit.out.find(' ', at + 6) - at - 14);
    EXPECT_TRUE(file_exists(dev.path("data/media/0/" + file))) << file;
    // The storage out of sight: an answered commit is as unsure as a time-out.
    const std::string storage = dev.path("data/media/0");
    ASSERT_EQ(0, rename(storage.c_str(), (storage + ".away").c_str()));
    expect({ "commit" }, 3, { "data/media/0 is missing, so tovakctl cannot tell what was written" });
    ASSERT_EQ(0, rename((storage + ".away").c_str(), storage.c_str()));
}

TEST_F(CtlEffectsTest, OutputPathAndCaptureFilesWhereTheyLand)
{
    start();
    expect({ "capture-commit" }, 1, { "capture is off, and tovakd commits nothing then" });
    expect({ "out-path", "relative/path" }, 1, { "refused" });
    expect({ "status" }, 0, { "out path      the platform's default" });
    expect({ "out-path", "/sdcard/mine/dm" }, 0, {});
    expect({ "out-path", "also/relative" }, 1, {});
    expect({ "status" }, 0,
           { "out path      /sdcard/mine/dm (until tovakd restarts", "capture to    /sdcard/mine/ for the next" });
    expect({ "--json", "capture-size", "events", "100" }, 0, { "\"in_use\":500000,\"config_keeps\":100" });
    expect({ "capture", "on" }, 0, {});
    expect({ "capture", "on" }, 0, { "nothing changed: capture was already on" });
    expect({ "capture-size", "main", "100" }, 1, { "capture is on: tovakd takes a size only while it is off" });
    ASSERT_TRUE(wait_until(
        [&] { return run({ "capture-commit" }).out.find("wrote /sdcard/mine/adbmain_") != std::string::npos; }));
    // The output path served that one capture commit.
    expect({ "capture-commit" }, 0, { "wrote /sdcard/syslog/adbmain_" });
    expect({ "category-rm", "events" }, 0, { "nothing changed: the category was already off" });
    expect({ "category-rm", "main" }, 0, { "category off until tovakd restarts" });
    expect({ "status" }, 0,
           { "main        off, 10000000 bytes (until tovakd restarts: dm.cfg says on",
             "capture to    /sdcard/syslog/ (the" });
    // What does not survive a restart is gone after one.
    restart();
    expect({ "status" }, 0, { "out path      the platform's default", "main        on," });
    expect({ "category-rm", "radio" }, 0, {});
    expect({ "categories-save" }, 0, { "saved in dm.cfg: main, system on after a restart too" });
    expect({ "categories-save" }, 0, { "nothing changed: dm.cfg already kept these categories" });
}

// Ctrl-C while log-on waits for boot completion: tovakctl says logging still
// comes on, exits 130, and logging does come on.
TEST_F(CtlEffectsTest, InterruptSaysWhatTheDaemonGoesOnDoing)
{
    start({ "--no-bootcomplete" });
    TempDir dir;
    const std::string err_file = dir.path() + "/err";
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int fd = open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, STDERR_FILENO);
        std::string bin = SimDevice::bin("tovakctl");
        execl(bin.c_str(), bin.c_str(), "--root", dev.root().c_str(), "log-on", nullptr);
        _exit(127);
    }
    ASSERT_TRUE(dev.wait_stdout("process log_on"));
    kill(pid, SIGINT);
    EXPECT_EQ(130, wait_child(pid));
    EXPECT_NE(std::string::npos, read_file(err_file).find("log-on: interrupted; tovakd does not notice a client that "
                                                          "leaves, and logging still comes on when it is done: check "
                                                          "with `tovakctl state`"))
        << read_file(err_file);
    EXPECT_TRUE(wait_until([&] { return run({ "state" }).out == "logging on\n"; }, std::chrono::seconds(30)));
}

} // namespace
