#include "support/viewers.h"

#include <chrono>
#include <map>
#include <utility>

namespace testsupport {

HeldViewer::~HeldViewer() {
  Stop();
}

int HeldViewer::Open(const viewer::AppCredentials& creds, uint16_t port) {
  viewer::SessionOptions options;
  options.port = port;
  const int rc = session_.Connect(creds, options);
  return rc != 0 ? rc : session_.Login(creds, options);
}

void HeldViewer::Read(FrameHandler frame, IoCtrlHandler ioctrl) {
  thread_ = std::thread([this, frame = std::move(frame), ioctrl = std::move(ioctrl)] {
    viewer::Handlers h;
    h.frame = [&](const p2p::ViewerFrame& f) {
      std::vector<uint8_t> plain;
      viewer::FrameInfo info;
      if (viewer::ParseFrameInfo(f.info, &info) != 0 ||
          viewer::DecryptFrame(f, session_.key(), &plain) != 0 || !info.encrypted) {
        undecodable_++;
        return;
      }
      if (frame) frame(f.video, info, std::move(plain));
    };
    h.ioctrl = ioctrl;
    session_.Hold(std::chrono::steady_clock::time_point::max(), stop_, h);
  });
}

void HeldViewer::Stop() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
}

bool WaitForAppCredentials(Process& hub, const std::string& file, viewer::AppCredentials* creds) {
  if (hub.WaitForLine("first report tutk info ok$", std::chrono::seconds(30)).empty()) return false;
  std::string error;
  return WaitFor([&] {
    return viewer::LoadCredentials(file, creds, &error) == 0 &&
           creds->password == hub.LastMatch("MakeNewAvPass: ([0-9]{6})$");
  });
}

std::unique_ptr<Process> ViewerTool(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {BinPath("tarvo-viewer")};
  argv.insert(argv.end(), args.begin(), args.end());
  return std::make_unique<Process>(argv, std::map<std::string, std::string>{});
}

std::unique_ptr<Process> ViewerTool(const std::string& credentials, uint16_t port,
                                    const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"--credentials", credentials, "--port", std::to_string(port)};
  argv.insert(argv.end(), args.begin(), args.end());
  return ViewerTool(argv);
}

}  // namespace testsupport
