// The clip reader and the playback messages: clips written by the hub's own writer from the
// generated camera clip are read back unit for unit as the camera sent them, from the start
// and from a seek; cut and foreign files are refused; the viewer's requests are parsed as
// strictly as a path-forming input must be, and the replies survive their round trip.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "media/mp4mux.h"
#include "media/oru_mp4_demux.h"
#include "media/playbackmsg.h"
#include "support/cameraclip.h"
#include "support/testsupport.h"

namespace {

using oru_mp4_demux::Packet;
using oru_mp4_demux::Reader;

// The NAL units of an Annex B frame, without their start codes (3 or 4 bytes), and whether
// every start code had 4 bytes.
std::vector<std::vector<uint8_t>> Units(const std::vector<uint8_t>& d, bool* all_four = nullptr) {
  std::vector<std::vector<uint8_t>> units;
  std::vector<size_t> starts;  // first byte after each start code
  bool four = true;
  for (size_t i = 0; i + 3 <= d.size(); i++) {
    if (d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 1) {
      if (i == 0 || d[i - 1] != 0) four = false;
      starts.push_back(i + 3);
      i += 2;
    }
  }
  for (size_t k = 0; k < starts.size(); k++) {
    size_t end = k + 1 < starts.size() ? starts[k + 1] - 3 : d.size();
    if (k + 1 < starts.size() && end > starts[k] && d[end - 1] == 0) end--;  // a 4-byte code
    units.emplace_back(d.begin() + static_cast<long>(starts[k]),
                       d.begin() + static_cast<long>(end));
  }
  if (all_four != nullptr) *all_four = four;
  return units;
}

constexpr int kFrames = 60;  // 4 s at 15 frames a second, a key frame every 15

class ClipReader : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(media_.Load(&error)) << error;
    clip_ = dir_.path() + "/clip.mp4";
    ORU_MP4_HANDLE h = nullptr;
    ASSERT_EQ(0, testsupport::CreateClip(clip_, &h));
    ASSERT_EQ(0, testsupport::WriteFrames(h, media_, 0, kFrames, &audio_bytes_));
    ASSERT_EQ(0, orump4_close_file_for_create(h));
  }

  // Every packet from the reader's position on.
  static std::vector<Packet> ReadAll(Reader& r) {
    std::vector<Packet> out;
    std::string why;
    Packet p;
    int rc = 0;
    while ((rc = r.Read(&p, &why)) == 1) out.push_back(p);
    EXPECT_EQ(0, rc) << why;
    return out;
  }

  testsupport::TempDir dir_;
  testsupport::CameraMedia media_;
  std::vector<uint8_t> audio_bytes_;
  std::string clip_;
};

TEST_F(ClipReader, GivesBackTheCamerasFramesAndAudioByteForByteInTimeOrder) {
  Reader r;
  std::string why;
  ASSERT_EQ(0, r.Open(clip_, &why)) << why;
  EXPECT_EQ(1920, r.width());
  EXPECT_EQ(1080, r.height());
  EXPECT_TRUE(r.has_audio());
  const std::vector<Packet> all = ReadAll(r);
  std::vector<uint8_t> audio;
  int frame = 0;
  int64_t last_video_ms = -1;
  for (const Packet& p : all) {
    if (!p.video) {
      audio.insert(audio.end(), p.data.begin(), p.data.end());
      continue;
    }
    ASSERT_LT(frame, kFrames);
    // The camera's units, each behind a 4-byte start code (the stored form has 4-byte lengths).
    bool four = false;
    EXPECT_EQ(Units(media_.video->at(frame).data), Units(p.data, &four)) << "frame " << frame;
    EXPECT_TRUE(four) << "frame " << frame;
    EXPECT_EQ(frame % 15 == 0, p.key) << "frame " << frame;
    EXPECT_GT(p.time_ms, last_video_ms);
    EXPECT_NEAR(frame * 1000 / 15, p.time_ms, 1);
    last_video_ms = p.time_ms;
    frame++;
  }
  EXPECT_EQ(kFrames, frame);
  EXPECT_EQ(audio_bytes_, audio);
}

