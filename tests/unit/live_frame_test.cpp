// The records of live media: the key-frame test of a reassembled H.264 frame, the 28-byte frame
// information against hand-written bytes, and the bounds of an audio packet.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "camera/frame.h"
#include "camera/frameinfo.h"
#include "camera/mediaframe.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A reassembly buffer: 16-byte header (length, words 1 and 2, index) and the frame.
Bytes Buffer(const Bytes& frame, uint32_t index = 7) {
  Bytes b(16 + frame.size());
  command::PutLe32(b.data(), static_cast<uint32_t>(frame.size()));
  command::PutLe32(b.data() + 4, 0x11223344);
  command::PutLe32(b.data() + 8, 0x55667788);
  command::PutLe32(b.data() + 12, index);
  std::memcpy(b.data() + 16, frame.data(), frame.size());
  return b;
}

TEST(H264Frame, KeyFramesAreIdrSpsPpsAndTypeTwo) {
  for (int type = 0; type < 32; type++) {
    const Bytes b = Buffer({0, 0, 0, 1, static_cast<uint8_t>(0x60 | type), 0x88});
    const video::H264Frame f(b.data());
    const int expected = (type == 5 || type == 7 || type == 8 || type == 2) ? 1 : 0;
    EXPECT_EQ(expected, f.GetType()) << "NAL type " << type;
  }
  // The byte after a 4-byte start code decides; the NAL header's upper bits do not count.
  const Bytes idr = Buffer({0, 0, 0, 1, 0x25});
  EXPECT_EQ(1, video::H264Frame(idr.data()).GetType());
  // Too short to hold a NAL header behind the start code.
  const Bytes tiny = Buffer({0, 0, 0, 1});
  EXPECT_EQ(0, video::H264Frame(tiny.data()).GetType());
  // A four-byte frame followed in the buffer by what would be an IDR header: the byte past the
  // frame's length is never read.
  Bytes past = Buffer({0, 0, 0, 1, 0x65});
  command::PutLe32(past.data(), 4);
  EXPECT_EQ(0, video::H264Frame(past.data()).GetType());
}

TEST(H264Frame, ReadsTheHeaderWordsLittleEndian) {
  const Bytes b = Buffer({0, 0, 0, 1, 0x41, 1, 2, 3}, 0x01020304);
  const video::H264Frame f(b.data());
  EXPECT_EQ(8u, f.length());
  EXPECT_EQ(0x11223344u, f.word1());
  EXPECT_EQ(0x55667788u, f.word2());
  EXPECT_EQ(0x01020304u, f.frame_index());
  EXPECT_EQ(b.data() + 16, f.data());
}

TEST(FrameInfo, VideoBytesAsOnTheWire) {
  _FRAMEINFO info;
  std::memset(&info, 0xAB, sizeof(info));  // every byte is written
  frameinfo::VideoFields f;
  f.key = true;
  f.viewers = 3;
  f.frame_index = 0x12345678;  // low 16 bits only
  f.width = 1920;
  f.height = 1080;
  f.milliseconds = 999;
  f.seconds = 1700000000;  // 0x6553F100
  frameinfo::SetVideoFrameInfo(&info, f);
  frameinfo::SetEncrypted(&info, true);
  const Bytes expected = {0x4E, 0x00, 0x01, 0x00, 0x03, 0x00, 0x78, 0x56, 0x80, 0x07,
                          0x38, 0x04, 0xE7, 0x03, 0x00, 0x00, 0x00, 0x01, 0x01, 0x00,
                          0x00, 0xF1, 0x53, 0x65, 0x00, 0x00, 0x00, 0x00};
  ASSERT_EQ(28u, sizeof(info));
  EXPECT_EQ(expected, Bytes(reinterpret_cast<uint8_t*>(&info),
                            reinterpret_cast<uint8_t*>(&info) + sizeof(info)));

  f.key = false;
  f.width = 1280;
  f.height = 720;
  frameinfo::SetVideoFrameInfo(&info, f);
  const Bytes p_frame = {0x4E, 0x00, 0x00, 0x00, 0x03, 0x00, 0x78, 0x56, 0x00, 0x05,
                         0xD0, 0x02, 0xE7, 0x03, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00,
                         0x00, 0xF1, 0x53, 0x65, 0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(p_frame, Bytes(reinterpret_cast<uint8_t*>(&info),
                           reinterpret_cast<uint8_t*>(&info) + sizeof(info)));
}

TEST(FrameInfo, AudioBytesAsOnTheWire) {
  _FRAMEINFO info;
  std::memset(&info, 0xAB, sizeof(info));
  frameinfo::SetAudioFrameInfo(&info, 0xA1B2C3D4);
  frameinfo::SetEncrypted(&info, true);
  const Bytes expected = {0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                          0x00, 0x00, 0xD4, 0xC3, 0xB2, 0xA1, 0x00, 0x00, 0x01, 0x00,
                          0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(expected, Bytes(reinterpret_cast<uint8_t*>(&info),
                            reinterpret_cast<uint8_t*>(&info) + sizeof(info)));
}

// An audio packet frame with n payload bytes: 8 prefix bytes, then the A-law.
Bytes AudioPacket(size_t n) {
  Bytes b(32 + n + 2, 0);
  command::PutLe16(b.data() + 26, static_cast<uint16_t>(n));
  for (size_t i = 8; i < n; i++) b[32 + i] = static_cast<uint8_t>(i);
  return b;
}

TEST(G711AFrame, TakesTheBytesAfterThePrefixWithinItsCapacity) {
  audio::G711AFrame a;
  Bytes packet = AudioPacket(8 + 320);
  ASSERT_EQ(0, a.Fill(command::AsFrame(packet.data())));
  EXPECT_EQ(320, a.length);
  EXPECT_EQ(8, a.data[0]);
  EXPECT_EQ(static_cast<uint8_t>(327), a.data[319]);

  packet = AudioPacket(8 + 1024);
  EXPECT_EQ(0, a.Fill(command::AsFrame(packet.data())));
  EXPECT_EQ(1024, a.length);
  packet = AudioPacket(8 + 1025);
  EXPECT_EQ(-1, a.Fill(command::AsFrame(packet.data())));
  packet = AudioPacket(7);
  EXPECT_EQ(-1, a.Fill(command::AsFrame(packet.data())));
  packet = AudioPacket(8);
  EXPECT_EQ(0, a.Fill(command::AsFrame(packet.data())));
  EXPECT_EQ(0, a.length);
}

}  // namespace
