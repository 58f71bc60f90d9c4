// Stream encryption: the byte layouts of encrypted audio, video, text and big-flow data checked
// against tables written out by hand, the NAL unit scan at its bounds, and round trips through
// the viewer's decryption. The key stream is checked independently with OpenSSL's ChaCha20.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sodium.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "crypto/stream_decrypt.h"
#include "crypto/stream_encrypt.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes Key(unsigned char seed) {
  Bytes key(kChachaKeyBytes);
  for (size_t i = 0; i < key.size(); i++) key[i] = static_cast<unsigned char>(seed + 7 * i);
  return key;
}

// ChaCha20 with a 64-bit nonce and a 64-bit block counter from 0, through OpenSSL: its 16-byte
// IV is the state's words 12..15, i.e. the counter (8 zero bytes here) and then the nonce.
Bytes KeyStream(const Bytes& key, const unsigned char* nonce, size_t n) {
  unsigned char iv[16] = {0};
  std::memcpy(iv + 8, nonce, 8);
  Bytes zeros(n, 0);
  Bytes out(n);
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  int len = 0;
  EXPECT_EQ(1, EVP_EncryptInit_ex(ctx, EVP_chacha20(), nullptr, key.data(), iv));
  EXPECT_EQ(1, EVP_EncryptUpdate(ctx, out.data(), &len, zeros.data(), static_cast<int>(n)));
  EVP_CIPHER_CTX_free(ctx);
  return out;
}

