// A capture file keeps the newest whole entries, however the writes split
// them, so that a committed file always begins at an entry header.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "capture_ring.h"
#include "logger.h"
#include "sim_device.h"

namespace {

TEST(CaptureRing, KeepsTheNewestWholeEntriesAcrossSplitWrites)
{
    TempDir dir;
    const size_t capacity = 3000;
    CaptureRing ring;
    ASSERT_TRUE(ring.open(dir.path() + "/r.ring", capacity));
    std::vector<uint8_t> stream;
    std::vector<size_t> starts, ends; // of each entry in the stream
    std::mt19937 rng(7);
    for (int i = 0; i < 200; i++) {
        LogEntry e;
        e.prio = 4;
        e.tag = "T";
        e.msg = std::string(rng() % 120, 'a') + std::to_string(i);
        starts.push_back(stream.size());
        logger_entry_append(stream, e);
        ends.push_back(stream.size());
    }
    // Pieces of any size, a header split across two of them included; the
    // last entry is left unfinished.
    for (size_t pos = 0, n; pos < stream.size() - 5; pos += n) {
        n = std::min<size_t>(1 + rng() % 300, stream.size() - 5 - pos);
        ASSERT_TRUE(ring.append(stream.data() + pos, n));
        std::vector<uint8_t> kept;
        ASSERT_TRUE(ring.contents(&kept));
        const size_t end = pos + n;
        auto done = std::upper_bound(ends.begin(), ends.end(), end);
        const size_t complete = done == ends.begin() ? 0 : *std::prev(done);
        // Kept: whole entries up to the last complete one, from the oldest
        // that lies wholly in the last `capacity` bytes written.
        const size_t start = complete - kept.size();
        auto first = std::find(starts.begin(), starts.end(), start);
        ASSERT_NE(starts.end(), first) << "begins at a header";
        EXPECT_GE(start + capacity, end);
        if (first != starts.begin() && !kept.empty()) {
            EXPECT_LT(*std::prev(first) + capacity, end) << "no entry left out that fits";
        }
        ASSERT_TRUE(std::equal(kept.begin(), kept.end(), stream.begin() + ptrdiff_t(start)));
    }
    EXPECT_TRUE(ring.commit(dir.path() + "/out", "adbmain", 0));
}

} // namespace
