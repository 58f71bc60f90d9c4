#include "crypto/stream_encrypt.h"

#include <sodium.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "base/log.h"

crypto_work_buf encrypto_audio;
crypto_work_buf encrypto_video;
crypto_nalu_info& live_crypto_nalu_info = encrypto_video.nalu;

namespace {

constexpr size_t kAudioHeaderRoom = kChachaNonceBytes;
constexpr size_t kTextHeader = kChachaNonceBytes + 4;

std::atomic<bool> g_table_full_logged{false};

void PutLe32(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}

uint32_t GetLe32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void Xor16(unsigned char* p, const unsigned char* stream) {
  uint64_t a[2];
  uint64_t b[2];
  std::memcpy(a, p, 16);
  std::memcpy(b, stream, 16);
  a[0] ^= b[0];
  a[1] ^= b[1];
  std::memcpy(p, a, 16);
}

// Offset of the next start code 00 00 01 at or after from, or len when there is none.
size_t FindStartCode(const unsigned char* p, size_t from, size_t len) {
  size_t i = from + 2;
  while (i < len) {
    const void* hit = std::memchr(p + i, 1, len - i);
    if (hit == nullptr) return len;
    i = static_cast<size_t>(static_cast<const unsigned char*>(hit) - p);
    if (p[i - 1] == 0 && p[i - 2] == 0) return i - 2;
    i++;
  }
  return len;
}

bool IsListedSlice(const unsigned char* unit, size_t len) {
  return len >= kVideoMinListedUnit && (unit[0] & 0x1B) == 1;
}

}  // namespace

unsigned char* init_audio_buf(int capacity) {
  if (capacity < 0) return nullptr;
  return static_cast<unsigned char*>(std::malloc(static_cast<size_t>(capacity) + kAudioHeaderRoom));
}

unsigned char* init_video_buf(int capacity) {
  if (capacity < 0) return nullptr;
  return static_cast<unsigned char*>(std::malloc(static_cast<size_t>(capacity) + kVideoHeaderRoom));
}

int init_work_buffers() {
  {
    std::lock_guard<std::mutex> hold(encrypto_audio.mutex);
    if (encrypto_audio.data == nullptr) {
      encrypto_audio.data = init_audio_buf(static_cast<int>(kAudioWorkCapacity));
      if (encrypto_audio.data == nullptr) {
        TLOG(LOG_ERR) << "malloc audio encrypt buf fail!";
        return -1;
      }
      encrypto_audio.capacity = kAudioWorkCapacity + kAudioHeaderRoom;
    }
  }
  std::lock_guard<std::mutex> hold(encrypto_video.mutex);
  if (encrypto_video.data == nullptr) {
    encrypto_video.data = init_video_buf(static_cast<int>(kVideoWorkCapacity));
    if (encrypto_video.data == nullptr) {
      TLOG(LOG_ERR) << "malloc video encrypt buf fail!";
      return -2;
    }
    encrypto_video.capacity = kVideoWorkCapacity + kVideoHeaderRoom;
  }
  return 0;
}

int get_nalu_info(const unsigned char* frame, unsigned int len, crypto_nalu_info* info) {
  if (frame == nullptr || info == nullptr) {
    TLOG(LOG_DEBUG) << "msg is NULL";
    return -1;
  }
  info->count = 0;
  size_t code = FindStartCode(frame, 0, len);
  if (code >= len) {
    TLOG(LOG_DEBUG) << "get_nalu_info: there is no nalu in the video frame buf!";
    return -1;
  }
  while (code < len) {
    const size_t start = code + 3;
    const size_t next = FindStartCode(frame, start, len);
    size_t end = next;
    // The zero in front of a four-byte start code belongs to the start code.
    if (next < len && next > start && frame[next - 1] == 0) end = next - 1;
    if (start < end && IsListedSlice(frame + start, end - start)) {
      if (info->count < kMaxListedNalus) {
        info->offsets[info->count] = static_cast<uint32_t>(start);
        info->lengths[info->count] = static_cast<uint32_t>(end - start);
        info->count++;
      } else if (!g_table_full_logged.exchange(true)) {
        TLOG(LOG_DEBUG) << "get_nalu_info: more than " << kMaxListedNalus
                        << " slices in a frame, the rest go out clear";
      }
    }
    code = next;
  }
  return 0;
}

