// The media a simulated camera streams: an H.264 Annex B clip cut into frames (access units)
// and an 8 kHz G.711 A-law track, both read once into memory and played in a loop. Without
// files the camera streams generated frames and A-law silence.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace camsim {

// One access unit of the clip: its NAL units with their start codes, the first start code
// always four bytes long.
struct VideoFrame {
  std::vector<uint8_t> data;
  bool key = false;  // holds an IDR slice
};

// Cuts an Annex B stream into access units. A unit starts at an access unit delimiter, SEI,
// sequence or picture parameter set that follows a slice, or at a slice whose first macroblock
// is 0 when the unit already holds a slice. Bytes before the first start code are skipped.
std::vector<VideoFrame> SplitAnnexB(const uint8_t* data, size_t n);

// The video of a camera, shared by every camera streaming the same file.
class VideoClip {
 public:
  // Reads and cuts the file. nullptr (reason in *error) when it cannot be read, holds no frame
  // or holds a frame too long for 255 pieces.
  static std::shared_ptr<const VideoClip> Load(const std::string& path, std::string* error);
  // Generated frames: a key frame of key_size bytes every gop frames, others of size bytes,
  // each a 4-byte start code, a NAL header (IDR 0x65 or slice 0x41) and filler bytes.
  static std::shared_ptr<const VideoClip> Synthetic(size_t count = 30, size_t gop = 15,
                                                    size_t key_size = 20000, size_t size = 3000);

  size_t size() const { return frames_.size(); }
  const VideoFrame& at(size_t i) const { return frames_[i % frames_.size()]; }
  const std::string& name() const { return name_; }

 private:
  std::vector<VideoFrame> frames_;
  std::string name_;
};

// The audio of a camera: raw A-law bytes, 8000 a second.
class AudioClip {
 public:
  static constexpr int kRate = 8000;
  static std::shared_ptr<const AudioClip> Load(const std::string& path, std::string* error);
  // One second of A-law silence (0xD5).
  static std::shared_ptr<const AudioClip> Silence();

  size_t size() const { return data_.size(); }
  const std::string& name() const { return name_; }
  // Copies n bytes from position pos on (wrapping at the end of the clip) into out.
  void Copy(uint64_t pos, uint8_t* out, size_t n) const;

 private:
  std::vector<uint8_t> data_;
  std::string name_;
};

// Audio bytes belonging to video tick k of a stream at fps frames a second: the samples from
// k x rate / fps to (k + 1) x rate / fps.
uint64_t AudioPosition(uint64_t tick, int fps);

}  // namespace camsim
