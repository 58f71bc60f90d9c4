// The event clip writer and the snapshot on real FFmpeg, checked with Debian's ffprobe and
// ffmpeg: the generated 1080p camera clip goes in frame by frame with its A-law track, and what
// comes out must probe and decode as a player would see it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "media/mp4mux.h"
#include "media/snapshot.h"
#include "support/cameraclip.h"
#include "support/mediaprobe.h"
#include "support/testsupport.h"

namespace {

using testsupport::FileExists;
using testsupport::ProbeFile;

using testsupport::kAlawPerFrame;
using testsupport::WriteFrames;

class MediaClip : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(media_.Load(&error)) << error;
    clip_ = dir_.path() + "/alarm.mp4";
  }

  ORU_MP4_HANDLE Create() {
    ORU_MP4_HANDLE h = nullptr;
    EXPECT_EQ(0, testsupport::CreateClip(clip_, &h));
    return h;
  }

  testsupport::TempDir dir_;
  testsupport::CameraMedia media_;
  std::string clip_;
};

TEST_F(MediaClip, ClosedClipIsAnOrdinaryFileWithEveryFrameAndTheALawTrack) {
  ORU_MP4_HANDLE h = Create();
  ASSERT_NE(nullptr, h);
  ASSERT_EQ(
      0,
      WriteFrames(h, media_, 0,
                  151));  // wraps past the 60-frame test clip: key frames keep their parameter sets
  EXPECT_EQ(151, orump4_video_frames(h));
  EXPECT_EQ(0, orump4_close_file_for_create(h));

  const testsupport::Probe probe = ProbeFile(clip_);
  ASSERT_TRUE(probe.ok) << probe.errors;
  ASSERT_EQ(2u, probe.streams.size());
  const testsupport::ProbedStream* v = probe.Find("h264");
  const testsupport::ProbedStream* a = probe.Find("pcm_alaw");
  ASSERT_NE(nullptr, v);
  ASSERT_NE(nullptr, a);
  EXPECT_EQ(151, v->packets);
  EXPECT_EQ(1920, v->width);
  EXPECT_EQ(1080, v->height);
  EXPECT_EQ("alaw", a->tag);
  EXPECT_EQ(8000, a->sample_rate);
  EXPECT_EQ(static_cast<int64_t>(151 * kAlawPerFrame), a->duration);
  std::string errors;
  EXPECT_TRUE(testsupport::DecodesCleanly(clip_, &errors)) << errors;
  // unfragmented, index in front, no scratch left beside it
  const std::vector<std::string> boxes = testsupport::TopLevelBoxes(clip_);
  ASSERT_GE(boxes.size(), 3u);
  EXPECT_EQ("ftyp", boxes[0]);
  EXPECT_EQ("moov", boxes[1]);
  for (const std::string& box : boxes) EXPECT_NE("moof", box);
  EXPECT_FALSE(FileExists(clip_ + ".plain"));

  // The track's aspect ratio box says what the camera's parameter sets say, as a decoder of the
  // camera's stream reads them.
  const testsupport::Probe camera = ProbeFile(testsupport::TestMedia("camera-1080p15.h264"));
  ASSERT_NE(nullptr, camera.Find("h264"));
  const std::string sar = camera.Find("h264")->sample_aspect_ratio;
  ASSERT_EQ("1:1", sar) << "the test media should carry an aspect ratio";
  const std::string bytes = testsupport::ReadFile(clip_);
  const size_t pasp = bytes.find("pasp");
  ASSERT_NE(std::string::npos, pasp);
  ASSERT_LE(pasp + 12, bytes.size());
  auto be32 = [&](size_t at) {
    return (static_cast<uint32_t>(static_cast<uint8_t>(bytes[at])) << 24) |
           (static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 1])) << 16) |
           (static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 2])) << 8) |
           static_cast<uint8_t>(bytes[at + 3]);
  };
  EXPECT_EQ(sar, std::to_string(be32(pasp + 4)) + ":" + std::to_string(be32(pasp + 8)));
}

TEST_F(MediaClip, StartsAtTheFirstKeyFrameAndIgnoresANullHandle) {
  ORU_MP4_HANDLE h = Create();
  ASSERT_NE(nullptr, h);
  ASSERT_EQ(0, WriteFrames(h, media_, 5, 45));  // frames 5..14 come before the key frame at 15
  EXPECT_EQ(30, orump4_video_frames(h));
  EXPECT_EQ(0, orump4_close_file_for_create(h));
  const testsupport::Probe probe = ProbeFile(clip_);
  ASSERT_TRUE(probe.ok) << probe.errors;
  ASSERT_NE(nullptr, probe.Find("h264"));
  EXPECT_EQ(30, probe.Find("h264")->packets);
  EXPECT_TRUE(testsupport::DecodesCleanly(clip_));

  // the recorder hands on a null handle after a failed create: nothing happens
  const camsim::VideoFrame& f = media_.video->at(0);
  EXPECT_EQ(0, orump4_write_video_frame(nullptr, f.data.data(), f.data.size(), 0));
  EXPECT_EQ(0, orump4_write_audio_frame(nullptr, f.data.data(), 100));
  EXPECT_EQ(0, orump4_close_file_for_create(nullptr));
}