void chacha20_piece_stream(const unsigned char* nonce, const unsigned char* key,
                           unsigned char stream[kChachaPieceBytes]) {
  crypto_stream_chacha20(stream, kChachaPieceBytes, nonce, key);
}

void xor_video_unit(unsigned char* unit, size_t len,
                    const unsigned char stream[kChachaPieceBytes]) {
  // A piece is encrypted while more than 16 bytes of the unit remain from its position.
  for (size_t pos = kVideoPieceFirst; pos + kChachaPieceBytes < len; pos += kVideoPieceStride) {
    Xor16(unit + pos, stream);
  }
}

int video_chacha20_encrypt(const unsigned char* frame, unsigned int len, const unsigned char* key,
                           unsigned int* out_len, const crypto_nalu_info* info, unsigned char* out,
                           size_t cap) {
  unsigned char nonce[kChachaNonceBytes];
  randombytes_buf(nonce, sizeof(nonce));
  return video_chacha20_encrypt_nonce(frame, len, key, nonce, out_len, info, out, cap);
}

int video_chacha20_encrypt_nonce(const unsigned char* frame, unsigned int len,
                                 const unsigned char* key, const unsigned char* nonce,
                                 unsigned int* out_len, const crypto_nalu_info* info,
                                 unsigned char* out, size_t cap) {
  if (frame == nullptr) {
    TLOG(LOG_DEBUG) << "111111111111111111";
    return -1;
  }
  if (key == nullptr || nonce == nullptr) {
    TLOG(LOG_DEBUG) << "22222222222222222222";
    return -1;
  }
  if (info == nullptr) {
    TLOG(LOG_DEBUG) << "4444444444444444";
    return -1;
  }
  if (out == nullptr || out_len == nullptr) {
    TLOG(LOG_DEBUG) << "333333333333333333";
    return -1;
  }
  const uint32_t k = info->count;
  if (k > kMaxListedNalus) {
    TLOG(LOG_DEBUG) << "video_chacha20_encrypt: " << k << " units listed, at most "
                    << kMaxListedNalus;
    return -1;
  }
  for (uint32_t i = 0; i < k; i++) {
    if (info->offsets[i] > len || info->lengths[i] > len - info->offsets[i]) {
      TLOG(LOG_DEBUG) << "video_chacha20_encrypt: unit " << i << " lies outside the frame of "
                      << len << " bytes";
      return -1;
    }
  }
  const size_t header = VideoHeaderBytes(k);
  const size_t total = header + len;
  if (total > cap || total > UINT_MAX) {
    TLOG(LOG_DEBUG) << "video_chacha20_encrypt: " << total << " bytes do not fit the buffer of "
                    << cap;
    return -1;
  }
  std::memcpy(out, nonce, kChachaNonceBytes);
  out[8] = static_cast<unsigned char>(k);
  for (uint32_t i = 0; i < k; i++) {
    PutLe32(out + 9 + 8 * i, info->offsets[i]);
    PutLe32(out + 13 + 8 * i, info->lengths[i]);
  }
  std::memcpy(out + header, frame, len);
  *out_len = static_cast<unsigned int>(total);
  if (k == 0) return 0;
  unsigned char stream[kChachaPieceBytes];
  chacha20_piece_stream(out, key, stream);
  for (uint32_t i = 0; i < k; i++) {
    xor_video_unit(out + header + info->offsets[i], info->lengths[i], stream);
  }
  sodium_memzero(stream, sizeof(stream));
  return 0;
}

unsigned char* audio_chacha20_encrypt(const char* data, int len, const unsigned char* key,
                                      unsigned char* out, size_t cap) {
  if (data == nullptr || key == nullptr || out == nullptr) {
    TLOG(LOG_DEBUG) << "data or chacha20_share_key is NULL";
    return nullptr;
  }
  if (len < 0 || static_cast<size_t>(len) > cap || cap - static_cast<size_t>(len) < 8) {
    TLOG(LOG_DEBUG) << "audio_chacha20_encrypt: " << len << " bytes do not fit the buffer of "
                    << cap;
    return nullptr;
  }
  randombytes_buf(out, kChachaNonceBytes);
  crypto_stream_chacha20_xor(out + kChachaNonceBytes, reinterpret_cast<const unsigned char*>(data),
                             static_cast<unsigned long long>(len), out, key);
  return out;
}

