// The sample aspect ratio read from sequence parameter sets written bit by bit here: every
// branch a camera's encoder may take before the VUI (profiles with chroma and scaling lists,
// both picture order count types, cropping), the ratio forms, and sets that end early.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "media/h264sps.h"

namespace {

using Bytes = std::vector<uint8_t>;

class BitWriter {
 public:
  void Bits(uint32_t value, int count) {
    for (int i = count - 1; i >= 0; i--) Bit((value >> i) & 1u);
  }
  void Bit(uint32_t b) {
    if (used_ % 8 == 0) bytes_.push_back(0);
    if (b != 0) bytes_.back() |= static_cast<uint8_t>(0x80 >> (used_ % 8));
    used_++;
  }
  void Ue(uint32_t v) {
    const uint64_t code = uint64_t{v} + 1;
    int length = 0;
    while ((code >> length) > 1) length++;
    Bits(0, length);
    for (int i = length; i >= 0; i--) Bit(static_cast<uint32_t>((code >> i) & 1u));
  }
  void Se(int v) { Ue(v > 0 ? static_cast<uint32_t>(2 * v - 1) : static_cast<uint32_t>(-2 * v)); }
  // rbsp_trailing_bits
  Bytes Finish() {
    Bit(1);
    while (used_ % 8 != 0) Bit(0);
    return bytes_;
  }

