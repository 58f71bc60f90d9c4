// The hub's frame builder: addresses, sequence counters, wake frame, pairing reply header and
// the camera reset, against byte vectors written from the layout tables.
#include "camera/command.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "core/configuration.h"

namespace {

using Bytes = std::vector<uint8_t>;

const char kCamMac[] = "0A0B0C0D0E0F";
const char kHubMac[] = "AA:BB:CC:DD:EE:FF";

TEST(CameraCommand, WakeFrameBytes) {
  command::Command cmd(kCamMac, kHubMac);
  // Commands sent before do not change the wake frame's seq.
  uint8_t scratch[64];
  for (int i = 0; i < 3; i++) {
    ASSERT_EQ(command::BuildCommand(cmd, scratch, sizeof(scratch), 1, 1, nullptr, 0), 34);
  }
  uint8_t wake[34];
  ASSERT_EQ(command::BuildWakeFrame(cmd, wake), 34);
  const Bytes expected = {0x68, 0x68, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x0A, 0x0B, 0x0C, 0x0D,
                          0x0E, 0x0F, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                          0x68, 0x68, 0x00, 0x00, 0xF0, 0x00, 0x00, 0x00, 0x16, 0x16};
  EXPECT_EQ(Bytes(wake, wake + 34), expected);
}

TEST(CameraCommand, OrdinaryCommandTakesTheCounterAndTheClock) {
  command::Command cmd(kCamMac, kHubMac);
  uint8_t a[64], b[64];
  const uint8_t night = 2;
  ASSERT_EQ(command::BuildCommand(cmd, a, sizeof(a), 0x11, 0x06, &night, 1), 35);
  ASSERT_EQ(command::BuildCommand(cmd, b, sizeof(b), 0x11, 0x06, &night, 1), 35);
  const _net_cmd_type* fa = command::AsFrame(a);
  const _net_cmd_type* fb = command::AsFrame(b);
  EXPECT_EQ(static_cast<uint16_t>(fa->Seq() + 1), fb->Seq());
  EXPECT_GT(fa->Timestamp(), 1500000000u);
  // Everything but seq and timestamp is fixed by the layout.
  const Bytes head = {0x68, 0x68, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF,
                      0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x01, 0x01};
  EXPECT_EQ(Bytes(a, a + 16), head);
  const Bytes rest = {0x00, 0x00, 0x68, 0x68, 0x01, 0x00, 0x11, 0x06, 0x02, 0x00, 0x02, 0x16, 0x16};
  EXPECT_EQ(Bytes(a + 22, a + 35), rest);

  // The ACK ID form puts the request identifier in src_addr.
  uint8_t src[6];
  command::AckIdAddress(77, src);
  ASSERT_EQ(command::BuildCommand(cmd, a, sizeof(a), 0x03, 0x00, nullptr, 0, src), 34);
  EXPECT_EQ(Bytes(a + 2, a + 8), (Bytes{0x88, 0x88, 77, 0, 0, 0}));

  // A payload that does not fit the buffer is refused.
  uint8_t big[100] = {0};
  EXPECT_EQ(command::BuildCommand(cmd, a, sizeof(a), 0x0A, 0x01, big, sizeof(big)), -1);
}

TEST(CameraCommand, CountersWrapAt65536) {
  const uint16_t first = command::NextCmdTxSeq();
  uint16_t last = first;
  for (int i = 0; i < 65536; i++) last = command::NextCmdTxSeq();
  EXPECT_EQ(last, first);
}

TEST(CameraCommand, PairingReplyHeader) {
  uint8_t request[34] = {0};
  command::FrameFields f;
  const uint8_t cam[6] = {0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F};
  f.src = cam;
  f.seq = 0x0405;
  f.type = 0x8B;
  ASSERT_EQ(command::BuildFrame(request, sizeof(request), f, nullptr, 0), 34);

  uint8_t reply[34 + 65];
  ASSERT_EQ(command::Command::InitAuthCommand(command::AsFrame(request), reply), 0);
  const Bytes head = {0x68, 0x68, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x0A,
                      0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x01, 0x01, 0x05, 0x04};
  EXPECT_EQ(Bytes(reply, reply + 18), head);
  EXPECT_GT(command::AsFrame(reply)->Timestamp(), 1500000000u);
  EXPECT_EQ(Bytes(reply + 22, reply + 32), (Bytes{0, 0, 0x68, 0x68, 0, 0, 0, 0, 0, 0}));

  // Without a request: no destination, and the pairing counter.
  const uint16_t next = command::NextCmdTxSeq();
  ASSERT_EQ(command::Command::InitAuthCommand(nullptr, reply), 0);
  EXPECT_EQ(Bytes(reply + 8, reply + 14), Bytes(6, 0));
  EXPECT_EQ(command::AsFrame(reply)->Seq(), static_cast<uint16_t>(next + 1));
}

TEST(CameraCommand, RestoreCameraSendsTheResetFrame) {
  Configuration::getInstance().SetMac(kHubMac);
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  ASSERT_EQ(RestoreCamera(sv[0], "0a0b0c0d0e0f"), 34);
  uint8_t got[64];
  ASSERT_EQ(recv(sv[1], got, sizeof(got), 0), 34);
  const Bytes head = {0x68, 0x68, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x0A,
                      0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x01, 0x01, 0x01, 0x00};
  EXPECT_EQ(Bytes(got, got + 18), head);
  EXPECT_EQ(Bytes(got + 22, got + 34),
            (Bytes{0, 0, 0x68, 0x68, 0, 0, 0x11, 0x04, 0, 0, 0x16, 0x16}));
  close(sv[0]);
  close(sv[1]);
  EXPECT_EQ(RestoreCamera(-1, kCamMac), -1);
}

}  // namespace
