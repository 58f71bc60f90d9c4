// The viewer's live recording: statistics with gaps and new streams, the elementary stream
// file, the parameter sets an MP4 starts from, and an MP4 without a key frame.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "camera/frameinfo.h"
#include "media/h264units.h"
#include "support/testsupport.h"
#include "viewer/viewerlive.h"
#include "viewer/viewermp4.h"

namespace {

using Bytes = std::vector<uint8_t>;

p2p::ViewerFrame Video(uint16_t index, bool key, const Bytes& data) {
  p2p::ViewerFrame f;
  f.video = true;
  f.number = index;
  _FRAMEINFO info;
  frameinfo::VideoFields fields;
  fields.key = key;
  fields.frame_index = index;
  fields.width = 1920;
  fields.height = 1080;
  frameinfo::SetVideoFrameInfo(&info, fields);  // sent clear: encrypted 0
  f.info.assign(reinterpret_cast<uint8_t*>(&info), reinterpret_cast<uint8_t*>(&info) + 28);
  f.data = data;
  return f;
}

p2p::ViewerFrame Audio(uint32_t number, size_t n) {
  p2p::ViewerFrame f;
  f.video = false;
  f.number = number;
  _FRAMEINFO info;
  frameinfo::SetAudioFrameInfo(&info, 0);
  f.info.assign(reinterpret_cast<uint8_t*>(&info), reinterpret_cast<uint8_t*>(&info) + 28);
  f.data = Bytes(n, 0xD5);
  return f;
}

TEST(LiveRecorder, CountsFramesKeyFramesBytesGapsAndNewStreams) {
  testsupport::TempDir dir;
  viewer::RecordOptions options;
  options.h264_path = dir.path() + "/v.h264";
  options.frame_log_path = dir.path() + "/v.csv";
  viewer::LiveRecorder rec;
  std::string error;
  ASSERT_EQ(0, rec.Open(options, &error)) << error;
  Bytes all;
  for (uint16_t index : {65534, 65535, 0, 3, 4, 0, 1}) {
    const Bytes data = {
        0, 0, 0, 1, static_cast<uint8_t>(index == 0 ? 0x65 : 0x41), static_cast<uint8_t>(index)};
    all.insert(all.end(), data.begin(), data.end());
    rec.Add(Video(index, index == 0, data), nullptr);
  }
  rec.Add(Audio(7, 320), nullptr);
  rec.Add(Audio(8, 320), nullptr);
  rec.Add(Audio(10, 160), nullptr);
  p2p::ViewerFrame broken = Video(2, false, {1, 2, 3});
  broken.info.resize(10);
  rec.Add(broken, nullptr);
  ASSERT_EQ(0, rec.Finish(&error)) << error;

  const viewer::StreamStats& v = rec.video();
  EXPECT_EQ(7, v.frames);
  EXPECT_EQ(2, v.key_frames);
  EXPECT_EQ(42, v.bytes);
  EXPECT_EQ(1, v.gaps);  // 0 -> 3: the index wraps without a gap
  EXPECT_EQ(2, v.missing);
  EXPECT_EQ(1, v.restarts);  // 4 -> 0: a new stream
  EXPECT_EQ(1, v.undecodable);
  const viewer::StreamStats& a = rec.audio();
  EXPECT_EQ(3, a.frames);
  EXPECT_EQ(800, a.bytes);
  EXPECT_EQ(1, a.gaps);
  EXPECT_EQ(1, a.missing);
  EXPECT_EQ("video frames 7 key 2 bytes 42 gaps 1 missing 2 restarts 1 undecodable 1",
            viewer::VideoLine(v));
  EXPECT_EQ("audio frames 3 bytes 800 gaps 1 missing 1", viewer::AudioLine(a));

  std::ifstream h264(options.h264_path, std::ios::binary);
  EXPECT_EQ(all, Bytes(std::istreambuf_iterator<char>(h264), std::istreambuf_iterator<char>()));
  std::ifstream csv(options.frame_log_path);
  std::string heading, first;
  std::getline(csv, heading);
  std::getline(csv, first);
  EXPECT_EQ("kind,number,index,key,bytes,encrypted,seconds,milliseconds,first_byte_ns,last_byte_ns",
            heading);
  EXPECT_EQ("video,65534,65534,0,6,0,0,0,0,0", first);
}

TEST(Mp4Remux, StartsFromParameterSetsAndRefusesToFinishWithoutAKeyFrame) {
  const Bytes au = {0,    0,    0, 1,    0x09, 0xF0,  // access unit delimiter
                    0,    0,    0, 1,    0x67, 0x42, 0xC0,
                    0x28, 0x00,  // SPS; its last zero belongs to the start code
                    0,    0,    1, 0x68, 0xCE, 0x3C, 0x80,   // PPS, 3-byte start code
                    0,    0,    0, 1,    0x65, 0x88, 0x84};  // IDR slice
  const std::string sets = h264::ParameterSets(au.data(), au.size());
  EXPECT_EQ(std::string("\x00\x00\x00\x01\x67\x42\xC0\x28\x00\x00\x00\x01\x68\xCE\x3C\x80", 16),
            sets);
  const Bytes no_pps = {0, 0, 0, 1, 0x67, 0x42, 0, 0, 0, 1, 0x65, 0x88};
  EXPECT_EQ("", h264::ParameterSets(no_pps.data(), no_pps.size()));

  testsupport::TempDir dir;
  viewer::Mp4Remux mp4(dir.path() + "/none.mp4");
  const Bytes p = {0, 0, 0, 1, 0x41, 0x9A};
  EXPECT_EQ(1, mp4.Write(p.data(), p.size(), false, 1920, 1080, 0));
  EXPECT_EQ(1, mp4.Write(no_pps.data(), no_pps.size(), true, 1920, 1080, 1));
  EXPECT_EQ(-1, mp4.Finish());
  EXPECT_NE(std::string::npos, mp4.error().find("no key frame")) << mp4.error();
  EXPECT_EQ(0, mp4.frames());
}

}  // namespace
