// The firmware update package: one stream holding a 144-byte header, the hub image and the
// camera image, optionally followed by a signature trailer. Shared by the hub's download (which
// splits the stream as it arrives), the package tool and the fuzz target.
//
// Layout (little-endian):
//   0    4   first header word (copied, not interpreted)
//   4    4   second header word (copied, not interpreted)
//   8    64  hub image MD5, 32 hexadecimal digits, NUL-padded
//   72   64  camera image MD5, likewise
//   136  4   hub image length (1 .. kMaxHubImage)
//   140  4   camera image length (1 .. kMaxCameraImage)
//   144  ..  hub image, then camera image
//   then     signature trailer (72 bytes, below), optional; anything after it is discarded
//
// Signature trailer: "TSIG", algorithm byte 1 (Ed25519ph: Ed25519 over the SHA-512 of the
// message, libsodium's crypto_sign_init/update/final), three zero bytes, the 64-byte signature
// of the header and both images. A hub without a signing key ignores it, as any bytes after the
// images; a hub with one refuses a package whose trailer is missing or does not verify.
//
// Splitter takes the stream in chunks of any size, split anywhere, and hands each byte to the
// hub sink or the camera sink exactly as a single pass over the whole stream would. It is used
// from one thread at a time.
#pragma once

#include <sodium.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace ota {

constexpr size_t kHeaderSize = 144;
constexpr size_t kDigestField = 64;
constexpr size_t kDigestText = 32;
constexpr uint32_t kMaxHubImage = 32u << 20;     // 32 MiB
constexpr uint32_t kMaxCameraImage = 16u << 20;  // 16 MiB

constexpr char kTrailerMagic[4] = {'T', 'S', 'I', 'G'};
constexpr uint8_t kTrailerEd25519ph = 1;
constexpr size_t kSignatureSize = 64;
constexpr size_t kTrailerSize = 8 + kSignatureSize;
constexpr size_t kPublicKeySize = 32;
constexpr size_t kSecretKeySize = 64;

struct PackageHeader {
  uint32_t word0 = 0;
  uint32_t word1 = 0;
  std::string hub_md5;     // 32 lower-case hexadecimal digits
  std::string camera_md5;  // likewise
  uint32_t hub_length = 0;
  uint32_t camera_length = 0;
};

// Reads a 144-byte header. 0, or -1 with the reason when a digest is not 32 hexadecimal digits
// followed by NULs or a length is 0 or above its maximum. Digests are returned in lower case.
int ParseHeader(const uint8_t* bytes, PackageHeader* out, std::string* error);
// Writes the 144 header bytes (digests as given, NUL-padded).
void EncodeHeader(const PackageHeader& header, uint8_t out[kHeaderSize]);

// The trailer for a signature.
void EncodeTrailer(const uint8_t signature[kSignatureSize], uint8_t out[kTrailerSize]);

// A whole package in memory: header (digests computed here), images and, with a secret key
// (64 bytes, libsodium's Ed25519 form), the signature trailer.
std::string BuildPackage(const std::string& hub_image, const std::string& camera_image,
                         uint32_t word0 = 0, uint32_t word1 = 0,
                         const uint8_t* secret_key = nullptr);

// MD5 of bytes as 32 lower-case hexadecimal digits.
std::string Md5Hex(const void* data, size_t size);

class Splitter {
 public:
  // A sink takes bytes of one image in order; false stops the stream.
  using Sink = std::function<bool(const uint8_t* data, size_t size)>;
  Splitter(Sink hub, Sink camera);

  // Takes the next chunk. Returns the bytes taken: all of them, or fewer when the header was
  // refused or a sink failed (error() says which); nothing is taken after that.
  size_t Consume(const uint8_t* data, size_t size);

  bool HeaderDone() const { return header_done_; }
  const PackageHeader& header() const { return header_; }
  uint64_t HubWritten() const { return hub_written_; }
  uint64_t CameraWritten() const { return camera_written_; }
  // Both images are whole.
  bool Complete() const;
  bool Failed() const { return failed_; }
  const std::string& error() const { return error_; }

  // Whether the package carries a trailer that verifies under the public key (32 bytes). Only
  // meaningful once Complete(); false otherwise. Sets error() when it does not verify.
  bool VerifySignature(const uint8_t public_key[kPublicKeySize]);

 private:
  size_t Fail(size_t taken, const std::string& why);

  Sink hub_;
  Sink camera_;
  uint8_t header_bytes_[kHeaderSize] = {};
  size_t header_have_ = 0;
  bool header_done_ = false;
  PackageHeader header_;
  uint64_t hub_written_ = 0;
  uint64_t camera_written_ = 0;
  uint8_t trailer_[kTrailerSize] = {};
  size_t trailer_have_ = 0;
  bool failed_ = false;
  std::string error_;
  crypto_sign_state signed_;  // prehash of header and images as they pass
};

}  // namespace ota
