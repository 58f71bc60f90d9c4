// Viewers of a daemon under test: the credentials the cloud agent writes for them, the viewer
// tool as a process, and viewers in the test's own process.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/testsupport.h"
#include "viewer/viewerframe.h"
#include "viewer/viewersession.h"

namespace testsupport {

// Waits until the agent's credentials file holds the P2P password the hub reported last (once
// the cloud is connected); the credentials in *creds. False when that does not happen in time.
bool WaitForAppCredentials(Process& hub, const std::string& file, viewer::AppCredentials* creds);

// tarvo-viewer with args; with a credentials file and port, "--credentials FILE --port N" first.
std::unique_ptr<Process> ViewerTool(const std::vector<std::string>& args);
std::unique_ptr<Process> ViewerTool(const std::string& credentials, uint16_t port,
                                    const std::vector<std::string>& args);

// A viewer in this process, as tests run several of them beside the daemon: a session logged in
// to the hub and held on a thread of its own once Read starts it. Every frame is decrypted with
// the session's key and handed on with its information; one that does not parse, does not
// decrypt or went out in the clear is only counted. The handlers run on the viewer's thread;
// the owner stops the viewer before what they touch goes.
class HeldViewer {
 public:
  using FrameHandler =
      std::function<void(bool video, const viewer::FrameInfo& info, std::vector<uint8_t> plain)>;
  using IoCtrlHandler = std::function<void(const p2p::ViewerIoCtrl&)>;

  HeldViewer() = default;
  ~HeldViewer();  // stops
  HeldViewer(const HeldViewer&) = delete;
  HeldViewer& operator=(const HeldViewer&) = delete;

  // Connects to the hub's P2P port and logs in. 0, or the code of the step that failed.
  int Open(const viewer::AppCredentials& creds, uint16_t port);
  // Holds the session on the viewer's thread from now on (once only).
  void Read(FrameHandler frame, IoCtrlHandler ioctrl = nullptr);
  // Ends the hold and joins the thread; the session stays open.
  void Stop();

  int Send(uint32_t type, const std::string& payload) { return session_.SendIoCtrl(type, payload); }
  int undecodable() const { return undecodable_.load(); }
  viewer::Session& session() { return session_; }

 private:
  viewer::Session session_;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::atomic<int> undecodable_{0};
};

}  // namespace testsupport
