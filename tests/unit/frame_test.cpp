// The wire frame against byte vectors written by hand from the layout tables.
#include "camera/frame.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

const uint8_t kHub[6] = {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
const uint8_t kCam[6] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66};

Bytes Build(uint16_t seq, uint32_t ts, uint8_t type, uint8_t subtype, const Bytes& payload) {
  command::FrameFields f;
  f.src = kHub;
  f.dst = kCam;
  f.seq = seq;
  f.timestamp = ts;
  f.type = type;
  f.subtype = subtype;
  Bytes out(payload.size() + 34 + 8, 0xEE);
  const int n = command::BuildFrame(out.data(), out.size(), f, payload.data(), payload.size());
  EXPECT_EQ(n, static_cast<int>(payload.size() + 34));
  out.resize(n < 0 ? 0 : n);
  return out;
}

TEST(FrameLayout, EmptyPayloadIsThirtyFourBytes) {
  const Bytes expected = {
      0x68, 0x68,                          // head_magic
      0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF,  // src_addr
      0x11, 0x22, 0x33, 0x44, 0x55, 0x66,  // dst_addr
      0x01, 0x01,                          // mark1, mark2
      0x34, 0x12,                          // seq 0x1234
      0x00, 0x10, 0x5E, 0x5F,              // timestamp 1600000000
      0x00, 0x00,                          // reserved
      0x68, 0x68,                          // mid_magic
      0x00, 0x00,                          // length
      0x01, 0x03,                          // type, subtype
      0x00, 0x00,                          // checksum
      0x16, 0x16,                          // tail
  };
  EXPECT_EQ(Build(0x1234, 1600000000u, 0x01, 0x03, {}), expected);
}

TEST(FrameLayout, PayloadLengthChecksumAndTail) {
  Bytes expected = {0x68, 0x68, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x11, 0x22, 0x33, 0x44, 0x55,
                    0x66, 0x01, 0x01, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x68, 0x68,
                    0x04, 0x00, 0x01, 0x02, 0x0A, 0x00, 0x04, 0x03, 0x02, 0x01, 0x16, 0x16};
  uint8_t payload[4];
  command::EncodeStartStream(0x01020304, payload);
  EXPECT_EQ(Build(0, 2, 0x01, 0x02, Bytes(payload, payload + 4)), expected);

  // 300 bytes of 0xFF: 76500 mod 65536 = 0x2AD4.
  const Bytes big = Build(0, 0, 0x0A, 0x01, Bytes(300, 0xFF));
  ASSERT_EQ(big.size(), 334u);
  EXPECT_EQ(big[26], 0x2C);
  EXPECT_EQ(big[27], 0x01);
  EXPECT_EQ(big[30], 0xD4);
  EXPECT_EQ(big[31], 0x2A);
  EXPECT_EQ(big[332], 0x16);
  EXPECT_EQ(big[333], 0x16);
  EXPECT_EQ(command::AsFrame(big.data())->Checksum(), 0x2AD4);
}

TEST(FrameLayout, BuildRefusesWhatDoesNotFit) {
  uint8_t out[40];
  command::FrameFields f;
  const uint8_t payload[7] = {0};
  EXPECT_EQ(command::BuildFrame(out, sizeof(out), f, payload, 7), -1);
  EXPECT_EQ(command::BuildFrame(out, sizeof(out), f, payload, 6), 40);
}

