// A camera's sequence parameter set, as a NAL unit and inside a decoder configuration record:
// any bytes give either "unspecified" or a ratio of two positive 16-bit numbers, and nothing
// is read outside the input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "media/h264sps.h"

namespace {

void Check(const h264sps::Ratio& r) {
  const bool unspecified = r.num == 0 && r.den == 1;
  const bool ratio = r.num > 0 && r.num <= 65535 && r.den > 0 && r.den <= 65535;
  if (!unspecified && !ratio) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Copies of exactly the input's size, so a read past the end is caught.
  const std::vector<uint8_t> input(data, data + size);
  Check(h264sps::SampleAspect(input.data(), input.size()));
  Check(h264sps::SampleAspectOfConfig(input.data(), input.size()));
  return 0;
}
