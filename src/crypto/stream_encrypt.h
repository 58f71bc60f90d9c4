// Stream encryption of the media sent to viewers: ChaCha20 (64-bit nonce, block counter from 0)
// under the 32-byte key shared with the viewer's app. Layouts (all integers little-endian):
//
//   audio  nonce[8] | the audio bytes XORed with the key stream            (n + 8 bytes)
//   video  nonce[8] | k[1] | k x (offset[4], length[4]) | the frame         (9 + 8k + n bytes)
//          Within each listed NAL unit of length L the 16 bytes at 32 + 160j from the unit's
//          first byte are XORed with the first 16 key-stream bytes while L - (32 + 160j) > 16.
//   text   nonce[8] | plain length[4] | the (padded) bytes XORed with the key stream
//   big flow, no header: the 16 bytes at 0, 160, 320, ... XORed with the first 16 key-stream
//          bytes while at least 16 bytes remain; the nonce travels separately.
//
// Every function writes into a buffer of the caller with its capacity and never allocates.
// stream_decrypt.h holds the viewer's side.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

constexpr size_t kChachaKeyBytes = 32;
constexpr size_t kChachaNonceBytes = 8;
// Bytes of key stream XORed into each encrypted piece of a video unit or a big flow.
constexpr size_t kChachaPieceBytes = 16;
// The pieces of a video unit start at kVideoPieceFirst + kVideoPieceStride * j; those of a big
// flow at kVideoPieceStride * j.
constexpr size_t kVideoPieceFirst = 32;
constexpr size_t kVideoPieceStride = 160;
// Units shorter than this are never listed.
constexpr size_t kVideoMinListedUnit = 49;

// Capacity of the NAL unit table.
constexpr unsigned kNaluTableSize = 32;
// Header room of the video work buffer in front of the frame.
constexpr size_t kVideoHeaderRoom = 264;
// At most this many units are listed in one frame so that the header, 9 + 8k bytes, fits the
// header room (k = 32 would need 265). Slices after the 31st go out clear.
constexpr unsigned kMaxListedNalus = (kVideoHeaderRoom - 9) / 8;
static_assert(kMaxListedNalus <= kNaluTableSize, "the table holds every listed unit");
static_assert(9 + 8 * kMaxListedNalus <= kVideoHeaderRoom, "the header fits its room");

// Frame sizes the shared work buffers are made for.
constexpr size_t kAudioWorkCapacity = 1024;
constexpr size_t kVideoWorkCapacity = 524288;

// Length of an encrypted video frame's header for k listed units.
constexpr size_t VideoHeaderBytes(unsigned k) {
  return 9 + 8 * static_cast<size_t>(k);
}

struct crypto_nalu_info {
  uint32_t count;                    // listed units, at most kMaxListedNalus
  uint32_t offsets[kNaluTableSize];  // first byte after the start code, from the frame's start
  uint32_t lengths[kNaluTableSize];
};

// A work buffer shared by the forwarding code. Whoever encrypts into it holds `mutex` from the
// encryption until the bytes have been handed to the transport, so two frames never meet in it:
//
//   std::lock_guard<std::mutex> hold(encrypto_video.mutex);
//   get_nalu_info(frame, len, &encrypto_video.nalu);
//   for each viewer: video_chacha20_encrypt(frame, len, key, &out_len, &encrypto_video.nalu,
//                                           encrypto_video.data, encrypto_video.capacity);
//                    avSendFrameData(..., encrypto_video.data, out_len, ...);
struct crypto_work_buf {
  std::mutex mutex;
  unsigned char* data = nullptr;  // capacity bytes; null until made
  size_t capacity = 0;
  crypto_nalu_info nalu{};  // the unit table of the frame in the buffer (video)
};

