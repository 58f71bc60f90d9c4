#include "cloud/ota.h"

#include <curl/curl.h>
#include <pthread.h>
#include <sodium.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "camera/livechannel.h"
#include "cloud/mqttclient.h"
#include "cloud/otapackage.h"
#include "core/utils.h"
#include "core/zelojson.h"
#include "platform/board.h"
#include "server/mediaserver.h"

namespace {

constexpr int kStateDownloading = 242;
constexpr int kStateDownloaded = 243;
constexpr int kStateInstalling = 244;
constexpr int kStateInstalled = 245;
constexpr int kStateFailed = 246;

constexpr size_t kUrlBuffer = 512;
constexpr char kHubImage[] = "/tmp/hub_upgrade.bin";
constexpr char kCameraDir[] = "/tmp/camera";
constexpr char kCameraImage[] = "/tmp/camera/camera.muz";
constexpr char kCaDir[] = "/etc/ssl/certs";
// Put back from /etc/zelo into /etc/config, in this order; the last two are optional, as at start.
struct Provisioning {
  const char* name;
  bool required;
};
constexpr Provisioning kProvisioning[] = {
    {"wifi.conf", true}, {"device.token", true}, {"device.country", false}, {"device.uid", false}};

std::atomic<bool> g_system_updating{false};
std::atomic<bool> g_camera_updating{false};
std::atomic<int> g_percent{0};

std::mutex g_timing_mutex;
ota::Timing g_timing;

bool FileExists(const std::string& board_path) {
  struct stat st;
  return stat(board_path.c_str(), &st) == 0;
}

// An update step failed: report it and let a new update start.
void Fail() {
  ReportOtaState(kStateFailed);
  SetSystemUpdating(false);
}

// A package that was not accepted leaves nothing behind in /tmp (memory on the hub).
void RemoveImages() {
  std::remove(platform::BoardPath(kHubImage).c_str());
  std::remove(platform::BoardPath(kCameraImage).c_str());
}

// A URL the download may fetch: http or https, printable, no blanks, fits the buffer.
bool AcceptableUrl(const char* url, std::string* why) {
  const size_t len = std::strlen(url);
  if (len >= kUrlBuffer) {
    *why = "longer than " + std::to_string(kUrlBuffer - 1) + " bytes";
    return false;
  }
  if (std::strncmp(url, "http://", 7) != 0 && std::strncmp(url, "https://", 8) != 0) {
    *why = "not http or https";
    return false;
  }
  for (size_t i = 0; i < len; i++) {
    const unsigned char c = static_cast<unsigned char>(url[i]);
    if (c <= ' ' || c >= 0x7f) {
      *why = "blank or control character";
      return false;
    }
  }
  return true;
}

// The signing key of the hub: 0 none configured, 1 read into key, -1 configured but unusable.
int ReadSigningKey(uint8_t key[ota::kPublicKeySize]) {
  const std::string path = platform::BoardPath(ota::kSigningKeyFile);
  FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) return FileExists(path) ? -1 : 0;
  char line[160] = {0};
  const bool got = std::fgets(line, sizeof(line), file) != nullptr;
  std::fclose(file);
  if (!got) return -1;
  size_t len = std::strcspn(line, "\r\n");
  line[len] = '\0';
  size_t bin_len = 0;
  if (len != 2 * ota::kPublicKeySize ||
      sodium_hex2bin(key, ota::kPublicKeySize, line, len, nullptr, &bin_len, nullptr) != 0 ||
      bin_len != ota::kPublicKeySize) {
    return -1;
  }
  return 1;
}

// What the download thread writes into.
struct Download {
  FILE* hub = nullptr;
  FILE* camera = nullptr;
  std::unique_ptr<ota::Splitter> splitter;
  ~Download() {
    if (hub != nullptr) std::fclose(hub);
    if (camera != nullptr) std::fclose(camera);
  }
  // Closes both files; false when a write could not be completed.
  bool Close() {
    bool ok = true;
    for (FILE** f : {&hub, &camera}) {
      if (*f != nullptr && std::fclose(*f) != 0) ok = false;
      *f = nullptr;
    }
    return ok;
  }
};

