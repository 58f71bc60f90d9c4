#include "storage/pirupload.h"

#include <curl/curl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>

#include "base/log.h"
#include "camera/livechannel.h"
#include "core/utils.h"
#include "core/zelojson.h"
#include "platform/board.h"
#include "server/mediaserver.h"

std::vector<alarm_mgr_list*> alarm_list;
std::mutex alarm_mutex;

namespace {

constexpr int kTries = 3;
constexpr int kPolls = 25;
constexpr auto kIdle = std::chrono::milliseconds(100);
constexpr long kConnectTimeout = 15;
constexpr long kTotalTimeout = 60;
constexpr char kCaFolder[] = "/etc/ssl/certs";
// Encryption streams the file through this much memory, whatever its size.
constexpr size_t kCryptChunk = 64 * 1024;

std::atomic<int> g_poll_ms{200};
std::atomic<bool> g_stop{false};
std::atomic<bool> g_thread_running{false};

// Wakes the waits of the upload thread when the MQTT thread stores a URL or an acknowledgement.
std::mutex g_wake_mutex;
std::condition_variable g_wake;

std::mutex g_curl_mutex;
CURL* g_curl = nullptr;  // guarded by g_curl_mutex

std::atomic<AlarmReportFn> g_publish{nullptr};

int Publish(const char* text) {
  const AlarmReportFn publish = g_publish.load();
  if (publish == nullptr) {
    TLOG(LOG_DEBUG) << "No cloud link, not sent: " << text;
    return 0;
  }
  return publish(text);
}

void Wake() {
  std::lock_guard<std::mutex> lock(g_wake_mutex);
  g_wake.notify_all();
}

// Tests the flag, then up to kPolls more times after a poll interval each.
bool WaitFlag(const std::atomic<int>& flag) {
  if (flag.load(std::memory_order_acquire) != 0) return true;
  for (int i = 0; i < kPolls; i++) {
    std::unique_lock<std::mutex> lock(g_wake_mutex);
    g_wake.wait_for(lock, std::chrono::milliseconds(g_poll_ms.load()),
                    [&] { return flag.load(std::memory_order_acquire) != 0; });
    if (flag.load(std::memory_order_acquire) != 0) return true;
  }
  return false;
}

alarm_mgr_list* Head() {
  std::lock_guard<std::mutex> lock(alarm_mutex);
  return alarm_list.empty() ? nullptr : alarm_list.front();
}

// One file of a record: its fields and its log texts.
struct FileSlot {
  const char* suffix;  // "mp4", "jpeg"
  const char* name;    // "mp4", "pic" in the texts
  const char* path;
  std::atomic<int>& url_ready;
  char* url;
  char* obj_name;
  char* pwd;
};

FileSlot Mp4Slot(alarm_mgr_list* r) {
  return {"mp4", "mp4", r->mp4_path, r->mp4_url_ready, r->mp4_url, r->mp4_obj_name, r->mp4_pwd};
}
FileSlot PicSlot(alarm_mgr_list* r) {
  return {"jpeg", "pic", r->pic_path, r->pic_url_ready, r->pic_url, r->pic_obj_name, r->pic_pwd};
}

int RequestUrl(alarm_mgr_list* r, const char* suffix) {
  const int id = utils::generate_random_id();
  r->request_id.store(id);
  char text[160];
  std::snprintf(text, sizeof(text),
                "{\"id\":%d,\"method\":\"_sync.gen_presigned_url\",\"params\":{\"suffix\":\"%s\","
                "\"use_https\":true}}",
                id, suffix);
  return Publish(text);
}

int RequestUpload(alarm_mgr_list* r, const FileSlot& f) {
  const std::string path = platform::BoardPath(f.path);
  if (f.url_ready.load(std::memory_order_acquire) != 0) {
    // A retry: the file was encrypted for this URL already.
    const int code = zelo_alarm_upload(path.c_str(), f.url);
    TLOG(LOG_DEBUG) << "upload " << f.name << " response code2: " << code;
    return code == 200 ? 0 : -1;
  }
  RequestUrl(r, f.suffix);
  if (!WaitFlag(f.url_ready)) {
    TLOG(LOG_DEBUG) << "Get " << f.name << " url timeout failed " << r->mac;
    TLOG(LOG_DEBUG) << "get rpc " << f.name << " url fail";
    return -1;
  }
  TLOG(LOG_DEBUG) << "Get " << f.name << " url ok " << r->mac;
  if (aes_encrypt_file(path.c_str(), f.pwd) != 0) {
    TLOG(LOG_DEBUG) << "aes_encrypt_file " << f.name << " error";
    // The file is still plain: the next try asks for a URL again and encrypts then. The request
    // id goes too, so a late copy of the old reply cannot mark the URL known meanwhile.
    std::lock_guard<std::mutex> lock(alarm_mutex);
    f.url_ready.store(0);
    r->request_id.store(0);
    return -1;
  }
  const int code = zelo_alarm_upload(path.c_str(), f.url);
  TLOG(LOG_DEBUG) << "upload " << f.name << " response code1: " << code;
  return code == 200 ? 0 : -1;
}

// Object names and passwords go into the event report between quotes.
bool PlainText(const std::string& s) {
  for (unsigned char c : s) {
    if (c < 0x20 || c > 0x7E || c == '"' || c == '\\') return false;
  }
  return true;
}

bool ValidUrl(const std::string& url) {
  const bool scheme = url.compare(0, 7, "http://") == 0 || url.compare(0, 8, "https://") == 0;
  if (!scheme) return false;
  for (unsigned char c : url) {
    if (c <= 0x20 || c > 0x7E || c == '"' || c == '\\') return false;
  }
  return true;
}

// A string member of obj within max characters and of the right form; logs what is wrong.
bool GetField(json_object* obj, const char* key, size_t max, bool url, const char* error,
              std::string* out) {
  json_object* value = nullptr;
  if (!json_object_object_get_ex(obj, key, &value) || !zelojson::GetString(value, out)) {
    TLOG(LOG_DEBUG) << error;
    return false;
  }
  if (out->empty() || out->size() > max || (url ? !ValidUrl(*out) : !PlainText(*out))) {
    TLOG(LOG_DEBUG) << error << ": " << key << " of " << out->size()
                    << " characters refused (at most " << max << ")";
    return false;
  }
  return true;
}

bool WordOnly(const char* s) {
  if (*s == '\0') return false;
  for (; *s != '\0'; s++) {
    const unsigned char c = static_cast<unsigned char>(*s);
    if (!std::isalnum(c) && c != '_' && c != '-' && c != '.') return false;
  }
  return true;
}

// curl's verbose text goes to the log (headers and data do not).
int CurlDebug(CURL*, curl_infotype type, char* data, size_t size, void*) {
  if (type != CURLINFO_TEXT) return 0;
  while (size > 0 && (data[size - 1] == '\n' || data[size - 1] == '\r')) size--;
  TLOG(LOG_DEBUG) << "curl: " << std::string(data, std::min<size_t>(size, 300));
  return 0;
}

size_t read_file(char* buffer, size_t size, size_t count, void* file) {
  return std::fread(buffer, size, count, static_cast<FILE*>(file));
}

void* UploadThreadEntry(void* arg) {
  return upload_thread_function(arg);
}

}  // namespace

