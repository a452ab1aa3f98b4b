// Log entries on their way: as readers of /dev/log get them, through the
// logger's queue (whole oldest dropped, a write the pipe cut resumed), into
// a capture file that keeps the newest whole entries however writes split them
// and whatever its own file refuses.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <random>

#include "canned.h"
#include "capture_ring.h"
#include "hex_text.h"
#include "logger.h"
#include "sim_device.h"

TEST(Logger, EntriesAndEventRecords)
{
    LogEntry e{ 0x0102, 3, 0x11223344, 5, 4, "T", "hi", {} };
    EXPECT_EQ("06 00 00 00 02 01 00 00 03 00 00 00 44 33 22 11 05 00 00 00 04 54 00 68 69 00",
              hex_text(logger_entry_bytes(e)));
    // Tag, float list: a priority-like first byte, the tag's NUL, no NUL after.
    e.binary = android_event_payload(canned_events()[2], { 12.0f, 0.5f });
    std::vector<uint8_t> b = logger_entry_bytes(e);
    EXPECT_EQ("05 1d 01 00 03 02 04", hex_text(std::vector<uint8_t>(b.begin() + 20, b.begin() + 27)));
    EXPECT_EQ(b.end(), std::find(b.begin() + 24, b.end(), 0));
}

TEST(Logger, QueueDropsWholeOldestAndResumesPartialWrites)
{
    LogQueue q(100);
    std::vector<uint8_t> a(40, 'a'), big(200000, 'x'), got, buf(1 << 16);
    for (int i = 0; i < 3; i++)
        q.push(a);
    q.push(big); // over the limit: the others go, big stays however large
    int p[2];
    ASSERT_EQ(0, pipe2(p, O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(q.flush(p[1]) && !q.empty()) << "the pipe took part of it";
    q.push(a); // over the limit, but a begun entry is never dropped
    for (int i = 0; i < 20; i++) {
        for (ssize_t n; (n = read(p[0], buf.data(), buf.size())) > 0;)
            got.insert(got.end(), buf.begin(), buf.begin() + n);
        ASSERT_TRUE(q.flush(p[1]));
    }
    big.insert(big.end(), a.begin(), a.end());
    EXPECT_TRUE(q.empty() && got == big) << got.size();
    EXPECT_EQ(3u, q.dropped());
    close(p[0]), close(p[1]);
}

TEST(CaptureRing, KeepsTheNewestWholeEntriesAcrossSplitWrites)
{
    TempDir dir;
    const size_t capacity = 3000;
    CaptureRing ring;
    ASSERT_TRUE(ring.open(dir.path() + "/r.ring", capacity));
    std::vector<uint8_t> stream, kept;
    std::vector<size_t> starts; // of each entry in the stream, then its end
    std::mt19937 rng(7);
    for (int i = 0; i < 200; i++) {
        starts.push_back(stream.size());
        logger_entry_append(stream, LogEntry{ 1, 1, 0, 0, 4, "T", std::string(rng() % 120, 'a'), {} });
    }
    starts.push_back(stream.size());
    // Pieces of any size, headers split too; the last entry left unfinished.
    for (size_t pos = 0, n; pos < stream.size() - 5; pos += n) {
        n = std::min<size_t>(1 + rng() % 300, stream.size() - 5 - pos);
        ASSERT_TRUE(ring.append(stream.data() + pos, n));
        ASSERT_TRUE(ring.contents(&kept));
        // Kept: whole entries up to the last complete one, from the oldest
        // that lies wholly in the last `capacity` bytes written.
        const size_t end = pos + n, complete = *std::prev(std::upper_bound(starts.begin(), starts.end(), end));
        auto first = std::find(starts.begin(), starts.end(), complete - kept.size());
        ASSERT_NE(starts.end(), first) << "begins at a header";
        EXPECT_GE(*first + capacity, end);
        if (first != starts.begin() && !kept.empty()) {
            EXPECT_LT(*std::prev(first) + capacity, end) << "no entry left out that fits";
        }
        ASSERT_TRUE(std::equal(kept.begin(), kept.end(), stream.begin() + ptrdiff_t(*first)));
    }
}

// A ring whose file takes no more (a full disk; here a file size limit of
// half the ring) loses what it could not write, never hands out an entry
// with a hole, and keeps entries again once writes go through.
TEST(CaptureRing, AWriteItsFileRefusesLeavesNoEntryWithAHole)
{
    TempDir dir;
    CaptureRing ring;
    ASSERT_TRUE(ring.open(dir.path() + "/r.ring", 3000));
    std::vector<uint8_t> stream;
    std::vector<size_t> starts;
    std::mt19937 rng(11);
    for (int i = 0; i < 200; i++) {
        starts.push_back(stream.size());
        logger_entry_append(stream, LogEntry{ 1, 1, 0, 0, 4, "T", std::string(rng() % 120, 'b' + i % 20), {} });
    }
    starts.push_back(stream.size());
    // The limit goes with the test, however it ends: later tests write files.
    struct FileSizeLimit {
        rlimit was{};
        void (*handler)(int) = signal(SIGXFSZ, SIG_IGN);
        FileSizeLimit() { getrlimit(RLIMIT_FSIZE, &was); }
        ~FileSizeLimit()
        {
            setrlimit(RLIMIT_FSIZE, &was);
            signal(SIGXFSZ, handler);
        }
    } limit;
    rlimit half = { 1500, limit.was.rlim_max };
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &half));
    int refused = 0, kept_after = 0;
    std::vector<uint8_t> kept;
    for (size_t pos = 0, n; pos < stream.size(); pos += n) {
        n = std::min<size_t>(1 + rng() % 300, stream.size() - pos);
        const bool ok = ring.append(stream.data() + pos, n);
        refused += !ok;
        ASSERT_TRUE(ring.contents(&kept));
        kept_after += refused > 0 && !kept.empty();
        if (kept.empty())
            continue;
        // Whole entries, exactly as the stream had them.
        bool found = false;
        for (size_t i = 0; i < starts.size() && !found; i++)
            found = std::binary_search(starts.begin(), starts.end(), starts[i] + kept.size()) &&
                    starts[i] + kept.size() <= stream.size() &&
                    std::equal(kept.begin(), kept.end(), stream.begin() + ptrdiff_t(starts[i]));
        ASSERT_TRUE(found) << "kept " << kept.size() << " bytes that are no run of whole entries";
    }
    EXPECT_GT(refused, 0);
    EXPECT_GT(kept_after, 0);
}
