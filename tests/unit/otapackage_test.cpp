// The firmware package: header layout, the splitter under every way of cutting the stream, the
// header checks, and the signature trailer.
#include "cloud/otapackage.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

namespace {

struct Sinks {
  std::string hub;
  std::string camera;
  bool fail_hub = false;
};

ota::Splitter MakeSplitter(Sinks* s) {
  return ota::Splitter(
      [s](const uint8_t* d, size_t n) {
        if (s->fail_hub) return false;
        s->hub.append(reinterpret_cast<const char*>(d), n);
        return true;
      },
      [s](const uint8_t* d, size_t n) {
        s->camera.append(reinterpret_cast<const char*>(d), n);
        return true;
      });
}

// Feeds the stream cut at the given offsets; returns the bytes taken.
size_t Feed(ota::Splitter* splitter, const std::string& stream, const std::vector<size_t>& cuts) {
  size_t taken = 0;
  size_t at = 0;
  std::vector<size_t> ends = cuts;
  ends.push_back(stream.size());
  for (size_t end : ends) {
    if (end < at) continue;
    taken += splitter->Consume(reinterpret_cast<const uint8_t*>(stream.data()) + at, end - at);
    at = end;
  }
  return taken;
}

std::string Bytes(size_t n, uint8_t seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; i++) s[i] = static_cast<char>(seed + i * 7);
  return s;
}

class OtaSignature : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_GE(sodium_init(), 0);
    crypto_sign_keypair(pk_, sk_);
    crypto_sign_keypair(other_pk_, other_sk_);
  }
  uint8_t pk_[32], sk_[64], other_pk_[32], other_sk_[64];
};

