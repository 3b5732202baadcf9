// H.264 Annex-B streams as the simulated encoder needs them: split into NAL
// units, grouped into access units (one camera frame each), the picture size
// and frame rate read from the sequence parameter set, and parameter sets
// built for synthetic streams.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace encoder {

enum NalType {
    NAL_SLICE = 1,
    NAL_IDR = 5,
    NAL_SEI = 6,
    NAL_SPS = 7,
    NAL_PPS = 8,
    NAL_AUD = 9,
};

// One NAL unit without its start code.
struct NalUnit {
    const uint8_t *data;
    size_t size;
    int type() const { return size > 0 ? data[0] & 0x1F : -1; }
};

// Split an Annex-B byte stream at its 3- and 4-byte start codes. Zero bytes
// that pad the end of a unit belong to the next start code and are dropped.
std::vector<NalUnit> split_nal_units(const uint8_t *data, size_t size);

// The payload of a NAL unit with the emulation-prevention bytes removed, and back.
std::vector<uint8_t> nal_to_rbsp(const uint8_t *data, size_t size);
std::vector<uint8_t> rbsp_to_nal(const std::vector<uint8_t> &rbsp);

// One access unit as the encoder publishes it: every NAL unit behind a 4-byte
// start code (the cache recognises no shorter one); an IDR access unit starts
// with its SPS and PPS.
struct AccessUnit {
    enum Kind { I, P, B } kind = P;
    std::vector<uint8_t> bytes;
};

// Group a whole stream into access units. Access-unit delimiters are dropped;
// units before the first IDR are skipped (a viewer could not decode them); an
// IDR without its own SPS and PPS gets the latest ones seen. Empty when the
// stream holds no IDR picture.
std::vector<AccessUnit> group_access_units(const uint8_t *data, size_t size);

// What the sequence parameter set says about the pictures.
struct SpsInfo {
    int profile_idc = 0;
    int level_idc = 0;
    int width = 0;  // after cropping
    int height = 0;
    double fps = 0;  // from the timing information; 0 when absent
};

// Parse an SPS NAL unit (header byte included, no start code). False when it
// is not an SPS or ends early.
bool parse_sps(const uint8_t *nal, size_t size, SpsInfo *info);

// SPS and PPS NAL units (no start code) of a Baseline stream of the given
// even picture size and frame rate, the SPS carrying the timing information.
std::vector<uint8_t> build_sps(int width, int height, int fps);
std::vector<uint8_t> build_pps();

// A slice NAL unit (no start code) that only looks like one: the start of a
// slice header (first macroblock 0, the slice type, PPS 0), then payload as
// it is. An IDR slice when idr is set. Payload without zero bytes stays
// readable in the unit.
std::vector<uint8_t> build_slice(bool idr, int slice_type, const std::string &payload);

}  // namespace encoder
