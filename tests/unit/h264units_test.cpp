// The H.264 unit scanner that the clip writer and the viewer's MP4 share: where units start and
// end whatever the start codes and the zeros around them, and what it makes of parameter sets
// and key frames.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "media/h264units.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::vector<Bytes> Units(const Bytes& d) {
  std::vector<Bytes> units;
  h264::ForEachUnit(d.data(), d.size(), [&](size_t begin, size_t end) {
    units.emplace_back(d.begin() + static_cast<long>(begin), d.begin() + static_cast<long>(end));
  });
  return units;
}

TEST(H264Units, StartCodesAndTheZerosAroundThemBelongToNoUnit) {
  EXPECT_EQ(
      (std::vector<Bytes>{{0x09, 0xF0}, {0x67, 0x42}, {0x68, 0xCE}, {0x65, 0x88, 0x00, 0x84}}),
      Units({0xAA, 0x00,                       // before the first start code: no unit
             0,    0,    0, 1,    0x09, 0xF0,  // 4-byte code
             0,    0,    1, 0x67, 0x42,        // 3-byte code
             0,    0,    0, 0,    0,    1,     // trailing zeros, then a code
             0,    0,    1,                    // an empty unit
             0x68, 0xCE, 0, 0,    0,    1,    0x65, 0x88, 0x00, 0x84}));
  EXPECT_TRUE(Units({}).empty());
  EXPECT_TRUE(Units({0x65, 0x88, 0x84}).empty());  // no start code at all
  EXPECT_TRUE(Units({0, 0, 1}).empty());           // a code with nothing behind it
  EXPECT_EQ((std::vector<Bytes>{{0x41}}), Units({0, 0, 1, 0x41, 0, 0, 1}));
}

TEST(H264Units, ParameterSetsNeedBothAndAKeyFrameNeedsAnIdrSlice) {
  const Bytes pps_first = {0, 0, 1, 0x68, 0xCE, 0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x65, 0x05};
  EXPECT_EQ(std::string("\x00\x00\x00\x01\x68\xCE\x00\x00\x00\x01\x67\x42", 12),
            h264::ParameterSets(pps_first.data(), pps_first.size()));
  EXPECT_TRUE(h264::HasIdrSlice(pps_first.data(), pps_first.size()));
  const Bytes sps_only = {0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x27, 0x42, 0, 0, 1, 0x41, 0x05};
  EXPECT_EQ("", h264::ParameterSets(sps_only.data(), sps_only.size()));
  // 0x41 is a non-IDR slice, however many bytes of value 5 follow its header
  EXPECT_FALSE(h264::HasIdrSlice(sps_only.data(), sps_only.size()));
  const Bytes low_priority_idr = {0, 0, 1, 0x25, 0x88};  // the NAL type is the low five bits
  EXPECT_TRUE(h264::HasIdrSlice(low_priority_idr.data(), low_priority_idr.size()));
}

}  // namespace
