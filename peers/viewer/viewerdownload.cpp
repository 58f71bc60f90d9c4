#include "viewer/viewerdownload.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "core/zelojson.h"
#include "p2p/iotc.h"
#include "server/iotypes.h"
#include "viewer/viewersession.h"

namespace viewer {
namespace {

using Clock = std::chrono::steady_clock;

// Waits for the hub's download answer; other I/O-control messages are skipped. 0 with the text
// in *answer, or a negative code.
int WaitAnswer(p2p::Viewer& v, int timeout_ms, std::string* answer) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return AV_ER_TIMEOUT;
    p2p::ViewerIoCtrl io;
    const int rc = v.RecvIoCtrl(&io, static_cast<int>(left));
    if (rc < 0) return rc;
    if (io.type == server::IOTYPE_USER_IPCAM_RECORD_DOWNLOAD_RESP) {
      answer->assign(io.data.begin(), io.data.end());
      return 0;
    }
  }
}

// Reads the whole stream of an RDT channel into fd. The byte count, or a negative code.
long long ReadAll(p2p::Viewer& v, int id, int fd, int timeout_ms, std::string* error) {
  std::vector<char> buf(64 * 1024);
  long long got = 0;
  for (;;) {
    const int n = v.RdtRead(id, buf.data(), buf.size(), timeout_ms);
    if (n == RDT_ER_REMOTE_EXIT) return got;  // the hub has sent everything
    if (n < 0) {
      *error = "transfer ended after " + std::to_string(got) + " bytes, code " + std::to_string(n);
      return n;
    }
    size_t done = 0;
    while (done < static_cast<size_t>(n)) {
      const ssize_t w = write(fd, buf.data() + done, static_cast<size_t>(n) - done);
      if (w < 0 && errno == EINTR) continue;
      if (w < 0) {
        *error = std::string("write failed: ") + strerror(errno);
        return -1;
      }
      done += static_cast<size_t>(w);
    }
    got += n;
  }
}

int One(Session& session, const DownloadOptions& o, const std::string& kind,
        DownloadResult* result) {
  p2p::Viewer& v = session.transport();
  const std::string request = "{\"mac\":\"" + o.camera_mac +
                              "\",\"start\":" + std::to_string(o.start) + ",\"file\":\"" + kind +
                              "\",\"channel\":" + std::to_string(o.channel) + "}";
  int rc = session.SendIoCtrl(server::IOTYPE_USER_IPCAM_RECORD_DOWNLOAD, request);
  if (rc != 0) {
    result->error = "request not sent, code " + std::to_string(rc);
    return -1;
  }
  std::string answer;
  rc = WaitAnswer(v, o.timeout_ms, &answer);
  if (rc != 0) {
    result->error = "no answer, code " + std::to_string(rc);
    return -1;
  }
  int code = 0;
  if (json_get_int_value(answer.c_str(), "result", &code) != 0) {
    result->error = "malformed answer: " + answer;
    return -1;
  }
  if (code != 0) {
    result->refused = code;
    result->error = "refused " + kind + " result " + std::to_string(code);
    return -1;
  }
  DownloadedFile file;
  file.kind = kind;
  char name[80] = {0};
  zelojson::Doc doc(answer.c_str());
  json_object* size = doc.Get("size");
  if (json_get_string_value(answer.c_str(), "name", name, sizeof name) != 0 ||
      !IsPlainFileName(name) || size == nullptr || !json_object_is_type(size, json_type_int) ||
      json_object_get_int64(size) < 0) {
    result->error = "malformed answer: " + answer;
    return -1;
  }
  file.name = name;
  file.size = json_object_get_int64(size);
  file.path = o.dir + "/" + file.name;
  const std::string part = file.path + ".part";
  const int id = v.RdtCreate(o.channel, o.timeout_ms);
  if (id < 0) {
    result->error = "no RDT channel, code " + std::to_string(id);
    return -1;
  }
  const int fd = open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    result->error = "cannot write " + part + ": " + strerror(errno);
    v.RdtAbort(id);
    return -1;
  }
  const long long got = ReadAll(v, id, fd, o.timeout_ms, &result->error);
  const bool synced = fsync(fd) == 0;
  close(fd);
  v.RdtDestroy(id);
  if (got < 0 || !synced) {
    if (result->error.empty()) result->error = "cannot write " + part;
    unlink(part.c_str());
    return -1;
  }
  if (got != file.size) {
    result->error =
        kind + " came with " + std::to_string(got) + " of " + std::to_string(file.size) + " bytes";
    unlink(part.c_str());
    return -1;
  }
  if (rename(part.c_str(), file.path.c_str()) != 0) {
    result->error = "cannot rename " + part + ": " + strerror(errno);
    unlink(part.c_str());
    return -1;
  }
  result->files.push_back(file);
  return 0;
}

}  // namespace

bool IsPlainFileName(const std::string& name) {
  if (name.empty() || name.size() > 64 || name[0] == '.') return false;
  for (char c : name) {
    const bool ok = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                    c == '_' || c == '-' || c == '.';
    if (!ok) return false;
  }
  return true;
}

int Download(Session& session, const DownloadOptions& options, DownloadResult* result) {
  for (const std::string& kind : options.files) {
    if (One(session, options, kind, result) != 0) return -1;
  }
  return 0;
}

}  // namespace viewer
