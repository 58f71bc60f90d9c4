#include "support/webserver.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <regex>
#include <sstream>

namespace testsupport {

namespace {

// Runs scripts/webserver.sh with args; its output lines, and whether it exited with 0.
bool RunScript(const std::vector<std::string>& args, std::vector<std::string>* lines) {
  std::vector<std::string> argv{"/bin/bash", SourcePath("scripts/webserver.sh")};
  argv.insert(argv.end(), args.begin(), args.end());
  Process script(argv, {});
  const int status = script.Wait(std::chrono::seconds(60));
  *lines = script.Lines();
  if (status == -1) {
    script.Signal(SIGKILL);
    script.Wait();
    return false;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// "METHOD TARGET STATUS SENT RECEIVED" as the script's log format writes it.
bool ParseLine(const std::string& line, WebRequest* out) {
  std::istringstream in(line);
  WebRequest r;
  if (!(in >> r.method >> r.target >> r.status >> r.sent >> r.received)) return false;
  r.path = r.target.substr(0, r.target.find('?'));
  r.line = line;
  *out = std::move(r);
  return true;
}

}  // namespace

std::string NginxPath() {
  for (const char* path : {"/usr/sbin/nginx", "/usr/bin/nginx", "/usr/local/sbin/nginx"}) {
    if (access(path, X_OK) == 0) return path;
  }
  return "";
}

WebServer::WebServer(WebServerOptions options) : options_(std::move(options)) {
  root_ = options_.root.empty() ? dir_.path() + "/www" : options_.root;
  std::filesystem::create_directories(root_);
}

WebServer::~WebServer() {
  Stop();
}

bool WebServer::Start() {
  if (Running()) return true;
  if (NginxPath().empty()) {
    ADD_FAILURE() << "nginx is not installed (scripts/install-deps.sh)";
    return false;
  }
  std::vector<std::string> args{"start", dir_.path(), "--root", root_,
                                options_.tls ? "--tls" : "--plain"};
  if (options_.put) args.push_back("--put");
  if (port_ != 0) {
    args.push_back("--port");
    args.push_back(std::to_string(port_));
  }
  std::vector<std::string> lines;
  const bool ok = RunScript(args, &lines);
  unsigned long port = 0;
  if (ok && !lines.empty()) port = std::strtoul(lines.back().c_str(), nullptr, 10);
  if (!ok || port == 0 || port > 65535) {
    ADD_FAILURE() << "the web server did not start:\n" << ::testing::PrintToString(lines);
    return false;
  }
  port_ = static_cast<uint16_t>(port);
  return true;
}

void WebServer::Stop() {
  if (!FileExists(dir_.path() + "/nginx.pid")) return;
  std::vector<std::string> lines;
  if (!RunScript({"stop", dir_.path()}, &lines)) {
    ADD_FAILURE() << "the web server did not stop:\n" << ::testing::PrintToString(lines);
  }
}

bool WebServer::Running() const {
  const std::string pid = ReadFile(dir_.path() + "/nginx.pid");
  const long n = std::strtol(pid.c_str(), nullptr, 10);
  // an ended master not yet reaped by its adoptive parent has an empty command line
  return n > 0 &&
         ReadFile("/proc/" + std::to_string(n) + "/cmdline").find(dir_.path() + "/nginx.conf") !=
             std::string::npos;
}

std::string WebServer::Url(const std::string& path) const {
  std::string url =
      (options_.tls ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port_);
  if (path.empty() || path[0] != '/') url += '/';
  return url + path;
}

std::string WebServer::CaPath() const {
  return dir_.path() + "/tls/ca.pem";
}

std::string WebServer::InstallCa(const std::string& dir) const {
  std::vector<std::string> lines;
  if (!RunScript({"install-ca", dir_.path(), dir}, &lines) || lines.empty()) {
    ADD_FAILURE() << "installing the test CA failed:\n" << ::testing::PrintToString(lines);
    return "";
  }
  return lines.back();
}

std::string WebServer::SwitchFile(const std::string& folder, const std::string& path) const {
  // Paths come from the test itself; still, a switch must stay inside the state folder.
  EXPECT_EQ(std::string::npos, path.find("..")) << path;
  const size_t start = path.find_first_not_of('/');
  return dir_.path() + "/" + folder + "/" + (start == std::string::npos ? "" : path.substr(start));
}

void WebServer::Switch(const std::string& file, bool on) {
  if (on) {
    WriteFile(file, "");
  } else {
    std::remove(file.c_str());
  }
}

void WebServer::FailAll(bool on) {
  Switch(dir_.path() + "/fail-all", on);
}
void WebServer::FailPath(const std::string& path, bool on) {
  Switch(SwitchFile("fail", path), on);
}
void WebServer::StallAll(bool on) {
  Switch(dir_.path() + "/stall-all", on);
}
void WebServer::StallPath(const std::string& path, bool on) {
  Switch(SwitchFile("stall", path), on);
}

std::vector<WebRequest> WebServer::Requests() const {
  std::vector<WebRequest> out;
  std::istringstream log(ReadFile(dir_.path() + "/access.log"));
  std::string line;
  // a last line without its newline is still being written
  while (std::getline(log, line) && !log.eof()) {
    WebRequest r;
    if (ParseLine(line, &r)) out.push_back(std::move(r));
  }
  return out;
}

int WebServer::CountRequests(const std::function<bool(const WebRequest&)>& match) const {
  int n = 0;
  for (const auto& r : Requests()) n += match(r) ? 1 : 0;
  return n;
}

std::optional<WebRequest> WebServer::WaitForRequest(
    const std::function<bool(const WebRequest&)>& match, std::chrono::milliseconds timeout) const {
  std::optional<WebRequest> found;
  WaitFor(
      [&] {
        for (auto& r : Requests()) {
          if (match(r)) {
            found = std::move(r);
            return true;
          }
        }
        return false;
      },
      timeout);
  return found;
}

std::optional<WebRequest> WebServer::WaitForRequest(const std::string& pattern,
                                                    std::chrono::milliseconds timeout) const {
  const std::regex re(pattern);
  return WaitForRequest([&](const WebRequest& r) { return std::regex_search(r.line, re); },
                        timeout);
}

}  // namespace testsupport