int CurlDebug(CURL*, curl_infotype type, char* data, size_t size, void*) {
  if (type == CURLINFO_TEXT) {
    while (size > 0 && (data[size - 1] == '\n' || data[size - 1] == '\r')) size--;
    TLOG(LOG_DEBUG) << "curl: " << std::string(data, size);
  }
  return 0;
}

// Fetches the package into the two files. 0, or -1 (logged).
int Fetch(const char* url, Download* dl) {
  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    TLOG(LOG_DEBUG) << "curl_easy_init curl error!!!";
    return -1;
  }
  const ota::Timing timing = ota::GetTiming();
  const std::string ca_dir = platform::BoardPath(kCaDir);
  char error[CURL_ERROR_SIZE] = {0};
  curl_easy_setopt(curl, CURLOPT_URL, url);
  curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_VERBOSE, 1L);
  curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, CurlDebug);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, timing.download_timeout_seconds);
  curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);  // an error page is no package
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, WriteFileCallback);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, dl->splitter.get());
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, ProgressCallback);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, nullptr);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);  // the name must match (1 means the same)
  curl_easy_setopt(curl, CURLOPT_CAPATH, ca_dir.c_str());
  curl_easy_setopt(curl, CURLOPT_CAINFO, nullptr);  // only the hub's CA folder
  const CURLcode res = curl_easy_perform(curl);
  if (res != CURLE_OK) {
    TLOG(LOG_DEBUG) << "curl error: " << curl_easy_strerror(res) << (error[0] ? ": " : "") << error;
  }
  long code = 0;
  double total_time = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
  curl_easy_getinfo(curl, CURLINFO_TOTAL_TIME, &total_time);
  TLOG(LOG_DEBUG) << "download response code: " << code << ", total time: " << total_time;
  curl_easy_cleanup(curl);
  if (res != CURLE_OK) {
    if (dl->splitter->Failed()) TLOG(LOG_DEBUG) << dl->splitter->error();
    return -1;
  }
  if (!dl->splitter->Complete()) {
    TLOG(LOG_DEBUG) << "download incomplete: hub " << dl->splitter->HubWritten() << " of "
                    << dl->splitter->header().hub_length << ", camera "
                    << dl->splitter->CameraWritten() << " of "
                    << dl->splitter->header().camera_length << " bytes";
    return -1;
  }
  return 0;
}

// Both images against the header's digests. 0 or -1.
int CheckDigests(const ota::PackageHeader& header) {
  std::printf("hub_total: %lu, cam_total: %lu, hub_md5: %s, cam_md5: %s\n",
              static_cast<unsigned long>(header.hub_length),
              static_cast<unsigned long>(header.camera_length), header.hub_md5.c_str(),
              header.camera_md5.c_str());
  char hub_md5[33] = {0};
  char cam_md5[33] = {0};
  utils::ComputeFileMd5(platform::BoardPath(kHubImage).c_str(), hub_md5);
  utils::ComputeFileMd5(platform::BoardPath(kCameraImage).c_str(), cam_md5);
  std::printf("hub_file_md5: %s, cam_file_md5: %s\n", hub_md5, cam_md5);
  std::fflush(stdout);
  TLOG(LOG_DEBUG) << "hub_md5: " << header.hub_md5 << ", hub_file_md5: " << hub_md5
                  << ", cam_md5: " << header.camera_md5 << ", cam_file_md5: " << cam_md5;
  if (header.hub_md5 != hub_md5 || header.camera_md5 != cam_md5) {
    TLOG(LOG_DEBUG) << "check file md5 error!!!";
    return -1;
  }
  return 0;
}

