// The crypto state under threads, as the hub uses it: camera threads encrypting frames for
// several viewers into the shared work buffers while viewers log in and out of their slots.
// ThreadSanitizer runs this program.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "core/configuration.h"
#include "crypto/hubauth.h"
#include "crypto/stream_decrypt.h"
#include "crypto/stream_encrypt.h"
#include "crypto/viewerlogin.h"
#include "platform/board.h"
#include "platform/boardmaker.h"
#include "support/testsupport.h"

namespace {

const std::string kDeviceKey = "TarvoDeviceKey01";
const std::string kToken = "tarvo-device-token-0001";

class CryptoThreads : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static testsupport::TempDir dir;
    const std::string root = dir.path() + "/root";
    std::string error;
    ASSERT_EQ(0, platform::MakeBoardRoot(root, platform::BoardOptions(), &error)) << error;
    platform::SetRootForTest(root);
    testsupport::WriteFile(root + "/etc/zelo/device.token", kToken + "\n");
    Configuration::getInstance().SetDeviceKey(kDeviceKey);
    ASSERT_EQ(0, libsodium_init());
  }
};

std::vector<unsigned char> SliceFrame(size_t slices, size_t len, unsigned seed) {
  std::vector<unsigned char> frame;
  for (size_t s = 0; s < slices; s++) {
    frame.insert(frame.end(), {0, 0, 0, 1, 0x65});
    for (size_t i = 1; i < len; i++) frame.push_back(static_cast<unsigned char>(0x80 | (i + seed)));
  }
  return frame;
}

TEST_F(CryptoThreads, CamerasShareTheWorkBuffersWhileViewersLogIn) {
  // Every slot starts with a viewer.
  std::vector<app_key_pair> apps(kClientKeySlots);
  for (int slot = 0; slot < kClientKeySlots; slot++) {
    make_app_key_pair(&apps[slot]);
    const std::string text =
        make_login_text("v", kDeviceKey, kToken, get_dev_pub_key(), apps[slot]);
    ASSERT_EQ(1, AuthCallBackFn(slot, "v", text.c_str()));
  }

  std::atomic<bool> stop{false};
  std::atomic<int> bad{0};
  std::atomic<int> frames{0};
  // Viewers logging in again and again, each into its own slot.
  std::vector<std::thread> logins;
  for (int slot = 0; slot < kClientKeySlots; slot++) {
    logins.emplace_back([&, slot] {
      while (!stop.load()) {
        app_key_pair app;
        make_app_key_pair(&app);
        const std::string text = make_login_text("v", kDeviceKey, kToken, get_dev_pub_key(), app);
        if (AuthCallBackFn(slot, "v", text.c_str()) != 1) bad++;
      }
    });
  }
  // Cameras forwarding video and audio to all four slots through the shared buffers.
  std::vector<std::thread> cameras;
  for (unsigned camera = 0; camera < 3; camera++) {
    cameras.emplace_back([&, camera] {
      const std::vector<unsigned char> frame = SliceFrame(3, 3000 + camera * 100, camera);
      const std::vector<unsigned char> audio(320, static_cast<unsigned char>(camera));
      std::vector<unsigned char> plain(frame.size());
      for (int n = 0; n < 60; n++) {
        {
          std::lock_guard<std::mutex> hold(encrypto_video.mutex);
          if (get_nalu_info(frame.data(), static_cast<unsigned>(frame.size()),
                            &encrypto_video.nalu) != 0) {
            bad++;
          }
          for (int slot = 0; slot < kClientKeySlots; slot++) {
            unsigned char key[kShareKeyBytes];
            unsigned out_len = 0;
            if (client_encrypt_info.Get(slot, key) != 0 ||
                video_chacha20_encrypt(frame.data(), static_cast<unsigned>(frame.size()), key,
                                       &out_len, &encrypto_video.nalu, encrypto_video.data,
                                       encrypto_video.capacity) != 0 ||
                video_chacha20_decrypt(encrypto_video.data, out_len, key, plain.data(),
                                       plain.size()) != static_cast<int>(frame.size()) ||
                plain != frame) {
              bad++;
            }
          }
        }
        std::lock_guard<std::mutex> hold(encrypto_audio.mutex);
        for (int slot = 0; slot < kClientKeySlots; slot++) {
          unsigned char key[kShareKeyBytes];
          unsigned char back[320];
          if (client_encrypt_info.Get(slot, key) != 0 ||
              audio_chacha20_encrypt(reinterpret_cast<const char*>(audio.data()), 320, key,
                                     encrypto_audio.data, encrypto_audio.capacity) == nullptr ||
              audio_chacha20_decrypt(encrypto_audio.data, 328, key, back, sizeof(back)) != 320 ||
              std::memcmp(back, audio.data(), 320) != 0) {
            bad++;
          }
        }
        frames++;
      }
    });
  }
  for (auto& t : cameras) t.join();
  stop.store(true);
  for (auto& t : logins) t.join();
  EXPECT_EQ(0, bad.load());
  EXPECT_EQ(180, frames.load());
}

}  // namespace