void SetAlarmReportPublisher(AlarmReportFn publish) {
  g_publish.store(publish);
}

int alarm_upload_init() {
  std::lock_guard<std::mutex> lock(g_curl_mutex);
  if (g_curl != nullptr) return 0;
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
    TLOG(LOG_DEBUG) << "curl_global_init failed";
    return -1;
  }
  g_curl = curl_easy_init();
  if (g_curl == nullptr) {
    TLOG(LOG_DEBUG) << "curl_easy_init failed";
    return -1;
  }
  return 0;
}

int alarm_upload_finish() {
  std::lock_guard<std::mutex> lock(g_curl_mutex);
  if (g_curl != nullptr) curl_easy_cleanup(g_curl);
  g_curl = nullptr;
  return 0;
}

int alarm_upload_lock_init() {
  return 0;  // the curl lock is a static mutex, ready before main
}

int InitPirUpload() {
  if (g_thread_running.exchange(true)) return 0;
  g_stop.store(false);
  pthread_t thread;
  if (pthread_create(&thread, nullptr, UploadThreadEntry, nullptr) != 0) {
    g_thread_running.store(false);
    TLOG(LOG_DEBUG) << "Create upload thread failed";
    return -1;
  }
  pthread_detach(thread);
  return 0;
}

void* upload_thread_function(void*) {
  TLOG(LOG_DEBUG) << "Create upload thread succeed ";
  while (!g_stop.load()) {
    alarm_mgr_list* record = Head();
    if (record == nullptr) {
      std::this_thread::sleep_for(kIdle);
      continue;
    }
    const std::string mac = record->mac;
    TLOG(LOG_DEBUG) << "start upload pir: " << mac;
    bool done = false;
    for (int n = 1; n <= kTries && !done; n++) {
      if (HandleAlarmFunc(record) == 0) {
        TLOG(LOG_DEBUG) << "handle alarm succeed... " << mac;
        done = true;
      } else {
        TLOG(LOG_DEBUG) << "handle alarm failed, retry: " << n;
      }
    }
    if (!done) TLOG(LOG_DEBUG) << "upload retry more than 3, but still fail";
    TryEraseAlarmLists(mac.c_str());
    std::this_thread::sleep_for(kIdle);
  }
  g_thread_running.store(false);
  return nullptr;
}

