#include "media/h264units.h"

namespace h264 {

std::string ParameterSets(const uint8_t* d, size_t n) {
  std::string sets;
  bool sps = false;
  bool pps = false;
  ForEachUnit(d, n, [&](size_t begin, size_t end) {
    const int type = d[begin] & 0x1F;
    if (type != 7 && type != 8) return;
    sps = sps || type == 7;
    pps = pps || type == 8;
    sets.append("\x00\x00\x00\x01", 4);
    sets.append(reinterpret_cast<const char*>(d + begin), end - begin);
  });
  return sps && pps ? sets : std::string();
}

bool HasIdrSlice(const uint8_t* d, size_t n) {
  bool idr = false;
  ForEachUnit(d, n, [&](size_t begin, size_t) { idr = idr || (d[begin] & 0x1F) == 5; });
  return idr;
}

}  // namespace h264