TEST_F(ClipReader, SeekStartsAtTheKeyFrameAtOrBeforeTheOffsetWithAudioFromItsTime) {
  Reader r;
  std::string why;
  ASSERT_EQ(0, r.Open(clip_, &why)) << why;
  struct Case {
    int64_t offset_ms;
    int key_frame;
  };
  for (const Case c :
       {Case{2500, 30}, Case{2000, 30}, Case{1999, 15}, Case{0, 0}, Case{60000, 45}}) {
    ASSERT_EQ(0, r.Seek(c.offset_ms, &why)) << why;
    const std::vector<Packet> all = ReadAll(r);
    ASSERT_FALSE(all.empty());
    ASSERT_TRUE(all.front().video) << c.offset_ms;
    EXPECT_TRUE(all.front().key);
    int frame = c.key_frame;
    const int64_t key_ms = all.front().time_ms;
    std::vector<uint8_t> audio;
    for (const Packet& p : all) {
      if (p.video) {
        EXPECT_EQ(Units(media_.video->at(frame).data), Units(p.data))
            << "offset " << c.offset_ms << " frame " << frame;
        frame++;
      } else {
        EXPECT_GE(p.time_ms, key_ms);
        audio.insert(audio.end(), p.data.begin(), p.data.end());
      }
    }
    EXPECT_EQ(kFrames, frame) << c.offset_ms;
    // the audio is the tail of what was written, from about the key frame's time
    ASSERT_LE(audio.size(), audio_bytes_.size());
    EXPECT_TRUE(std::equal(audio.begin(), audio.end(), audio_bytes_.end() - audio.size()));
    EXPECT_NEAR(static_cast<double>(audio_bytes_.size() - audio.size()),
                static_cast<double>(c.key_frame * testsupport::kAlawPerFrame), 1200.0);
  }
}

TEST_F(ClipReader, RefusesACutCopyAForeignFileAndNothing) {
  std::string why;
  Reader r;
  const std::string cut = dir_.path() + "/cut.mp4";
  std::filesystem::copy_file(clip_, cut);
  std::filesystem::resize_file(cut, std::filesystem::file_size(clip_) / 2);
  EXPECT_EQ(-1, r.Open(cut, &why));
  EXPECT_NE(std::string::npos, why.find("truncated")) << why;

  const std::string text = dir_.path() + "/text.mp4";
  testsupport::WriteFile(text, "this is not a clip at all, only some words in a file\n");
  EXPECT_EQ(-1, r.Open(text, &why));
  EXPECT_EQ(-1, r.Open(dir_.path() + "/missing.mp4", &why));
  Packet p;
  EXPECT_EQ(-1, r.Read(&p, &why));  // nothing open
  EXPECT_EQ(-1, r.Seek(0, &why));
}

TEST(SampleToAnnexB, ReplacesEachLengthAndRefusesLengthsThatDoNotAddUp) {
  std::vector<uint8_t> out;
  const std::vector<uint8_t> two = {0, 0, 0, 2, 0x67, 1, 0, 0, 0, 1, 0x65};
  ASSERT_EQ(0, oru_mp4_demux::SampleToAnnexB(two.data(), two.size(), 4, &out));
  EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 1, 0x67, 1, 0, 0, 0, 1, 0x65}), out);
  const std::vector<uint8_t> short_len = {0, 2, 0x67, 1};
  ASSERT_EQ(0, oru_mp4_demux::SampleToAnnexB(short_len.data(), short_len.size(), 2, &out));
  EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 1, 0x67, 1}), out);
  for (const std::vector<uint8_t>& bad :
       {std::vector<uint8_t>{0, 0, 0, 3, 0x67, 1}, std::vector<uint8_t>{0, 0, 0, 0},
        std::vector<uint8_t>{0, 0, 0}, std::vector<uint8_t>{}}) {
    EXPECT_EQ(-1, oru_mp4_demux::SampleToAnnexB(bad.data(), bad.size(), 4, &out));
  }
  EXPECT_EQ(-1, oru_mp4_demux::SampleToAnnexB(two.data(), two.size(), 5, &out));
}

