// The download request parser on arbitrary text: it either refuses or yields a request whose
// every field is in range, so nothing unchecked can reach a path.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>

#include "media/filetransfer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  filetransfer::Request r;
  std::string why;
  if (!filetransfer::ParseRequest(text.c_str(), &r, &why)) {
    if (why.empty()) __builtin_trap();
    return 0;
  }
  if (r.mac.size() != 12 || r.start < 1 || r.start > 4294967295LL || r.channel < 1 ||
      r.channel > 31 || (r.ext != "mp4" && r.ext != "jpeg"))
    __builtin_trap();
  for (char c : r.mac)
    if (!std::isxdigit(static_cast<unsigned char>(c)) ||
        std::islower(static_cast<unsigned char>(c)))
      __builtin_trap();
  const std::string answer = filetransfer::Answer(r, 0, 1, "x");
  if (answer.find('\n') != std::string::npos) __builtin_trap();
  return 0;
}