uint32_t Le32(const unsigned char* p) {
  return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// Payload bytes that never form a start code.
void Fill(Bytes* frame, size_t n, unsigned char first) {
  frame->push_back(first);
  for (size_t i = 1; i < n; i++) frame->push_back(static_cast<unsigned char>(0x80 | (i * 37)));
}

void StartCode(Bytes* frame, bool four) {
  if (four) frame->push_back(0);
  frame->insert(frame->end(), {0, 0, 1});
}

// A frame of units (first byte, length), each behind a start code of 4 or 3 bytes as given.
struct Unit {
  unsigned char first;
  size_t len;
  bool four;
};
Bytes Frame(const std::vector<Unit>& units) {
  Bytes frame;
  for (const Unit& u : units) {
    StartCode(&frame, u.four);
    Fill(&frame, u.len, u.first);
  }
  return frame;
}

TEST(ChachaKeyStream, ZeroKeyAndNonceGiveTheKnownFirstBlock) {
  // The first bytes of the classic ChaCha20 test vector: key and nonce all zero, counter 0.
  const unsigned char expected[16] = {0x76, 0xb8, 0xe0, 0xad, 0xa0, 0xf1, 0x3d, 0x90,
                                      0x40, 0x5d, 0x6a, 0xe5, 0x53, 0x86, 0xbd, 0x28};
  unsigned char key[32] = {0};
  unsigned char nonce[8] = {0};
  unsigned char stream[16];
  chacha20_piece_stream(nonce, key, stream);
  EXPECT_EQ(0, std::memcmp(expected, stream, 16));
  EXPECT_EQ(Bytes(expected, expected + 16), KeyStream(Bytes(32, 0), nonce, 16));
}

TEST(AudioEncrypt, NonceThenWholePayloadXoredFromCounterZero) {
  const Bytes key = Key(1);
  Bytes audio(320);
  for (size_t i = 0; i < audio.size(); i++) audio[i] = static_cast<unsigned char>(i ^ 0x55);
  Bytes out(320 + 8 + 5, 0xEE);
  ASSERT_EQ(out.data(), audio_chacha20_encrypt(reinterpret_cast<const char*>(audio.data()), 320,
                                               key.data(), out.data(), out.size()));
  const Bytes stream = KeyStream(key, out.data(), 320);
  for (size_t i = 0; i < 320; i++) ASSERT_EQ(audio[i] ^ stream[i], out[8 + i]) << i;
  EXPECT_EQ(0xEE, out[328]);  // 320 bytes become 328, nothing behind them

  Bytes plain(320);
  EXPECT_EQ(320, audio_chacha20_decrypt(out.data(), 328, key.data(), plain.data(), plain.size()));
  EXPECT_EQ(audio, plain);
  // In place, as the viewer may do it.
  EXPECT_EQ(320, audio_chacha20_decrypt(out.data(), 328, key.data(), out.data(), out.size()));
  EXPECT_EQ(audio, Bytes(out.begin(), out.begin() + 320));

  // Two packets never share a nonce, not even when the hub encrypts them into one work buffer
  // one after the other.
  Bytes work(328);
  ASSERT_NE(nullptr, audio_chacha20_encrypt(reinterpret_cast<const char*>(audio.data()), 320,
                                            key.data(), work.data(), work.size()));
  const Bytes first(work.begin(), work.begin() + 8);
  ASSERT_NE(nullptr, audio_chacha20_encrypt(reinterpret_cast<const char*>(audio.data()), 320,
                                            key.data(), work.data(), work.size()));
  EXPECT_NE(first, Bytes(work.begin(), work.begin() + 8));
  EXPECT_NE(Bytes(8, 0), first);
}

TEST(AudioEncrypt, RefusesNullArgumentsAndOutputsTooSmall) {
  const Bytes key = Key(2);
  Bytes audio(100, 1);
  Bytes out(108);
  const char* data = reinterpret_cast<const char*>(audio.data());
  EXPECT_EQ(nullptr, audio_chacha20_encrypt(nullptr, 100, key.data(), out.data(), out.size()));
  EXPECT_EQ(nullptr, audio_chacha20_encrypt(data, 100, nullptr, out.data(), out.size()));
  EXPECT_EQ(nullptr, audio_chacha20_encrypt(data, 100, key.data(), nullptr, 108));
  EXPECT_EQ(nullptr, audio_chacha20_encrypt(data, 100, key.data(), out.data(), 107));
  EXPECT_EQ(nullptr, audio_chacha20_encrypt(data, -1, key.data(), out.data(), out.size()));
  EXPECT_EQ(-1, audio_chacha20_decrypt(out.data(), 7, key.data(), out.data(), out.size()));
  EXPECT_EQ(-1, audio_chacha20_decrypt(out.data(), 108, key.data(), out.data(), 99));
}

TEST(NaluInfo, ListsSlicesOfTypesOneAndFiveFromFortyNineBytes) {
  // SPS (4-byte start code), PPS, SEI, IDR slice, 48-byte slice (too short), 49-byte slice,
  // a slice of nal_ref_idc 0, a data-partition unit (type 2), a slice ended by the frame end.
  const Bytes frame = Frame({{0x67, 20, true},
                             {0x68, 60, false},
                             {0x06, 80, false},
                             {0x65, 400, true},
                             {0x41, 48, true},
                             {0x41, 49, false},
                             {0x01, 60, false},
                             {0x42, 100, false},
                             {0x21, 70, true}});
  crypto_nalu_info info{};
  ASSERT_EQ(0, get_nalu_info(frame.data(), static_cast<unsigned>(frame.size()), &info));
  // Offsets by hand: 4+20=24, +3+60=87, +3+80=170, +4 -> IDR at 174 .. 574, +4 -> 48 at 578 ..
  // 626, +3 -> 49 at 629 .. 678, +3 -> 0x01 at 681 .. 741, +3 -> 0x42 at 744 .. 844, +4 -> 848.
  ASSERT_EQ(4u, info.count);
  EXPECT_EQ(174u, info.offsets[0]);
  EXPECT_EQ(400u, info.lengths[0]);
  EXPECT_EQ(629u, info.offsets[1]);
  EXPECT_EQ(49u, info.lengths[1]);
  EXPECT_EQ(681u, info.offsets[2]);
  EXPECT_EQ(60u, info.lengths[2]);
  EXPECT_EQ(848u, info.offsets[3]);
  EXPECT_EQ(70u, info.lengths[3]);
  EXPECT_EQ(frame.size(), info.offsets[3] + info.lengths[3]);
}

TEST(NaluInfo, BoundsOfTheScan) {
  crypto_nalu_info info{};
  info.count = 7;
  // Null arguments, an empty frame and a frame without a start code.
  EXPECT_EQ(-1, get_nalu_info(nullptr, 10, &info));
  const unsigned char junk[] = {0x65, 0, 0, 2, 0, 0, 0, 0, 0x41};
  EXPECT_EQ(-1, get_nalu_info(junk, 0, &info));
  EXPECT_EQ(0u, info.count);
  EXPECT_EQ(-1, get_nalu_info(junk, sizeof(junk), nullptr));
  info.count = 7;
  EXPECT_EQ(-1, get_nalu_info(junk, sizeof(junk), &info));
  EXPECT_EQ(0u, info.count);

  // Truncated: a start code with nothing, or only part of a start code, at the end.
  const unsigned char only_code[] = {0, 0, 0, 1};
  EXPECT_EQ(0, get_nalu_info(only_code, 4, &info));
  EXPECT_EQ(0u, info.count);
  const unsigned char partial[] = {0, 0};
  EXPECT_EQ(-1, get_nalu_info(partial, 2, &info));

  // Bytes before the first start code are not a unit; a slice cut short by the frame end is
  // listed with what there is of it.
  Bytes frame = {0x65, 0x88, 0x99};
  Bytes tail = Frame({{0x65, 300, false}});
  frame.insert(frame.end(), tail.begin(), tail.end());
  ASSERT_EQ(0, get_nalu_info(frame.data(), 3 + 3 + 100, &info));
  ASSERT_EQ(1u, info.count);
  EXPECT_EQ(6u, info.offsets[0]);
  EXPECT_EQ(100u, info.lengths[0]);
}

TEST(NaluInfo, ListsAtMostThirtyOneUnitsInFrameOrder) {
  std::vector<Unit> units;
  for (int i = 0; i < 40; i++) units.push_back({0x41, 60, i % 2 == 0});
  const Bytes frame = Frame(units);
  crypto_nalu_info info{};
  ASSERT_EQ(0, get_nalu_info(frame.data(), static_cast<unsigned>(frame.size()), &info));
  ASSERT_EQ(31u, info.count);
  size_t expected = 0;
  for (unsigned i = 0; i < info.count; i++) {
    expected += units[i].four ? 4 : 3;
    EXPECT_EQ(expected, info.offsets[i]) << i;
    EXPECT_EQ(60u, info.lengths[i]);
    expected += 60;
  }
  // The header of 31 units fills 257 of the 264 bytes of header room.
  Bytes out(frame.size() + kVideoHeaderRoom);
  unsigned out_len = 0;
  const Bytes key = Key(3);
  ASSERT_EQ(0, video_chacha20_encrypt(frame.data(), static_cast<unsigned>(frame.size()), key.data(),
                                      &out_len, &info, out.data(), out.size()));
  EXPECT_EQ(frame.size() + 257, out_len);
  EXPECT_EQ(31, out[8]);
}

TEST(VideoEncrypt, OneNonceForSeveralKeysGivesEachViewerItsOwnKeyStream) {
  // One frame for two viewers under one drawn nonce: both outputs carry that nonce and the same
  // table, differ in the encrypted pieces only, and each decrypts under its own key alone.
  const Bytes frame = Frame({{0x67, 10, true}, {0x65, 400, false}, {0x41, 49, false}});
  crypto_nalu_info info{};
  ASSERT_EQ(0, get_nalu_info(frame.data(), static_cast<unsigned>(frame.size()), &info));
  const unsigned char nonce[kChachaNonceBytes] = {1, 2, 3, 4, 5, 6, 7, 8};
  const Bytes key_a = Key(5), key_b = Key(6);
  Bytes a(frame.size() + kVideoHeaderRoom), b(frame.size() + kVideoHeaderRoom);
  unsigned len_a = 0, len_b = 0;
  ASSERT_EQ(0,
            video_chacha20_encrypt_nonce(frame.data(), static_cast<unsigned>(frame.size()),
                                         key_a.data(), nonce, &len_a, &info, a.data(), a.size()));
  ASSERT_EQ(0,
            video_chacha20_encrypt_nonce(frame.data(), static_cast<unsigned>(frame.size()),
                                         key_b.data(), nonce, &len_b, &info, b.data(), b.size()));
  ASSERT_EQ(len_a, len_b);
  EXPECT_EQ(0, std::memcmp(nonce, a.data(), sizeof(nonce)));
  const size_t header = VideoHeaderBytes(info.count);
  EXPECT_EQ(0, std::memcmp(a.data(), b.data(), header));
  EXPECT_NE(0, std::memcmp(a.data() + header, b.data() + header, frame.size()));
  Bytes plain(frame.size() + 16);
  crypto_nalu_info back{};
  ASSERT_EQ(
      static_cast<int>(frame.size()),
      video_chacha20_decrypt(a.data(), len_a, key_a.data(), plain.data(), plain.size(), &back));
  EXPECT_TRUE(std::equal(frame.begin(), frame.end(), plain.begin()));
  ASSERT_EQ(
      static_cast<int>(frame.size()),
      video_chacha20_decrypt(b.data(), len_b, key_a.data(), plain.data(), plain.size(), &back));
  EXPECT_FALSE(std::equal(frame.begin(), frame.end(), plain.begin()));
  // The drawing form is the same encryption under a fresh nonce each call.
  Bytes c(a.size()), d(a.size());
  unsigned len_c = 0, len_d = 0;
  ASSERT_EQ(0, video_chacha20_encrypt(frame.data(), static_cast<unsigned>(frame.size()),
                                      key_a.data(), &len_c, &info, c.data(), c.size()));
  ASSERT_EQ(0, video_chacha20_encrypt(frame.data(), static_cast<unsigned>(frame.size()),
                                      key_a.data(), &len_d, &info, d.data(), d.size()));
  EXPECT_NE(0, std::memcmp(c.data(), d.data(), kChachaNonceBytes));
  EXPECT_EQ(-1,
            video_chacha20_encrypt_nonce(frame.data(), static_cast<unsigned>(frame.size()),
                                         key_a.data(), nullptr, &len_a, &info, a.data(), a.size()));
}

TEST(VideoEncrypt, HeaderTableAndPiecesAsLaidOut) {
  // SPS, then an IDR slice of 400 bytes, a slice of 48 (clear) and one of 49 bytes.
  const Bytes frame =
      Frame({{0x67, 10, true}, {0x65, 400, false}, {0x41, 48, true}, {0x41, 49, false}});
  ASSERT_EQ(521u, frame.size());
  crypto_nalu_info info{};
  ASSERT_EQ(0, get_nalu_info(frame.data(), 521, &info));
  const Bytes key = Key(4);
  Bytes out(521 + kVideoHeaderRoom, 0xEE);
  unsigned out_len = 0;
  ASSERT_EQ(0, video_chacha20_encrypt(frame.data(), 521, key.data(), &out_len, &info, out.data(),
                                      out.size()));

  // 8 nonce bytes, k = 2, (17, 400), (472, 49), then the frame at 9 + 16 = 25.
  const unsigned char table[17] = {2, 17, 0, 0, 0, 0x90, 0x01, 0, 0, 0xD8, 0x01, 0, 0, 49, 0, 0, 0};
  EXPECT_EQ(0, std::memcmp(table, out.data() + 8, sizeof(table)));
  ASSERT_EQ(25u + 521u, out_len);
  EXPECT_EQ(0xEE, out[out_len]);

  // Encrypted: IDR bytes 32..47, 192..207, 352..367 (400 - 352 = 48 > 16); the 49-byte slice
  // bytes 32..47 only. Everything else is the frame as it was.
  const Bytes stream = KeyStream(key, out.data(), 16);
  std::vector<int> piece_byte(521, -1);  // index into the key stream, or -1: clear
  for (size_t start : {17 + 32, 17 + 192, 17 + 352, 472 + 32}) {
    for (size_t i = 0; i < 16; i++) piece_byte[start + i] = static_cast<int>(i);
  }
  const unsigned char* body = out.data() + 25;
  for (size_t i = 0; i < 521; i++) {
    const int k = piece_byte[i];
    const unsigned char want = k < 0 ? frame[i] : frame[i] ^ stream[static_cast<size_t>(k)];
    ASSERT_EQ(want, body[i]) << "frame byte " << i;
  }

  Bytes plain(600);
  crypto_nalu_info table_back{};
  ASSERT_EQ(521, video_chacha20_decrypt(out.data(), out_len, key.data(), plain.data(), plain.size(),
                                        &table_back));
  EXPECT_EQ(frame, Bytes(plain.begin(), plain.begin() + 521));
  EXPECT_EQ(2u, table_back.count);
  EXPECT_EQ(472u, table_back.offsets[1]);
}

TEST(VideoEncrypt, PieceNeedsMoreThanSixteenBytesBehindIt) {
  // Units of 208 and 209 bytes: the piece at 192 is encrypted only in the longer one.
  for (size_t len : {208u, 209u}) {
    const Bytes frame = Frame({{0x65, len, true}});
    crypto_nalu_info info{};
    ASSERT_EQ(0, get_nalu_info(frame.data(), static_cast<unsigned>(frame.size()), &info));
    const Bytes key = Key(5);
    Bytes out(frame.size() + 17);
    unsigned out_len = 0;
    ASSERT_EQ(0, video_chacha20_encrypt(frame.data(), static_cast<unsigned>(frame.size()),
                                        key.data(), &out_len, &info, out.data(), out.size()));
    const unsigned char* unit = out.data() + 17 + 4;
    EXPECT_NE(0, std::memcmp(unit + 32, frame.data() + 4 + 32, 16));
    const bool second = std::memcmp(unit + 192, frame.data() + 4 + 192, 16) != 0;
    EXPECT_EQ(len == 209, second) << len;
  }
}

TEST(VideoEncrypt, ParameterSetsOnlyGoOutClearBehindANineByteHeader) {
  const Bytes frame = Frame({{0x67, 30, true}, {0x68, 8, true}});
  crypto_nalu_info info{};
  ASSERT_EQ(0, get_nalu_info(frame.data(), static_cast<unsigned>(frame.size()), &info));
  EXPECT_EQ(0u, info.count);
  const Bytes key = Key(6);
  Bytes out(frame.size() + 9);
  unsigned out_len = 0;
  ASSERT_EQ(0, video_chacha20_encrypt(frame.data(), static_cast<unsigned>(frame.size()), key.data(),
                                      &out_len, &info, out.data(), out.size()));
  EXPECT_EQ(frame.size() + 9, out_len);
  EXPECT_EQ(0, out[8]);
  EXPECT_EQ(frame, Bytes(out.begin() + 9, out.end()));
}

TEST(VideoEncrypt, RefusesWhatDoesNotFit) {
  const Bytes frame = Frame({{0x65, 100, true}});
  crypto_nalu_info info{};
  ASSERT_EQ(0, get_nalu_info(frame.data(), static_cast<unsigned>(frame.size()), &info));
  const Bytes key = Key(7);
  unsigned out_len = 0;
  const unsigned n = static_cast<unsigned>(frame.size());
  // Exactly 9 + 8 + n bytes fit; one less does not (ASan watches the vector's end).
  Bytes exact(17 + n);
  EXPECT_EQ(0, video_chacha20_encrypt(frame.data(), n, key.data(), &out_len, &info, exact.data(),
                                      exact.size()));
  Bytes short_out(16 + n);
  EXPECT_EQ(-1, video_chacha20_encrypt(frame.data(), n, key.data(), &out_len, &info,
                                       short_out.data(), short_out.size()));
  EXPECT_EQ(-1, video_chacha20_encrypt(nullptr, n, key.data(), &out_len, &info, exact.data(),
                                       exact.size()));
  EXPECT_EQ(-1, video_chacha20_encrypt(frame.data(), n, nullptr, &out_len, &info, exact.data(),
                                       exact.size()));
  EXPECT_EQ(-1, video_chacha20_encrypt(frame.data(), n, key.data(), &out_len, nullptr, exact.data(),
                                       exact.size()));
  EXPECT_EQ(-1,
            video_chacha20_encrypt(frame.data(), n, key.data(), &out_len, &info, nullptr, 1000));

  // A table that lists too many units or a unit beyond the frame.
  crypto_nalu_info bad = info;
  bad.count = kMaxListedNalus + 1;
  Bytes big(n + 1000);
  EXPECT_EQ(-1, video_chacha20_encrypt(frame.data(), n, key.data(), &out_len, &bad, big.data(),
                                       big.size()));
  bad = info;
  bad.lengths[0] = n - bad.offsets[0] + 1;
  EXPECT_EQ(-1, video_chacha20_encrypt(frame.data(), n, key.data(), &out_len, &bad, big.data(),
                                       big.size()));
  bad.offsets[0] = 0xFFFFFFF0u;
  bad.lengths[0] = 0x20;
  EXPECT_EQ(-1, video_chacha20_encrypt(frame.data(), n, key.data(), &out_len, &bad, big.data(),
                                       big.size()));
}

TEST(VideoDecrypt, RefusesHeadersThatLie) {
  const Bytes key = Key(8);
  Bytes out(4096);
  // Shorter than the fixed header; a count whose table runs past the end; a unit past the frame;
  // more units than the table holds.
  Bytes msg(8, 0);
  EXPECT_EQ(-1, video_chacha20_decrypt(msg.data(), msg.size(), key.data(), out.data(), 4096));
  msg = Bytes(9 + 8 * 2 - 1, 0);
  msg[8] = 2;
  EXPECT_EQ(-1, video_chacha20_decrypt(msg.data(), msg.size(), key.data(), out.data(), 4096));
  msg = Bytes(9 + 8 + 100, 0);
  msg[8] = 1;
  msg[9] = 60;   // offset 60
  msg[13] = 41;  // length 41: 101 > 100
  EXPECT_EQ(-1, video_chacha20_decrypt(msg.data(), msg.size(), key.data(), out.data(), 4096));
  msg[13] = 40;
  EXPECT_EQ(100, video_chacha20_decrypt(msg.data(), msg.size(), key.data(), out.data(), 4096));
  EXPECT_EQ(-1, video_chacha20_decrypt(msg.data(), msg.size(), key.data(), out.data(), 99));
  msg = Bytes(9 + 8 * 33, 0);
  msg[8] = 33;
  EXPECT_EQ(-1, video_chacha20_decrypt(msg.data(), msg.size(), key.data(), out.data(), 4096));
}

TEST(VideoEncrypt, RoundTripOfAKeyFrameSizedFrame) {
  std::vector<Unit> units = {{0x67, 12, true}, {0x68, 4, true}};
  for (int i = 0; i < 6; i++) units.push_back({0x65, 25000, true});
  const Bytes frame = Frame(units);
  crypto_nalu_info info{};
  ASSERT_EQ(0, get_nalu_info(frame.data(), static_cast<unsigned>(frame.size()), &info));
  ASSERT_EQ(6u, info.count);
  const Bytes key = Key(9);
  Bytes out(frame.size() + kVideoHeaderRoom);
  unsigned out_len = 0;
  ASSERT_EQ(0, video_chacha20_encrypt(frame.data(), static_cast<unsigned>(frame.size()), key.data(),
                                      &out_len, &info, out.data(), out.size()));
  // Another key gives another frame; the right key gives the frame back, in place.
  Bytes wrong(frame.size());
  ASSERT_EQ(
      static_cast<int>(frame.size()),
      video_chacha20_decrypt(out.data(), out_len, Key(10).data(), wrong.data(), wrong.size()));
  EXPECT_NE(frame, wrong);
  ASSERT_EQ(static_cast<int>(frame.size()),
            video_chacha20_decrypt(out.data(), out_len, key.data(), out.data(), out.size()));
  EXPECT_EQ(0, std::memcmp(frame.data(), out.data(), frame.size()));
}

// Clears the stack below the caller, so that a nonce that was never drawn (a local the
// encryption forgot to fill) reads as zeros rather than as whatever an earlier call left there.
__attribute__((noinline)) void ClearStackBelow() {
  volatile unsigned char area[64 * 1024];
  for (auto& byte : area) byte = 0;
}

TEST(VideoEncrypt, EveryFrameHasItsOwnNonceAndKeyStream) {
  // The hub encrypts frame after frame into one work buffer. Were the nonce left from the frame
  // before, two frames would share a key stream and one would give the other away (XOR of the
  // two ciphertexts is the XOR of the plain frames).
  const Bytes frame = Frame({{0x65, 400, true}});
  crypto_nalu_info info{};
  ASSERT_EQ(0, get_nalu_info(frame.data(), static_cast<unsigned>(frame.size()), &info));
  ASSERT_EQ(1u, info.count);
  const Bytes key = Key(5);
  Bytes work(frame.size() + kVideoHeaderRoom, 0);
  std::vector<Bytes> sent;
  for (int i = 0; i < 4; i++) {
    unsigned out_len = 0;
    ClearStackBelow();
    ASSERT_EQ(0, video_chacha20_encrypt(frame.data(), static_cast<unsigned>(frame.size()),
                                        key.data(), &out_len, &info, work.data(), work.size()));
    sent.emplace_back(work.begin(), work.begin() + out_len);
  }
  for (size_t a = 0; a < sent.size(); a++) {
    EXPECT_NE(Bytes(8, 0), Bytes(sent[a].begin(), sent[a].begin() + 8)) << a;
    for (size_t b = a + 1; b < sent.size(); b++) {
      EXPECT_NE(Bytes(sent[a].begin(), sent[a].begin() + 8),
                Bytes(sent[b].begin(), sent[b].begin() + 8))
          << "frames " << a << " and " << b << " share a nonce";
      EXPECT_NE(sent[a], sent[b]) << "frames " << a << " and " << b << " are the same bytes";
    }
    Bytes plain(frame.size());
    ASSERT_EQ(static_cast<int>(frame.size()),
              video_chacha20_decrypt(sent[a].data(), static_cast<unsigned>(sent[a].size()),
                                     key.data(), plain.data(), plain.size()));
    EXPECT_EQ(frame, plain);
  }
}

TEST(TextEncrypt, LengthHeaderAndRoundTrip) {
  const Bytes key = Key(11);
  const std::string text = "{\"cmd\":\"list\",\"day\":\"2024-01-01\"}";  // 33 bytes
  ASSERT_EQ(33u, text.size());
  Bytes padded(48, 0);
  std::memcpy(padded.data(), text.data(), text.size());
  Bytes out(60);
  int total = 0;
  ASSERT_EQ(0, text_chacha20_encrypt_16(reinterpret_cast<const char*>(padded.data()), 33, 48,
                                        key.data(), out.data(), out.size(), &total));
  EXPECT_EQ(60, total);
  EXPECT_EQ(33u, Le32(out.data() + 8));
  const Bytes stream = KeyStream(key, out.data(), 48);
  for (size_t i = 0; i < 48; i++) ASSERT_EQ(padded[i] ^ stream[i], out[12 + i]) << i;

  Bytes plain(48);
  int plain_len = 0;
  ASSERT_EQ(0, text_chacha20_decrypt(reinterpret_cast<const char*>(out.data()), total, key.data(),
                                     plain.data(), plain.size(), &plain_len, 4));
  EXPECT_EQ(33, plain_len);  // capped at the header's length
  EXPECT_EQ(text, std::string(plain.begin(), plain.begin() + plain_len));

  // Without a length field the bytes from 8 on are the text.
  ASSERT_EQ(0, text_chacha20_decrypt(reinterpret_cast<const char*>(out.data()), total, key.data(),
                                     plain.data(), 52, &plain_len, 0));
  EXPECT_EQ(52, plain_len);

  // Refused: padded length below the plain length, output too small, input below field + 24.
  EXPECT_EQ(-1, text_chacha20_encrypt_16(reinterpret_cast<const char*>(padded.data()), 49, 48,
                                         key.data(), out.data(), out.size(), &total));
  EXPECT_EQ(-1, text_chacha20_encrypt_16(reinterpret_cast<const char*>(padded.data()), 33, 48,
                                         key.data(), out.data(), 59, &total));
  EXPECT_EQ(-1, text_chacha20_decrypt(reinterpret_cast<const char*>(out.data()), 27, key.data(),
                                      plain.data(), plain.size(), &plain_len, 4));
  EXPECT_EQ(0, text_chacha20_decrypt(reinterpret_cast<const char*>(out.data()), 28, key.data(),
                                     plain.data(), plain.size(), &plain_len, 4));
  EXPECT_EQ(-1, text_chacha20_decrypt(reinterpret_cast<const char*>(out.data()), 60, key.data(),
                                      plain.data(), plain.size(), &plain_len, 2));
}

TEST(BigFlowEncrypt, PiecesEveryHundredSixtyBytesWhileSixteenRemain) {
  const Bytes key = Key(12);
  unsigned char nonce[8];
  ASSERT_EQ(0, get_nonce(nonce));
  const Bytes stream = KeyStream(key, nonce, 16);
  for (unsigned len : {175u, 176u, 15u, 0u}) {
    Bytes data(len + 1);
    for (unsigned i = 0; i < len; i++) data[i] = static_cast<unsigned char>(i);
    Bytes out(len + 1);
    unsigned out_len = 99;
    ASSERT_EQ(0, bigflow_chacha20_encrypt(data.data(), len, key.data(), &out_len, nonce, out.data(),
                                          out.size()));
    EXPECT_EQ(len, out_len);
    for (unsigned i = 0; i < len; i++) {
      const bool piece = (i < 16 && len >= 16) || (i >= 160 && i < 176 && len >= 176);
      ASSERT_EQ(piece ? data[i] ^ stream[i % 16] : data[i], out[i]) << len << " " << i;
    }
    // Its own inverse, in place.
    ASSERT_EQ(static_cast<int>(len),
              bigflow_chacha20_decrypt(out.data(), len, key.data(), nonce, out.data(), len));
    EXPECT_EQ(data, out);
  }
  Bytes small(10);
  unsigned out_len = 0;
  EXPECT_EQ(
      -1, bigflow_chacha20_encrypt(small.data(), 10, key.data(), &out_len, nonce, small.data(), 9));
  EXPECT_EQ(-1, bigflow_chacha20_encrypt(small.data(), 10, key.data(), &out_len, nullptr,
                                         small.data(), 10));
}

TEST(WorkBuffers, MadeOnceWithTheirHeaderRoom) {
  ASSERT_EQ(0, init_work_buffers());
  unsigned char* audio = encrypto_audio.data;
  unsigned char* video = encrypto_video.data;
  ASSERT_NE(nullptr, audio);
  ASSERT_NE(nullptr, video);
  EXPECT_EQ(1024u + 8u, encrypto_audio.capacity);
  EXPECT_EQ(524288u + 264u, encrypto_video.capacity);
  ASSERT_EQ(0, init_work_buffers());
  EXPECT_EQ(audio, encrypto_audio.data);
  EXPECT_EQ(video, encrypto_video.data);
  EXPECT_EQ(nullptr, init_audio_buf(-1));
}

}  // namespace
