#include "platform/hwlib.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/board.h"
#include "platform/boardmaker.h"
#include "support/boardfixture.h"
#include "support/testsupport.h"

namespace {

using testsupport::FileExists;
using testsupport::ReadFile;

// What the handlers received, and on which thread.
struct Received {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> events;
  std::vector<std::thread::id> threads;

  void Add(const std::string& event) {
    std::lock_guard<std::mutex> lock(mutex);
    events.push_back(event);
    threads.push_back(std::this_thread::get_id());
    changed.notify_all();
  }
  bool WaitCount(size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(10), [&] { return events.size() >= count; });
  }
  std::vector<std::string> Events() {
    std::lock_guard<std::mutex> lock(mutex);
    return events;
  }
};
Received* g_received = nullptr;

int OnKey(int code, int type) {
  g_received->Add("key " + std::to_string(code) + " " + std::to_string(type));
  return 0;
}
int OnCard(int line, int event) {
  // what the card-detect handler reads back, as the hub's SD code does
  const bool no_card = (reg_read(kRegGpioData) >> kGpioCardDetect) & 1;
  g_received->Add("card " + std::to_string(line) + " " + std::to_string(event) +
                  (no_card ? " high" : " low"));
  return 0;
}

class HwlibTest : public testsupport::BoardFixture {
 protected:
  void SetUp() override {
    BoardFixture::SetUp();
    g_received = &received_;
  }
  void TearDown() override {
    BoardFixture::TearDown();  // stops the event thread before received_ goes
    g_received = nullptr;
  }

  bool ButtonBit() { return (reg_read(kRegKeys) >> 6) & 1; }
  bool NoCardBit() { return (reg_read(kRegGpioData) >> kGpioCardDetect) & 1; }