int InsertInAlarmLists(alarm_mgr_list* record) {
  if (record == nullptr) return -1;
  std::lock_guard<std::mutex> lock(alarm_mutex);
  alarm_list.push_back(record);
  return 0;
}

int IsCameraUploading(const std::string& mac) {
  std::lock_guard<std::mutex> lock(alarm_mutex);
  for (const alarm_mgr_list* r : alarm_list) {
    if (mac == r->mac) {
      TLOG(LOG_DEBUG) << "Camera " << mac << " still uploading";
      return 1;
    }
  }
  return 0;
}

int TryEraseAlarmLists(const char* mac) {
  if (mac == nullptr) return -1;
  alarm_mgr_list* erased = nullptr;
  {
    std::lock_guard<std::mutex> lock(alarm_mutex);
    auto it = std::find_if(alarm_list.begin(), alarm_list.end(), [mac](const alarm_mgr_list* r) {
      return std::strcmp(r->mac, mac) == 0;
    });
    if (it == alarm_list.end()) return -1;
    erased = *it;
    alarm_list.erase(it);
  }
  TLOG(LOG_DEBUG) << "Erase report mac " << mac << " in alarm_list succeed";
  OPENSSL_cleanse(erased->mp4_pwd, sizeof(erased->mp4_pwd));
  OPENSSL_cleanse(erased->pic_pwd, sizeof(erased->pic_pwd));
  delete erased;
  return 0;
}

size_t AlarmListSize() {
  std::lock_guard<std::mutex> lock(alarm_mutex);
  return alarm_list.size();
}

int GetUploadMp4Url(alarm_mgr_list* record) {
  return record != nullptr ? RequestUrl(record, "mp4") : 0;
}
int GetUploadPicUrl(alarm_mgr_list* record) {
  return record != nullptr ? RequestUrl(record, "jpeg") : 0;
}