TEST_F(MediaClip, RefusesWhatItCannotWriteAndRemovesAClipWithoutKeyFrame) {
  ORU_MP4_HANDLE h = nullptr;
  // other codecs, tracks and rates, and a folder that is not there
  EXPECT_GT(0, orump4_create_file(clip_.c_str(), 1, 0, 1, 15, 1920, 1080, 1, 8000, &h));
  EXPECT_GT(0, orump4_create_file(clip_.c_str(), 0, 0, 1, 15, 1920, 1080, 2, 8000, &h));
  EXPECT_GT(0, orump4_create_file(clip_.c_str(), 0, 0, 1, 0, 1920, 1080, 1, 8000, &h));
  EXPECT_GT(0, orump4_create_file(clip_.c_str(), 0, 0, 1, 15, 1920, 1080, 1, 16000, &h));
  EXPECT_GT(0, orump4_create_file((dir_.path() + "/none/alarm.mp4").c_str(), 0, 0, 1, 15, 1920,
                                  1080, 1, 8000, &h));
  EXPECT_EQ(nullptr, h);

  h = Create();
  ASSERT_EQ(0, WriteFrames(h, media_, 1, 14));  // no key frame at all
  EXPECT_EQ(0, orump4_video_frames(h));
  EXPECT_GT(0, orump4_close_file_for_create(h));
  EXPECT_FALSE(FileExists(clip_));
}

TEST_F(MediaClip, ClipOfAKilledWriterPlaysUpToItsLastFragment) {
  // A child writes 50 frames (key frames at 0, 15, 30, 45) and is killed without closing.
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ORU_MP4_HANDLE h = nullptr;
    if (testsupport::CreateClip(clip_, &h) != 0) _exit(2);
    WriteFrames(h, media_, 0, 50);
    raise(SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFSIGNALED(status));

  const testsupport::Probe probe = ProbeFile(clip_);
  ASSERT_NE(nullptr, probe.Find("h264")) << probe.errors;
  // every fragment cut before the kill is there: the three whole key-frame intervals
  EXPECT_GE(probe.Find("h264")->packets, 45);
  EXPECT_LE(probe.Find("h264")->packets, 50);
  ASSERT_NE(nullptr, probe.Find("pcm_alaw"));
  EXPECT_TRUE(testsupport::DecodesCleanly(clip_));
}

TEST_F(MediaClip, SnapshotOfAKeyFrameIsA640x360Jpeg) {
  const std::string jpeg = dir_.path() + "/alarm.jpeg";
  const camsim::VideoFrame& key = media_.video->at(15);
  ASSERT_TRUE(key.key);
  // each conversion starts afresh: several in a row, the same picture each time
  std::string first;
  for (int i = 0; i < 3; i++) {
    ASSERT_EQ(0, ConvertH264FrameToJpeg(jpeg.c_str(), key.data.data(),
                                        static_cast<uint32_t>(key.data.size()), 640, 360));
    const std::string bytes = testsupport::ReadFile(jpeg);
    ASSERT_GT(bytes.size(), 1000u);
    EXPECT_EQ("\xFF\xD8\xFF", bytes.substr(0, 3));
    if (i == 0) first = bytes;
    EXPECT_EQ(first, bytes);
  }
  const testsupport::Probe probe = ProbeFile(jpeg);
  ASSERT_TRUE(probe.ok) << probe.errors;
  ASSERT_NE(nullptr, probe.Find("mjpeg"));
  EXPECT_EQ(640, probe.Find("mjpeg")->width);
  EXPECT_EQ(360, probe.Find("mjpeg")->height);

  // another size
  const std::string small = dir_.path() + "/small.jpeg";
  ASSERT_EQ(0, ConvertH264FrameToJpeg(small.c_str(), key.data.data(),
                                      static_cast<uint32_t>(key.data.size()), 320, 180));
  EXPECT_EQ(320, ProbeFile(small).Find("mjpeg")->width);
}

TEST_F(MediaClip, SnapshotOfWhatIsNoKeyFrameFailsAndWritesNothing) {
  const std::string jpeg = dir_.path() + "/alarm.jpeg";
  const camsim::VideoFrame& inter = media_.video->at(16);  // a P frame: no parameter sets
  ASSERT_FALSE(inter.key);
  EXPECT_EQ(-1, ConvertH264FrameToJpeg(jpeg.c_str(), inter.data.data(),
                                       static_cast<uint32_t>(inter.data.size()), 640, 360));
  const std::string junk(5000, '\x42');
  EXPECT_EQ(-1, ConvertH264FrameToJpeg(jpeg.c_str(), reinterpret_cast<const uint8_t*>(junk.data()),
                                       static_cast<uint32_t>(junk.size()), 640, 360));
  EXPECT_EQ(-1, ConvertH264FrameToJpeg(jpeg.c_str(), nullptr, 0, 640, 360));
  EXPECT_EQ(-1, ConvertH264FrameToJpeg(jpeg.c_str(), inter.data.data(), 100, 641, 360));
  EXPECT_FALSE(FileExists(jpeg));
  EXPECT_FALSE(FileExists(jpeg + ".part"));
  // a good key frame still converts after the failures
  const camsim::VideoFrame& key = media_.video->at(0);
  EXPECT_EQ(0, ConvertH264FrameToJpeg(jpeg.c_str(), key.data.data(),
                                      static_cast<uint32_t>(key.data.size()), 640, 360));
}

}  // namespace
