#include "media/h264sps.h"

#include <vector>

namespace h264sps {
namespace {

// Exp-Golomb bit reader over the unit's payload; any read past the end sets failed_ and reads 0.
class Bits {
 public:
  explicit Bits(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}

  bool failed() const { return failed_; }
  void Fail() { failed_ = true; }

  uint32_t Bit() {
    if (pos_ >= bytes_.size() * 8) {
      failed_ = true;
      return 0;
    }
    const uint32_t b = (bytes_[pos_ / 8] >> (7 - pos_ % 8)) & 1u;
    pos_++;
    return b;
  }

  uint32_t Read(int count) {
    uint32_t v = 0;
    for (int i = 0; i < count; i++) v = (v << 1) | Bit();
    return v;
  }

  // ue(v); values beyond 32 bits (more than 31 leading zeros) fail.
  uint32_t Ue() {
    int zeros = 0;
    while (Bit() == 0) {
      if (failed_ || ++zeros > 31) {
        failed_ = true;
        return 0;
      }
    }
    return zeros == 0 ? 0 : (1u << zeros) - 1 + Read(zeros);
  }

  void Se() { Ue(); }

 private:
  std::vector<uint8_t> bytes_;
  size_t pos_ = 0;
  bool failed_ = false;
};

// The payload without its header byte and without the 0x03 of every 00 00 03 sequence.
std::vector<uint8_t> Payload(const uint8_t* d, size_t n) {
  std::vector<uint8_t> out;
  out.reserve(n);
  int zeros = 0;
  for (size_t i = 1; i < n; i++) {
    if (zeros >= 2 && d[i] == 3) {
      zeros = 0;
      continue;
    }
    zeros = d[i] == 0 ? zeros + 1 : 0;
    out.push_back(d[i]);
  }
  return out;
}

void SkipScalingList(Bits* bits, int size) {
  int last = 8;
  int next = 8;
  for (int j = 0; j < size && !bits->failed(); j++) {
    if (next != 0) {
      const uint32_t code = bits->Ue();  // se(v) delta_scale, -128..127
      if (code > 255) {
        bits->Fail();
        return;
      }
      const int delta =
          (code & 1) != 0 ? static_cast<int>((code + 1) / 2) : -static_cast<int>(code / 2);
      next = (last + delta + 256) % 256;
    }
    last = next == 0 ? last : next;
  }
}

// The ratios of aspect_ratio_idc 1..16 in the H.264 VUI (0 unspecified).
constexpr Ratio kTable[] = {{0, 1},   {1, 1},    {12, 11}, {10, 11}, {16, 11}, {40, 33},
                            {24, 11}, {20, 11},  {32, 11}, {80, 33}, {18, 11}, {15, 11},
                            {64, 33}, {160, 99}, {4, 3},   {3, 2},   {2, 1}};

bool HighProfile(uint32_t p) {
  return p == 100 || p == 110 || p == 122 || p == 244 || p == 44 || p == 83 || p == 86 ||
         p == 118 || p == 128 || p == 138 || p == 139 || p == 134 || p == 135;
}

}  // namespace

Ratio SampleAspect(const uint8_t* sps, size_t n) {
  if (sps == nullptr || n < 4 || (sps[0] & 0x1F) != 7) return {};
  Bits bits(Payload(sps, n));
  const uint32_t profile = bits.Read(8);
  bits.Read(16);  // constraint flags, level
  bits.Ue();      // seq_parameter_set_id
  if (HighProfile(profile)) {
    if (bits.Ue() == 3) bits.Bit();  // chroma_format_idc, separate_colour_plane_flag
    bits.Ue();                       // bit depths
    bits.Ue();
    bits.Bit();             // qpprime_y_zero_transform_bypass_flag
    if (bits.Bit() != 0) {  // seq_scaling_matrix_present_flag
      for (int i = 0; i < 8 && !bits.failed(); i++) {
        if (bits.Bit() != 0) SkipScalingList(&bits, i < 6 ? 16 : 64);
      }
    }
  }
  bits.Ue();  // log2_max_frame_num_minus4
  const uint32_t poc_type = bits.Ue();
  if (poc_type == 0) {
    bits.Ue();
  } else if (poc_type == 1) {
    bits.Bit();
    bits.Se();
    bits.Se();
    const uint32_t cycle = bits.Ue();
    if (cycle > 255) return {};
    for (uint32_t i = 0; i < cycle && !bits.failed(); i++) bits.Se();
  }
  bits.Ue();                        // max_num_ref_frames
  bits.Bit();                       // gaps_in_frame_num_value_allowed_flag
  bits.Ue();                        // pic_width_in_mbs_minus1
  bits.Ue();                        // pic_height_in_map_units_minus1
  if (bits.Bit() == 0) bits.Bit();  // frame_mbs_only_flag, mb_adaptive_frame_field_flag
  bits.Bit();                       // direct_8x8_inference_flag
  if (bits.Bit() != 0) {            // frame_cropping_flag
    for (int i = 0; i < 4; i++) bits.Ue();
  }
  if (bits.Bit() == 0 || bits.Bit() == 0) return {};  // no VUI, or no aspect ratio in it
  const uint32_t idc = bits.Read(8);
  Ratio r;
  if (idc == 255) {
    r.num = static_cast<int>(bits.Read(16));
    r.den = static_cast<int>(bits.Read(16));
  } else if (idc < sizeof(kTable) / sizeof(kTable[0])) {
    r = kTable[idc];
  }
  if (bits.failed() || r.num == 0 || r.den == 0) return {};
  return r;
}

Ratio SampleAspectOfConfig(const uint8_t* config, size_t n) {
  // version, profile, compatibility, level, length size, SPS count, then 16-bit length + SPS.
  if (config == nullptr || n < 8 || config[0] != 1 || (config[5] & 0x1F) == 0) return {};
  const size_t length = static_cast<size_t>(config[6]) << 8 | config[7];
  if (length > n - 8) return {};
  return SampleAspect(config + 8, length);
}

}  // namespace h264sps
