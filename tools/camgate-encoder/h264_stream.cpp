#include "h264_stream.h"

#include <algorithm>

namespace encoder {

namespace {

// Bits of an RBSP, most significant first. Reading past the end sets failed().
class BitReader {
  public:
    BitReader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    uint32_t u(int n)
    {
        uint32_t v = 0;
        for (int i = 0; i < n; ++i) v = (v << 1) | bit();
        return v;
    }
    uint32_t ue()
    {
        int zeros = 0;
        while (bit() == 0 && !failed_) {
            if (++zeros > 31) {
                failed_ = true;
                return 0;
            }
        }
        return (zeros == 0) ? 0 : ((1u << zeros) - 1 + u(zeros));
    }
    int32_t se()
    {
        const uint32_t k = ue();
        return (k & 1) ? static_cast<int32_t>((k + 1) / 2) : -static_cast<int32_t>(k / 2);
    }
    bool failed() const { return failed_; }

  private:
    uint32_t bit()
    {
        if (pos_ >= size_ * 8) {
            failed_ = true;
            return 0;
        }
        const uint32_t b = (data_[pos_ / 8] >> (7 - pos_ % 8)) & 1;
        ++pos_;
        return b;
    }
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
    bool failed_ = false;
};

class BitWriter {
  public:
    void u(int n, uint32_t v)
    {
        for (int i = n - 1; i >= 0; --i) bit((v >> i) & 1);
    }
    void ue(uint32_t v)
    {
        const uint64_t code = static_cast<uint64_t>(v) + 1;
        int len = 0;
        while ((code >> len) > 1) ++len;
        u(len, 0);
        for (int i = len; i >= 0; --i) bit(static_cast<uint32_t>((code >> i) & 1));
    }
    // rbsp_trailing_bits: a one, then zeros to the byte boundary.
    std::vector<uint8_t> finish()
    {
        bit(1);
        while (nbits_ % 8 != 0) bit(0);
        return bytes_;
    }

  private:
    void bit(uint32_t b)
    {
        if (nbits_ % 8 == 0) bytes_.push_back(0);
        if (b) bytes_.back() = static_cast<uint8_t>(bytes_.back() | (0x80 >> (nbits_ % 8)));
        ++nbits_;
    }
    std::vector<uint8_t> bytes_;
    size_t nbits_ = 0;
};

void skip_scaling_list(BitReader &br, int size)
{
    int last = 8, next = 8;
    for (int j = 0; j < size && !br.failed(); ++j) {
        if (next != 0) next = (last + br.se() + 256) % 256;
        last = (next == 0) ? last : next;
    }
}

bool is_vcl(int type)
{
    return type == NAL_SLICE || type == NAL_IDR;
}

// Non-VCL units that can only open an access unit (SEI, SPS, PPS, 14..18).
bool opens_access_unit(int type)
{
    return type == NAL_SEI || type == NAL_SPS || type == NAL_PPS || (type >= 14 && type <= 18);
}

void append_with_start_code(std::vector<uint8_t> &out, const uint8_t *data, size_t size)
{
    static const uint8_t start[4] = {0, 0, 0, 1};
    out.insert(out.end(), start, start + 4);
    out.insert(out.end(), data, data + size);
}

}  // namespace

std::vector<NalUnit> split_nal_units(const uint8_t *data, size_t size)
{
    std::vector<size_t> starts;
    for (size_t i = 0; i + 3 <= size;) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            starts.push_back(i + 3);
            i += 3;
        } else {
            ++i;
        }
    }
    std::vector<NalUnit> units;
    for (size_t k = 0; k < starts.size(); ++k) {
        size_t end = (k + 1 < starts.size()) ? starts[k + 1] - 3 : size;
        while (end > starts[k] && data[end - 1] == 0) --end;
        if (end > starts[k]) units.push_back({data + starts[k], end - starts[k]});
    }
    return units;
}

