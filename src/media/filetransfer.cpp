#include "media/filetransfer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "base/log.h"
#include "core/zelojson.h"
#include "p2p/iotc.h"
#include "platform/uci.h"

namespace filetransfer {
namespace {

// The answer's I/O-control type (server/iotypes.h names it too).
constexpr unsigned kAnswerType = 0xF011;
constexpr int kRdtOpenTimeoutMs = 10000;  // for the viewer's RDT end after the answer
constexpr size_t kPiece = 64 * 1024;      // bytes read from the card and written per turn
constexpr int kMaxCameras = 64;

struct Transfer {
  std::thread thread;
  std::mutex mu;    // guards rdt_id and stopping
  int rdt_id = -1;  // while the thread writes on it
  bool stopping = false;
  bool aborted = false;  // filetransfer_stop aborted rdt_id
  std::atomic<bool> finished{false};
};

std::mutex g_mu;  // guards g_locator and the tables; never held during I/O
FileLocator g_locator = nullptr;

// The transfer of each session, and stopped transfers whose thread had not yet got its RDT
// channel (it ends by itself once the session is closed). Never destroyed: the daemon may end
// while a thread runs.
std::map<int, std::unique_ptr<Transfer>>& Transfers() {
  static auto* table = new std::map<int, std::unique_ptr<Transfer>>();
  return *table;
}
std::vector<std::unique_ptr<Transfer>>& Stopped() {
  static auto* list = new std::vector<std::unique_ptr<Transfer>>();
  return *list;
}

// Takes the stopped transfers whose thread has ended, to be joined without g_mu.
std::vector<std::unique_ptr<Transfer>> TakeEnded() {
  std::vector<std::unique_ptr<Transfer>> ended;
  auto& stopped = Stopped();
  for (auto it = stopped.begin(); it != stopped.end();) {
    if ((*it)->finished) {
      ended.push_back(std::move(*it));
      it = stopped.erase(it);
    } else {
      ++it;
    }
  }
  return ended;
}

void Join(std::vector<std::unique_ptr<Transfer>>& ended) {
  for (auto& t : ended)
    if (t->thread.joinable()) t->thread.join();
}

bool IsHexMac(const std::string& mac) {
  if (mac.size() != 12) return false;
  for (char c : mac)
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  return true;
}

bool IsKnownCamera(const std::string& mac) {
  char list[kMaxCameras][kUciSectionNameLen] = {};
  const int n = zcfg_uci_get_section_list("p2p", list, kMaxCameras);
  for (int i = 0; i < n; ++i)
    if (mac == list[i]) return true;
  return false;
}

void Reply(int av_index, const std::string& text) {
  const int rc = avSendIOCtrl(av_index, kAnswerType, text.c_str(), static_cast<int>(text.size()));
  if (rc < 0) TLOG(LOG_DEBUG) << "download answer not sent, code: " << rc;
}

const char* BaseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

// Opens the located file for reading without following a link in its last part. The fd, or
// -1 with the reason logged.
int OpenRegular(const char* path, long long* size) {
  const int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    TLOG(LOG_WARNING) << "download: cannot open " << path << ": " << strerror(errno);
    return -1;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    TLOG(LOG_WARNING) << "download: " << path << " is not a regular file";
    close(fd);
    return -1;
  }
  *size = static_cast<long long>(st.st_size);
  return fd;
}

// Locates and opens the requested file. The fd (and *size, *path), or -1 with the answer's
// result in *result and the reason logged.
int Locate(int sid, const Request& req, FileLocator locator, long long* size, std::string* path,
           int* result) {
  char found_path[256] = {0};
  long start = req.start;
  std::vector<char> ext(req.ext.begin(), req.ext.end());
  ext.push_back('\0');
  std::vector<char> mac(req.mac.begin(), req.mac.end());
  mac.push_back('\0');
  const int found = locator(found_path, &start, ext.data(), mac.data());
  if (found != 0) {
    *result = found == -2 ? kNotFound : kNoCard;
    TLOG(LOG_WARNING) << "download request of session " << sid << " refused: " << req.mac << " "
                      << req.start << "." << req.ext
                      << (found == -2 ? " is not on the card" : ": the card cannot be read");
    return -1;
  }
  const int fd = OpenRegular(found_path, size);
  if (fd < 0) {
    *result = kNoCard;
    return -1;
  }
  *path = found_path;
  return fd;
}

// The transfer thread: RDT channel, the file's bytes, the channel's end.
void Run(int sid, int channel, int fd, long long size, std::string path, Transfer* t) {
  const int id = RDT_Create(sid, kRdtOpenTimeoutMs, channel);
  bool stopped = false;
  {
    std::lock_guard<std::mutex> lock(t->mu);
    stopped = t->stopping;
    if (id >= 0 && !stopped) t->rdt_id = id;
  }
  if (id < 0) {
    TLOG(LOG_WARNING) << "download for session " << sid << ": no RDT channel " << channel
                      << ", code: " << id;
    close(fd);
    t->finished = true;
    return;
  }
  long long sent = 0;
  int rc = 0;
  std::vector<char> piece(kPiece);
  while (!stopped && sent < size) {
    const ssize_t n = read(fd, piece.data(), piece.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      TLOG(LOG_WARNING) << "download: reading " << path << " failed after " << sent << " bytes";
      rc = -1;
      break;
    }
    rc = RDT_Write(id, piece.data(), static_cast<int>(n));
    if (rc < 0) break;
    sent += n;
    std::lock_guard<std::mutex> lock(t->mu);
    stopped = t->stopping;
  }
  close(fd);
  bool ended_by_stop = false;
  {
    std::lock_guard<std::mutex> lock(t->mu);
    stopped = stopped || t->stopping;
    // filetransfer_stop has aborted the channel itself (its ID may already be another's).
    ended_by_stop = t->aborted;
    t->rdt_id = -1;
  }
  if (stopped || rc < 0 || sent != size) {
    // The viewer must not take a short file for a whole one.
    if (!ended_by_stop) RDT_Abort(id);
    TLOG(LOG_INFO) << "download for session " << sid << " of " << path << " ended after " << sent
                   << " of " << size << " bytes" << (stopped ? " (session closing)" : "")
                   << (rc < 0 ? ", code: " + std::to_string(rc) : "");
  } else {
    RDT_Destroy(id);
    TLOG(LOG_INFO) << "download for session " << sid << " of " << path << " done, " << size
                   << " bytes";
  }
  t->finished = true;
}

}  // namespace