TEST(FrameCheck, ShortBadMagicIncompleteAndBadTail) {
  Bytes frame = Build(7, 0, 0x03, 0x00, Bytes(10, 0x41));
  ASSERT_EQ(frame.size(), 44u);

  // The smallest frame is whole at exactly 34 bytes, and needs every one of them.
  const Bytes empty = Build(1, 0, 0x80, 0x00, {});
  EXPECT_EQ(command::CheckCommand(empty.data(), 34), 1);
  EXPECT_EQ(command::CheckCommand(empty.data(), 33), 0);
  // 33 bytes are never enough, whatever they hold.
  EXPECT_EQ(command::CheckCommand(Bytes(33, 0x00).data(), 33), 0);
  EXPECT_EQ(command::CheckCommand(frame.data(), 33), 0);

  EXPECT_EQ(command::CheckCommand(frame.data(), 44), 1);
  // Bytes after the first frame are not examined.
  Bytes longer = frame;
  longer.insert(longer.end(), {0x00, 0x01, 0x02});
  EXPECT_EQ(command::CheckCommand(longer.data(), static_cast<uint16_t>(longer.size())), 1);

  // Ten payload bytes announced, only 40 present.
  EXPECT_EQ(command::CheckCommand(frame.data(), 40), 0);

  Bytes mid = frame;
  mid[25] = 0x67;
  EXPECT_EQ(command::CheckCommand(mid.data(), 44), -1);
  Bytes head = frame;
  head[0] = 0x69;
  EXPECT_EQ(command::CheckCommand(head.data(), 44), -1);
  Bytes tail = frame;
  tail[43] = 0x17;
  EXPECT_EQ(command::CheckCommand(tail.data(), 44), -1);
  tail = frame;
  tail[42] = 0x00;
  EXPECT_EQ(command::CheckCommand(tail.data(), 44), -1);

  // A wrong checksum, odd marks and any sequence number still make a frame.
  Bytes odd = frame;
  odd[30] ^= 0xFF;
  odd[14] = 9;
  odd[15] = 0;
  EXPECT_EQ(command::CheckCommand(odd.data(), 44), 1);
}

TEST(FrameCheck, LengthNearTheSixteenBitLimitNeedsMoreBytes) {
  Bytes header = Build(0, 0, 0x8A, 0x00, {});
  header[26] = 0xFF;
  header[27] = 0xFF;
  header.resize(65535, 0);
  EXPECT_EQ(command::CheckCommand(header.data(), 65535), 0);
}

TEST(FrameAddresses, TextAckIdAndHubMacDigits) {
  EXPECT_EQ(command::AddressText(kHub), "AABBCCDDEEFF");
  uint8_t out[6];
  ASSERT_EQ(command::AddressFromText("a1b2c3d4e5f6", out), 0);
  EXPECT_EQ(Bytes(out, out + 6), (Bytes{0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6}));
  // Addresses arrive in upper case too (the cloud's and the configuration's form).
  ASSERT_EQ(command::AddressFromText("0A1B2C3D4E5F", out), 0);
  EXPECT_EQ(Bytes(out, out + 6), (Bytes{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}));
  EXPECT_EQ(command::AddressText(out), "0A1B2C3D4E5F");
  EXPECT_EQ(command::AddressFromText("A1B2C3D4E5F", out), -1);
  EXPECT_EQ(command::AddressFromText("A1B2C3D4E5FG", out), -1);
  EXPECT_EQ(command::AddressFromText("0a1b2c3d4e5g", out), -1);
  EXPECT_EQ(command::AddressFromText("0A1B2C3D4E5:", out), -1);
  EXPECT_EQ(Bytes(out, out + 6), (Bytes{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}));  // untouched

  command::AckIdAddress(0x01020304, out);
  EXPECT_EQ(Bytes(out, out + 6), (Bytes{0x88, 0x88, 0x04, 0x03, 0x02, 0x01}));
  uint32_t id = 0;
  EXPECT_TRUE(command::IsAckIdAddress(out, &id));
  EXPECT_EQ(id, 0x01020304u);
  EXPECT_FALSE(command::IsAckIdAddress(kHub, &id));

  EXPECT_EQ(command::MacDigits("aa:bb:cc:0d:ee:ff"), "AABBCC0DEEFF");
}

TEST(FramePayloads, LoginAndVersions) {
  const Bytes login = {0x23, 0x01, 0x00, 0x00, 0x56, 0x04, 0x00, 0x00};
  _net_cmd_login_type l;
  ASSERT_EQ(_net_cmd_login_type::Decode(login.data(), login.size(), &l), 0);
  EXPECT_EQ(command::VersionNumber(l.hard_ver), 123);
  EXPECT_EQ(command::VersionNumber(l.soft_ver), 456);
  EXPECT_EQ(_net_cmd_login_type::Decode(login.data(), 7, &l), -1);
  uint8_t again[8];
  l.Encode(again);
  EXPECT_EQ(Bytes(again, again + 8), login);
  // Hexadecimal letters end the decimal reading.
  EXPECT_EQ(command::VersionNumber(0x1A), 1);
  EXPECT_EQ(command::VersionNumber(0x200105), 200105);
}

