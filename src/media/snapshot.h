// The event snapshot: one H.264 key frame decoded with libavcodec, scaled with libswscale and
// written as a JPEG by libavcodec's MJPEG encoder.
//
// Each conversion makes its decoder, scaler and encoder and frees them before it returns, so no
// picture buffer stays resident between events; the 1080p decoder is freed before the encoder
// is made. Conversions are serialised by one lock (whichever recorder asks, their memory never
// adds up); any thread may convert.
#pragma once

#include <cstddef>
#include <cstdint>

// Decodes the access unit (Annex B, with its parameter sets) of size bytes and writes it as a
// JPEG of width x height (even, 16..4096 each) to path. 0, or -1 when the frame does not decode
// or the file cannot be written (logged); a failed conversion leaves no file at path.
int ConvertH264FrameToJpeg(const char* path, const uint8_t* data, uint32_t size, int width,
                           int height);

namespace snapshot {

// Decodes the access unit without scaling or encoding (the decoder is the one the conversion
// uses). 0 when a picture came out, -1 otherwise. For measurements.
int DecodeOnly(const uint8_t* data, uint32_t size);

}  // namespace snapshot