int ParseUploadUrl(const char* msg) {
  int id = 0;
  if (msg == nullptr || json_get_int_value(msg, "id", &id) != 0) {
    TLOG(LOG_DEBUG) << "Msg without id";
    return -1;
  }
  zelojson::Doc doc(msg);
  if (doc.root() == nullptr) {
    TLOG(LOG_DEBUG) << " Not in json format";
    return -1;
  }
  json_object* result = doc.Get("result");
  if (result == nullptr || !json_object_is_type(result, json_type_object)) {
    TLOG(LOG_DEBUG) << "set_props error";
    return -1;
  }
  json_object* urls = nullptr;
  bool jpeg = json_object_object_get_ex(result, "jpeg", &urls) &&
              json_object_is_type(urls, json_type_object);
  if (!jpeg && !(json_object_object_get_ex(result, "mp4", &urls) &&
                 json_object_is_type(urls, json_type_object))) {
    TLOG(LOG_DEBUG) << "url_types error";
    return -1;
  }
  std::string url, obj_name, pwd;
  if (!GetField(urls, "url", kMaxUploadUrl, true, "url error", &url) ||
      !GetField(urls, "obj_name", kMaxObjectName, false, "obj_name error", &obj_name) ||
      !GetField(urls, "pwd", kMaxUploadPassword, false, "pwd error", &pwd)) {
    return -1;
  }

  std::lock_guard<std::mutex> lock(alarm_mutex);
  alarm_mgr_list* head = alarm_list.empty() ? nullptr : alarm_list.front();
  const int expected = head != nullptr ? head->request_id.load() : 0;
  if (head == nullptr || expected == 0 || id != expected) {
    TLOG(LOG_DEBUG) << "id is not equal mqtt_report_id: " << id << ", " << expected;
    return -1;
  }
  const FileSlot f = jpeg ? PicSlot(head) : Mp4Slot(head);
  if (f.url_ready.load() != 0) {
    TLOG(LOG_DEBUG) << "The " << f.name << " url of " << head->mac << " is known, reply dropped";
    return -1;
  }
  // Sizes were checked against the buffers above.
  std::memcpy(f.url, url.c_str(), url.size() + 1);
  std::memcpy(f.obj_name, obj_name.c_str(), obj_name.size() + 1);
  std::memcpy(f.pwd, pwd.c_str(), pwd.size() + 1);
  f.url_ready.store(1, std::memory_order_release);
  Wake();
  return 0;
}

void AckAlarmReport(int id) {
  {
    std::lock_guard<std::mutex> lock(alarm_mutex);
    if (alarm_list.empty()) return;
    alarm_mgr_list* head = alarm_list.front();
    if (id == 0 || head->request_id.load() != id) return;
    TLOG(LOG_DEBUG) << "This is upload motion succeed ack " << head->mac;
    head->event_acked.store(1, std::memory_order_release);
  }
  Wake();
}

int RequestUploadMp4(alarm_mgr_list* record) {
  return record != nullptr ? RequestUpload(record, Mp4Slot(record)) : -1;
}

int RequestUploadPic(alarm_mgr_list* record) {
  return record != nullptr ? RequestUpload(record, PicSlot(record)) : -1;
}

int UploadMotionAlarm(alarm_mgr_list* r) {
  if (r == nullptr) return -1;
  char event[64] = {0};
  if (utils::GetCameraEventByMac(r->mac, event, sizeof(event)) != 0 || !WordOnly(event)) {
    TLOG(LOG_DEBUG) << "motion_obj is null, stop motion alarm";
    return -1;
  }
  const int push = utils::GetIntConfig((std::string("p2p.") + r->mac + ".pushalarm").c_str());
  char method[80];
  std::snprintf(method, sizeof(method), "event.%s", event);
  char params[512];
  std::snprintf(params, sizeof(params), "[\"%s\",\"%s\",\"%s\",\"%s\",\"\",\"%d\"]",
                r->mp4_obj_name, r->mp4_pwd, r->pic_obj_name, r->pic_pwd, push);
  const int id = utils::generate_random_id();
  r->event_acked.store(0);
  r->request_id.store(id);
  char text[768];
  std::snprintf(text, sizeof(text), "{\"id\":%d,\"method\":\"%s\",\"params\":%s}", id, method,
                params);
  Publish(text);
  if (!WaitFlag(r->event_acked)) {
    TLOG(LOG_DEBUG) << "Upload motion failed!";
    return -1;
  }
  TLOG(LOG_DEBUG) << "Upload motion ok!";
  return 0;
}

