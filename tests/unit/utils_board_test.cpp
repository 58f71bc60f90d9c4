// Helpers that reach the board: device.conf and token through the shell, the ARP table, uci
// integers, camera events and the clock.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/utils.h"
#include "platform/board.h"
#include "platform/uci.h"
#include "support/boardfixture.h"
#include "support/logcapture.h"
#include "support/testsupport.h"

using namespace testsupport;

namespace {

class OnBoard : public BoardFixture {
 protected:
  bool Logged(const std::string& fragment) {
    for (const auto& l : log_.Lines())
      if (l.find(fragment) != std::string::npos) return true;
    return false;
  }

  LogCapture log_;
};

TEST_F(OnBoard, DeviceConfigValuesByKey) {
  WriteFile(Board("/etc/zelo/device.conf"),
            "did=123456789\nkey=AbCd0123\nvendor=brovalin\nmac=0A:1B:2C:3D:4E:5F\n"
            "model=brovalin.gateway.hbx011\n");
  char out[65];
  ASSERT_EQ(utils::GetDeviceConfig("did", out, sizeof(out)), 0);
  EXPECT_STREQ(out, "123456789");
  ASSERT_EQ(utils::GetDeviceConfig("mac", out, sizeof(out)), 0);
  EXPECT_STREQ(out, "0A:1B:2C:3D:4E:5F");
  ASSERT_EQ(utils::GetDeviceConfig("model", out, sizeof(out)), 0);
  EXPECT_STREQ(out, "brovalin.gateway.hbx011");

  EXPECT_EQ(utils::GetDeviceConfig("absent", out, sizeof(out)), -1);
  EXPECT_STREQ(out, "");

  // the output buffer bounds the copy
  char small[5];
  ASSERT_EQ(utils::GetDeviceConfig("did", small, sizeof(small)), 0);
  EXPECT_STREQ(small, "1234");
}

TEST_F(OnBoard, DeviceConfigValueIsCutAtSixtyFourBytes) {
  const std::string long_value(200, 'v');
  WriteFile(Board("/etc/zelo/device.conf"), "did=" + long_value + "\n");
  char out[256];
  ASSERT_EQ(utils::GetDeviceConfig("did", out, sizeof(out)), 0);
  EXPECT_EQ(std::string(out), std::string(64, 'v'));
}

TEST_F(OnBoard, DeviceConfigKeysThatAreNoPlainWordNeverReachTheShell) {
  WriteFile(Board("/etc/zelo/device.conf"), "did=1\n");
  const std::string marker = Board("/tmp/marker");
  const std::string inject = "did'; touch " + marker + "; echo '";
  char out[65] = "untouched";
  for (const std::string& key :
       {inject, std::string("did="), std::string("d id"), std::string("../did"),
        std::string("did\n"), std::string(""), std::string(40, 'k'), std::string("$(id)")}) {
    EXPECT_EQ(utils::GetDeviceConfig(key.c_str(), out, sizeof(out)), -1) << key;
    EXPECT_STREQ(out, "") << key;
  }
  EXPECT_EQ(utils::GetDeviceConfig(nullptr, out, sizeof(out)), -1);
  EXPECT_FALSE(FileExists(marker));
  EXPECT_TRUE(Logged("Invalid device config key"));
}

TEST_F(OnBoard, DeviceConfigNeedsTheFile) {
  std::remove(Board("/etc/zelo/device.conf").c_str());
  char out[65];
  EXPECT_EQ(utils::GetDeviceConfig("did", out, sizeof(out)), -1);
}

TEST_F(OnBoard, TokenIsCutAtTheNewlineAndNeverLogged) {
  WriteFile(Board("/etc/zelo/device.token"), "s3cr3tT0ken\nsecond line\n");
  char token[65];
  ASSERT_EQ(utils::get_device_token(token, sizeof(token)), 0);
  EXPECT_STREQ(token, "s3cr3tT0ken");
  EXPECT_TRUE(Logged("device_token: *"));
  EXPECT_FALSE(Logged("s3cr3tT0ken"));

  WriteFile(Board("/etc/zelo/device.token"), std::string(100, 't'));
  ASSERT_EQ(utils::get_device_token(token, sizeof(token)), 0);
  EXPECT_EQ(std::string(token), std::string(64, 't'));

  std::remove(Board("/etc/zelo/device.token").c_str());
  EXPECT_EQ(utils::get_device_token(token, sizeof(token)), -1);
  EXPECT_STREQ(token, "");
  WriteFile(Board("/etc/zelo/device.token"), "");
  EXPECT_EQ(utils::get_device_token(token, sizeof(token)), -1);
}

TEST_F(OnBoard, ArpTableLookup) {
  WriteFile(Board("/proc/net/arp"),
            "IP address       HW type     Flags       HW address            Mask     Device\n"
            "127.0.0.20       0x1         0x2         11:22:33:44:55:66     *        br-lan\n"
            "127.0.0.3        0x1         0x0         00:00:00:00:00:00     *        br-lan\n"
            "127.0.0.2        0x1         0x2         0a:1b:2c:3d:4e:5f     *        br-lan\n"
            "127.0.0.4        0x1         0x2         0a:1b:2c:3d:4e        *        br-lan\n" +
                std::string(1000, 'x') + " 127.0.0.5 0x1 0x2 aa:bb:cc:dd:ee:ff\n" +
                "127.0.0.6 0x1 0x2 a6:a6:a6:a6:a6:a6 * br-lan");  // no newline at the end
  char mac[13];
  ASSERT_EQ(utils::GetConnectMacFromArp("127.0.0.2", mac, sizeof(mac)), 0);
  EXPECT_STREQ(mac, "0A1B2C3D4E5F");
  ASSERT_EQ(utils::GetConnectMacFromArp("127.0.0.20", mac, sizeof(mac)), 0);
  EXPECT_STREQ(mac, "112233445566");
  ASSERT_EQ(utils::GetConnectMacFromArp("127.0.0.6", mac, sizeof(mac)), 0);
  EXPECT_STREQ(mac, "A6A6A6A6A6A6");

  EXPECT_EQ(utils::GetConnectMacFromArp("127.0.0.3", mac, sizeof(mac)), -1);  // unresolved
  EXPECT_EQ(utils::GetConnectMacFromArp("127.0.0.4", mac, sizeof(mac)), -1);  // short address
  EXPECT_EQ(utils::GetConnectMacFromArp("127.0.0.5", mac, sizeof(mac)), -1);  // inside junk
  EXPECT_EQ(utils::GetConnectMacFromArp("127.0.0.9", mac, sizeof(mac)), -1);  // absent
  char small[12];
  EXPECT_EQ(utils::GetConnectMacFromArp("127.0.0.2", small, sizeof(small)), -1);
}

TEST_F(OnBoard, ArpLookupTakesOnlyDottedAddresses) {
  WriteFile(Board("/proc/net/arp"),
            "IP address HW type Flags HW address Mask Device\n"
            "1.2.3.4 0x1 0x2 0a:1b:2c:3d:4e:5f * br-lan\n");
  char mac[13];
  for (const char* ip : {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.4 ", "1.2.3.4;id", "1..2.3",
                         "a.b.c.d", "1.2.3.1234", "-1.2.3.4"}) {
    EXPECT_EQ(utils::GetConnectMacFromArp(ip, mac, sizeof(mac)), -1) << "'" << ip << "'";
  }
  EXPECT_EQ(utils::GetConnectMacFromArp(nullptr, mac, sizeof(mac)), -1);
  EXPECT_EQ(utils::GetConnectMacFromArp("1.2.3.4", mac, sizeof(mac)), 0);
}

TEST_F(OnBoard, IntegersInTheConfigurationStore) {
  EXPECT_EQ(utils::SetIntConfig("hub_config.power.threshold", 25), 0);
  EXPECT_EQ(utils::GetIntConfig("hub_config.power.threshold"), 25);
  EXPECT_EQ(utils::SetIntConfig("hub_config.power.threshold", -2147483647 - 1), 0);
  EXPECT_EQ(utils::GetIntConfig("hub_config.power.threshold"), -2147483647 - 1);
  EXPECT_EQ(utils::GetIntConfig("hub_config.power.absent"), 0);
  EXPECT_EQ(utils::GetIntConfig(nullptr), 0);
}

TEST_F(OnBoard, CameraEventByMac) {
  ASSERT_EQ(zcfg_uci_set("p2p.0A1B2C3D4E5F", "p2p"), 0);
  ASSERT_EQ(zcfg_uci_set("p2p.0A1B2C3D4E5F.event", "motion2"), 0);
  char event[32];
  ASSERT_EQ(utils::GetCameraEventByMac("0A1B2C3D4E5F", event, sizeof(event)), 0);
  EXPECT_STREQ(event, "motion2");
  EXPECT_EQ(utils::GetCameraEventByMac("AAAAAAAAAAAA", event, sizeof(event)), -1);
  EXPECT_EQ(utils::GetCameraEventByMac("0A1B2C3D4E5F.x", event, sizeof(event)), -1);
  EXPECT_EQ(utils::GetCameraEventByMac("0A1B2C", event, sizeof(event)), -1);
  EXPECT_STREQ(event, "");
}

TEST_F(OnBoard, TimeFollowsTheHubClock) {
  ASSERT_EQ(platform::SetClock(1500000000), 0);  // a hub whose clock is before 2018
  const uint32_t before = utils::GetTimestamp();
  const int64_t us = utils::GetTimestampUS();
  const uint32_t after = utils::GetTimestamp();
  EXPECT_GE(before, 1500000000u);
  EXPECT_LT(before, 1500000000u + 3600);
  EXPECT_LE(before, us / 1000000);
  EXPECT_GE(after, us / 1000000);
  EXPECT_LT(utils::GetTimestampUS1(), 1000u);
}

}  // namespace
