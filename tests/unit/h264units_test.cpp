// The H.264 unit scanner that the clip writer and the viewer's MP4 share: where units start and
// end whatever the start codes and the zeros around them, and what it finds in them.
#include <gtest/gtest.h>

#include <string>
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
  const Bytes au = {0xAA, 0x00,                    // before the first start code: no unit
                    0,    0,    0, 1, 0x67, 0x42,  // SPS behind a 4-byte code
                    0,    0,    0, 0, 0,    1,     // trailing zeros, then a code
                    0,    0,    1,                 // an empty unit
                    0x68, 0xCE, 0, 0, 1,    0x41, 0x05, 0x00, 0x84};
  EXPECT_EQ((std::vector<Bytes>{{0x67, 0x42}, {0x68, 0xCE}, {0x41, 0x05, 0x00, 0x84}}), Units(au));
  EXPECT_TRUE(Units({0x65, 0x88, 0x84}).empty());  // no start code at all
  EXPECT_TRUE(Units({0, 0, 1}).empty());           // a code with nothing behind it
  EXPECT_EQ(std::string("\x00\x00\x00\x01\x67\x42\x00\x00\x00\x01\x68\xCE", 12),
            h264::ParameterSets(au.data(), au.size()));
  EXPECT_EQ("", h264::ParameterSets(au.data(), 8));  // the SPS alone
  // 0x41 is a non-IDR slice whatever bytes follow its header; 0x25 is IDR (the low five bits)
  EXPECT_FALSE(h264::HasIdrSlice(au.data(), au.size()));
  const Bytes idr = {0, 0, 1, 0x25, 0x88};
  EXPECT_TRUE(h264::HasIdrSlice(idr.data(), idr.size()));
}

}  // namespace