int text_chacha20_encrypt_16(const char* data, int plain_len, int enc_len, const unsigned char* key,
                             unsigned char* out, size_t cap, int* out_len) {
  if (data == nullptr || key == nullptr || out == nullptr || out_len == nullptr) {
    TLOG(LOG_DEBUG) << "text_chacha20_encrypt data or chacha20_share_key is NULL";
    return -1;
  }
  if (plain_len < 0 || enc_len < plain_len || enc_len > INT_MAX - static_cast<int>(kTextHeader) ||
      static_cast<size_t>(enc_len) + kTextHeader > cap) {
    TLOG(LOG_DEBUG) << "text_chacha20_encrypt: bad lengths " << plain_len << "/" << enc_len
                    << " for a buffer of " << cap;
    return -1;
  }
  get_nonce(out);
  PutLe32(out + kChachaNonceBytes, static_cast<uint32_t>(plain_len));
  crypto_stream_chacha20_xor(out + kTextHeader, reinterpret_cast<const unsigned char*>(data),
                             static_cast<unsigned long long>(enc_len), out, key);
  *out_len = enc_len + static_cast<int>(kTextHeader);
  return 0;
}

int text_chacha20_decrypt(const char* data, int len, const unsigned char* key, unsigned char* out,
                          size_t cap, int* plain_len, int field_size) {
  if (data == nullptr || key == nullptr || out == nullptr || plain_len == nullptr) {
    TLOG(LOG_DEBUG) << "text_chacha20_decrypt text or chacha20_share_key is NULL";
    return -1;
  }
  if (field_size != 0 && field_size != 4) {
    TLOG(LOG_DEBUG) << "text_chacha20_decrypt length field of " << field_size << " bytes";
    return -1;
  }
  if (len < field_size + 24) {
    TLOG(LOG_DEBUG) << "text_chacha20_decrypt text len is small error: " << len;
    return -1;
  }
  const auto* in = reinterpret_cast<const unsigned char*>(data);
  const size_t n = static_cast<size_t>(len) - kChachaNonceBytes - static_cast<size_t>(field_size);
  if (n > cap) {
    TLOG(LOG_DEBUG) << "text_chacha20_decrypt " << n << " bytes do not fit the buffer of " << cap;
    return -1;
  }
  size_t plain = n;
  if (field_size == 4) {
    const uint32_t header = GetLe32(in + kChachaNonceBytes);
    if (header < plain) plain = header;
  }
  TLOG(LOG_DEBUG) << "text_chacha20_decrypt len: " << len << ", datalen: " << plain;
  crypto_stream_chacha20_xor(out, in + kChachaNonceBytes + field_size, n, in, key);
  *plain_len = static_cast<int>(plain);
  return 0;
}

int bigflow_chacha20_encrypt(const unsigned char* data, unsigned int len, const unsigned char* key,
                             unsigned int* out_len, const unsigned char* nonce, unsigned char* out,
                             size_t cap) {
  if (data == nullptr || key == nullptr || nonce == nullptr || out == nullptr ||
      out_len == nullptr) {
    TLOG(LOG_DEBUG) << "bigflow_chacha20_encrypt msg or chacha20_share_key is NULL";
    return -1;
  }
  if (len > cap) {
    TLOG(LOG_DEBUG) << "bigflow_chacha20_encrypt: " << len << " bytes do not fit the buffer of "
                    << cap;
    return -1;
  }
  if (out != data) std::memmove(out, data, len);
  unsigned char stream[kChachaPieceBytes];
  chacha20_piece_stream(nonce, key, stream);
  for (size_t off = 0; off + kChachaPieceBytes <= len; off += kVideoPieceStride) {
    Xor16(out + off, stream);
  }
  sodium_memzero(stream, sizeof(stream));
  *out_len = len;
  return 0;
}

int get_nonce(unsigned char* nonce) {
  randombytes_buf(nonce, kChachaNonceBytes);
  return 0;
}