// With a signing key configured, the package must carry a signature that verifies. 0 or -1.
int CheckSignature(ota::Splitter* splitter) {
  uint8_t key[ota::kPublicKeySize];
  const int have = ReadSigningKey(key);
  if (have == 0) return 0;
  if (have < 0) {
    TLOG(LOG_DEBUG) << "signing key " << ota::kSigningKeyFile << " unreadable, package refused";
    return -1;
  }
  if (!splitter->VerifySignature(key)) {
    TLOG(LOG_DEBUG) << "check package signature error!!! " << splitter->error();
    return -1;
  }
  TLOG(LOG_DEBUG) << "package signature ok";
  return 0;
}

// Every connected camera fetches the image and comes back with another version. 0 or -1.
int UpgradeCameras() {
  struct Upgrade {
    std::shared_ptr<channel::LiveChannel> channel;
    int old_version;
    bool done;
  };
  std::vector<Upgrade> upgrades;
  server::MediaServer* server = server_play.load();
  if (server != nullptr) {
    for (const std::string& mac : server->LiveChannelMacs()) {
      auto ch = server->FindLiveChannel(mac);
      if (ch != nullptr && ch->IsConnected()) {
        upgrades.push_back({ch, ch->camera().GetStatus().soft_ver, false});
      }
    }
  }
  const std::string url = ota::CameraImageUrl();
  for (Upgrade& u : upgrades) {
    std::printf("camera %s version: %d\n", u.channel->mac().c_str(), u.old_version);
    TLOG(LOG_DEBUG) << "camera " << u.channel->mac() << " version: " << u.old_version
                    << ", upgrade from " << url;
    if (u.channel->UpgradeCamera(url) < 0) {
      TLOG(LOG_DEBUG) << "camera upgrade error!!! " << u.channel->mac() << " not reachable";
      return -1;
    }
  }
  std::fflush(stdout);
  const ota::Timing timing = ota::GetTiming();
  for (int poll = 0; poll < timing.camera_polls; poll++) {
    bool all = true;
    for (Upgrade& u : upgrades) {
      if (u.done) continue;
      const int version = u.channel->camera().GetStatus().soft_ver;
      TLOG(LOG_DEBUG) << "while ver: " << u.channel->mac() << " " << version;
      if (u.channel->UpgradeAnswer() < 0) {
        TLOG(LOG_DEBUG) << "camera upgrade error!!! " << u.channel->mac() << " refused";
        return -1;
      }
      if (version != u.old_version) {
        TLOG(LOG_DEBUG) << "camera " << u.channel->mac() << " now runs version " << version;
        u.done = true;
      } else {
        all = false;
      }
    }
    if (all) {
      TLOG(LOG_DEBUG) << "while break";
      TLOG(LOG_DEBUG) << "all camera upgrade ok!";
      return 0;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(timing.camera_poll_ms));
  }
  TLOG(LOG_DEBUG) << "camera upgrade error!!! no new version after " << timing.camera_polls
                  << " looks";
  return -1;
}

// The provisioning files back where the new firmware expects them. 0 or -1.
int CopyProvisioning() {
  for (const Provisioning& p : kProvisioning) {
    const std::string from = platform::BoardPath(std::string("/etc/zelo/") + p.name);
    const std::string to = platform::BoardPath(std::string("/etc/config/") + p.name);
    if (!p.required && !FileExists(from)) {
      TLOG(LOG_DEBUG) << "No " << p.name << " in /etc/zelo, nothing to copy";
      continue;
    }
    if (utils::CopyFile(from.c_str(), to.c_str()) != 0) {
      TLOG(LOG_DEBUG) << "Copy " << p.name << " to /etc/config fail, stop upgrade";
      return -1;
    }
  }
  return 0;
}

}  // namespace