// The audio (kAudioWorkCapacity + 8 bytes) and video (kVideoWorkCapacity + kVideoHeaderRoom
// bytes) work buffers, made once by libsodium_init (hubauth.h) and never freed.
extern crypto_work_buf encrypto_audio;
extern crypto_work_buf encrypto_video;
// The unit table of live frames: encrypto_video.nalu, under encrypto_video.mutex.
extern crypto_nalu_info& live_crypto_nalu_info;

// Buffers of capacity + 8 and capacity + kVideoHeaderRoom bytes (malloc), or null.
unsigned char* init_audio_buf(int capacity);
unsigned char* init_video_buf(int capacity);
// Makes both work buffers unless made already. 0; -1 when the audio buffer cannot be made
// (logged "malloc audio encrypt buf fail!"), -2 for the video buffer ("malloc video encrypt buf
// fail!").
int init_work_buffers();

// Lists the coded slices (NAL types 1 and 5, at least 49 bytes) of an Annex B frame, in frame
// order, at most kMaxListedNalus. 0; -1 for null arguments ("msg is NULL") or a frame without
// any start code (count 0).
int get_nalu_info(const unsigned char* frame, unsigned int len, crypto_nalu_info* info);

// The encrypted video frame of the table's layout into out (cap bytes), its length into
// *out_len. 0, or -1 (logged) for null arguments, a table that does not fit the frame, more than
// kMaxListedNalus units, or an output too small for 9 + 8k + len bytes.
int video_chacha20_encrypt(const unsigned char* frame, unsigned int len, const unsigned char* key,
                           unsigned int* out_len, const crypto_nalu_info* info, unsigned char* out,
                           size_t cap);
// The same with the nonce given (kChachaNonceBytes) instead of drawn: a frame that goes to
// several viewers draws one nonce, and each viewer's own key makes its own key stream.
int video_chacha20_encrypt_nonce(const unsigned char* frame, unsigned int len,
                                 const unsigned char* key, const unsigned char* nonce,
                                 unsigned int* out_len, const crypto_nalu_info* info,
                                 unsigned char* out, size_t cap);

// nonce | data XOR key stream into out (cap bytes, at least len + 8). out, or null (logged
// "data or chacha20_share_key is NULL" for null arguments).
unsigned char* audio_chacha20_encrypt(const char* data, int len, const unsigned char* key,
                                      unsigned char* out, size_t cap);

// nonce | plain_len | the first enc_len bytes of data XORed, into out (cap bytes); total length
// enc_len + 12 into *out_len. data is already padded to the block size: 0 <= plain_len <=
// enc_len. 0 or -1.
int text_chacha20_encrypt_16(const char* data, int plain_len, int enc_len, const unsigned char* key,
                             unsigned char* out, size_t cap, int* out_len);

// The reverse of the text layout with a length field of field_size bytes (0 or 4). The input
// must hold at least field_size + 24 bytes. The len - 8 - field_size decrypted bytes go to out
// (cap bytes); *plain_len is that count, capped at the header's plain length when the field is
// there. 0 or -1.
int text_chacha20_decrypt(const char* data, int len, const unsigned char* key, unsigned char* out,
                          size_t cap, int* plain_len, int field_size);

// The big-flow layout of data under the caller's nonce into out (cap bytes, at least len; out
// may be data itself); *out_len = len. 0 or -1.
int bigflow_chacha20_encrypt(const unsigned char* data, unsigned int len, const unsigned char* key,
                             unsigned int* out_len, const unsigned char* nonce, unsigned char* out,
                             size_t cap);

// Eight random bytes. 0.
int get_nonce(unsigned char* nonce);

// The first kChachaPieceBytes of key stream for a nonce: what every piece is XORed with.
void chacha20_piece_stream(const unsigned char* nonce, const unsigned char* key,
                           unsigned char stream[kChachaPieceBytes]);
// XORs the pieces of one listed video unit of len bytes in place (both directions).
void xor_video_unit(unsigned char* unit, size_t len, const unsigned char stream[kChachaPieceBytes]);
