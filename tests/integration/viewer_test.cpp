// The viewer library's own parts: the credentials file it accepts, the frame information it
// reads and the decryption of frames the hub encrypts with the session's stream key.
#include <gtest/gtest.h>
#include <sodium.h>

#include <string>
#include <vector>

#include "crypto/stream_encrypt.h"
#include "p2p/iotc.h"
#include "support/testsupport.h"
#include "viewer/viewerframe.h"
#include "viewer/viewersession.h"

namespace {

std::vector<uint8_t> Info(bool video, bool encrypted) {
  std::vector<uint8_t> info(viewer::kFrameInfoBytes, 0);
  info[0] = video ? 0x4E : 1;
  info[2] = video ? 1 : 0;
  info[4] = 2;
  info[6] = 0x34;  // frame index 0x1234
  info[7] = 0x12;
  info[8] = 0x80;  // 1920 x 1080
  info[9] = 0x07;
  info[10] = 0x38;
  info[11] = 0x04;
  info[12] = 0xE7;  // 999 ms
  info[13] = 0x03;
  info[18] = encrypted ? 1 : 0;
  info[20] = 0x00;  // 1700000000 s
  info[21] = 0xF1;
  info[22] = 0x53;
  info[23] = 0x65;
  return info;
}

TEST(ViewerFrames, FrameInformationAndBothEncryptedLayoutsComeBackPlain) {
  ASSERT_GE(sodium_init(), 0);
  unsigned char key[kChachaKeyBytes];
  randombytes_buf(key, sizeof(key));

  viewer::FrameInfo fields;
  ASSERT_EQ(0, viewer::ParseFrameInfo(Info(true, true), &fields));
  EXPECT_EQ(viewer::kCodecH264, fields.codec);
  EXPECT_TRUE(fields.key_frame);
  EXPECT_EQ(2, fields.viewers);
  EXPECT_EQ(0x1234, fields.frame_index);
  EXPECT_EQ(1920, fields.width);
  EXPECT_EQ(1080, fields.height);
  EXPECT_EQ(999u, fields.milliseconds);
  EXPECT_TRUE(fields.encrypted);
  EXPECT_EQ(1700000000u, fields.seconds);
  EXPECT_EQ(-1, viewer::ParseFrameInfo(std::vector<uint8_t>(27, 0), &fields));

  // Video: two coded slices long enough to be listed.
  std::vector<unsigned char> frame = {0, 0, 0, 1, 0x65};
  for (int i = 0; i < 3000; i++) frame.push_back(static_cast<unsigned char>(i * 7 + 1));
  for (unsigned char b : {0, 0, 0, 1, 0x41}) frame.push_back(b);
  for (int i = 0; i < 500; i++) frame.push_back(static_cast<unsigned char>(i * 3 + 2));
  crypto_nalu_info nalu{};
  ASSERT_EQ(0, get_nalu_info(frame.data(), static_cast<unsigned>(frame.size()), &nalu));
  ASSERT_EQ(2u, nalu.count);
  std::vector<unsigned char> sealed(frame.size() + kVideoHeaderRoom);
  unsigned sealed_len = 0;
  ASSERT_EQ(0, video_chacha20_encrypt(frame.data(), static_cast<unsigned>(frame.size()), key,
                                      &sealed_len, &nalu, sealed.data(), sealed.size()));
  p2p::ViewerFrame video;
  video.video = true;
  video.info = Info(true, true);
  video.data.assign(sealed.begin(), sealed.begin() + sealed_len);
  std::vector<uint8_t> plain;
  ASSERT_EQ(0, viewer::DecryptFrame(video, key, &plain));
  EXPECT_EQ(std::vector<uint8_t>(frame.begin(), frame.end()), plain);

  // Another key gives other bytes; no key, a cut frame or a short information give nothing.
  unsigned char other[kChachaKeyBytes];
  randombytes_buf(other, sizeof(other));
  ASSERT_EQ(0, viewer::DecryptFrame(video, other, &plain));
  EXPECT_NE(std::vector<uint8_t>(frame.begin(), frame.end()), plain);
  EXPECT_EQ(-1, viewer::DecryptFrame(video, nullptr, &plain));
  p2p::ViewerFrame cut = video;
  cut.data.resize(12);
  EXPECT_EQ(-1, viewer::DecryptFrame(cut, key, &plain));
  EXPECT_TRUE(plain.empty());
  p2p::ViewerFrame no_info = video;
  no_info.info.resize(10);
  EXPECT_EQ(-1, viewer::DecryptFrame(no_info, key, &plain));

  // Audio: nonce and the A-law bytes.
  std::vector<char> alaw(320);
  for (size_t i = 0; i < alaw.size(); i++) alaw[i] = static_cast<char>(0xD5 ^ i);
  std::vector<unsigned char> audio_sealed(alaw.size() + kChachaNonceBytes);
  ASSERT_NE(nullptr, audio_chacha20_encrypt(alaw.data(), static_cast<int>(alaw.size()), key,
                                            audio_sealed.data(), audio_sealed.size()));
  p2p::ViewerFrame audio;
  audio.video = false;
  audio.info = Info(false, true);
  audio.data.assign(audio_sealed.begin(), audio_sealed.end());
  ASSERT_EQ(0, viewer::DecryptFrame(audio, key, &plain));
  EXPECT_EQ(std::vector<uint8_t>(alaw.begin(), alaw.end()), plain);

  // A frame that went out clear is taken as it is, key or not.
  p2p::ViewerFrame clear;
  clear.info = Info(true, false);
  clear.data = {0, 0, 0, 1, 0x65, 9, 9};
  ASSERT_EQ(0, viewer::DecryptFrame(clear, nullptr, &plain));
  EXPECT_EQ(clear.data, plain);
}

TEST(ViewerCredentials, ALoginNeedsTheDeviceKeyAndToken) {
  testsupport::TempDir dir;
  const std::string path = dir.path() + "/creds";
  viewer::Credentials c;
  c.uid = "TARVOHUB000000000001";
  c.password = "004217";
  c.public_key = std::string(64, 'a');
  c.checktoken = "74";
  c.device_key = "TarvoDeviceKey01";
  ASSERT_EQ(0, viewer::WriteCredentialsFile(path, c));
  viewer::AppCredentials read;
  std::string error;
  EXPECT_EQ(-1, viewer::LoadCredentials(path, &read, &error));
  EXPECT_NE(std::string::npos, error.find("device_token")) << error;
  c.device_token = "tarvo-device-token-0001";
  ASSERT_EQ(0, viewer::WriteCredentialsFile(path, c));
  ASSERT_EQ(0, viewer::LoadCredentials(path, &read, &error)) << error;
  EXPECT_EQ("004217", read.password);
  EXPECT_EQ(-1, viewer::LoadCredentials(dir.path() + "/missing", &read, &error));

  // A session on nothing fails with the transport's code, named.
  viewer::SessionOptions options;
  options.port = testsupport::FreePort();
  viewer::Session session;
  EXPECT_EQ(IOTC_ER_CONNECT_FAILED, session.Connect(read, options));
  EXPECT_EQ("IOTC_ER_CONNECT_FAILED", viewer::CodeName(IOTC_ER_CONNECT_FAILED));
  EXPECT_EQ("-12345", viewer::CodeName(-12345));
}

}  // namespace
