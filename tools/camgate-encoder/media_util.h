// Audio and picture helpers of the simulated encoder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace encoder {

// G.711 mu-law: one 16-bit linear sample to its code byte, and back.
uint8_t ulaw_encode(int16_t sample);
int16_t ulaw_decode(uint8_t code);

// A sine tone at 8000 samples per second, mu-law coded, continuous across frames.
class ToneGenerator {
  public:
    explicit ToneGenerator(int hz, int amplitude = 8000) : hz_(hz), amplitude_(amplitude) {}
    // The next `samples` samples (one byte each).
    std::vector<uint8_t> next(size_t samples);

  private:
    int hz_;
    int amplitude_;
    uint64_t sample_ = 0;
};

// Width and height from the first start-of-frame marker of a JPEG picture.
// False when the data is not a JPEG or ends before one.
bool jpeg_size(const uint8_t *data, size_t size, int *width, int *height);

// Whole contents of a file; false (and *err set) when it cannot be read.
bool read_whole_file(const std::string &path, std::vector<uint8_t> *out, std::string *err);

}  // namespace encoder