// ---- Requests ------------------------------------------------------------------------------

TEST(PlaybackRequest, PlayNeedsACheckedMacAndStartAndTheOtherCommandsNothing) {
  playbackmsg::PlayRequest r;
  std::string why;
  const std::string ok = "{\"mac\":\"0a1b2c3d4e5f\",\"start\":4294967295,\"offset\":3}";
  ASSERT_TRUE(playbackmsg::ParsePlayRequest(ok.c_str(), ok.size(), &r, &why)) << why;
  EXPECT_EQ(playbackmsg::PlayCommand::kPlay, r.cmd);
  EXPECT_EQ("0A1B2C3D4E5F", r.mac);
  EXPECT_EQ(4294967295u, r.start);
  EXPECT_EQ(3u, r.offset);
  for (const char* cmd : {"stop", "pause", "resume"}) {
    const std::string text = std::string("{\"cmd\":\"") + cmd + "\"}";
    EXPECT_TRUE(playbackmsg::ParsePlayRequest(text.c_str(), text.size(), &r, &why)) << cmd;
  }
  for (const char* bad : {
           "",
           "{",
           "[]",
           "\"0A1B2C3D4E5F\"",
           "{\"start\":1700000000}",
           "{\"mac\":\"0A1B2C3D4E5F\"}",                           // no start
           "{\"mac\":\"../../../etc\",\"start\":1700000000}",      // not a MAC
           "{\"mac\":\"0A1B2C3D4E5\",\"start\":1700000000}",       // 11 digits
           "{\"mac\":\"0A1B2C3D4E5F0\",\"start\":1700000000}",     // 13 digits
           "{\"mac\":\"0A1B2C3D4E/F\",\"start\":1700000000}",      // a slash
           "{\"mac\":12,\"start\":1700000000}",                    // not a text
           "{\"mac\":\"0A1B2C3D4E5F\",\"start\":-1}",              // negative
           "{\"mac\":\"0A1B2C3D4E5F\",\"start\":4294967296}",      // beyond 32 bits
           "{\"mac\":\"0A1B2C3D4E5F\",\"start\":\"1700000000\"}",  // a text
           "{\"mac\":\"0A1B2C3D4E5F\",\"start\":1.5}",             // not whole
           "{\"mac\":\"0A1B2C3D4E5F\",\"start\":1700000000,\"offset\":-1}",
           "{\"mac\":\"0A1B2C3D4E5F\",\"start\":1700000000,\"offset\":86401}",
           "{\"mac\":\"0A1B2C3D4E5F\",\"start\":1700000000,\"cmd\":\"rewind\"}",
           "{\"mac\":\"0A1B2C3D4E5F\",\"start\":1700000000} trailing",
       }) {
    EXPECT_FALSE(playbackmsg::ParsePlayRequest(bad, std::strlen(bad), &r, &why)) << bad;
    EXPECT_FALSE(why.empty()) << bad;
  }
  // A payload that fills the whole message has no terminator: only the message is read.
  std::string full = "{\"mac\":\"0A1B2C3D4E5F\",\"start\":1700000000}";
  full += std::string(playbackmsg::kMaxRequestBytes - full.size(), ' ');
  full += "{\"mac\":\"BAD\"}";
  EXPECT_TRUE(playbackmsg::ParsePlayRequest(full.c_str(), full.size(), &r, &why)) << why;
  EXPECT_FALSE(playbackmsg::ParsePlayRequest(nullptr, 10, &r, &why));
}