std::vector<uint8_t> nal_to_rbsp(const uint8_t *data, size_t size)
{
    std::vector<uint8_t> rbsp;
    rbsp.reserve(size);
    int zeros = 0;
    for (size_t i = 0; i < size; ++i) {
        if (zeros >= 2 && data[i] == 3) {
            zeros = 0;
            continue;
        }
        zeros = data[i] == 0 ? zeros + 1 : 0;
        rbsp.push_back(data[i]);
    }
    return rbsp;
}

std::vector<uint8_t> rbsp_to_nal(const std::vector<uint8_t> &rbsp)
{
    std::vector<uint8_t> nal;
    nal.reserve(rbsp.size() + rbsp.size() / 64 + 1);
    int zeros = 0;
    for (uint8_t b : rbsp) {
        if (zeros >= 2 && b <= 3) {
            nal.push_back(3);
            zeros = 0;
        }
        zeros = b == 0 ? zeros + 1 : 0;
        nal.push_back(b);
    }
    return nal;
}

std::vector<AccessUnit> group_access_units(const uint8_t *data, size_t size)
{
    struct Pending {
        std::vector<NalUnit> nals;
        bool vcl = false;
        bool idr = false;
        int slice_type = -1;
    } cur;
    std::vector<AccessUnit> out;
    std::vector<uint8_t> last_sps, last_pps;
    bool started = false;

    auto flush = [&]() {
        Pending done = std::move(cur);
        cur = Pending();
        if (!done.vcl) return;
        if (!started && !done.idr) return;  // nothing before the first IDR can be decoded
        started = true;
        AccessUnit au;
        au.kind = done.idr ? AccessUnit::I : (done.slice_type % 5 == 1 ? AccessUnit::B : AccessUnit::P);
        if (done.idr) {
            // Parameter sets first, then the rest in stream order.
            const NalUnit *sps = nullptr;
            const NalUnit *pps = nullptr;
            for (const NalUnit &n : done.nals) {
                if (n.type() == NAL_SPS && sps == nullptr) sps = &n;
                if (n.type() == NAL_PPS && pps == nullptr) pps = &n;
            }
            if (sps != nullptr)
                append_with_start_code(au.bytes, sps->data, sps->size);
            else if (!last_sps.empty())
                append_with_start_code(au.bytes, last_sps.data(), last_sps.size());
            if (pps != nullptr)
                append_with_start_code(au.bytes, pps->data, pps->size);
            else if (!last_pps.empty())
                append_with_start_code(au.bytes, last_pps.data(), last_pps.size());
            for (const NalUnit &n : done.nals) {
                if (&n != sps && &n != pps) append_with_start_code(au.bytes, n.data, n.size);
            }
        } else {
            for (const NalUnit &n : done.nals) append_with_start_code(au.bytes, n.data, n.size);
        }
        // Parameter sets of this unit stay known for later IDRs that lack them.
        for (const NalUnit &n : done.nals) {
            if (n.type() == NAL_SPS) last_sps.assign(n.data, n.data + n.size);
            if (n.type() == NAL_PPS) last_pps.assign(n.data, n.data + n.size);
        }
        out.push_back(std::move(au));
    };

    for (const NalUnit &n : split_nal_units(data, size)) {
        const int type = n.type();
        if (type == NAL_AUD) {
            if (cur.vcl) flush();
            continue;
        }
        if (opens_access_unit(type)) {
            if (cur.vcl) flush();
        } else if (is_vcl(type)) {
            const std::vector<uint8_t> head = nal_to_rbsp(n.data + 1, std::min<size_t>(n.size - 1, 16));
            BitReader br(head.data(), head.size());
            const uint32_t first_mb = br.ue();
            const uint32_t slice_type = br.ue();
            if (cur.vcl && first_mb == 0) flush();
            cur.vcl = true;
            cur.idr = cur.idr || type == NAL_IDR;
            if (cur.slice_type < 0 && !br.failed()) cur.slice_type = static_cast<int>(slice_type);
        }
        cur.nals.push_back(n);
    }
    flush();
    return out;
}