  // Writes lines into the board's event fifo as a person or another process would.
  void WriteEvents(const std::string& text) {
    int fd = open((root() + "/sys/hub/events").c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
  }

  Received received_;
};

TEST_F(HwlibTest, MacLedAndStationDropActOnTheBoard) {
  char mac[18];
  ASSERT_EQ(get_hub_mac("eth0", mac, sizeof(mac)), 0);
  EXPECT_STREQ(mac, "02:1a:2b:3c:4d:5e");
  EXPECT_EQ(get_hub_mac("eth0", mac, 17), -1);
  EXPECT_EQ(get_hub_mac("../../etc", mac, sizeof(mac)), -1);
  EXPECT_EQ(get_hub_mac("eth0/../../x", mac, sizeof(mac)), -1);
  EXPECT_EQ(get_hub_mac("wlan9", mac, sizeof(mac)), -1);
  testsupport::WriteFile(root() + "/sys/class/net/ra0/address", "not a mac\n");
  EXPECT_EQ(get_hub_mac("ra0", mac, sizeof(mac)), -1);

  EXPECT_EQ(platform::CurrentLedPattern(), 0);
  ASSERT_EQ(led_set_pattern(5), 0);
  EXPECT_EQ(ReadFile(root() + "/sys/hub/led"), "5\n");
  EXPECT_EQ(platform::CurrentLedPattern(), 5);
  EXPECT_EQ(led_set_pattern(6), -1);
  EXPECT_EQ(led_set_pattern(0), -1);
  EXPECT_EQ(platform::CurrentLedPattern(), 5);

  ASSERT_EQ(disconnect_mac("0a1b2c3d4e5f"), 0);
  ASSERT_EQ(disconnect_mac("112233445566"), 0);
  EXPECT_EQ(disconnect_mac("11223344556"), -1);
  EXPECT_EQ(disconnect_mac("1122334455667"), -1);
  EXPECT_EQ(disconnect_mac("11:22:33:44:55"), -1);
  EXPECT_EQ(disconnect_mac("';reboot;'"), -1);
  EXPECT_EQ(ReadFile(root() + "/sys/hub/ap_disconnect"), "0A1B2C3D4E5F\n112233445566\n");
}

TEST_F(HwlibTest, InjectedEventsReachTheHandlersOnOneThreadAndMoveTheRegisterBits) {
  EXPECT_TRUE(NoCardBit());
  EXPECT_FALSE(ButtonBit());
  ASSERT_EQ(gpio_hook(kGpioCardDetect), 0);
  ASSERT_EQ(start_mmc_key_processor(OnCard), 0);
  ASSERT_EQ(start_key_processor(OnKey), 0);

  platform::InjectCardEvent(true);
  EXPECT_FALSE(NoCardBit());                            // the bits follow before the handler runs
  EXPECT_FALSE(FileExists(root() + "/dev/mmcblk0p1"));  // no driver: no device node
  platform::InjectKeyEvent(1, 2);
  EXPECT_TRUE(ButtonBit());
  ASSERT_TRUE(received_.WaitCount(2));
  platform::InjectKeyEvent(1, 1);
  platform::InjectCardEvent(false);
  EXPECT_FALSE(ButtonBit());
  EXPECT_TRUE(NoCardBit());
  ASSERT_TRUE(received_.WaitCount(4));

  // With the driver loaded a new card gets its node at once; it stays after removal until the
  // driver goes. Bounces reach the handler and change nothing.
  testsupport::WriteFile(root() + "/proc/modules", "mtk_sd 40960 0 - Live 0x00000000\n");
  platform::InjectCardEvent(true);
  ASSERT_TRUE(received_.WaitCount(5));
  EXPECT_TRUE(FileExists(root() + "/dev/mmcblk0p1"));
  platform::InjectCardBounce(false);
  ASSERT_TRUE(received_.WaitCount(6));  // handlers read the level when they run
  platform::InjectCardEvent(false);
  platform::InjectCardBounce(true);
  ASSERT_TRUE(received_.WaitCount(8));
  EXPECT_TRUE(NoCardBit());
  EXPECT_TRUE(FileExists(root() + "/dev/mmcblk0p1"));

  EXPECT_EQ(received_.Events(),
            (std::vector<std::string>{"card 21 2 low", "key 1 2", "key 1 1", "card 21 1 high",
                                      "card 21 2 low", "card 21 1 low", "card 21 1 high",
                                      "card 21 2 high"}));
  std::lock_guard<std::mutex> lock(received_.mutex);
  for (const auto& id : received_.threads) {
    EXPECT_EQ(id, received_.threads[0]);
    EXPECT_NE(id, std::this_thread::get_id());
  }
}

TEST_F(HwlibTest, CardEventsNeedTheHookedLine) {
  ASSERT_EQ(start_mmc_key_processor(OnCard), 0);
  ASSERT_EQ(start_key_processor(OnKey), 0);
  platform::InjectCardEvent(true);  // line 21 not armed: only the hardware changes
  platform::InjectKeyEvent(7, 2);
  ASSERT_TRUE(received_.WaitCount(1));  // events are handled in order: the card's came first
  EXPECT_EQ(received_.Events(), std::vector<std::string>{"key 7 2"});
  EXPECT_FALSE(NoCardBit());
  EXPECT_EQ(gpio_hook(64), -1);
  EXPECT_EQ(gpio_hook(-1), -1);
}

TEST_F(HwlibTest, EventsFromTheBoardFifo) {
  ASSERT_EQ(gpio_hook(kGpioCardDetect), 0);
  ASSERT_EQ(start_mmc_key_processor(OnCard), 0);
  ASSERT_EQ(start_key_processor(OnKey), 0);
  // malformed and over-long lines are skipped; the good ones around them still count
  WriteEvents("# a comment\n\nkey 1\nkey one 2\ncard eject\nkey 1 2 3\n" + std::string(300, 'k') +
              "\ncard insert\n");
  ASSERT_TRUE(received_.WaitCount(1));
  EXPECT_FALSE(NoCardBit());
  WriteEvents("key 1 ");  // a line may come in pieces
  WriteEvents("2\n");
  ASSERT_TRUE(received_.WaitCount(2));
  EXPECT_TRUE(ButtonBit());
  WriteEvents("key 1 1\ncard remove\ncard lock\ncard bounce insert\ncard bounce\n");
  ASSERT_TRUE(received_.WaitCount(5));
  EXPECT_FALSE(ButtonBit());
  EXPECT_TRUE(NoCardBit());
  EXPECT_TRUE(FileExists(root() + "/sys/hub/card/locked"));  // the write-protect switch
  WriteEvents("card unlock\nkey 2 2\n");
  ASSERT_TRUE(received_.WaitCount(6));
  EXPECT_FALSE(FileExists(root() + "/sys/hub/card/locked"));
  EXPECT_EQ(received_.Events(),
            (std::vector<std::string>{"card 21 2 low", "key 1 2", "key 1 1", "card 21 1 high",
                                      "card 21 2 high", "key 2 2"}));
}

TEST_F(HwlibTest, RegistersAreReadFromTheBoardFiles) {
  testsupport::WriteFile(root() + "/sys/hub/reg/1572", "64\n");
  EXPECT_EQ(reg_read(kRegKeys), 64u);
  testsupport::WriteFile(root() + "/sys/hub/reg/1572", "0xffffffff");
  EXPECT_EQ(reg_read(kRegKeys), 0xffffffffu);
  testsupport::WriteFile(root() + "/sys/hub/reg/1572", "garbage");
  EXPECT_EQ(reg_read(kRegKeys), 0u);
  EXPECT_EQ(reg_read(1234), 0u);  // no such register on the board
  EXPECT_EQ(reg_read(-1), 0u);
}

}  // namespace
