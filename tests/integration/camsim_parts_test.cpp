// The camera simulator's parts without a running camera: the frames it builds (compared with
// byte vectors written from the layout tables and read back with the hub's own code), the
// heartbeat and keep-alive bytes against the hub's receive buffer, cutting H.264 Annex B into
// frames (hand-made streams and the clip of scripts/make-test-media.sh), the A-law pace, the
// camera descriptions and console commands, and the board's ARP table.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "camera/command.h"
#include "camera/framecutter.h"
#include "camsim/camsim.h"
#include "camsim/camsimarp.h"
#include "camsim/camsimconsole.h"
#include "camsim/camsimmedia.h"
#include "camsim/camsimwire.h"
#include "core/utils.h"
#include "platform/board.h"
#include "platform/boardmaker.h"
#include "server/pairing.h"
#include "support/testsupport.h"

namespace {

using Bytes = std::vector<uint8_t>;
const uint8_t kCam[6] = {0x0A, 0x00, 0x00, 0x00, 0x00, 0x71};
const uint8_t kHub[6] = {0x02, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};

camsim::Origin At(uint16_t seq, uint32_t ts = 0x11223344) {
  camsim::Origin o;
  o.camera = kCam;
  o.seq = seq;
  o.timestamp = ts;
  return o;
}

Bytes Built(int size, const uint8_t* buf) {
  EXPECT_GT(size, 0);
  return size > 0 ? Bytes(buf, buf + size) : Bytes();
}

// Header bytes of a camera frame written out from the layout table.
Bytes Header(const uint8_t dst[6], uint8_t mark1, uint8_t mark2, uint16_t seq, uint16_t len,
             uint8_t type, uint8_t subtype, uint16_t checksum) {
  Bytes h = {0x68, 0x68};
  h.insert(h.end(), kCam, kCam + 6);
  h.insert(h.end(), dst, dst + 6);
  h.push_back(mark1);
  h.push_back(mark2);
  h.push_back(static_cast<uint8_t>(seq));
  h.push_back(static_cast<uint8_t>(seq >> 8));
  h.insert(h.end(), {0x44, 0x33, 0x22, 0x11, 0x00, 0x00, 0x68, 0x68});
  h.push_back(static_cast<uint8_t>(len));
  h.push_back(static_cast<uint8_t>(len >> 8));
  h.push_back(type);
  h.push_back(subtype);
  h.push_back(static_cast<uint8_t>(checksum));
  h.push_back(static_cast<uint8_t>(checksum >> 8));
  return h;
}

TEST(CamsimWire, KeepAliveIsTheFrameHeartbeatBytesBegin) {
  uint8_t frame[camsim::kKeepAliveSize];
  camsim::KeepAliveFrame(frame);
  Bytes expected(26, 0x68);
  expected.insert(expected.end(), {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x16, 0x16});
  EXPECT_EQ(expected, Bytes(frame, frame + sizeof(frame)));

  // However many heartbeat bytes (0..26) the hub holds, they and the rest of the keep-alive
  // frame are one valid frame for nobody, and the frame after it arrives whole.
  uint8_t login[42];
  const uint8_t payload[8] = {0, 1, 0, 0, 0x03, 0x02, 0, 0};
  const int login_size = camsim::BuildCameraFrame(login, sizeof(login), At(3), nullptr,
                                                  command::kTypeLogin, 0, payload, 8);
  ASSERT_EQ(42, login_size);
  for (size_t beats = 0; beats <= camsim::kMaxHeartbeats; beats++) {
    command::FrameCutter hub(17408);
    std::vector<std::pair<uint8_t, std::string>> routed;
    auto feed = [&](const uint8_t* p, size_t n) {
      std::memcpy(hub.WritePtr(), p, n);
      hub.Commit(n);
      hub.Cut([&](const _net_cmd_type* f) {
        routed.emplace_back(f->type, command::AddressText(f->dst_addr));
      });
    };
    const uint8_t beat = camsim::kHeartbeatByte;
    for (size_t i = 0; i < beats; i++) feed(&beat, 1);
    EXPECT_EQ(beats, hub.Held());
    // the completion and the login may arrive in one receive
    Bytes rest(frame + beats, frame + sizeof(frame));
    rest.insert(rest.end(), login, login + login_size);
    feed(rest.data(), rest.size());
    ASSERT_EQ(2u, routed.size()) << beats << " heartbeats";
    EXPECT_EQ(0, routed[0].first);
    EXPECT_EQ("686868686868", routed[0].second);
    EXPECT_EQ(command::kTypeLogin, routed[1].first);
    EXPECT_EQ(0u, hub.Discards());
    EXPECT_EQ(0u, hub.Held());
  }
}

TEST(CamsimWire, CameraFramesFollowTheLayout) {
  uint8_t buf[camsim::kMaxCameraFrame];
  const uint8_t zero[6] = {0};

  // login, unaddressed: hardware 0x100, firmware 0x203
  const uint8_t login[8] = {0x00, 0x01, 0x00, 0x00, 0x03, 0x02, 0x00, 0x00};
  Bytes expected = Header(zero, 1, 1, 0x0102, 8, 0xF1, 0x00, 0x0006);
  expected.insert(expected.end(), login, login + 8);
  expected.insert(expected.end(), {0x16, 0x16});
  EXPECT_EQ(expected, Built(camsim::BuildCameraFrame(buf, sizeof(buf), At(0x0102), nullptr, 0xF1, 0,
                                                     login, sizeof(login)),
                            buf));

  // acknowledgement of a night-mode command from ACK ID 0x01020304: back to that address
  uint8_t night[35];
  const uint8_t ack_id[6] = {0x88, 0x88, 0x04, 0x03, 0x02, 0x01};
  command::FrameFields f;
  f.src = ack_id;
  f.dst = kCam;
  f.type = 0x11;
  f.subtype = 0x06;
  const uint8_t mode = 2;
  ASSERT_EQ(35, command::BuildFrame(night, sizeof(night), f, &mode, 1));
  expected = Header(ack_id, 1, 1, 7, 3, 0x80, 0x00, 0x18);
  expected.insert(expected.end(), {0x11, 0x06, 0x01, 0x16, 0x16});
  EXPECT_EQ(expected,
            Built(camsim::BuildAck(buf, sizeof(buf), At(7), command::AsFrame(night), 1), buf));

  // audio: index 5, time 0x0A0B0C0D, three A-law bytes
  const uint8_t alaw[3] = {0xD5, 0x55, 0xD4};
  expected = Header(zero, 1, 1, 9, 11, 0x8A, 0x01, 0x231);
  expected.insert(expected.end(), {0x05, 0, 0, 0, 0x0D, 0x0C, 0x0B, 0x0A, 0xD5, 0x55, 0xD4});
  expected.insert(expected.end(), {0x16, 0x16});
  EXPECT_EQ(expected, Built(camsim::BuildAudioPacket(buf, sizeof(buf), At(9), 5, 0x0A0B0C0D, alaw,
                                                     sizeof(alaw)),
                            buf));
  EXPECT_EQ(-1, camsim::BuildAudioPacket(buf, sizeof(buf), At(9), 5, 0, buf, 1025));
}

TEST(CamsimWire, VideoPiecesCarryWholeSixteenKilobytes) {
  // A frame of 16384 + 10 bytes: two pieces, the second padded with zeros.
  Bytes frame(16394);
  for (size_t i = 0; i < frame.size(); i++) frame[i] = static_cast<uint8_t>(i * 7 + 1);
  camsim::VideoFrameHeader h;
  h.length = 16394;
  h.word1 = 1;
  h.word2 = 0x01020304;
  h.index = 0x00000009;
  ASSERT_EQ(2, camsim::PieceCount(h.length));
  std::vector<uint8_t> buf(camsim::kMaxCameraFrame);
  const uint8_t zero[6] = {0};
  for (int piece = 1; piece <= 2; piece++) {
    const int size =
        camsim::BuildVideoPiece(buf.data(), buf.size(), At(20), h, frame.data(), piece, 2);
    ASSERT_EQ(16434, size);
    Bytes data(16384, 0);
    const size_t from = (piece - 1) * 16384u;
    const size_t take = piece == 1 ? 16384u : 10u;
    std::copy(frame.begin() + from, frame.begin() + from + take, data.begin());
    Bytes payload = {0x0A, 0x40, 0, 0, 0x01, 0, 0, 0, 0x04, 0x03, 0x02, 0x01, 0x09, 0, 0, 0};
    payload.insert(payload.end(), data.begin(), data.end());
    uint32_t sum = 0;
    for (uint8_t b : payload) sum += b;
    Bytes expected = Header(zero, 2, static_cast<uint8_t>(piece), 20, 16400, 0x8A, 0x00,
                            static_cast<uint16_t>(sum));
    expected.insert(expected.end(), payload.begin(), payload.end());
    expected.insert(expected.end(), {0x16, 0x16});
    EXPECT_EQ(expected, Bytes(buf.begin(), buf.begin() + size)) << "piece " << piece;
  }
  // A whole piece fits the hub's receive buffer; a frame of 256 pieces does not exist.
  EXPECT_LE(camsim::kMaxCameraFrame, 17408u);
  EXPECT_EQ(255, camsim::PieceCount(255 * 16384));
  EXPECT_EQ(-1, camsim::PieceCount(255 * 16384 + 1));
  EXPECT_EQ(-1, camsim::PieceCount(0));
  EXPECT_EQ(-1, camsim::BuildVideoPiece(buf.data(), buf.size(), At(0), h, frame.data(), 3, 2));
  EXPECT_EQ(-1, camsim::BuildVideoPiece(buf.data(), buf.size(), At(0), h, frame.data(), 1, 3));
}

TEST(CamsimWire, PairingRequestAndReplyMeetTheHubsCode) {
  _net_cmd_get_info_type info;
  std::memcpy(info.mac, kCam, 6);
  info.ip[0] = 127;
  info.ip[3] = 71;
  info.hard_ver = camsim::WireVersion(100);
  info.soft_ver = camsim::WireVersion(203);
  info.pir = 1;
  info.power = 1;
  info.night = 2;
  info.vbat = 3900;
  info.pir_interval = 60;
  info.rssi = -50;
  uint8_t req[68];
  ASSERT_EQ(68, camsim::BuildPairingRequest(req, sizeof(req), At(0x0203), info));
  // the bytes the hub reads, at the offsets of its pairing table
  const uint8_t* p = req + 32;
  EXPECT_EQ(0x8B, req[28]);
  EXPECT_EQ(34, req[26]);
  EXPECT_EQ(Bytes(kCam, kCam + 6), Bytes(p, p + 6));
  EXPECT_EQ(Bytes({0x00, 0x01, 0x00, 0x00}), Bytes(p + 10, p + 14));
  EXPECT_EQ(Bytes({0x03, 0x02, 0x00, 0x00}), Bytes(p + 14, p + 18));
  EXPECT_EQ(Bytes({1, 1, 2}), Bytes(p + 19, p + 22));
  EXPECT_EQ(Bytes({0x3C, 0x0F, 0x00, 0x00}), Bytes(p + 22, p + 26));
  EXPECT_EQ(0xCE, p[28]);
  EXPECT_EQ(100, command::VersionNumber(command::GetLe32(p + 10)));
  EXPECT_EQ(203, command::VersionNumber(command::GetLe32(p + 14)));
  _net_cmd_get_info_type parsed;
  ASSERT_EQ(1, pairing::ParsePairingRequest(req, sizeof(req), &parsed));

  // The reply needs all of its 99 bytes: a room of 98 is refused and left untouched.
  uint8_t small[100];
  std::memset(small, 0xEE, sizeof(small));
  EXPECT_EQ(
      -1, pairing::BuildPairingReply(command::AsFrame(req), "cam-net", "secret-key-1", small, 98));
  EXPECT_EQ(Bytes(100, 0xEE), Bytes(small, small + 100));
  uint8_t reply[99];
  ASSERT_EQ(99, pairing::BuildPairingReply(command::AsFrame(req), "cam-net", "secret-key-1", reply,
                                           sizeof(reply)));
  std::string ssid, key, why;
  EXPECT_EQ(0, camsim::ParsePairingReply(reply, 60, At(0x0203), &ssid, &key, &why));
  ASSERT_EQ(1, camsim::ParsePairingReply(reply, 99, At(0x0203), &ssid, &key, &why)) << why;
  EXPECT_EQ("cam-net", ssid);
  EXPECT_EQ("secret-key-1", key);

  // answers that are not for this request
  EXPECT_EQ(-1, camsim::ParsePairingReply(reply, 99, At(0x0204), &ssid, &key, &why));
  EXPECT_NE(std::string::npos, why.find("seq"));
  struct Case {
    size_t offset;
    uint8_t value;
    const char* why;
  };
  for (const Case& c :
       {Case{28, 0x0C, "not a pairing reply"}, Case{2, 0x00, "from"}, Case{13, 0x00, "for"},
        Case{32, 0x00, "refused"}, Case{24, 0x67, "not a frame"}, Case{26, 64, "not a frame"}}) {
    uint8_t bad[99];
    std::memcpy(bad, reply, sizeof(bad));
    bad[c.offset] = c.value;
    EXPECT_EQ(-1, camsim::ParsePairingReply(bad, sizeof(bad), At(0x0203), &ssid, &key, &why))
        << c.offset;
    EXPECT_NE(std::string::npos, why.find(c.why)) << c.offset << ": " << why;
  }
}

TEST(CamsimWire, VersionsAndMacs) {
  EXPECT_EQ(0x123u, camsim::WireVersion(123));
  EXPECT_EQ(0x999999u, camsim::WireVersion(999999));
  EXPECT_EQ(0u, camsim::WireVersion(1000000));
  for (int v : {0, 7, 100, 203, 10000, 999999}) {
    EXPECT_EQ(v, command::VersionNumber(camsim::WireVersion(v)));
  }
  std::string mac;
  EXPECT_TRUE(camsim::NormalizeMac("0a:00:00:00:00:71", &mac));
  EXPECT_EQ("0A0000000071", mac);
  EXPECT_TRUE(camsim::NormalizeMac("0a-00-00-00-00-7f", &mac));
  EXPECT_EQ("0A000000007F", mac);
  for (const char* bad : {"0A000000007", "0A00000000712", "0a:00-00:00:00:71", "0G0000000071",
                          "0a000:00:00:00:71", ""}) {
    EXPECT_FALSE(camsim::NormalizeMac(bad, &mac)) << bad;
  }
}

// --- Media -----------------------------------------------------------------------------------

Bytes Nal(bool four, std::initializer_list<uint8_t> body) {
  Bytes b = four ? Bytes{0, 0, 0, 1} : Bytes{0, 0, 1};
  b.insert(b.end(), body);
  return b;
}

Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

TEST(CamsimMedia, AnnexBIsCutIntoAccessUnits) {
  const Bytes sps = Nal(true, {0x67, 0x42, 0xC0, 0x28});
  const Bytes pps = Nal(false, {0x68, 0xCE, 0x3C, 0x80});
  const Bytes idr = Nal(false, {0x65, 0x88, 0x84, 0x21});
  const Bytes idr_b = Nal(false, {0x65, 0x41, 0x9A, 0x02});  // second slice: first_mb != 0
  const Bytes p1 = Nal(true, {0x41, 0x9A, 0x21, 0x6C});      // new picture
  const Bytes p1_b = Nal(false, {0x41, 0x01, 0x9A, 0x21});   // same picture
  const Bytes aud = Nal(true, {0x09, 0xF0});
  const Bytes p2 = Nal(false, {0x41, 0x9B, 0x02, 0x07});
  const Bytes sei = Nal(true, {0x06, 0x05, 0x01, 0x80});
  const Bytes p3 = Nal(true, {0x01, 0x88, 0x02, 0x01});  // non-reference slice, first_mb 0
  const Bytes stream =
      Cat({{0xAB, 0xCD}, sps, pps, idr, idr_b, p1, p1_b, aud, p2, {0, 0}, sei, p3, {0, 0, 0}});
  const auto frames = camsim::SplitAnnexB(stream.data(), stream.size());
  ASSERT_EQ(4u, frames.size());
  EXPECT_EQ(Cat({sps, pps, idr, idr_b}), frames[0].data);
  EXPECT_TRUE(frames[0].key);
  EXPECT_EQ(Cat({p1, p1_b}), frames[1].data);
  EXPECT_FALSE(frames[1].key);
  EXPECT_EQ(Cat({aud, p2}), frames[2].data);  // the trailing zeros before SEI belong to none
  EXPECT_EQ(Cat({sei, p3}), frames[3].data);
  // A unit opening with a three-byte start code gets the four-byte form.
  const Bytes lone = Nal(false, {0x65, 0x88, 0x10});
  const auto one = camsim::SplitAnnexB(lone.data(), lone.size());
  ASSERT_EQ(1u, one.size());
  EXPECT_EQ(Cat({{0}, lone}), one[0].data);
  // Nothing that looks like a start code: no frame.
  const Bytes junk = {1, 2, 3, 0, 0, 2, 0, 0};
  EXPECT_TRUE(camsim::SplitAnnexB(junk.data(), junk.size()).empty());
  EXPECT_TRUE(camsim::SplitAnnexB(nullptr, 0).empty());
}

// The clip of scripts/make-test-media.sh, made once into the build folder.
std::string TestMedia(const std::string& name) {
  static const std::string dir = std::string(TARVO_BIN_DIR) + "/test-media";
  static const int made = std::system(
      (testsupport::SourcePath("scripts/make-test-media.sh") + " " + dir + " >/dev/null").c_str());
  return made == 0 ? dir + "/" + name : "";
}

TEST(CamsimMedia, GeneratedClipIsFifteenFramesASecondWithKeyFramesEveryFifteen) {
  const std::string video = TestMedia("camera-1080p15.h264");
  if (video.empty()) GTEST_SKIP() << "ffmpeg did not make the test media";
  std::string error;
  auto clip = camsim::VideoClip::Load(video, &error);
  ASSERT_NE(nullptr, clip) << error;
  ASSERT_EQ(60u, clip->size());  // 4 seconds
  Bytes joined;
  for (size_t i = 0; i < clip->size(); i++) {
    const auto& f = clip->at(i);
    EXPECT_EQ(i % 15 == 0, f.key) << i;
    ASSERT_GE(f.data.size(), 5u);
    EXPECT_EQ(Bytes({0, 0, 0, 1}), Bytes(f.data.begin(), f.data.begin() + 4));
    // key frames open with the sequence parameter set, the others with a slice
    EXPECT_EQ(i % 15 == 0 ? 7 : 1, f.data[4] & 0x1F) << i;
    joined.insert(joined.end(), f.data.begin(), f.data.end());
  }
  std::ifstream in(video, std::ios::binary);
  const Bytes file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(file, joined);

  auto audio = camsim::AudioClip::Load(TestMedia("camera-8k.alaw"), &error);
  ASSERT_NE(nullptr, audio) << error;
  EXPECT_EQ(32000u, audio->size());
  EXPECT_EQ(nullptr, camsim::VideoClip::Load(video + ".missing", &error));
  EXPECT_NE(std::string::npos, error.find("cannot open"));
  EXPECT_EQ(nullptr, camsim::VideoClip::Load(TestMedia("camera-8k.alaw"), &error));
}

TEST(CamsimMedia, AudioKeepsPaceWithTheVideo) {
  // Fifteen ticks hold exactly one second of samples: 533 or 534 bytes each.
  uint64_t total = 0;
  for (uint64_t tick = 0; tick < 15; tick++) {
    const uint64_t n = camsim::AudioPosition(tick + 1, 15) - camsim::AudioPosition(tick, 15);
    EXPECT_TRUE(n == 533 || n == 534) << n;
    total += n;
  }
  EXPECT_EQ(8000u, total);
  EXPECT_EQ(8000u * 3600, camsim::AudioPosition(15 * 3600, 15));
  // Copies wrap at the end of the clip.
  auto silence = camsim::AudioClip::Silence();
  Bytes out(9000, 0);
  silence->Copy(7500, out.data(), out.size());
  EXPECT_EQ(Bytes(9000, 0xD5), out);
  auto generated = camsim::VideoClip::Synthetic(3, 2, 20000, 100);
  ASSERT_EQ(3u, generated->size());
  EXPECT_TRUE(generated->at(0).key);
  EXPECT_FALSE(generated->at(1).key);
  EXPECT_TRUE(generated->at(2).key);
  EXPECT_EQ(20000u, generated->at(0).data.size());
  EXPECT_EQ(100u, generated->at(1).data.size());
  // generated frames cut back into the same frames
  Bytes joined;
  for (size_t i = 0; i < 3; i++) {
    joined.insert(joined.end(), generated->at(i).data.begin(), generated->at(i).data.end());
  }
  const auto again = camsim::SplitAnnexB(joined.data(), joined.size());
  ASSERT_EQ(3u, again.size());
  for (size_t i = 0; i < 3; i++) EXPECT_EQ(generated->at(i).data, again[i].data);
}

// --- Descriptions and commands -----------------------------------------------------------------

TEST(CamsimConsole, CameraDescriptions) {
  camsim::CameraConfig c;
  std::string error;
  ASSERT_EQ(0,
            camsim::ParseCameraDescription("0a:00:00:00:00:71,127.0.0.71,hw=101,fw=203,vbat=3650,"
                                           "rssi=-70,battery=1,pir=0,power=1,night=2,interval=30,"
                                           "video=/v.h264,audio=/a.alaw,ssid=net,key=k",
                                           &c, &error))
      << error;
  EXPECT_EQ("0A0000000071", c.mac);
  EXPECT_EQ("127.0.0.71", c.ip);
  EXPECT_EQ(101, c.hard_ver);
  EXPECT_EQ(203, c.soft_ver);
  EXPECT_EQ(3650u, c.vbat);
  EXPECT_EQ(-70, c.rssi);
  EXPECT_EQ(1, c.battery_status);
  EXPECT_EQ(0, c.pir);
  EXPECT_EQ(2, c.night);
  EXPECT_EQ(30, c.pir_interval);
  EXPECT_EQ("/v.h264", c.video_file);
  EXPECT_EQ("/a.alaw", c.audio_file);
  EXPECT_EQ("net", c.expect_ssid);
  EXPECT_EQ("k", c.expect_key);
  for (const char* bad : {"0A0000000071", "0A00000000,127.0.0.2", "0A0000000071,127.0.0",
                          "0A0000000071,127.0.0.2,hw", "0A0000000071,127.0.0.2,fw=1000000",
                          "0A0000000071,127.0.0.2,rssi=-129", "0A0000000071,127.0.0.2,battery=3",
                          "0A0000000071,127.0.0.2,colour=red", "0A0000000071,127.0.0.2,vbat=12x"}) {
    camsim::CameraConfig kept = c;
    EXPECT_EQ(-1, camsim::ParseCameraDescription(bad, &kept, &error)) << bad;
    EXPECT_EQ(203, kept.soft_ver) << bad;  // a refused description changes nothing
  }
}

TEST(CamsimConsole, CommandsAreCheckedBeforeAnyCameraActs) {
  camsim::HubEndpoint hub;
  hub.ip = "127.0.0.1";
  hub.camera_port = testsupport::FreePort();  // nobody listens
  hub.wake_port = testsupport::FreePort();
  camsim::Simulator sim(hub, camsim::Behaviour(), "");
  camsim::CameraConfig c;
  std::string error;
  ASSERT_EQ(0, camsim::ParseCameraDescription("0A0000000072,127.0.0.72", &c, &error));
  ASSERT_EQ(0, sim.Add(c, &error)) << error;
  EXPECT_EQ(-1, sim.Add(c, &error));
  camsim::CameraConfig same_ip = c;
  same_ip.mac = "0A0000000073";
  EXPECT_EQ(-1, sim.Add(same_ip, &error));
  ASSERT_EQ(0, sim.StartAll(&error)) << error;
  std::string reply;
  EXPECT_EQ(0, sim.Execute("", &reply));
  EXPECT_EQ(0, sim.Execute("  # a comment", &reply));
  EXPECT_EQ(1, sim.Execute("quit", &reply));
  EXPECT_EQ(-1, sim.Execute("jump 0A0000000072", &reply));
  EXPECT_NE(std::string::npos, reply.find("unknown command"));
  EXPECT_EQ(-1, sim.Execute("pir 0A00000000FF", &reply));
  EXPECT_EQ("no camera 0A00000000FF", reply);
  EXPECT_EQ(-1, sim.Execute("battery 0A0000000072", &reply));
  EXPECT_EQ(-1, sim.Execute("battery 0A0000000072 lots", &reply));
  EXPECT_EQ(-1, sim.Execute("pir", &reply));
  // not connected: the camera refuses, the simulator says so
  EXPECT_EQ(-1, sim.Execute("pir 0a:00:00:00:00:72", &reply));
  EXPECT_EQ("0A0000000072: pir failed (not connected)", reply);
  EXPECT_EQ(-1, sim.Execute("connect all", &reply));
  EXPECT_NE(std::string::npos, reply.find("connect failed: connect from 127.0.0.72"));
  EXPECT_EQ(0, sim.Execute("status", &reply));
  EXPECT_EQ(0u, reply.find("0A0000000072 127.0.0.72 disconnected"));
  EXPECT_EQ(0, sim.Execute("help", &reply));
  EXPECT_NE(std::string::npos, reply.find("battery MAC MV"));
}

// --- The board's ARP table ---------------------------------------------------------------------

TEST(CamsimArp, LinesAreReplacedAndTheHubFindsThem) {
  testsupport::TempDir dir;
  platform::BoardOptions options;
  options.cameras.push_back({"0A0000000001", "10.17.1.2"});
  options.force = true;
  std::string error;
  ASSERT_EQ(0, platform::MakeBoardRoot(dir.path(), options, &error)) << error;
  platform::SetRootForTest(dir.path());
  const std::string table = dir.path() + "/proc/net/arp";
  const std::string before = testsupport::ReadFile(table);

  ASSERT_EQ(0, camsim::SetArpEntry(dir.path(), "127.0.0.74", "0A:00:00:00:00:74", &error)) << error;
  ASSERT_EQ(0, camsim::SetArpEntry(dir.path(), "127.0.0.75", "0A0000000075", &error)) << error;
  EXPECT_EQ(before + camsim::ArpLine("127.0.0.74", "0A0000000074") +
                camsim::ArpLine("127.0.0.75", "0A0000000075"),
            testsupport::ReadFile(table));
  EXPECT_EQ("127.0.0.74       0x1         0x2         0a:00:00:00:00:74     *        ra1\n",
            camsim::ArpLine("127.0.0.74", "0A0000000074"));
  char mac[32];
  ASSERT_EQ(0, utils::GetConnectMacFromArp("127.0.0.75", mac, sizeof(mac)));
  EXPECT_STREQ("0A0000000075", mac);

  // a camera moving to another address, and another camera taking an address
  ASSERT_EQ(0, camsim::SetArpEntry(dir.path(), "127.0.0.76", "0A0000000074", &error));
  ASSERT_EQ(0, camsim::SetArpEntry(dir.path(), "127.0.0.75", "0A0000000077", &error));
  EXPECT_EQ(before + camsim::ArpLine("127.0.0.76", "0A0000000074") +
                camsim::ArpLine("127.0.0.75", "0A0000000077"),
            testsupport::ReadFile(table));
  ASSERT_EQ(0, utils::GetConnectMacFromArp("127.0.0.75", mac, sizeof(mac)));
  EXPECT_STREQ("0A0000000077", mac);
  EXPECT_EQ(-1, utils::GetConnectMacFromArp("127.0.0.74", mac, sizeof(mac)));

  ASSERT_EQ(0, camsim::RemoveArpEntry(dir.path(), "127.0.0.76", &error));
  ASSERT_EQ(0, camsim::RemoveArpEntry(dir.path(), "127.0.0.75", &error));
  EXPECT_EQ(before, testsupport::ReadFile(table));

  EXPECT_EQ(-1, camsim::SetArpEntry(dir.path(), "127.0.0", "0A0000000074", &error));
  EXPECT_EQ(-1, camsim::SetArpEntry(dir.path(), "127.0.0.9", "0A00000000", &error));
  EXPECT_EQ(-1, camsim::SetArpEntry(dir.path() + "/nowhere", "127.0.0.9", "0A0000000009", &error));
  EXPECT_EQ(before, testsupport::ReadFile(table));
}

}  // namespace
