// The firmware package splitter: an arbitrary stream, or one behind a well-formed header so the
// images and the trailer are reached, fed once whole and once in random chunkings. Both passes
// must hand the same bytes to the same image and agree on the outcome; neither may write more
// than the header announced.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cloud/otapackage.h"

namespace {

struct Result {
  std::string hub;
  std::string camera;
  size_t taken = 0;
  bool complete = false;
  bool failed = false;
  bool verified = false;
};

uint8_t g_public_key[ota::kPublicKeySize];
uint8_t g_secret_key[ota::kSecretKeySize];

Result Run(const std::string& stream, uint32_t seed, size_t max_chunk) {
  Result r;
  ota::Splitter splitter(
      [&r](const uint8_t* d, size_t n) {
        r.hub.append(reinterpret_cast<const char*>(d), n);
        return true;
      },
      [&r](const uint8_t* d, size_t n) {
        r.camera.append(reinterpret_cast<const char*>(d), n);
        return true;
      });
  size_t at = 0;
  while (at < stream.size()) {
    size_t n = stream.size() - at;
    if (max_chunk > 0) {
      seed = seed * 1103515245u + 12345u;
      n = std::min(n, static_cast<size_t>(seed >> 8) % max_chunk + 1);
    }
    const size_t took = splitter.Consume(reinterpret_cast<const uint8_t*>(stream.data()) + at, n);
    r.taken += took;
    if (took < n) break;
    at += n;
  }
  r.complete = splitter.Complete();
  r.failed = splitter.Failed();
  r.verified = splitter.VerifySignature(g_public_key);
  if (splitter.HeaderDone()) {
    if (r.hub.size() > splitter.header().hub_length) std::abort();
    if (r.camera.size() > splitter.header().camera_length) std::abort();
  } else if (!r.hub.empty() || !r.camera.empty()) {
    std::abort();
  }
  return r;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool keys = [] {
    if (sodium_init() < 0) std::abort();
    uint8_t seed[32] = {7};
    crypto_sign_seed_keypair(g_public_key, g_secret_key, seed);
    return true;
  }();
  (void)keys;
  // byte 0: mode; bytes 1-4: chunking seed; then the stream (or the images' bytes)
  if (size < 5) return 0;
  const uint8_t mode = data[0];
  uint32_t seed;
  std::memcpy(&seed, data + 1, 4);
  const std::string rest(reinterpret_cast<const char*>(data + 5), size - 5);
  std::string stream;
  if ((mode & 3) == 0) {
    stream = rest;  // raw bytes, mostly refused headers
  } else {
    // a well-formed package of the bytes, signed or not, perhaps cut short or with a tail
    const size_t split = rest.empty() ? 0 : (mode >> 2) % rest.size();
    std::string hub = rest.substr(0, split);
    std::string camera = rest.substr(split);
    if (hub.empty()) hub = "h";
    if (camera.empty()) camera = "c";
    stream = ota::BuildPackage(hub, camera, seed, mode, (mode & 1) ? g_secret_key : nullptr);
    if (mode & 0x80) stream.resize(stream.size() - (seed % stream.size()));
    if (mode & 0x40) stream += rest.substr(0, 100);
  }
  const Result whole = Run(stream, 0, 0);
  const Result chunked = Run(stream, seed, (mode & 0x20) ? 3 : 200);
  // The same bytes to the same image and the same outcome. The count taken is the whole stream
  // unless it failed; a failure stops the stream at a point that depends on the chunk it came in.
  if (whole.hub != chunked.hub || whole.camera != chunked.camera ||
      whole.complete != chunked.complete || whole.failed != chunked.failed ||
      whole.verified != chunked.verified) {
    std::abort();
  }
  for (const Result* r : {&whole, &chunked}) {
    if (r->failed ? r->taken >= stream.size() : r->taken != stream.size()) std::abort();
  }
  return 0;
}
