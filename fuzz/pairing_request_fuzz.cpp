// The pairing request as the pairing server receives it: one receive of at most 1024 bytes.
// Only a whole frame of type 0x8B with a 34-byte payload may pass, its decoding may not read
// past the bytes received, and the reply built for it must be a valid frame.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "camera/command.h"
#include "camera/frame.h"
#include "server/pairing.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > pairing::kRequestBufferSize) size = pairing::kRequestBufferSize;
  // An exact-size copy lets the address sanitizer catch any read past what was received.
  std::unique_ptr<uint8_t[]> buf(new uint8_t[size == 0 ? 1 : size]);
  if (size > 0) std::memcpy(buf.get(), data, size);
  _net_cmd_get_info_type info;
  if (pairing::ParsePairingRequest(buf.get(), size, &info) != 1) return 0;
  const _net_cmd_type* request = command::AsFrame(buf.get());
  if (request->type != command::kTypePairRequest || request->Length() != 34 || size < 68) {
    std::abort();
  }
  uint8_t reply[command::kFrameOverhead + command::kPairReplySize];
  const int n = pairing::BuildPairingReply(request, "ssid", "key", reply, sizeof(reply));
  if (n != static_cast<int>(sizeof(reply))) std::abort();
  if (command::CheckCommand(reply, static_cast<uint16_t>(n)) != 1) std::abort();
  if (std::memcmp(command::AsFrame(reply)->dst_addr, request->src_addr, 6) != 0) std::abort();
  (void)command::VersionNumber(info.hard_ver);
  (void)command::VersionNumber(info.soft_ver);
  return 0;
}
