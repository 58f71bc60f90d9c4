// The NAL units of H.264 in Annex B form (each behind a 00 00 01 or 00 00 00 01 start code), as
// the clip writer and the viewer's MP4 find the parameter sets and key frames of a camera's
// access units. No copy is made; a unit's bytes are [begin, end) of the data, without its start
// code and without the zeros that trail it. Bytes before the first start code are no unit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace h264 {

// Calls f(begin, end) for every unit that holds a byte, in order.
template <typename F>
void ForEachUnit(const uint8_t* d, size_t n, F&& f) {
  size_t i = 0;
  size_t begin = 0;
  bool in_unit = false;
  while (i + 3 <= n) {
    if (d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 1) {
      if (in_unit) {
        size_t end = i;
        while (end > begin && d[end - 1] == 0) end--;  // trailing zeros and a 4-byte code's zero
        if (end > begin) f(begin, end);
      }
      begin = i + 3;
      in_unit = true;
      i += 3;
    } else {
      i++;
    }
  }
  if (in_unit && begin < n) f(begin, n);
}

// The sequence and picture parameter sets of an access unit, each behind a 4-byte start code,
// in their order; empty unless both are there.
std::string ParameterSets(const uint8_t* d, size_t n);

// Whether the access unit holds a slice of an IDR picture.
bool HasIdrSlice(const uint8_t* d, size_t n);

}  // namespace h264
