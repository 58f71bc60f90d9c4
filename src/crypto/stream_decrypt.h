// The viewer's side of stream encryption (layouts in stream_encrypt.h): what the app does with
// the encrypted audio and video frames the hub sends. Every length in a received header is
// checked against the received bytes before use.
#pragma once

#include <cstddef>

#include "crypto/stream_encrypt.h"

// nonce | audio into the plain audio at out (cap bytes; out may be in itself). Its length, or -1
// when the input is shorter than a nonce or the output too small.
int audio_chacha20_decrypt(const unsigned char* in, size_t len, const unsigned char* key,
                           unsigned char* out, size_t cap);

// An encrypted video frame into the plain frame at out (cap bytes; out may be in itself). Its
// length, or -1 when the header does not fit the input, lists more than kNaluTableSize units or
// a unit outside the frame, or the output is too small. The unit table goes to *info when given.
int video_chacha20_decrypt(const unsigned char* in, size_t len, const unsigned char* key,
                           unsigned char* out, size_t cap, crypto_nalu_info* info = nullptr);

// The big-flow layout is its own inverse: the same call with the same nonce restores the data.
int bigflow_chacha20_decrypt(const unsigned char* data, unsigned int len, const unsigned char* key,
                             const unsigned char* nonce, unsigned char* out, size_t cap);
