// The simulated camera's firmware upgrade: fetching the image over HTTP on a thread of its own,
// checking it, acknowledging, and restarting into the image's version.
#include <curl/curl.h>

#include "camsim/camsimcamera.h"
#include "camsim/camsimimage.h"

namespace camsim {

namespace {

// Fetches a firmware image over HTTP; stops early when stop is set. 0, or -1 with the reason.
int FetchImage(const std::string& url, const std::atomic<bool>& stop, std::string* image,
               std::string* why) {
  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    *why = "curl_easy_init failed";
    return -1;
  }
  struct Sink {
    std::string* image;
    const std::atomic<bool>* stop;
  } sink{image, &stop};
  auto write = +[](char* data, size_t size, size_t count, void* user) -> size_t {
    auto* k = static_cast<Sink*>(user);
    if (k->image->size() + size * count > kMaxImage) return 0;
    k->image->append(data, size * count);
    return size * count;
  };
  auto progress = +[](void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) -> int {
    return static_cast<Sink*>(user)->stop->load() ? 1 : 0;
  };
  char error[CURL_ERROR_SIZE] = {0};
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, kUpgradeFetchSeconds);
  curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, write);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, progress);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &sink);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  const CURLcode res = curl_easy_perform(curl);
  long code = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
  curl_easy_cleanup(curl);
  if (res != CURLE_OK) {
    *why = "fetching " + url + " failed: " + (error[0] ? error : curl_easy_strerror(res));
    return -1;
  }
  if (code != 200) {
    *why = "fetching " + url + " gave HTTP " + std::to_string(code);
    return -1;
  }
  return 0;
}

}  // namespace

void Camera::Impl::StartUpgrade(const std::string& url, const _net_cmd_type* command) {
  if (upgrade_thread_.joinable()) upgrade_thread_.join();  // the last one has ended
  std::vector<uint8_t> copy(command->Bytes(), command->Bytes() + command->FrameSize());
  Log("upgrade from " + url + ": fetching");
  upgrading_.store(true);
  upgrade_thread_ = std::thread([this, url, copy] {
    std::string image, why;
    int version = -1;
    if (FetchImage(url, stop_, &image, &why) == 0) {
      version = ImageVersion(image);
      if (version < 0) why = url + " is no camera image";
    }
    Call([&] {
      FinishUpgrade(copy, version, why);
      return 0;
    });
    upgrading_.store(false);
  });
}

void Camera::Impl::FinishUpgrade(const std::vector<uint8_t>& command, int version,
                                 const std::string& why) {
  const _net_cmd_type* frame = command::AsFrame(command.data());
  if (version < 0) {
    Log("upgrade failed: " + why);
    Update([&](Stats& s) { s.upgrade_error = why; });
    Ack(frame, false);
    return;
  }
  Ack(frame, true);
  Log("upgrade to firmware version " + std::to_string(version) + " fetched, restarting");
  DoDisconnect();
  rebooting_ = true;
  reboot_version_ = version;
  reboot_at_ = Clock::now() + behaviour_.reboot;
}

}  // namespace camsim
