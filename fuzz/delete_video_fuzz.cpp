// "deleteVideo" on arbitrary params (or an arbitrary whole message when the input starts with
// "{"): a request that passes the check names a paired camera's MAC and start times only, and
// the handler, on a board without a card, never gets further than the card status.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "base/log.h"
#include "cloud/storagecmd.h"
#include "platform/board.h"
#include "platform/boardmaker.h"

namespace {
std::string g_board;
void RemoveBoard() {
  std::error_code ec;
  std::filesystem::remove_all(g_board, ec);
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool ready = [] {
    tlog::SetLevel(-1);  // no log records
    char dir[] = "/tmp/tarvo-delete-fuzz-XXXXXX";
    if (mkdtemp(dir) == nullptr) std::abort();
    platform::BoardOptions options;
    options.cameras.push_back({"0A00000000A1", ""});
    std::string error;
    if (platform::MakeBoardRoot(dir, options, &error) != 0) std::abort();
    platform::SetRootForTest(dir);
    g_board = dir;
    std::atexit(RemoveBoard);
    return true;
  }();
  (void)ready;
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::string msg = !input.empty() && input[0] == '{'
                              ? input
                              : "{\"id\":7,\"method\":\"deleteVideo\",\"params\":" + input + "}";
  storagecmd::DeleteRequest request;
  if (storagecmd::ParseDeleteRequest(msg.c_str(), &request)) {
    if (request.mac.size() != 12) std::abort();
    for (char c : request.mac) {
      if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) std::abort();
    }
    if (request.times.empty() || request.times.size() > storagecmd::kMaxDeleteTimes) std::abort();
    for (long t : request.times) {
      if (t < 0 || t > 0xFFFFFFFFL) std::abort();
    }
  }
  ProcMsgDeleteVideo(msg.c_str());
  return 0;
}
