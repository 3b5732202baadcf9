#include "media_util.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

namespace encoder {

uint8_t ulaw_encode(int16_t sample)
{
    constexpr int kBias = 0x84;
    constexpr int kClip = 32635;
    int pcm = sample;
    const int sign = pcm < 0 ? 0x80 : 0;
    if (pcm < 0) pcm = -pcm;
    if (pcm > kClip) pcm = kClip;
    pcm += kBias;
    int exponent = 7;
    for (int mask = 0x4000; (pcm & mask) == 0 && exponent > 0; mask >>= 1) --exponent;
    const int mantissa = (pcm >> (exponent + 3)) & 0x0F;
    return static_cast<uint8_t>(~(sign | (exponent << 4) | mantissa));
}

int16_t ulaw_decode(uint8_t code)
{
    const int u = static_cast<uint8_t>(~code);
    int t = ((u & 0x0F) << 3) + 0x84;
    t <<= (u & 0x70) >> 4;
    return static_cast<int16_t>((u & 0x80) ? (0x84 - t) : (t - 0x84));
}

std::vector<uint8_t> ToneGenerator::next(size_t samples)
{
    std::vector<uint8_t> out(samples);
    constexpr double kTwoPi = 6.283185307179586;
    for (size_t i = 0; i < samples; ++i, ++sample_) {
        // The phase is taken modulo one period of the tone, so it never loses precision.
        const uint64_t period_pos = (sample_ * static_cast<uint64_t>(hz_)) % 8000;
        const double v = amplitude_ * std::sin(kTwoPi * static_cast<double>(period_pos) / 8000.0);
        out[i] = ulaw_encode(static_cast<int16_t>(std::lround(v)));
    }
    return out;
}

bool jpeg_size(const uint8_t *data, size_t size, int *width, int *height)
{
    if (size < 4 || data[0] != 0xFF || data[1] != 0xD8) return false;
    size_t i = 2;
    while (i + 4 <= size) {
        if (data[i] != 0xFF) return false;
        const uint8_t marker = data[i + 1];
        if (marker == 0xFF) {  // fill byte
            ++i;
            continue;
        }
        if (marker == 0xD8 || marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) {  // no length
            i += 2;
            continue;
        }
        if (marker == 0xD9 || marker == 0xDA) return false;  // end of picture, or scan data before any frame header
        const size_t len = (static_cast<size_t>(data[i + 2]) << 8) | data[i + 3];
        const bool sof = marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
        if (sof) {
            if (len < 7 || i + 2 + 7 > size) return false;
            *height = (data[i + 5] << 8) | data[i + 6];
            *width = (data[i + 7] << 8) | data[i + 8];
            return *width > 0 && *height > 0;
        }
        if (len < 2) return false;
        i += 2 + len;
    }
    return false;
}

bool read_whole_file(const std::string &path, std::vector<uint8_t> *out, std::string *err)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *err = path + ": " + std::strerror(errno);
        return false;
    }
    out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (in.bad()) {
        *err = path + ": read error";
        return false;
    }
    return true;
}

}  // namespace encoder