 private:
  Bytes bytes_;
  size_t used_ = 0;
};

struct Sps {
  uint32_t profile = 66;
  uint32_t chroma = 1;
  bool scaling = false;
  bool huge_delta = false;  // list 0's first delta out of range
  uint32_t poc_type = 0;
  uint32_t crop = 0;  // 0: no cropping, else this value for all four offsets
  bool vui = true;
  bool aspect = true;
  uint32_t idc = 1;
  uint32_t sar_w = 0;
  uint32_t sar_h = 0;
};

// The NAL unit: header byte 0x67 and the payload with emulation prevention bytes inserted.
Bytes Write(const Sps& s, size_t* inserted = nullptr) {
  BitWriter w;
  w.Bits(s.profile, 8);
  w.Bits(0, 8);   // constraint flags
  w.Bits(40, 8);  // level 4.0
  w.Ue(0);        // seq_parameter_set_id
  if (s.profile == 100 || s.profile == 244) {
    w.Ue(s.chroma);
    if (s.chroma == 3) w.Bit(0);
    w.Ue(0);
    w.Ue(0);
    w.Bit(0);
    w.Bit(s.scaling ? 1 : 0);
    if (s.scaling) {
      for (int i = 0; i < 8; i++) {
        const bool present = i % 3 != 1;  // some lists present, some not
        w.Bit(present ? 1 : 0);
        if (!present) continue;
        const int size = i < 6 ? 16 : 64;
        // list 0 ends early (a next scale of 0: the rest repeats the last, nothing more is
        // coded); the others are coded whole
        int last = 8;
        if (i == 0 && s.huge_delta) {
          w.Ue(0xFFFFFFF1u);  // +2147483641, far outside -128..127
          break;
        }
        for (int j = 0; j < size; j++) {
          const int delta = i == 0 && j == 3 ? -last : (j % 2 == 0 ? 5 : -3);
          w.Se(delta);
          last = (last + delta + 256) % 256;
          if (last == 0) break;
        }
      }
    }
  }
  w.Ue(4);  // log2_max_frame_num_minus4
  w.Ue(s.poc_type);
  if (s.poc_type == 0) {
    w.Ue(2);
  } else if (s.poc_type == 1) {
    w.Bit(0);
    w.Se(-3);
    w.Se(7);
    w.Ue(3);
    w.Se(1);
    w.Se(-2);
    w.Se(0);
  }
  w.Ue(1);    // max_num_ref_frames
  w.Bit(0);   // gaps
  w.Ue(119);  // 1920 wide
  w.Ue(67);   // 1088 high
  w.Bit(1);   // frame_mbs_only
  w.Bit(1);   // direct_8x8
  w.Bit(s.crop != 0 ? 1 : 0);
  if (s.crop != 0) {
    for (int i = 0; i < 4; i++) w.Ue(s.crop);
  }
  w.Bit(s.vui ? 1 : 0);
  if (s.vui) {
    w.Bit(s.aspect ? 1 : 0);
    if (s.aspect) {
      w.Bits(s.idc, 8);
      if (s.idc == 255) {
        w.Bits(s.sar_w, 16);
        w.Bits(s.sar_h, 16);
      }
    }
    w.Bit(0);  // overscan_info_present_flag; the rest of the VUI is not read
  }
  const Bytes rbsp = w.Finish();
  Bytes nal = {0x67};
  int zeros = 0;
  for (uint8_t b : rbsp) {
    if (zeros >= 2 && b <= 3) {
      nal.push_back(3);
      zeros = 0;
      if (inserted != nullptr) ++*inserted;
    }
    nal.push_back(b);
    zeros = b == 0 ? zeros + 1 : 0;
  }
  return nal;
}

h264sps::Ratio Read(const Bytes& nal) {
  return h264sps::SampleAspect(nal.data(), nal.size());
}

std::string Text(const h264sps::Ratio& r) {
  return std::to_string(r.num) + ":" + std::to_string(r.den);
}

TEST(H264Sps, RatioFromTheTableOrGivenAndUnspecifiedOtherwise) {
  Sps s;
  EXPECT_EQ("1:1", Text(Read(Write(s))));
  s.idc = 14;
  EXPECT_EQ("4:3", Text(Read(Write(s))));
  s.idc = 16;
  EXPECT_EQ("2:1", Text(Read(Write(s))));
  s.idc = 255;
  s.sar_w = 64;
  s.sar_h = 45;
  EXPECT_EQ("64:45", Text(Read(Write(s))));
  // unspecified: idc 0, a reserved idc, a zero side, no aspect ratio, no VUI
  s.sar_w = 0;
  EXPECT_EQ("0:1", Text(Read(Write(s))));
  s.idc = 0;
  EXPECT_EQ("0:1", Text(Read(Write(s))));
  s.idc = 17;
  EXPECT_EQ("0:1", Text(Read(Write(s))));
  s.idc = 1;
  s.aspect = false;
  EXPECT_EQ("0:1", Text(Read(Write(s))));
  s.vui = false;
  EXPECT_EQ("0:1", Text(Read(Write(s))));
}

TEST(H264Sps, EveryFieldBeforeTheVuiIsSkippedAsCoded) {
  Sps s;
  s.idc = 255;
  s.sar_w = 10;
  s.sar_h = 11;
  for (uint32_t profile : {66u, 100u, 244u}) {
    for (uint32_t poc : {0u, 1u, 2u}) {
      for (bool scaling : {false, true}) {
        s.profile = profile;
        s.poc_type = poc;
        s.scaling = scaling;
        s.chroma = profile == 244 ? 3 : 1;
        s.crop = poc == 1 ? 5 : 0;
        EXPECT_EQ("10:11", Text(Read(Write(s))))
            << "profile " << profile << " poc " << poc << " scaling " << scaling;
      }
    }
  }
}

TEST(H264Sps, EmulationPreventionBytesAreNotPartOfTheFields) {
  // Cropping offsets of 2^k - 1 are coded with k leading zero bits: some alignment of them
  // makes 00 00 0x in the payload, which the writer escapes.
  size_t inserted = 0;
  Sps s;
  s.idc = 255;
  s.sar_w = 3;
  s.sar_h = 2;
  for (uint32_t k = 17; k <= 24; k++) {
    s.crop = (1u << k) - 1;
    EXPECT_EQ("3:2", Text(Read(Write(s, &inserted)))) << "k " << k;
  }
  EXPECT_GT(inserted, 0u);
}

TEST(H264Sps, CutShortOrNotAnSpsIsUnspecified) {
  Sps s;
  s.idc = 255;
  s.sar_w = 4;
  s.sar_h = 3;
  const Bytes whole = Write(s);
  ASSERT_EQ(4, Read(whole).num);
  // Cut anywhere before the ratio's last bit (the trailing bits are the last byte)
  for (size_t n = 0; n + 1 < whole.size(); n++) {
    EXPECT_EQ("0:1", Text(h264sps::SampleAspect(whole.data(), n))) << n << " bytes";
  }
  Bytes pps = whole;
  pps[0] = 0x68;
  EXPECT_EQ("0:1", Text(Read(pps)));
  EXPECT_EQ("0:1", Text(h264sps::SampleAspect(nullptr, 10)));
  // A scaling list delta far outside -128..127 (a fuzzer found the sum overflowing).
  s.profile = 100;
  s.scaling = true;
  s.huge_delta = true;
  EXPECT_EQ("0:1", Text(Read(Write(s))));
  // A run of zeros longer than any 32-bit code fails instead of reading on.
  Bytes zeros(64, 0);
  zeros[0] = 0x67;
  zeros[1] = 66;
  EXPECT_EQ("0:1", Text(Read(zeros)));
}

TEST(H264Sps, DecoderConfigurationGivesItsFirstSps) {
  Sps s;
  s.idc = 2;
  const Bytes sps = Write(s);
  Bytes config = {1, 66, 0, 40, 0xFF, 0xE1, 0, static_cast<uint8_t>(sps.size())};
  config.insert(config.end(), sps.begin(), sps.end());
  config.insert(config.end(), {1, 0, 4, 0x68, 0xCE, 0x3C, 0x80});  // one PPS
  EXPECT_EQ("12:11", Text(h264sps::SampleAspectOfConfig(config.data(), config.size())));
  // an SPS length past the end of the record, a record without SPS
  Bytes bad = config;
  bad[7] = static_cast<uint8_t>(config.size());
  EXPECT_EQ("0:1", Text(h264sps::SampleAspectOfConfig(bad.data(), bad.size())));
  bad = config;
  bad[5] = 0xE0;
  EXPECT_EQ("0:1", Text(h264sps::SampleAspectOfConfig(bad.data(), bad.size())));
}

}  // namespace