int ProcMsgzeloOta(const char* msg) {
  TLOG(LOG_DEBUG) << "zeLO.ota msg: " << (msg != nullptr ? msg : "");
  char url[kUrlBuffer * 2] = {0};
  char md5[128] = {0};
  char install[64] = {0};
  if (json_get_param_string_value(msg, "app_url", url, sizeof(url)) != 0 ||
      json_get_param_string_value(msg, "file_md5", md5, sizeof(md5)) != 0 ||
      json_get_param_string_value(msg, "install", install, sizeof(install)) != 0) {
    TLOG(LOG_DEBUG) << "ProcMsgzeloOta, wrong format of zelo_ota command";
    return -1;
  }
  TLOG(LOG_DEBUG) << "url: " << url;
  TLOG(LOG_DEBUG) << "md5: " << md5;
  TLOG(LOG_DEBUG) << "install: " << install;
  if (MqttMsgAckOK(msg) != 0) {
    TLOG(LOG_DEBUG) << "ProcMsg_zeLO_ota, MqttMsgAckOK failed";
    return -1;
  }
  return UpgradeSystem(url, md5, install) < 0 ? -1 : 0;
}

int ProcMsgGetOtaState(const char* msg) {
  TLOG(LOG_DEBUG) << "zeLO.get_ota_state msg: " << (msg != nullptr ? msg : "");
  return 0;
}

int ProcMsgGetOtaProgress(const char* msg) {
  int id = 0;
  if (json_get_int_value(msg, "id", &id) != 0) {
    TLOG(LOG_DEBUG) << "[abnormal] msg without id";
    return -1;
  }
  char reply[64];
  std::snprintf(reply, sizeof(reply), "{\"id\":%d,\"result\":[%d]}", id, GetOtaPercent());
  TLOG(LOG_DEBUG) << "get ota percent ack: " << reply;
  return MqttCommandAck(reply) == 1 ? 0 : -1;
}

int UpgradeSystem(const char* url, const char* md5, const char* install) {
  (void)md5;
  (void)install;
  bool expected = false;
  if (!g_system_updating.compare_exchange_strong(expected, true)) {
    TLOG(LOG_DEBUG) << "System in updateing, the zelo_ota commond is ommitted";
    return 1;
  }
  std::string why;
  if (url == nullptr || !AcceptableUrl(url, &why)) {
    TLOG(LOG_DEBUG) << "Refused firmware url (" << why << ")";
    Fail();
    return -1;
  }
  ReportOtaState(kStateDownloading);
  g_percent.store(0);
  char* buffer = static_cast<char*>(std::calloc(kUrlBuffer, 1));
  if (buffer == nullptr) {
    Fail();
    return -1;
  }
  std::snprintf(buffer, kUrlBuffer, "%s", url);
  pthread_t thread;
  const int ret = pthread_create(&thread, nullptr, DownloadBin, buffer);
  if (ret != 0) {
    TLOG(LOG_ERR) << "download thread create ret: " << ret;
    std::free(buffer);
    Fail();
    return -1;
  }
  pthread_detach(thread);
  TLOG(LOG_DEBUG) << "download thread started";
  return 0;
}