bool parse_sps(const uint8_t *nal, size_t size, SpsInfo *info)
{
    if (size < 4 || (nal[0] & 0x1F) != NAL_SPS) return false;
    const std::vector<uint8_t> rbsp = nal_to_rbsp(nal + 1, size - 1);
    BitReader br(rbsp.data(), rbsp.size());
    SpsInfo out;
    out.profile_idc = static_cast<int>(br.u(8));
    br.u(8);  // constraint flags
    out.level_idc = static_cast<int>(br.u(8));
    br.ue();  // seq_parameter_set_id
    uint32_t chroma_format_idc = 1;
    bool separate_colour_planes = false;
    static const int high_profiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    if (std::find(std::begin(high_profiles), std::end(high_profiles), out.profile_idc) != std::end(high_profiles)) {
        chroma_format_idc = br.ue();
        if (chroma_format_idc == 3) separate_colour_planes = br.u(1) != 0;
        br.ue();  // bit_depth_luma_minus8
        br.ue();  // bit_depth_chroma_minus8
        br.u(1);  // qpprime_y_zero_transform_bypass_flag
        if (br.u(1)) {
            for (int i = 0; i < (chroma_format_idc != 3 ? 8 : 12); ++i) {
                if (br.u(1)) skip_scaling_list(br, i < 6 ? 16 : 64);
            }
        }
    }
    br.ue();  // log2_max_frame_num_minus4
    const uint32_t poc_type = br.ue();
    if (poc_type == 0) {
        br.ue();
    } else if (poc_type == 1) {
        br.u(1);
        br.se();
        br.se();
        const uint32_t cycle = br.ue();
        if (cycle > 255) return false;
        for (uint32_t i = 0; i < cycle; ++i) br.se();
    }
    br.ue();  // max_num_ref_frames
    br.u(1);  // gaps_in_frame_num_value_allowed_flag
    const uint32_t width_mbs = br.ue() + 1;
    const uint32_t height_map_units = br.ue() + 1;
    const uint32_t frame_mbs_only = br.u(1);
    if (!frame_mbs_only) br.u(1);  // mb_adaptive_frame_field_flag
    br.u(1);                       // direct_8x8_inference_flag
    uint32_t crop[4] = {0, 0, 0, 0};
    if (br.u(1)) {
        for (uint32_t &c : crop) c = br.ue();
    }
    if (br.failed() || width_mbs > 1024 || height_map_units > 1024) return false;
    const uint32_t array_type = separate_colour_planes ? 0 : chroma_format_idc;
    const uint32_t crop_x = array_type == 0 ? 1 : (array_type == 3 ? 1 : 2);
    const uint32_t crop_y = (array_type == 0 ? 1 : (array_type == 1 ? 2 : 1)) * (2 - frame_mbs_only);
    const long long w = static_cast<long long>(width_mbs) * 16 - static_cast<long long>(crop_x) * (crop[0] + crop[1]);
    const long long h = static_cast<long long>(height_map_units) * 16 * (2 - frame_mbs_only) -
                        static_cast<long long>(crop_y) * (crop[2] + crop[3]);
    if (w <= 0 || h <= 0) return false;
    out.width = static_cast<int>(w);
    out.height = static_cast<int>(h);

    if (br.u(1)) {                                // vui_parameters_present_flag
        if (br.u(1) && br.u(8) == 255) br.u(32);  // aspect ratio, with an explicit SAR
        if (br.u(1)) br.u(1);                     // overscan
        if (br.u(1)) {                            // video signal type
            br.u(4);
            if (br.u(1)) br.u(24);  // colour description
        }
        if (br.u(1)) {  // chroma location
            br.ue();
            br.ue();
        }
        if (br.u(1)) {  // timing
            const uint32_t units = br.u(32);
            const uint32_t scale = br.u(32);
            if (!br.failed() && units > 0) out.fps = static_cast<double>(scale) / (2.0 * units);
        }
    }
    *info = out;
    return true;
}

