// The firmware image of the simulated camera: what the camera simulator fetches when the hub
// asks it to upgrade, and how it learns the version it then runs. The image is text first:
//   "TARVO CAMSIM IMAGE\n" "version=N\n" (N 1..999999), then filler bytes of any content.
#pragma once

#include <string>

namespace camsim {

// An image that upgrades a simulated camera to the version, with `filler` bytes after the
// two lines (so packages of realistic sizes can be made).
std::string MakeImage(int version, size_t filler = 4096);
// The version an image carries, or -1 when it is no simulator image.
int ImageVersion(const std::string& image);

}  // namespace camsim
