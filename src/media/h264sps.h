// The sample aspect ratio of an H.264 stream, read from its sequence parameter set as a decoder
// reads it: the clip writer stores it in the finished clip's track, so the clip says what the
// camera's stream says without decoding a picture.
//
// The parameter set comes from the camera: every read is bounded by the bytes given, and a set
// that ends early, or names an aspect ratio H.264 does not define, gives "unspecified".
#pragma once

#include <cstddef>
#include <cstdint>

namespace h264sps {

struct Ratio {
  int num = 0;  // 0/1: unspecified
  int den = 1;
};

// The sample aspect ratio of the SPS NAL unit sps (its header byte first, emulation prevention
// bytes still in) of n bytes. Unspecified when the unit is no SPS, is cut short, has no VUI or
// no aspect ratio in it, or gives a zero width or height.
Ratio SampleAspect(const uint8_t* sps, size_t n);

// The same from an 'avcC' decoder configuration record (its first SPS).
Ratio SampleAspectOfConfig(const uint8_t* config, size_t n);

}  // namespace h264sps
