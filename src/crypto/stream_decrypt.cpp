#include "crypto/stream_decrypt.h"

#include <sodium.h>

#include <climits>
#include <cstdint>
#include <cstring>

#include "base/log.h"

namespace {

uint32_t GetLe32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

}  // namespace

int audio_chacha20_decrypt(const unsigned char* in, size_t len, const unsigned char* key,
                           unsigned char* out, size_t cap) {
  if (in == nullptr || key == nullptr || out == nullptr) return -1;
  if (len < kChachaNonceBytes || len - kChachaNonceBytes > cap || len > INT_MAX) {
    TLOG(LOG_DEBUG) << "audio_chacha20_decrypt: " << len << " bytes for a buffer of " << cap;
    return -1;
  }
  const size_t n = len - kChachaNonceBytes;
  unsigned char nonce[kChachaNonceBytes];
  std::memcpy(nonce, in, sizeof(nonce));
  std::memmove(out, in + kChachaNonceBytes, n);
  crypto_stream_chacha20_xor(out, out, n, nonce, key);
  return static_cast<int>(n);
}

int video_chacha20_decrypt(const unsigned char* in, size_t len, const unsigned char* key,
                           unsigned char* out, size_t cap, crypto_nalu_info* info) {
  if (in == nullptr || key == nullptr || out == nullptr) return -1;
  if (len < VideoHeaderBytes(0) || len > INT_MAX) {
    TLOG(LOG_DEBUG) << "video_chacha20_decrypt: frame of " << len << " bytes";
    return -1;
  }
  const unsigned k = in[8];
  const size_t header = VideoHeaderBytes(k);
  if (k > kNaluTableSize || header > len) {
    TLOG(LOG_DEBUG) << "video_chacha20_decrypt: " << k << " units in a frame of " << len
                    << " bytes";
    return -1;
  }
  const size_t n = len - header;
  if (n > cap) {
    TLOG(LOG_DEBUG) << "video_chacha20_decrypt: " << n << " bytes for a buffer of " << cap;
    return -1;
  }
  crypto_nalu_info table{};
  table.count = k;
  for (unsigned i = 0; i < k; i++) {
    const uint32_t offset = GetLe32(in + 9 + 8 * i);
    const uint32_t length = GetLe32(in + 13 + 8 * i);
    if (offset > n || length > n - offset) {
      TLOG(LOG_DEBUG) << "video_chacha20_decrypt: unit " << i << " lies outside the frame";
      return -1;
    }
    table.offsets[i] = offset;
    table.lengths[i] = length;
  }
  unsigned char stream[kChachaPieceBytes];
  chacha20_piece_stream(in, key, stream);  // the nonce is read before out may overwrite it
  std::memmove(out, in + header, n);
  for (unsigned i = 0; i < k; i++) xor_video_unit(out + table.offsets[i], table.lengths[i], stream);
  sodium_memzero(stream, sizeof(stream));
  if (info != nullptr) *info = table;
  return static_cast<int>(n);
}

int bigflow_chacha20_decrypt(const unsigned char* data, unsigned int len, const unsigned char* key,
                             const unsigned char* nonce, unsigned char* out, size_t cap) {
  unsigned int out_len = 0;
  if (len > INT_MAX) return -1;
  if (bigflow_chacha20_encrypt(data, len, key, &out_len, nonce, out, cap) != 0) return -1;
  return static_cast<int>(out_len);
}