bool ParseRequest(const char* payload, Request* out, std::string* why) {
  if (payload == nullptr || json_verify(payload) != 0) {
    *why = "not JSON";
    return false;
  }
  zelojson::Doc doc(payload);
  json_object* mac = doc.Get("mac");
  json_object* start = doc.Get("start");
  json_object* file = doc.Get("file");
  json_object* channel = doc.Get("channel");
  if (mac == nullptr || !json_object_is_type(mac, json_type_string) ||
      !IsHexMac(json_object_get_string(mac))) {
    *why = "\"mac\" must be twelve hexadecimal digits";
    return false;
  }
  out->mac = json_object_get_string(mac);
  for (char& c : out->mac) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  if (start == nullptr || !json_object_is_type(start, json_type_int)) {
    *why = "\"start\" must be an integer";
    return false;
  }
  const int64_t t = json_object_get_int64(start);
  if (t < 1 || t > 4294967295LL) {
    *why = "\"start\" out of range";
    return false;
  }
  out->start = static_cast<long>(t);
  const std::string kind = file != nullptr && json_object_is_type(file, json_type_string)
                               ? json_object_get_string(file)
                               : "";
  if (kind == "mp4") {
    out->ext = "mp4";
  } else if (kind == "jpeg" || kind == "jpg") {
    out->ext = "jpeg";
  } else {
    *why = "\"file\" must be \"mp4\" or \"jpg\"";
    return false;
  }
  if (channel == nullptr || !json_object_is_type(channel, json_type_int) ||
      json_object_get_int64(channel) < 1 || json_object_get_int64(channel) > 31) {
    *why = "\"channel\" must be 1..31";
    return false;
  }
  out->channel = static_cast<int>(json_object_get_int64(channel));
  return true;
}

std::string Answer(const Request& r, int result, long long size, const std::string& name) {
  std::string text = "{\"result\":" + std::to_string(result) + ",\"mac\":\"" + r.mac +
                     "\",\"start\":" + std::to_string(r.start) + ",\"file\":\"" +
                     (r.ext.empty()    ? ""
                      : r.ext == "mp4" ? "mp4"
                                       : "jpg") +
                     "\"";
  if (result == kOk) text += ",\"size\":" + std::to_string(size) + ",\"name\":\"" + name + "\"";
  return text + "}";
}

}  // namespace filetransfer

