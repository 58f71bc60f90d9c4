#include "cloud/otapackage.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>

namespace ota {

namespace {

constexpr size_t kHubDigestAt = 8;
constexpr size_t kCameraDigestAt = 72;
constexpr size_t kHubLengthAt = 136;
constexpr size_t kCameraLengthAt = 140;

uint32_t GetU32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void PutU32(uint32_t v, uint8_t* p) {
  for (int i = 0; i < 4; i++) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

// 32 hexadecimal digits, then only NULs. The digest in lower case, or "" when malformed.
std::string ReadDigest(const uint8_t* field) {
  std::string digest;
  for (size_t i = 0; i < kDigestText; i++) {
    const char c = static_cast<char>(field[i]);
    if (c >= '0' && c <= '9') {
      digest += c;
    } else if (c >= 'a' && c <= 'f') {
      digest += c;
    } else if (c >= 'A' && c <= 'F') {
      digest += static_cast<char>(c - 'A' + 'a');
    } else {
      return "";
    }
  }
  for (size_t i = kDigestText; i < kDigestField; i++) {
    if (field[i] != 0) return "";
  }
  return digest;
}

}  // namespace

int ParseHeader(const uint8_t* bytes, PackageHeader* out, std::string* error) {
  PackageHeader h;
  h.word0 = GetU32(bytes);
  h.word1 = GetU32(bytes + 4);
  h.hub_md5 = ReadDigest(bytes + kHubDigestAt);
  h.camera_md5 = ReadDigest(bytes + kCameraDigestAt);
  h.hub_length = GetU32(bytes + kHubLengthAt);
  h.camera_length = GetU32(bytes + kCameraLengthAt);
  const char* why = nullptr;
  if (h.hub_md5.empty()) {
    why = "hub image digest is not 32 hexadecimal digits";
  } else if (h.camera_md5.empty()) {
    why = "camera image digest is not 32 hexadecimal digits";
  } else if (h.hub_length == 0 || h.hub_length > kMaxHubImage) {
    why = "hub image length out of range";
  } else if (h.camera_length == 0 || h.camera_length > kMaxCameraImage) {
    why = "camera image length out of range";
  }
  if (why != nullptr) {
    if (error != nullptr) *error = why;
    return -1;
  }
  *out = std::move(h);
  return 0;
}

void EncodeHeader(const PackageHeader& header, uint8_t out[kHeaderSize]) {
  std::memset(out, 0, kHeaderSize);
  PutU32(header.word0, out);
  PutU32(header.word1, out + 4);
  std::memcpy(out + kHubDigestAt, header.hub_md5.data(),
              std::min(header.hub_md5.size(), kDigestField));
  std::memcpy(out + kCameraDigestAt, header.camera_md5.data(),
              std::min(header.camera_md5.size(), kDigestField));
  PutU32(header.hub_length, out + kHubLengthAt);
  PutU32(header.camera_length, out + kCameraLengthAt);
}

void EncodeTrailer(const uint8_t signature[kSignatureSize], uint8_t out[kTrailerSize]) {
  std::memcpy(out, kTrailerMagic, sizeof(kTrailerMagic));
  out[4] = kTrailerEd25519ph;
  out[5] = out[6] = out[7] = 0;
  std::memcpy(out + 8, signature, kSignatureSize);
}

std::string Md5Hex(const void* data, size_t size) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_Digest(data, size, digest, &len, EVP_md5(), nullptr);
  static const char kHex[] = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < len; i++) {
    text += kHex[digest[i] >> 4];
    text += kHex[digest[i] & 15];
  }
  return text;
}

std::string BuildPackage(const std::string& hub_image, const std::string& camera_image,
                         uint32_t word0, uint32_t word1, const uint8_t* secret_key) {
  PackageHeader h;
  h.word0 = word0;
  h.word1 = word1;
  h.hub_md5 = Md5Hex(hub_image.data(), hub_image.size());
  h.camera_md5 = Md5Hex(camera_image.data(), camera_image.size());
  h.hub_length = static_cast<uint32_t>(hub_image.size());
  h.camera_length = static_cast<uint32_t>(camera_image.size());
  uint8_t header[kHeaderSize];
  EncodeHeader(h, header);
  std::string package(reinterpret_cast<const char*>(header), kHeaderSize);
  package += hub_image;
  package += camera_image;
  if (secret_key != nullptr) {
    crypto_sign_state state;
    crypto_sign_init(&state);
    crypto_sign_update(&state, reinterpret_cast<const unsigned char*>(package.data()),
                       package.size());
    uint8_t signature[kSignatureSize];
    crypto_sign_final_create(&state, signature, nullptr, secret_key);
    uint8_t trailer[kTrailerSize];
    EncodeTrailer(signature, trailer);
    package.append(reinterpret_cast<const char*>(trailer), kTrailerSize);
  }
  return package;
}

Splitter::Splitter(Sink hub, Sink camera) : hub_(std::move(hub)), camera_(std::move(camera)) {
  crypto_sign_init(&signed_);
}

size_t Splitter::Fail(size_t taken, const std::string& why) {
  failed_ = true;
  error_ = why;
  return taken;
}

bool Splitter::Complete() const {
  return header_done_ && !failed_ && hub_written_ == header_.hub_length &&
         camera_written_ == header_.camera_length;
}

size_t Splitter::Consume(const uint8_t* data, size_t size) {
  if (failed_) return 0;
  size_t at = 0;
  if (!header_done_) {
    const size_t n = std::min(size, kHeaderSize - header_have_);
    std::memcpy(header_bytes_ + header_have_, data, n);
    header_have_ += n;
    at += n;
    if (header_have_ < kHeaderSize) return at;
    std::string why;
    if (ParseHeader(header_bytes_, &header_, &why) < 0)
      return Fail(0, "package header refused: " + why);
    header_done_ = true;
    crypto_sign_update(&signed_, header_bytes_, kHeaderSize);
  }
  // hub image, then camera image: each takes at most what it still lacks
  struct Part {
    const Sink& sink;
    uint64_t& written;
    uint64_t length;
    const char* name;
  };
  const Part parts[] = {{hub_, hub_written_, header_.hub_length, "hub"},
                        {camera_, camera_written_, header_.camera_length, "camera"}};
  for (const Part& part : parts) {
    if (at == size || part.written == part.length) continue;
    const size_t n = static_cast<size_t>(std::min<uint64_t>(size - at, part.length - part.written));
    if (!part.sink(data + at, n))
      return Fail(at, std::string("writing the ") + part.name + " image failed");
    crypto_sign_update(&signed_, data + at, n);
    part.written += n;
    at += n;
  }
  // the trailer, then anything else is dropped
  if (at < size && trailer_have_ < kTrailerSize) {
    const size_t n = std::min(size - at, kTrailerSize - trailer_have_);
    std::memcpy(trailer_ + trailer_have_, data + at, n);
    trailer_have_ += n;
  }
  return size;
}

bool Splitter::VerifySignature(const uint8_t public_key[kPublicKeySize]) {
  if (!Complete()) {
    error_ = "package incomplete";
    return false;
  }
  if (trailer_have_ < kTrailerSize || std::memcmp(trailer_, kTrailerMagic, 4) != 0 ||
      trailer_[4] != kTrailerEd25519ph) {
    error_ = "package carries no signature";
    return false;
  }
  crypto_sign_state state = signed_;  // the running prehash stays usable
  if (crypto_sign_final_verify(&state, trailer_ + 8, public_key) != 0) {
    error_ = "package signature does not verify";
    return false;
  }
  return true;
}

}  // namespace ota
