// The camgate-encoder program: options, signals, and the cache it leaves behind (none).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "camgate-encoder/encoder_sim.h"
#include "media/shm_cache.h"
#include "support/media_frames.h"
#include "support/testenv.h"

namespace {

class EncoderProgram : public ::testing::Test {
  protected:
    // Attach as the daemon does and read the newest key frame of a stream.
    bool read_key_frame(int stream, encoder::SyntheticFrame *sf)
    {
        return cgtest::wait_until(
            [&] {
                if (shm_cache_reader_init() != 0) return false;
                const cgtest::CachedFrame f = cgtest::read_cached(stream, CACHE_SEL_NEWEST_GOP);
                return f.ret == 0 && encoder::parse_synthetic_frame(f.data.data(), f.data.size(), sf);
            },
            5000, 20);
    }

    const cgtest::CacheKey key_;  // also for the reader in this process
    const std::string key_text_ = key_.text();
};

TEST_F(EncoderProgram, PausedUntilSignalledRunsUntilTerminatedThenRemovesTheCache)
{
    cgtest::Process p;
    ASSERT_TRUE(p.start(cgtest::bin_path("camgate-encoder"),
                        {"--key", key_text_, "--synthetic", "--streams", "2", "--fps", "50", "--gop", "10",
                         "--cache-kb", "256", "--no-snapshot", "--paused", "--stats", "1"}));
    ASSERT_TRUE(p.wait_output("created, paused", 5000)) << p.out() << p.err();
    EXPECT_TRUE(p.wait_output("stream 1: H.264 640x360 50 fps", 1000));
    ASSERT_TRUE(cgtest::wait_until([] { return shm_cache_reader_init() == 0; }, 3000));
    EXPECT_EQ(cgtest::read_cached(0, CACHE_SEL_NEWEST).ret, CACHE_RET_NO_FRAME);
    EXPECT_EQ(get_audio_cache_idx(0), 2) << "two video caches, no snapshot cache, then audio";

    ASSERT_EQ(kill(p.pid(), SIGUSR1), 0);
    ASSERT_TRUE(p.wait_output("camgate-encoder: writing", 3000));
    const cgtest::CachedFrame first = cgtest::read_when_written(0, 0);
    encoder::SyntheticFrame sf;
    ASSERT_TRUE(encoder::parse_synthetic_frame(first.data.data(), first.data.size(), &sf));
    EXPECT_TRUE(sf.key && sf.frame == 0) << "the first frame written is key frame 0";
    ASSERT_TRUE(read_key_frame(1, &sf));
    EXPECT_EQ(sf.stream, 1);
    EXPECT_TRUE(sf.key);
    EXPECT_EQ(sf.frame % 10, 0);
    ASSERT_TRUE(p.wait_output("refused 0", 3000)) << "a counters line each second";

    const int status = p.stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(p.out().find("cache removed"), std::string::npos) << p.out();
    EXPECT_LT(shmget(key_.key(), 0, 0), 0) << "the segment is gone";
}

TEST_F(EncoderProgram, OptionErrorsAndHelp)
{
    struct Case {
        std::vector<std::string> args;
        int status;
        const char *says;
    };
    const Case cases[] = {
        {{"--streams", "8"}, 2, "--streams wants a number from 1 to 7"},
        {{"--bogus"}, 2, "unknown option --bogus"},
        {{"--size", "big"}, 2, "--size wants WxH"},
        {{"--key"}, 2, "--key wants a value"},
        {{"--synthetic", "--clip", "x.h264"}, 2, "exclude each other"},
        {{"--clip", "/nonexistent/clip.h264"},
         1,
         "No such file"},  // the simulator's refusals, as the program reports them
    };
    for (const Case &c : cases) {
        cgtest::Process p;
        std::vector<std::string> args = c.args;
        args.insert(args.begin(), {"--key", key_text_});
        EXPECT_EQ(p.run(cgtest::bin_path("camgate-encoder"), args), c.status) << c.says;
        EXPECT_NE(p.err().find(c.says), std::string::npos) << p.err();
        EXPECT_LT(shmget(key_.key(), 0, 0), 0) << c.says;
    }
    cgtest::Process help;
    EXPECT_EQ(help.run(cgtest::bin_path("camgate-encoder"), {"--help"}), 0);
    EXPECT_NE(help.out().find("usage: camgate-encoder"), std::string::npos);
}

}  // namespace
