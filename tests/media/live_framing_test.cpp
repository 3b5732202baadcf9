// In-process tests of the live-media pieces whose effect is hard to see on
// the wire: the frame headers, the pacing arithmetic of the video loop and
// the interface lookup behind the search reply.
#include <gtest/gtest.h>

#include <time.h>

#include <cctype>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "media/preview.h"
#include "media/shm_cache.h"
#include "media/udp_preview.h"

namespace {

timeval at_us(long long us)
{
    return timeval{static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
}

}  // namespace

TEST(LiveFraming, HeadersOfVideoAndAudioFrames)
{
    char h[PREVIEW_MAX_HEADER];
    ASSERT_EQ(preview_video_header(h, CACHE_FRAME_TYPE_I, 300, 1920, 1080, 70.5, 123456), 24);
    EXPECT_EQ(std::string(h, 4), std::string("\0\0\1\xF8", 4));
    IFRAME_INFO i;
    std::memcpy(&i, h + 4, sizeof i);
    EXPECT_EQ(i.enc_std, 0);
    EXPECT_EQ(i.framerate, 300 & 0xFF);
    EXPECT_EQ(i.pts_msec, 70500 - 65536);  // seconds x 1000, low 16 bits
    EXPECT_EQ(i.pic_width, 1920);
    EXPECT_EQ(i.pic_height, 1080);
    EXPECT_EQ(i.length, 123456u);
    // The camera's local time: the date, and milliseconds since midnight in whole seconds.
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    const long since_midnight_ms = (local.tm_hour * 3600L + local.tm_min * 60 + local.tm_sec) * 1000;
    EXPECT_EQ(i.rtc_time.tm_msec % 1000, 0u);
    if (since_midnight_ms >= 2000) {  // not across midnight
        EXPECT_NEAR(static_cast<double>(i.rtc_time.tm_msec), static_cast<double>(since_midnight_ms), 2000.0);
        EXPECT_EQ(i.rtc_time.tm_mday, local.tm_mday);
        EXPECT_EQ(i.rtc_time.tm_mon, local.tm_mon + 1);
        EXPECT_EQ(i.rtc_time.tm_year, local.tm_year + 1900);
    }

    ASSERT_EQ(preview_video_header(h, CACHE_FRAME_TYPE_P, 25, 640, 360, 1.5, 777), 12);
    EXPECT_EQ(std::string(h, 4), std::string("\0\0\1\xF9", 4));
    PFRAME_INFO p;
    std::memcpy(&p, h + 4, sizeof p);
    EXPECT_EQ(p.pts_msec, 1500);
    EXPECT_EQ(p.reserved, 0);
    EXPECT_EQ(p.length, 777u);

    // Any other video type: the bare 4-byte header, the data right after it.
    EXPECT_EQ(preview_video_header(h, CACHE_FRAME_TYPE_B, 25, 640, 360, 1.5, 777), 4);
    EXPECT_EQ(std::string(h, 4), std::string("\0\0\1\0", 4));

    ASSERT_EQ(preview_audio_header(h, 320), 12);
    const uint8_t audio[12] = {0, 0, 1, 0xFA, 1, 0, 1, 0, 0x40, 0x01, 0, 0};
    EXPECT_EQ(std::memcmp(h, audio, sizeof audio), 0);

    // Stamps that do not fit an unsigned number give 0 rather than anything undefined.
    EXPECT_EQ(preview_pts_msec(-3.0), 0);
    EXPECT_EQ(preview_pts_msec(std::nan("")), 0);
    EXPECT_EQ(preview_pts_msec(1e300), 0);
}

TEST(LiveFraming, PacingAimsTwoFramesAboveTheRateAndNeverWaitsLongerThanAFrame)
{
    preview_pacing p;
    const long long t0 = 1700000000LL * 1000000;
    EXPECT_EQ(preview_pacing_delay(&p, 25, at_us(t0)), 20000);  // the first frame: half a frame period
    EXPECT_EQ(p.max_delay, 40000);
    EXPECT_EQ(preview_pacing_delay(&p, 25, at_us(t0 + 10000)), 1000000 / 27 - 10000);
    EXPECT_EQ(preview_pacing_delay(&p, 25, at_us(t0 + 10000 + 50000)), 1000);  // late: 1 ms only
    EXPECT_EQ(preview_pacing_delay(&p, 25, at_us(t0 + 60000 + 1000)), 1000000 / 27 - 1000);
    // A clock set back: the wait is still bounded by one frame period.
    EXPECT_EQ(preview_pacing_delay(&p, 25, at_us(t0 - 5000000)), 40000);

    // Any rate the cache may hold is paced without an overflow (the sanitizer build checks).
    preview_pacing absurd;
    EXPECT_EQ(preview_pacing_delay(&absurd, INT_MAX, at_us(t0)), 0);
    EXPECT_EQ(preview_pacing_delay(&absurd, INT_MAX, at_us(t0 + 1)), 0);
}

TEST(LiveFraming, InterfaceLookupGivesTheMacAndAnAddressMadeOfItsLastFourBytes)
{
    // (What "lo" gives is in the search reply the discovery test checks.)
    char ip[16], mask[16], mac[18];
    EXPECT_EQ(geteth_ip_mask_mac_br(nullptr, ip, mask, mac), -1);
    EXPECT_EQ(geteth_ip_mask_mac_br("no-such-if9", ip, mask, mac), -1);
    EXPECT_EQ(geteth_ip_mask_mac_br("lo", nullptr, nullptr, nullptr), 0);

    // An interface with a hardware address: the text in capitals, and the
    // "address" built from its bytes 2 to 5.
    std::string name, address;
    for (const auto &e : std::filesystem::directory_iterator("/sys/class/net")) {
        std::ifstream in(e.path() / "address");
        if (in >> address && address.size() == 17 && address != "00:00:00:00:00:00") {
            name = e.path().filename();
            break;
        }
    }
    if (name.empty()) GTEST_SKIP() << "no interface with a hardware address";
    ASSERT_EQ(geteth_ip_mask_mac_br(name.c_str(), ip, mask, mac), 0);
    for (char &c : address) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_EQ(std::string(mac), address);
    unsigned b[6];
    ASSERT_EQ(std::sscanf(address.c_str(), "%x:%x:%x:%x:%x:%x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]), 6);
    const std::string from_mac =
        std::to_string(b[2]) + "." + std::to_string(b[3]) + "." + std::to_string(b[4]) + "." + std::to_string(b[5]);
    EXPECT_EQ(std::string(ip), from_mac);
    EXPECT_EQ(std::string(mask), from_mac);
}
