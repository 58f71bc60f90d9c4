#include "camsim/camsimmedia.h"

#include <fstream>
#include <iterator>

#include "camsim/camsimwire.h"

namespace camsim {
namespace {

// Largest media file read: far above a test clip, far below memory trouble.
constexpr size_t kMaxFileSize = 256u << 20;

struct Nal {
  size_t start;  // first byte of the start code
  size_t code;   // start code length, 3 or 4
  size_t end;    // one past the last byte
};

// Positions of the NAL units of an Annex B stream.
std::vector<Nal> FindNals(const uint8_t* d, size_t n) {
  std::vector<Nal> nals;
  size_t i = 0;
  while (i + 3 <= n) {
    if (d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 1) {
      const bool four = i > 0 && d[i - 1] == 0;
      const size_t start = four ? i - 1 : i;
      if (!nals.empty()) nals.back().end = start;
      nals.push_back({start, four ? 4u : 3u, n});
      i += 3;
    } else {
      i++;
    }
  }
  // A four-byte start code may have borrowed a zero that ends the previous unit's trailing
  // zeros; trailing zeros belong to no unit.
  for (Nal& nal : nals) {
    while (nal.end > nal.start + nal.code && d[nal.end - 1] == 0) nal.end--;
  }
  return nals;
}

bool IsSlice(int type) {
  return type >= 1 && type <= 5;
}

// Non-VCL units that open a new access unit when one with a slice is under way.
bool StartsAccessUnit(int type) {
  return type == 6 || type == 7 || type == 8 || type == 9 || (type >= 14 && type <= 18);
}

bool ReadFile(const std::string& path, std::vector<uint8_t>* out, std::string* error) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) {
    if (error != nullptr) *error = "cannot open " + path;
    return false;
  }
  const std::streamoff size = in.tellg();
  if (size < 0 || static_cast<uint64_t>(size) > kMaxFileSize) {
    if (error != nullptr) *error = path + " is too large";
    return false;
  }
  in.seekg(0);
  out->resize(static_cast<size_t>(size));
  if (size > 0 && !in.read(reinterpret_cast<char*>(out->data()), size)) {
    if (error != nullptr) *error = "cannot read " + path;
    return false;
  }
  return true;
}

}  // namespace

std::vector<VideoFrame> SplitAnnexB(const uint8_t* data, size_t n) {
  std::vector<VideoFrame> frames;
  const std::vector<Nal> nals = FindNals(data, n);
  VideoFrame current;
  bool has_slice = false;
  auto flush = [&] {
    if (!current.data.empty()) frames.push_back(std::move(current));
    current = VideoFrame();
    has_slice = false;
  };
  for (const Nal& nal : nals) {
    const size_t header = nal.start + nal.code;
    if (header >= nal.end) continue;  // an empty unit
    const int type = data[header] & 0x1F;
    if (IsSlice(type)) {
      // first_mb_in_slice is ue(v): 0 is coded as the single bit 1
      const bool first_mb_zero = header + 1 < nal.end && (data[header + 1] & 0x80) != 0;
      if (has_slice && first_mb_zero) flush();
      has_slice = true;
      if (type == 5) current.key = true;
    } else if (StartsAccessUnit(type) && has_slice) {
      flush();
    }
    if (current.data.empty() && nal.code == 3) current.data.push_back(0);
    current.data.insert(current.data.end(), data + nal.start, data + nal.end);
  }
  flush();
  return frames;
}

std::shared_ptr<const VideoClip> VideoClip::Load(const std::string& path, std::string* error) {
  std::vector<uint8_t> bytes;
  if (!ReadFile(path, &bytes, error)) return nullptr;
  auto clip = std::make_shared<VideoClip>();
  clip->frames_ = SplitAnnexB(bytes.data(), bytes.size());
  clip->name_ = path;
  if (clip->frames_.empty()) {
    if (error != nullptr) *error = path + " holds no H.264 Annex B frame";
    return nullptr;
  }
  for (size_t i = 0; i < clip->frames_.size(); i++) {
    if (clip->frames_[i].data.size() > kMaxVideoFrame) {
      if (error != nullptr) *error = path + ": frame " + std::to_string(i) + " is too long";
      return nullptr;
    }
  }
  return clip;
}

std::shared_ptr<const VideoClip> VideoClip::Synthetic(size_t count, size_t gop, size_t key_size,
                                                      size_t size) {
  auto clip = std::make_shared<VideoClip>();
  clip->name_ = "generated frames";
  if (count == 0) count = 1;
  if (gop == 0) gop = 1;
  for (size_t i = 0; i < count; i++) {
    VideoFrame f;
    f.key = i % gop == 0;
    size_t len = f.key ? key_size : size;
    if (len < 6) len = 6;
    if (len > kMaxVideoFrame) len = kMaxVideoFrame;
    f.data.resize(len);
    f.data[0] = 0;
    f.data[1] = 0;
    f.data[2] = 0;
    f.data[3] = 1;
    f.data[4] = f.key ? 0x65 : 0x41;
    // Filler with the top bit set never forms a start code; it varies with the frame.
    for (size_t j = 5; j < len; j++) f.data[j] = static_cast<uint8_t>(0x80 | ((i + j) & 0x7F));
    clip->frames_.push_back(std::move(f));
  }
  return clip;
}

std::shared_ptr<const AudioClip> AudioClip::Load(const std::string& path, std::string* error) {
  auto clip = std::make_shared<AudioClip>();
  if (!ReadFile(path, &clip->data_, error)) return nullptr;
  if (clip->data_.empty()) {
    if (error != nullptr) *error = path + " is empty";
    return nullptr;
  }
  clip->name_ = path;
  return clip;
}

std::shared_ptr<const AudioClip> AudioClip::Silence() {
  auto clip = std::make_shared<AudioClip>();
  clip->data_.assign(kRate, 0xD5);
  clip->name_ = "silence";
  return clip;
}

void AudioClip::Copy(uint64_t pos, uint8_t* out, size_t n) const {
  const size_t size = data_.size();
  size_t at = static_cast<size_t>(pos % size);
  while (n > 0) {
    const size_t take = size - at < n ? size - at : n;
    std::copy(data_.begin() + static_cast<std::ptrdiff_t>(at),
              data_.begin() + static_cast<std::ptrdiff_t>(at + take), out);
    out += take;
    n -= take;
    at = 0;
  }
}

uint64_t AudioPosition(uint64_t tick, int fps) {
  if (fps <= 0) return 0;
  return tick * static_cast<uint64_t>(AudioClip::kRate) / static_cast<uint64_t>(fps);
}

}  // namespace camsim