TEST(FramePayloads, InfoRecordLayout) {
  const Bytes wire = {
      0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F,  // mac
      0x0A, 0x11, 0x01, 0x02,              // 10.17.1.2
      0x02, 0x01, 0x00, 0x00,              // hardware version 0x102
      0x03, 0x02, 0x01, 0x00,              // firmware version 0x10203
      0x01,                                // battery status
      0x02,                                // pir
      0x01,                                // power
      0x03,                                // night
      0x3C, 0x0F, 0x00, 0x00,              // 3900 mV
      0x3C, 0x00,                          // 60 s
      0xC4,                                // -60 dBm
      0x00, 0x00, 0x00, 0x00, 0x00,
  };
  ASSERT_EQ(wire.size(), _net_cmd_get_info_type::kWireSize);
  _net_cmd_get_info_type info;
  ASSERT_EQ(_net_cmd_get_info_type::Decode(wire.data(), wire.size(), &info), 0);
  EXPECT_EQ(command::AddressText(info.mac), "0A0B0C0D0E0F");
  EXPECT_EQ(info.hard_ver, 0x102u);
  EXPECT_EQ(info.soft_ver, 0x10203u);
  EXPECT_EQ(info.battery_status, 1);
  EXPECT_EQ(info.pir, 2);
  EXPECT_EQ(info.power, 1);
  EXPECT_EQ(info.night, 3);
  EXPECT_EQ(info.vbat, 3900u);
  EXPECT_EQ(info.pir_interval, 60);
  EXPECT_EQ(info.rssi, -60);
  uint8_t again[34];
  info.Encode(again);
  EXPECT_EQ(Bytes(again, again + 34), wire);
  EXPECT_EQ(_net_cmd_get_info_type::Decode(wire.data(), 33, &info), -1);
}

TEST(FramePayloads, HubToCameraPayloads) {
  uint8_t q[20];
  command::EncodeVideoQuality(1, q);
  EXPECT_EQ(Bytes(q, q + 20), (Bytes{0x51, 0x0A, 0,    0, 0x00, 0x05, 0,    0,    0xD0, 0x02,
                                     0,    0,    0x0F, 0, 0,    0,    0xF4, 0x01, 0,    0}));
  command::EncodeVideoQuality(2, q);
  EXPECT_EQ(Bytes(q, q + 20), (Bytes{0x51, 0x0A, 0,    0, 0x80, 0x07, 0,    0,    0x38, 0x04,
                                     0,    0,    0x0F, 0, 0,    0,    0xF4, 0x01, 0,    0}));
  command::EncodeVideoQuality(3, q);
  EXPECT_EQ(Bytes(q + 16, q + 20), (Bytes{0x20, 0x03, 0, 0}));

  uint8_t up[65];
  command::EncodeUpgrade("http://10.17.1.1/c.bin", up);
  EXPECT_EQ(up[0], 0);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(up + 1)), "http://10.17.1.1/c.bin");
  EXPECT_EQ(up[64], 0);
  command::EncodeUpgrade(std::string(80, 'x'), up);
  EXPECT_EQ(up[1], 'x');
  EXPECT_EQ(up[64], 'x');  // cut at 64 bytes, no terminator

  uint8_t reply[65];
  command::EncodePairingReply("cams", std::string(40, 'k'), reply);
  EXPECT_EQ(reply[0], 1);
  EXPECT_EQ(Bytes(reply + 1, reply + 6), (Bytes{'c', 'a', 'm', 's', 0}));
  EXPECT_EQ(reply[32], 0);
  EXPECT_EQ(reply[33], 'k');
  EXPECT_EQ(reply[64], 'k');
}

}  // namespace