TEST(PlaybackRequest, EventListNamesOneCameraOrNoneForAll) {
  playbackmsg::ListRequest r;
  std::string why;
  ASSERT_TRUE(playbackmsg::ParseListRequest("{}", 2, &r, &why)) << why;
  EXPECT_TRUE(r.all);
  EXPECT_EQ(0u, r.id);
  const std::string one = "{\"mac\":\"0a00000000d1\",\"id\":7}";
  ASSERT_TRUE(playbackmsg::ParseListRequest(one.c_str(), one.size(), &r, &why)) << why;
  EXPECT_FALSE(r.all);
  EXPECT_EQ("0A00000000D1", r.mac);
  EXPECT_EQ(7u, r.id);
  for (const char* bad : {"", "x", "{\"mac\":\"\"}", "{\"mac\":\"0A00000000D1/..\"}", "{\"id\":-3}",
                          "{\"id\":\"7\"}", "[1]"}) {
    EXPECT_FALSE(playbackmsg::ParseListRequest(bad, std::strlen(bad), &r, &why)) << bad;
  }
}

// ---- Replies -------------------------------------------------------------------------------

TEST(PlaybackReply, ListsAreCutIntoWholeChunksThatFitAMessageAndReadBack) {
  for (size_t n : {0u, 1u, 59u, 60u, 130u}) {
    std::vector<playbackmsg::EventEntry> events;
    for (size_t i = 0; i < n; i++) {
      events.push_back({i % 2 ? "0A00000000D1" : "0A00000000B2",
                        static_cast<uint32_t>(1700000000 + i), static_cast<uint8_t>(i)});
    }
    const auto chunks = playbackmsg::EncodeList(9, events, 0);
    ASSERT_EQ(n == 0 ? 1u : (n + 58) / 59, chunks.size()) << n;
    std::vector<playbackmsg::EventEntry> back;
    for (size_t c = 0; c < chunks.size(); c++) {
      EXPECT_LE(chunks[c].size(), 1024u);
      playbackmsg::ListChunk chunk;
      ASSERT_TRUE(playbackmsg::DecodeListChunk(chunks[c].data(), chunks[c].size(), &chunk));
      EXPECT_EQ(9u, chunk.id);
      EXPECT_EQ(c, chunk.number);
      EXPECT_EQ(c + 1 == chunks.size(), (chunk.flags & playbackmsg::kChunkLast) != 0);
      back.insert(back.end(), chunk.events.begin(), chunk.events.end());
    }
    ASSERT_EQ(n, back.size());
    for (size_t i = 0; i < n; i++) {
      EXPECT_EQ(events[i].mac, back[i].mac);
      EXPECT_EQ(events[i].start, back[i].start);
      EXPECT_EQ(events[i].length, back[i].length);
    }
  }
  // a count that does not match the length, a MAC that is not one
  auto chunk = playbackmsg::EncodeList(1, {{"0A00000000D1", 5, 10}}, 0)[0];
  playbackmsg::ListChunk c;
  EXPECT_FALSE(playbackmsg::DecodeListChunk(chunk.data(), chunk.size() - 1, &c));
  chunk[8] = '/';
  EXPECT_FALSE(playbackmsg::DecodeListChunk(chunk.data(), chunk.size(), &c));
}

TEST(PlaybackReply, StatesRoundTripAndUnknownStatesAreRefused) {
  playbackmsg::StateMessage m;
  m.mac = "0A00000000D1";
  m.start = 1700000123;
  m.state = playbackmsg::PlayState::kEnd;
  m.frames = 151;
  std::vector<uint8_t> b = playbackmsg::EncodeState(m);
  ASSERT_EQ(playbackmsg::kStateBytes, b.size());
  playbackmsg::StateMessage back;
  ASSERT_TRUE(playbackmsg::DecodeState(b.data(), b.size(), &back));
  EXPECT_EQ(m.mac, back.mac);
  EXPECT_EQ(m.start, back.start);
  EXPECT_EQ(m.state, back.state);
  EXPECT_EQ(m.frames, back.frames);
  b[16] = 9;
  EXPECT_FALSE(playbackmsg::DecodeState(b.data(), b.size(), &back));
  EXPECT_FALSE(playbackmsg::DecodeState(b.data(), b.size() - 1, &back));
}

}  // namespace