TEST(OtaPackage, HeaderIsLittleEndianWithNulPaddedDigests) {
  const std::string hub = "HUB", camera = "CAMERA!";
  const std::string p = ota::BuildPackage(hub, camera, 0x01020304, 0xA0B0C0D0);
  ASSERT_EQ(p.size(), 144u + 3 + 7);
  EXPECT_EQ(p.substr(0, 8), std::string("\x04\x03\x02\x01\xD0\xC0\xB0\xA0", 8));
  EXPECT_EQ(p.substr(8, 32), ota::Md5Hex(hub.data(), hub.size()));
  EXPECT_EQ(p.substr(40, 32), std::string(32, '\0'));
  EXPECT_EQ(p.substr(72, 32), ota::Md5Hex(camera.data(), camera.size()));
  EXPECT_EQ(p.substr(136, 8), std::string("\x03\0\0\0\x07\0\0\0", 8));
  EXPECT_EQ(p.substr(144), hub + camera);
  ota::PackageHeader h;
  ASSERT_EQ(ota::ParseHeader(reinterpret_cast<const uint8_t*>(p.data()), &h, nullptr), 0);
  EXPECT_EQ(h.word0, 0x01020304u);
  EXPECT_EQ(h.word1, 0xA0B0C0D0u);
  EXPECT_EQ(h.hub_length, 3u);
  EXPECT_EQ(h.camera_length, 7u);
  EXPECT_EQ(ota::Md5Hex("", 0), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(OtaPackage, EveryTwoCutsGiveTheSameImages) {
  // small images so that every pair of cut points is tried, with bytes after the images
  const std::string hub = Bytes(13, 1), camera = Bytes(9, 100);
  const std::string p = ota::BuildPackage(hub, camera) + "tail bytes";
  for (size_t a = 0; a <= p.size(); a++) {
    for (size_t b = a; b <= p.size(); b++) {
      Sinks s;
      ota::Splitter splitter = MakeSplitter(&s);
      ASSERT_EQ(Feed(&splitter, p, {a, b}), p.size());
      ASSERT_EQ(s.hub, hub) << a << " " << b;
      ASSERT_EQ(s.camera, camera) << a << " " << b;
      ASSERT_TRUE(splitter.Complete());
    }
  }
}

TEST(OtaPackage, ByteByByteAndChunksAcrossBothImageEnds) {
  const std::string hub = Bytes(5000, 3), camera = Bytes(3000, 9);
  const std::string p = ota::BuildPackage(hub, camera);
  for (size_t step : {1, 7, 143, 144, 145, 1024, 5144, 8144, 16384}) {
    Sinks s;
    ota::Splitter splitter = MakeSplitter(&s);
    std::vector<size_t> cuts;
    for (size_t at = step; at < p.size(); at += step) cuts.push_back(at);
    EXPECT_EQ(Feed(&splitter, p, cuts), p.size());
    EXPECT_EQ(s.hub, hub) << step;
    EXPECT_EQ(s.camera, camera) << step;
  }
  // the first chunk ends inside the header; the second holds the rest of it, the whole hub
  // image and the start of the camera image
  Sinks s;
  ota::Splitter splitter = MakeSplitter(&s);
  Feed(&splitter, p, {100, 144 + 5000 + 1});
  EXPECT_EQ(s.hub, hub);
  EXPECT_EQ(s.camera, camera);
}

TEST(OtaPackage, TruncatedStreamIsIncomplete) {
  const std::string p = ota::BuildPackage(Bytes(100, 1), Bytes(100, 2));
  for (size_t keep : {size_t{0}, size_t{143}, size_t{144}, size_t{244}, p.size() - 1}) {
    Sinks s;
    ota::Splitter splitter = MakeSplitter(&s);
    EXPECT_EQ(Feed(&splitter, p.substr(0, keep), {}), keep);
    EXPECT_FALSE(splitter.Complete()) << keep;
    EXPECT_FALSE(splitter.Failed());
  }
}

TEST(OtaPackage, BadHeadersAreRefusedBeforeAnyImageByte) {
  const std::string good = ota::BuildPackage(Bytes(10, 1), Bytes(10, 2));
  struct Case {
    size_t at;
    std::string bytes;
    const char* why;
  };
  const Case cases[] = {
      {8, "g", "hub image digest"},                        // not hexadecimal
      {8 + 31, std::string(1, '\0'), "hub image digest"},  // 31 digits
      {8 + 40, "x", "hub image digest"},                   // garbage after the padding starts
      {72, " ", "camera image digest"},
      {136, std::string(4, '\0'), "hub image length"},
      {136, std::string("\x01\x00\x00\x02", 4), "hub image length"},  // 32 MiB + 1
      {140, std::string(4, '\0'), "camera image length"},
      {140, std::string("\x01\x00\x00\x01", 4), "camera image length"},  // 16 MiB + 1
  };
  for (const Case& c : cases) {
    std::string p = good;
    p.replace(c.at, c.bytes.size(), c.bytes);
    Sinks s;
    ota::Splitter splitter = MakeSplitter(&s);
    // the refusal comes with the chunk that completes the header: nothing of it is taken
    EXPECT_EQ(Feed(&splitter, p, {100}), 100u) << c.why;
    EXPECT_TRUE(splitter.Failed());
    EXPECT_NE(splitter.error().find(c.why), std::string::npos) << splitter.error();
    EXPECT_EQ(s.hub, "");
    EXPECT_EQ(splitter.Consume(reinterpret_cast<const uint8_t*>("x"), 1), 0u);
  }
  // upper-case digests are taken, in lower case
  std::string upper = good;
  for (size_t i = 8; i < 40; i++) upper[i] = static_cast<char>(std::toupper(upper[i]));
  ota::PackageHeader h;
  ASSERT_EQ(ota::ParseHeader(reinterpret_cast<const uint8_t*>(upper.data()), &h, nullptr), 0);
  EXPECT_EQ(h.hub_md5, good.substr(8, 32));
}

TEST(OtaPackage, ASinkThatFailsStopsTheStream) {
  const std::string p = ota::BuildPackage(Bytes(10, 1), Bytes(10, 2));
  Sinks s;
  s.fail_hub = true;
  ota::Splitter splitter = MakeSplitter(&s);
  EXPECT_EQ(Feed(&splitter, p, {}), 144u);
  EXPECT_TRUE(splitter.Failed());
  EXPECT_NE(splitter.error().find("hub image"), std::string::npos);
}

TEST_F(OtaSignature, SignedPackageVerifiesUnderItsKeyOnly) {
  const std::string hub = Bytes(3000, 5), camera = Bytes(2000, 6);
  const std::string p = ota::BuildPackage(hub, camera, 1, 2, sk_);
  ASSERT_EQ(p.size(), 144u + 5000 + ota::kTrailerSize);
  EXPECT_EQ(p.substr(5144, 8), std::string("TSIG\x01\0\0\0", 8));
  for (size_t cut : {size_t{5144 + 3}, size_t{5144 + 40}, p.size()}) {  // the trailer split too
    Sinks s;
    ota::Splitter splitter = MakeSplitter(&s);
    Feed(&splitter, p + "junk after the trailer", {cut});
    EXPECT_EQ(s.camera, camera);
    EXPECT_TRUE(splitter.VerifySignature(pk_)) << splitter.error();
    EXPECT_FALSE(splitter.VerifySignature(other_pk_));
    EXPECT_TRUE(splitter.VerifySignature(pk_));  // checking does not use the state up
  }
}

TEST_F(OtaSignature, TamperedOrUnsignedPackagesDoNotVerify) {
  const std::string signed_package = ota::BuildPackage(Bytes(300, 5), Bytes(200, 6), 1, 2, sk_);
  auto verifies = [&](const std::string& p) {
    Sinks s;
    ota::Splitter splitter = MakeSplitter(&s);
    Feed(&splitter, p, {});
    return splitter.VerifySignature(pk_);
  };
  EXPECT_TRUE(verifies(signed_package));
  std::string word = signed_package;
  word[0] ^= 1;  // a header word, which no digest covers
  EXPECT_FALSE(verifies(word));
  std::string image = signed_package;
  image[144 + 299] ^= 0x40;
  EXPECT_FALSE(verifies(image));
  std::string sig = signed_package;
  sig[sig.size() - 1] ^= 1;
  EXPECT_FALSE(verifies(sig));
  std::string algorithm = signed_package;
  algorithm[144 + 500 + 4] = 2;
  EXPECT_FALSE(verifies(algorithm));
  EXPECT_FALSE(verifies(signed_package.substr(0, signed_package.size() - 1)));
  EXPECT_FALSE(verifies(ota::BuildPackage(Bytes(300, 5), Bytes(200, 6), 1, 2)));
  // signed by another key
  EXPECT_FALSE(verifies(ota::BuildPackage(Bytes(300, 5), Bytes(200, 6), 1, 2, other_sk_)));
}

}  // namespace