void* DownloadBin(void* arg) {
  std::unique_ptr<char, decltype(&std::free)> url(static_cast<char*>(arg), std::free);
  struct Leave {
    ~Leave() { TLOG(LOG_DEBUG) << "exit download thread"; }
  } leave;
  Download dl;
  utils::CheckDirExist(platform::BoardPath(kCameraDir).c_str());
  dl.hub = std::fopen(platform::BoardPath(kHubImage).c_str(), "wb");
  if (dl.hub == nullptr) {
    TLOG(LOG_DEBUG) << "fopen hub download path error!!!";
    SetSystemUpdating(false);
    return nullptr;
  }
  dl.camera = std::fopen(platform::BoardPath(kCameraImage).c_str(), "wb");
  if (dl.camera == nullptr) {
    TLOG(LOG_DEBUG) << "fopen camera download path error!!!";
    SetSystemUpdating(false);
    return nullptr;
  }
  FILE* hub = dl.hub;
  FILE* camera = dl.camera;
  dl.splitter = std::make_unique<ota::Splitter>(
      [hub](const uint8_t* data, size_t n) { return std::fwrite(data, 1, n, hub) == n; },
      [camera](const uint8_t* data, size_t n) { return std::fwrite(data, 1, n, camera) == n; });

  const int fetched = Fetch(url.get(), &dl);
  const bool closed = dl.Close();
  if (fetched < 0 || !closed) {
    TLOG(LOG_DEBUG) << "download file failed!!!";
    RemoveImages();
    Fail();
    return nullptr;
  }
  if (CheckDigests(dl.splitter->header()) < 0 || CheckSignature(dl.splitter.get()) < 0) {
    RemoveImages();
    Fail();
    return nullptr;
  }
  ReportOtaState(kStateDownloaded);
  ReportOtaState(kStateInstalling);

  SetCameraUpdating(true);
  const int cameras = UpgradeCameras();
  SetCameraUpdating(false);
  if (cameras < 0) {
    Fail();
    return nullptr;
  }
  if (CopyProvisioning() < 0) {
    Fail();
    return nullptr;
  }
  ReportOtaState(kStateInstalled);
  std::this_thread::sleep_for(std::chrono::milliseconds(ota::GetTiming().sysupgrade_delay_ms));
  TLOG(LOG_DEBUG) << "copy zelo config to /etc/config ok! sysupgrade hub";
  const int status = platform::System(std::string("sysupgrade ") + platform::BoardPath(kHubImage));
  if (status != 0) {
    // sysupgrade does not come back when it flashes; coming back with an error means it did not
    TLOG(LOG_DEBUG) << "sysupgrade failed, status " << status;
    Fail();
  }
  return nullptr;
}

const char* OtaStateText(int code) {
  switch (code) {
    case kStateDownloading:
      return "downloading";
    case kStateDownloaded:
      return "downloaded";
    case kStateInstalling:
      return "installing";
    case kStateInstalled:
      return "installed";
    case kStateFailed:
      return "failed";
    default:
      return "idle";
  }
}

std::string OtaStateReport(int id, int code) {
  char report[128];
  std::snprintf(report, sizeof(report),
                "{\"id\":%d,\"method\":\"prop.ota_state\",\"params\":[\"%s\"]}", id,
                OtaStateText(code));
  return report;
}

int ReportOtaState(int code) {
  const int id = utils::generate_random_id();
  SetOtaStateReportId(id);
  return MqttReport(OtaStateReport(id, code).c_str());
}

void SetSystemUpdating(bool on) {
  g_system_updating.store(on);
}
bool IsSystemUpdating() {
  return g_system_updating.load();
}
void SetCameraUpdating(bool on) {
  g_camera_updating.store(on);
}
bool IsCameraUpdating() {
  return g_camera_updating.load();
}
int GetOtaPercent() {
  return g_percent.load();
}

size_t WriteFileCallback(void* buffer, size_t size, size_t count, void* context) {
  auto* splitter = static_cast<ota::Splitter*>(context);
  if (splitter == nullptr || (size != 0 && count > SIZE_MAX / size)) return 0;
  return splitter->Consume(static_cast<const uint8_t*>(buffer), size * count);
}

int ProgressCallback(void*, curl_off_t dltotal, curl_off_t dlnow, curl_off_t, curl_off_t) {
  if (dltotal > 0 && dlnow >= 0 && dlnow <= dltotal) {
    g_percent.store(static_cast<int>(dlnow * 100 / dltotal));
  }
  return 0;
}

namespace ota {

std::string CameraImageUrl() {
  std::string url = "http://" + platform::HubIp();
  const uint16_t port = platform::CameraHttpPort();
  if (port != 80) url += ":" + std::to_string(port);
  return url + "/camera.muz";
}

void SetTiming(const Timing& timing) {
  std::lock_guard<std::mutex> lock(g_timing_mutex);
  g_timing = timing;
}

Timing GetTiming() {
  std::lock_guard<std::mutex> lock(g_timing_mutex);
  return g_timing;
}

}  // namespace ota
