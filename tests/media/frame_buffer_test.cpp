// The live streams' frame buffers cost only the pages frames are copied into,
// and give every page back when the stream ends.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "media/frame_buffer.h"

namespace {

// RssAnon of this process in KB (-1 when /proc cannot tell).
long anon_kb()
{
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("RssAnon:", 0) == 0) return std::strtol(line.c_str() + 8, nullptr, 10);
    return -1;
}

TEST(FrameBuffer, CostsOnlyThePagesWrittenAndGivesThemBack)
{
    constexpr size_t kVideo = 3145728 + 24;
    const long before = anon_kb();
    ASSERT_GE(before, 0);
    {
        FrameBuffer buf(kVideo);
        ASSERT_TRUE(buf);
        EXPECT_EQ(buf.size(), kVideo);
        // Allocated but unwritten: next to nothing.
        EXPECT_LT(anon_kb() - before, 256);
        // A 1 MB frame copied in counts about 1 MB, the rest of the 3 MB still nothing.
        std::memset(buf.data(), 0x5a, 1 << 20);
        const long written = anon_kb() - before;
        EXPECT_GE(written, 1000);
        EXPECT_LT(written, 1024 + 256);
        EXPECT_EQ(buf.data()[(1 << 20) - 1], 0x5a);
        EXPECT_EQ(buf.data()[kVideo - 1], 0);  // pages never written read as zeros
    }
    // The stream has ended: its pages are back with the system.
    EXPECT_LT(anon_kb() - before, 256);

    FrameBuffer none(0);
    EXPECT_FALSE(none);
    EXPECT_EQ(none.data(), nullptr);
}

}  // namespace