using namespace filetransfer;

void filetransfer_set_locator(FileLocator locator) {
  std::lock_guard<std::mutex> lock(g_mu);
  g_locator = locator;
}

int filetransfer_request(int sid, int avIndex, const char* payload) {
  Request req;
  std::string why;
  if (!ParseRequest(payload, &req, &why)) {
    TLOG(LOG_WARNING) << "download request of session " << sid << " refused: " << why;
    Reply(avIndex, Answer(req, kBadRequest, 0, ""));
    return -1;
  }
  if (!IsKnownCamera(req.mac)) {
    TLOG(LOG_WARNING) << "download request of session " << sid << " refused: unknown camera "
                      << req.mac;
    Reply(avIndex, Answer(req, kUnknownCamera, 0, ""));
    return -1;
  }
  std::unique_ptr<Transfer> done;
  std::unique_lock<std::mutex> lock(g_mu);
  auto ended = TakeEnded();
  auto it = Transfers().find(sid);
  if (it != Transfers().end()) {
    if (!it->second->finished) {
      lock.unlock();
      Join(ended);
      TLOG(LOG_WARNING) << "download request of session " << sid
                        << " refused: a download is already running";
      Reply(avIndex, Answer(req, kBusy, 0, ""));
      return -1;
    }
    done = std::move(it->second);
    Transfers().erase(it);
  }
  const FileLocator locator = g_locator;
  lock.unlock();
  Join(ended);
  if (done && done->thread.joinable()) done->thread.join();
  if (locator == nullptr) {
    TLOG(LOG_WARNING) << "download request of session " << sid << " refused: no card index";
    Reply(avIndex, Answer(req, kNoCard, 0, ""));
    return -1;
  }
  // Located and opened here, so the answer goes out on this session's own channel; the bytes
  // then flow on the transfer thread.
  long long size = 0;
  std::string path;
  int result = kOk;
  const int fd = Locate(sid, req, locator, &size, &path, &result);
  if (fd < 0) {
    Reply(avIndex, Answer(req, result, 0, ""));
    return -1;
  }
  Reply(avIndex, Answer(req, kOk, size, BaseName(path.c_str())));
  auto t = std::make_unique<Transfer>();
  try {
    t->thread = std::thread(Run, sid, req.channel, fd, size, path, t.get());
  } catch (const std::system_error& e) {
    close(fd);
    TLOG(LOG_ERR) << "download thread cannot start: " << e.what();
    return -1;
  }
  TLOG(LOG_DEBUG) << "download for session " << sid << ": " << req.mac << " " << req.start << "."
                  << req.ext << " on RDT channel " << req.channel;
  lock.lock();
  Transfers()[sid] = std::move(t);
  return 0;
}

int filetransfer_stop(int sid) {
  std::unique_ptr<Transfer> t;
  std::vector<std::unique_ptr<Transfer>> ended;
  {
    std::lock_guard<std::mutex> lock(g_mu);
    ended = TakeEnded();
    auto it = Transfers().find(sid);
    if (it != Transfers().end()) {
      t = std::move(it->second);
      Transfers().erase(it);
    }
  }
  Join(ended);
  if (t == nullptr) return -1;
  bool writing = false;
  {
    std::lock_guard<std::mutex> lock(t->mu);
    t->stopping = true;
    // Ends a write that waits for credit; the thread then ends at its next turn.
    if (t->rdt_id >= 0) {
      RDT_Abort(t->rdt_id);
      t->aborted = true;
      writing = true;
    }
  }
  if (writing || t->finished) {
    if (t->thread.joinable()) t->thread.join();
    TLOG(LOG_DEBUG) << "download of session " << sid << " stopped";
  } else {
    // Still waiting for the viewer's RDT end: that wait ends when the session closes, right
    // after this; the thread is joined later.
    TLOG(LOG_DEBUG) << "download of session " << sid << " stopped before its transfer began";
    std::lock_guard<std::mutex> lock(g_mu);
    Stopped().push_back(std::move(t));
  }
  return 0;
}
