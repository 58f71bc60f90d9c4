#include "camsim/camsimimage.h"

#include <cstdlib>

namespace camsim {

namespace {
constexpr char kMagic[] = "TARVO CAMSIM IMAGE\n";
constexpr char kVersion[] = "version=";
}  // namespace

std::string MakeImage(int version, size_t filler) {
  std::string image = std::string(kMagic) + kVersion + std::to_string(version) + "\n";
  for (size_t i = 0; i < filler; i++) image += static_cast<char>(i * 31 + 7);
  return image;
}

int ImageVersion(const std::string& image) {
  const std::string magic(kMagic);
  if (image.compare(0, magic.size(), magic) != 0) return -1;
  size_t at = magic.size();
  const std::string key(kVersion);
  if (image.compare(at, key.size(), key) != 0) return -1;
  at += key.size();
  const size_t end = image.find('\n', at);
  if (end == std::string::npos || end == at || end - at > 6) return -1;
  int version = 0;
  for (size_t i = at; i < end; i++) {
    if (image[i] < '0' || image[i] > '9') return -1;
    version = version * 10 + (image[i] - '0');
  }
  return version >= 1 ? version : -1;
}

}  // namespace camsim
