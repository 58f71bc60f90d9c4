// A real local web server for tests: Debian's nginx driven by scripts/webserver.sh, on a loopback
// port, HTTPS with a test CA made by openssl (or plain HTTP), serving a folder and, when asked,
// taking PUT uploads. Tests read what it was asked from its access log and switch it to fail
// (HTTP 500) or stall. Everything it writes stays in a temporary folder of its own, removed with
// the object; the server is stopped when the object goes.
//
// Not thread-safe: one test thread drives it (the server itself is a separate process).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "support/testsupport.h"

namespace testsupport {

// One finished request, a line of the access log.
struct WebRequest {
  std::string method;      // "GET", "PUT", ...
  std::string target;      // the request URI as sent, query included
  std::string path;        // target without its query
  int status = 0;          // the answer's HTTP status
  long long sent = 0;      // bytes of the answer's body
  long long received = 0;  // bytes of the request: request line, headers and body
  std::string line;        // the line as logged
};

struct WebServerOptions {
  std::string root;  // folder served at "/"; empty: a folder of the server's own (root())
  bool tls = true;   // HTTPS (certificate for 127.0.0.1 and localhost) or plain HTTP
  bool put = false;  // accept PUT under /uploads/ (into uploads(), up to 64 MiB a file)
};

class WebServer {
 public:
  // Makes the state folder (and with TLS the test CA); does not start the server.
  explicit WebServer(WebServerOptions options = {});
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  // Starts nginx on a free loopback port (the same port again after a Stop) and waits until it
  // accepts connections. False, with the script's output as a test failure, when it does not.
  bool Start();
  // Stops it at once, cutting transfers under way; nothing to do when it is not running.
  void Stop();
  bool Running() const;

  uint16_t port() const { return port_; }
  // "https://127.0.0.1:PORT/path" (or http://); path may start with "/" or not.
  std::string Url(const std::string& path) const;
  // The test CA's certificate (PEM).
  std::string CaPath() const;
  // Copies the test CA into the CA folder dir (made if missing) under its OpenSSL hash name,
  // so libcurl with CURLOPT_CAPATH=dir trusts the server, e.g. a board's etc/ssl/certs/.
  // Returns the file written ("" with a test failure on error).
  std::string InstallCa(const std::string& dir) const;
  const std::string& root() const { return root_; }
  // PUT /uploads/NAME stores the body as uploads() + "/NAME" (folders made as needed).
  std::string uploads() const { return dir_.path() + "/uploads"; }

  // Switches, read by the server on every request, effective at once. Fail: the answer is
  // 500. Stall: the answer (status line and headers included) is sent at 1 byte per second,
  // so no client sees a complete answer for minutes; a stalled request's body is dropped.
  // A path switch applies to requests whose path (query not counted) is exactly path.
  void FailAll(bool on);
  void FailPath(const std::string& path, bool on);
  void StallAll(bool on);
  void StallPath(const std::string& path, bool on);

  // Every request finished so far, oldest first (a request is logged when its answer is done
  // or its connection is gone, so stalled requests show up only then).
  std::vector<WebRequest> Requests() const;
  int CountRequests(const std::function<bool(const WebRequest&)>& match) const;
  // Waits until a finished request matches (a predicate, or a regular expression searched in
  // the logged line "METHOD TARGET STATUS SENT RECEIVED"); returns the first that does.
  std::optional<WebRequest> WaitForRequest(
      const std::function<bool(const WebRequest&)>& match,
      std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  std::optional<WebRequest> WaitForRequest(
      const std::string& pattern,
      std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

 private:
  void Switch(const std::string& file, bool on);
  std::string SwitchFile(const std::string& folder, const std::string& path) const;

  TempDir dir_;
  WebServerOptions options_;
  std::string root_;
  uint16_t port_ = 0;
};

// The nginx program, or "" when it is not installed.
std::string NginxPath();

}  // namespace testsupport