int HandleAlarmFunc(alarm_mgr_list* r) {
  if (r == nullptr) return -1;
  TLOG(LOG_DEBUG) << "upload process mp4&&picture";
  if (r->pic_uploaded.load() == 0) {
    if (RequestUploadPic(r) != 0) {
      TLOG(LOG_DEBUG) << "try upload pic fail";
      return -1;
    }
    r->pic_uploaded.store(1);
  }
  if (r->mp4_uploaded.load() == 0) {
    if (RequestUploadMp4(r) != 0) {
      TLOG(LOG_DEBUG) << "try upload mp4 fail";
      return -1;
    }
    r->mp4_uploaded.store(1);
  }
  if (UploadMotionAlarm(r) != 0) {
    TLOG(LOG_DEBUG) << "upload sds fail " << r->mac;
    return -1;
  }
  TLOG(LOG_DEBUG) << "upload sds ok " << r->mac;
  // The camera's next event is spaced from now.
  server::MediaServer* server = server_play.load();
  if (server == nullptr) return 0;
  try {
    std::shared_ptr<channel::LiveChannel> live = server->GetLiveChannel(r->mac);
    if (channel::EventSink* events = live->event_sink()) {
      events->SetLastEventTime(utils::GetTimestamp());
    }
  } catch (const std::out_of_range& e) {
    // Uploads and report went through: the alarm is done even without its channel.
    TLOG(LOG_DEBUG) << "Msg Out of Range error: " << e.what();
  }
  return 0;
}

void alarm_aes_key(const char* password, unsigned char key[32]) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  const char* p = password != nullptr ? password : "";
  EVP_Digest(p, std::strlen(p), digest, &n, EVP_md5(), nullptr);
  static const char kHex[] = "0123456789abcdef";
  for (unsigned i = 0; i < 16; i++) {
    key[2 * i] = static_cast<unsigned char>(kHex[digest[i] >> 4]);
    key[2 * i + 1] = static_cast<unsigned char>(kHex[digest[i] & 0x0F]);
  }
  OPENSSL_cleanse(digest, sizeof(digest));
}

int my_aes_cbc_encrypt(const unsigned char key[32], unsigned char iv[16], unsigned char* data,
                       size_t len) {
  if (key == nullptr || iv == nullptr || (data == nullptr && len > 0) || len % 16 != 0 ||
      len > (1u << 30)) {
    return -1;
  }
  if (len == 0) return 0;
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  int out = 0;
  bool ok = ctx != nullptr && EVP_EncryptInit_ex(ctx, EVP_aes_256_cbc(), nullptr, key, iv) == 1;
  if (!ok) TLOG(LOG_DEBUG) << "AES_set_encrypt_key error";
  ok = ok && EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
       EVP_EncryptUpdate(ctx, data, &out, data, static_cast<int>(len)) == 1 &&
       static_cast<size_t>(out) == len;
  EVP_CIPHER_CTX_free(ctx);
  if (!ok) return -1;
  std::memcpy(iv, data + len - 16, 16);
  return 0;
}