std::vector<uint8_t> build_sps(int width, int height, int fps)
{
    const int width_mbs = (width + 15) / 16;
    const int height_mbs = (height + 15) / 16;
    const int mbs = width_mbs * height_mbs;
    const int level = mbs <= 1620 ? 30 : mbs <= 3600 ? 31 : mbs <= 5120 ? 32 : mbs <= 8192 ? 40 : 51;
    BitWriter w;
    w.u(8, 66);    // Baseline
    w.u(8, 0xC0);  // constraint_set0 and constraint_set1
    w.u(8, static_cast<uint32_t>(level));
    w.ue(0);  // seq_parameter_set_id
    w.ue(0);  // log2_max_frame_num_minus4
    w.ue(2);  // pic_order_cnt_type
    w.ue(1);  // max_num_ref_frames
    w.u(1, 0);
    w.ue(static_cast<uint32_t>(width_mbs - 1));
    w.ue(static_cast<uint32_t>(height_mbs - 1));
    w.u(1, 1);  // frame_mbs_only_flag
    w.u(1, 1);  // direct_8x8_inference_flag
    const bool crop = width_mbs * 16 != width || height_mbs * 16 != height;
    w.u(1, crop);
    if (crop) {
        w.ue(0);
        w.ue(static_cast<uint32_t>((width_mbs * 16 - width) / 2));
        w.ue(0);
        w.ue(static_cast<uint32_t>((height_mbs * 16 - height) / 2));
    }
    w.u(1, 1);  // VUI with the timing information only
    w.u(4, 0);  // no aspect ratio, overscan, video signal type, chroma location
    w.u(1, 1);
    w.u(32, 1);
    w.u(32, static_cast<uint32_t>(2 * fps));
    w.u(1, 1);  // fixed_frame_rate_flag
    w.u(4, 0);  // no HRD, no pic_struct, no bitstream restriction
    std::vector<uint8_t> nal{0x67};
    const std::vector<uint8_t> payload = rbsp_to_nal(w.finish());
    nal.insert(nal.end(), payload.begin(), payload.end());
    return nal;
}

std::vector<uint8_t> build_pps()
{
    BitWriter w;
    w.ue(0);    // pic_parameter_set_id
    w.ue(0);    // seq_parameter_set_id
    w.u(2, 0);  // CAVLC, no bottom_field_pic_order_in_frame_present_flag
    w.ue(0);    // num_slice_groups_minus1
    w.ue(0);    // num_ref_idx_l0_default_active_minus1
    w.ue(0);    // num_ref_idx_l1_default_active_minus1
    w.u(3, 0);  // no weighted prediction
    w.ue(0);    // pic_init_qp_minus26 (se 0)
    w.ue(0);    // pic_init_qs_minus26
    w.ue(0);    // chroma_qp_index_offset
    w.u(1, 1);  // deblocking_filter_control_present_flag
    w.u(2, 0);  // constrained_intra_pred, redundant_pic_cnt_present
    std::vector<uint8_t> nal{0x68};
    const std::vector<uint8_t> payload = rbsp_to_nal(w.finish());
    nal.insert(nal.end(), payload.begin(), payload.end());
    return nal;
}

std::vector<uint8_t> build_slice(bool idr, int slice_type, const std::string &payload)
{
    BitWriter w;
    w.ue(0);  // first_mb_in_slice
    w.ue(static_cast<uint32_t>(slice_type));
    w.ue(0);  // pic_parameter_set_id
    std::vector<uint8_t> rbsp = w.finish();
    rbsp.insert(rbsp.end(), payload.begin(), payload.end());
    std::vector<uint8_t> nal{static_cast<uint8_t>(idr ? 0x65 : 0x41)};
    const std::vector<uint8_t> body = rbsp_to_nal(rbsp);
    nal.insert(nal.end(), body.begin(), body.end());
    return nal;
}

}  // namespace encoder
