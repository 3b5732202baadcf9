// The encoder simulator's media helpers: H.264 access units and SPS, mu-law audio, JPEG size.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "camgate-encoder/encoder_sim.h"
#include "camgate-encoder/h264_stream.h"
#include "camgate-encoder/media_util.h"

namespace {

using encoder::AccessUnit;

std::vector<uint8_t> bytes(const std::string &s)
{
    return std::vector<uint8_t>(s.begin(), s.end());
}

std::vector<uint8_t> load(const std::string &path)
{
    std::vector<uint8_t> data;
    std::string err;
    EXPECT_TRUE(encoder::read_whole_file(path, &data, &err)) << err;
    return data;
}

std::string nal(const char *start, const std::string &unit)
{
    return std::string(start, start[2] == 1 ? 3 : 4) + unit;
}
const char SC3[] = {0, 0, 1};
const char SC4[] = {0, 0, 0, 1};

TEST(H264Stream, AccessUnitGrouping)
{
    const std::string sps("\x67\x42\xc0\x1e\xda\x02\x80\xbf\xe5\x84", 10);
    const std::string pps("\x68\xce\x3c\x80", 4);
    // Slice headers: first_mb_in_slice 0 ('1'), or 10 ('0001011'), then the slice type.
    const std::string idr("\x65\xb8\x40\x11", 4);        // first_mb 0, type 2 (I)
    const std::string idr_part2("\x65\x16\xe1\x22", 4);  // first_mb 10
    const std::string p("\x41\x9a\x22", 3);              // first_mb 0, type 5 (P)
    const std::string b("\x41\xa0\x33", 3);              // first_mb 0, type 1 (B)
    const std::string aud("\x09\xf0", 2);
    const std::string sei("\x06\x05\x01\x80", 4);

    std::string stream;
    stream += nal(SC4, p);  // before any IDR: dropped
    stream += nal(SC4, aud) + nal(SC4, sei) + nal(SC4, sps) + nal(SC4, pps) + nal(SC3, idr) + nal(SC3, idr_part2);
    stream += nal(SC3, p) + std::string(2, '\0');  // trailing zeros belong to the next start code
    stream += nal(SC4, aud) + nal(SC3, b);
    stream += nal(SC3, sei) + nal(SC3, idr);  // an IDR whose parameter sets are not repeated
    const std::vector<uint8_t> data = bytes(stream);
    const std::vector<AccessUnit> aus = encoder::group_access_units(data.data(), data.size());
    ASSERT_EQ(aus.size(), 4u);

    EXPECT_EQ(aus[0].kind, AccessUnit::I);
    EXPECT_EQ(std::string(aus[0].bytes.begin(), aus[0].bytes.end()),
              nal(SC4, sps) + nal(SC4, pps) + nal(SC4, sei) + nal(SC4, idr) + nal(SC4, idr_part2))
        << "parameter sets first, the delimiter dropped, both slices of the picture kept together";
    EXPECT_EQ(aus[1].kind, AccessUnit::P);
    EXPECT_EQ(std::string(aus[1].bytes.begin(), aus[1].bytes.end()), nal(SC4, p));
    EXPECT_EQ(aus[2].kind, AccessUnit::B);
    EXPECT_EQ(aus[3].kind, AccessUnit::I);
    EXPECT_EQ(std::string(aus[3].bytes.begin(), aus[3].bytes.end()),
              nal(SC4, sps) + nal(SC4, pps) + nal(SC4, sei) + nal(SC4, idr))
        << "the latest SPS and PPS are put before an IDR that lacks them";

    // No IDR at all, nothing at all, or no start code: no frames.
    const std::vector<uint8_t> only_p = bytes(nal(SC4, p) + nal(SC4, p));
    EXPECT_TRUE(encoder::group_access_units(only_p.data(), only_p.size()).empty());
    EXPECT_TRUE(encoder::group_access_units(nullptr, 0).empty());
    const std::vector<uint8_t> text = bytes("not a video at all");
    EXPECT_TRUE(encoder::group_access_units(text.data(), text.size()).empty());
}

TEST(H264Stream, SpsOfRealEncodersAndOfOurOwn)
{
    // High profile, 1920x1080 (1088 cropped) at 30000/1001, as x264 writes it.
    const std::string hd1080(
        "\x67\x64\x00\x28\xac\xd9\x40\x78\x02\x27\xe5\xc0\x44\x00\x00\x0f\xa4\x00\x03\xa9\x80"
        "\x3c\x60\xc6\x58",
        25);
    encoder::SpsInfo info;
    ASSERT_TRUE(encoder::parse_sps(reinterpret_cast<const uint8_t *>(hd1080.data()), hd1080.size(), &info));
    EXPECT_EQ(info.profile_idc, 100);
    EXPECT_EQ(info.level_idc, 40);
    EXPECT_EQ(info.width, 1920);
    EXPECT_EQ(info.height, 1080);
    EXPECT_NEAR(info.fps, 29.97, 0.001);

    // Every prefix either parses to the same picture size or is refused; none is read past.
    for (size_t n = 0; n < hd1080.size(); ++n) {
        encoder::SpsInfo cut;
        if (encoder::parse_sps(reinterpret_cast<const uint8_t *>(hd1080.data()), n, &cut)) {
            EXPECT_EQ(cut.width, 1920) << n;
            EXPECT_EQ(cut.height, 1080) << n;
        }
    }
    EXPECT_FALSE(encoder::parse_sps(reinterpret_cast<const uint8_t *>("\x68\x42\x00\x1e"), 4, &info)) << "a PPS";

    // The synthetic streams' own SPS reads back as built, cropping included.
    struct Case {
        int w, h, fps;
    };
    for (const Case &c : {Case{640, 360, 25}, Case{176, 144, 1}, Case{18, 16, 240}, Case{4096, 2160, 60}}) {
        const std::vector<uint8_t> sps = encoder::build_sps(c.w, c.h, c.fps);
        ASSERT_TRUE(encoder::parse_sps(sps.data(), sps.size(), &info)) << c.w << "x" << c.h;
        EXPECT_EQ(info.profile_idc, 66);
        EXPECT_EQ(info.width, c.w);
        EXPECT_EQ(info.height, c.h);
        EXPECT_DOUBLE_EQ(info.fps, c.fps);
    }
    EXPECT_EQ(encoder::build_pps()[0] & 0x1F, 8);
}

TEST(H264Stream, EmulationPrevention)
{
    const std::vector<uint8_t> rbsp{0, 0, 0, 0, 0, 1, 0, 0, 2, 0, 0, 3, 0, 0, 4, 7, 0, 0};
    const std::vector<uint8_t> nal = encoder::rbsp_to_nal(rbsp);
    EXPECT_EQ(nal, (std::vector<uint8_t>{0, 0, 3, 0, 0, 3, 0, 1, 0, 0, 3, 2, 0, 0, 3, 3, 0, 0, 4, 7, 0, 0}));
    EXPECT_EQ(encoder::nal_to_rbsp(nal.data(), nal.size()), rbsp);
    // No start code (00 00 00, 00 00 01, 00 00 02) is left inside the escaped unit.
    for (size_t i = 0; i + 2 < nal.size(); ++i) EXPECT_FALSE(nal[i] == 0 && nal[i + 1] == 0 && nal[i + 2] <= 2) << i;
}

TEST(MediaUtil, MuLawCoding)
{
    EXPECT_EQ(encoder::ulaw_encode(0), 0xFF);
    EXPECT_EQ(encoder::ulaw_encode(32767), 0x80);
    EXPECT_EQ(encoder::ulaw_encode(-32768), 0x00);
    EXPECT_EQ(encoder::ulaw_encode(-1), 0x7F);
    EXPECT_EQ(encoder::ulaw_decode(0x80), 32124);
    EXPECT_EQ(encoder::ulaw_decode(0x00), -32124);
    // Every code decodes to a value that codes back to it (but the two
    // zeros are one).
    for (int code = 0; code < 256; ++code) {
        if (code == 0x7F) continue;
        EXPECT_EQ(encoder::ulaw_encode(encoder::ulaw_decode(static_cast<uint8_t>(code))), code) << code;
    }
    // Quantisation error stays within half a step of the segment: at
    // most 1/16 of the value, plus the bias.
    for (int v = -32000; v <= 32000; v += 7) {
        const int back = encoder::ulaw_decode(encoder::ulaw_encode(static_cast<int16_t>(v)));
        EXPECT_LE(std::abs(back - v), std::abs(v) / 16 + 4) << v;
    }
}

TEST(MediaUtil, ToneIsContinuousAndAtItsFrequency)
{
    encoder::ToneGenerator whole(1000), pieces(1000);
    const std::vector<uint8_t> a = whole.next(8000);
    std::vector<uint8_t> b;
    for (int i = 0; i < 25; ++i) {
        const std::vector<uint8_t> frame = pieces.next(320);
        b.insert(b.end(), frame.begin(), frame.end());
    }
    EXPECT_EQ(a, b) << "frames join without a phase jump";
    int crossings = 0, peak = 0;
    for (size_t i = 1; i < a.size(); ++i) {
        const int prev = encoder::ulaw_decode(a[i - 1]), cur = encoder::ulaw_decode(a[i]);
        if ((prev < 0) != (cur < 0)) ++crossings;
        peak = std::max(peak, std::abs(cur));
    }
    EXPECT_NEAR(crossings, 2000, 2) << "two sign changes per cycle of 1000 Hz";
    EXPECT_NEAR(peak, 8000, 8000 / 16);
}

TEST(MediaUtil, JpegSize)
{
    const std::vector<uint8_t> jpeg = load(encoder::sample_path("snapshot-640x360.jpg"));
    int w = 0, h = 0;
    ASSERT_TRUE(encoder::jpeg_size(jpeg.data(), jpeg.size(), &w, &h));
    EXPECT_EQ(w, 640);
    EXPECT_EQ(h, 360);
    // A progressive frame header after an application segment and fill
    // bytes.
    const std::string prog(
        "\xff\xd8\xff\xe0\x00\x04\x4a\x46\xff\xff\xc2\x00\x11\x08\x00"
        "\xf0\x01\x40\x03",
        19);
    ASSERT_TRUE(encoder::jpeg_size(reinterpret_cast<const uint8_t *>(prog.data()), prog.size(), &w, &h));
    EXPECT_EQ(w, 320);
    EXPECT_EQ(h, 240);
    // Cut anywhere before its frame header, or not a JPEG: refused,
    // never read past.
    for (size_t n = 0; n < 18; ++n)
        EXPECT_FALSE(encoder::jpeg_size(reinterpret_cast<const uint8_t *>(prog.data()), n, &w, &h)) << n;
    const std::vector<uint8_t> png = bytes("\x89PNG\r\n\x1a\n");
    EXPECT_FALSE(encoder::jpeg_size(png.data(), png.size(), &w, &h));
}

}  // namespace