int aes_encrypt_file(const char* path, const char* password) {
  if (path == nullptr || password == nullptr) return -1;
  struct stat st;
  if (stat(path, &st) != 0 || !S_ISREG(st.st_mode)) {
    TLOG(LOG_DEBUG) << "can't open the " << path << " file!";
    return -1;
  }
  if (st.st_size == 0) {
    TLOG(LOG_DEBUG) << "The file " << path << " size is zero";
    return -1;
  }
  std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[kCryptChunk]);
  if (!buffer) {
    TLOG(LOG_DEBUG) << "motion alarm malloc " << kCryptChunk << " Bytes fail!";
    return -1;
  }
  FILE* in = std::fopen(path, "rb");
  if (in == nullptr) {
    TLOG(LOG_DEBUG) << "can't open the " << path << " file!";
    return -1;
  }
  const std::string tmp = std::string(path) + ".aes";
  FILE* out = std::fopen(tmp.c_str(), "wb");
  if (out == nullptr) {
    TLOG(LOG_DEBUG) << "aes:can't open the " << tmp << " file!";
    std::fclose(in);
    return -1;
  }
  unsigned char key[32];
  unsigned char iv[16] = {0};
  alarm_aes_key(password, key);
  bool ok = true;
  uint64_t total = 0;
  while (ok) {
    size_t got = std::fread(buffer.get(), 1, kCryptChunk, in);
    if (got == 0) break;
    total += got;
    // Only the last piece can be short: zero padding to the block size, no length marker.
    const size_t padded = (got + 15) / 16 * 16;
    std::memset(buffer.get() + got, 0, padded - got);
    ok = my_aes_cbc_encrypt(key, iv, buffer.get(), padded) == 0 &&
         std::fwrite(buffer.get(), 1, padded, out) == padded;
    if (got < kCryptChunk) break;
  }
  ok = ok && !std::ferror(in) && total == static_cast<uint64_t>(st.st_size);
  OPENSSL_cleanse(key, sizeof(key));
  OPENSSL_cleanse(buffer.get(), kCryptChunk);
  std::fclose(in);
  ok = std::fclose(out) == 0 && ok;
  if (!ok || std::rename(tmp.c_str(), path) != 0) {
    TLOG(LOG_DEBUG) << "encrypt error";
    unlink(tmp.c_str());
    return -1;
  }
  return 0;
}

int zelo_alarm_upload(const char* path, const char* url) {
  if (path == nullptr || url == nullptr || !ValidUrl(url)) {
    TLOG(LOG_DEBUG) << "Upload refused: no file or not an http(s) URL";
    return -1;
  }
  FILE* file = std::fopen(path, "rb");
  if (file == nullptr) {
    TLOG(LOG_DEBUG) << "can't open the " << path << " file!";
    return -1;
  }
  struct stat st;
  if (fstat(fileno(file), &st) != 0) {
    std::fclose(file);
    return -1;
  }
  if (alarm_upload_init() != 0) {
    std::fclose(file);
    return -1;
  }
  const std::string ca = platform::BoardPath(kCaFolder);
  char error[CURL_ERROR_SIZE] = {0};
  int result;
  {
    std::lock_guard<std::mutex> lock(g_curl_mutex);
    CURL* curl = g_curl;
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);  // libcurl takes 1 as 2: name checked
    curl_easy_setopt(curl, CURLOPT_URL, url);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kConnectTimeout);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, kTotalTimeout);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, read_file);
    curl_easy_setopt(curl, CURLOPT_READDATA, file);
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, CurlDebug);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(st.st_size));
    // Trust is the CA folder alone, not a bundle built into the library.
    curl_easy_setopt(curl, CURLOPT_CAINFO, nullptr);
    curl_easy_setopt(curl, CURLOPT_CAPATH, ca.c_str());
    const CURLcode rc = curl_easy_perform(curl);
    if (rc == CURLE_OK) {
      long code = 0;
      curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
      result = static_cast<int>(code);
    } else {
      TLOG(LOG_DEBUG) << "Can not upload " << path << " to " << url << ": "
                      << (error[0] != '\0' ? error : curl_easy_strerror(rc)) << " ("
                      << static_cast<int>(rc) << ")";
      result = -static_cast<int>(rc);
    }
    curl_easy_reset(curl);
  }
  std::fclose(file);
  return result;
}

void SetAlarmPollIntervalForTest(int milliseconds) {
  g_poll_ms.store(milliseconds > 0 ? milliseconds : 200);
}

void StopPirUploadForTest() {
  g_stop.store(true);
  while (g_thread_running.load()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
}
