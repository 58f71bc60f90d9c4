// The MQTT router on arbitrary payloads: parsing, de-duplication, answers and every command
// handler. Run without a board root and without a broker, so handlers can neither change files
// nor run commands nor publish; what is exercised is every read of the message.
#include <cstddef>
#include <cstdint>
#include <string>

#include "cloud/cloudcmd.h"
#include "cloud/mqttclient.h"

namespace {
void NoExit(int) {}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool ready = [] {
    SetFaultExit(NoExit);
    // Every message counts as new, so repeated inputs reach the handlers too.
    SetMsgRepeatWindow(0);
    return true;
  }();
  (void)ready;
  std::string payload(reinterpret_cast<const char*>(data), size);
  HandleZeloMsg(payload.c_str());
  return 0;
}
