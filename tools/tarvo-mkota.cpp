// tarvo-mkota: builds firmware update packages for the hub (header, hub image, camera image and
// an optional Ed25519 signature trailer), makes signing key pairs and shows what a package holds.
// See docs/ota.md.
#include <sodium.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "camsim/camsimimage.h"
#include "cloud/otapackage.h"

namespace {

void PrintHelp() {
  std::printf(
      "Usage: tarvo-mkota [options] --hub FILE (--camera FILE | --camsim-version N) OUT\n"
      "       tarvo-mkota --keygen SECRET PUBLIC\n"
      "       tarvo-mkota --show PACKAGE [--key PUBLIC]\n"
      "\n"
      "Builds a firmware update package in OUT: the 144-byte header with both MD5 digests and\n"
      "lengths, the hub image, the camera image and, with --sign, the signature trailer.\n"
      "\n"
      "  --hub FILE            the hub image (1 byte .. 32 MiB)\n"
      "  --camera FILE         the camera image (1 byte .. 16 MiB)\n"
      "  --camsim-version N    instead of --camera: an image for the camera simulator that\n"
      "                        upgrades it to version N (1..999999)\n"
      "  --word0 N, --word1 N  the two header words (copied by the hub, not read) [0]\n"
      "  --sign SECRET         sign with the secret key in SECRET (made by --keygen)\n"
      "  --keygen SECRET PUBLIC  writes a new key pair: SECRET (128 hexadecimal digits, mode\n"
      "                        0600) and PUBLIC (64 hexadecimal digits, the form of the hub's\n"
      "                        /etc/zelo/ota_sign.pub)\n"
      "  --show PACKAGE        prints the header, checks lengths and digests and, with\n"
      "                        --key PUBLIC, the signature; status 1 when a check fails\n"
      "  -h, --help            this text\n");
}

int Usage(const std::string& why) {
  std::fprintf(stderr, "tarvo-mkota: %s\nTry tarvo-mkota --help.\n", why.c_str());
  return 2;
}

bool ReadAll(const std::string& path, std::string* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream ss;
  ss << in.rdbuf();
  *out = ss.str();
  return !in.bad();
}

bool WriteAll(const std::string& path, const std::string& data, mode_t mode = 0644) {
  const std::string tmp = path + ".tmp";
  FILE* f = std::fopen(tmp.c_str(), "wb");
  if (f == nullptr) return false;
  bool ok = std::fwrite(data.data(), 1, data.size(), f) == data.size();
  ok = std::fclose(f) == 0 && ok;
  ok = ok && chmod(tmp.c_str(), mode) == 0 && std::rename(tmp.c_str(), path.c_str()) == 0;
  if (!ok) std::remove(tmp.c_str());
  return ok;
}

bool ParseNumber(const std::string& text, uint64_t max, uint64_t* out) {
  if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  *out = std::strtoull(text.c_str(), nullptr, 10);
  return *out <= max;
}

std::string Hex(const uint8_t* data, size_t n) {
  std::string text(2 * n + 1, '\0');
  sodium_bin2hex(&text[0], text.size(), data, n);
  text.pop_back();
  return text;
}

// A key file: one line of hexadecimal digits of the given length in bytes.
bool ReadKey(const std::string& path, uint8_t* key, size_t n) {
  std::string text;
  if (!ReadAll(path, &text)) return false;
  text = text.substr(0, text.find_first_of("\r\n"));
  size_t got = 0;
  return text.size() == 2 * n &&
         sodium_hex2bin(key, n, text.data(), text.size(), nullptr, &got, nullptr) == 0 && got == n;
}

int KeyGen(const std::string& secret_path, const std::string& public_path) {
  uint8_t pk[ota::kPublicKeySize], sk[ota::kSecretKeySize];
  crypto_sign_keypair(pk, sk);
  const bool ok = WriteAll(secret_path, Hex(sk, sizeof(sk)) + "\n", 0600) &&
                  WriteAll(public_path, Hex(pk, sizeof(pk)) + "\n");
  sodium_memzero(sk, sizeof(sk));
  if (!ok) {
    std::fprintf(stderr, "tarvo-mkota: cannot write the key files: %s\n", std::strerror(errno));
    return 1;
  }
  std::printf("secret key %s, public key %s\n", secret_path.c_str(), public_path.c_str());
  return 0;
}

int Show(const std::string& path, const std::string& key_path) {
  std::string package;
  if (!ReadAll(path, &package)) {
    std::fprintf(stderr, "tarvo-mkota: cannot read %s\n", path.c_str());
    return 1;
  }
  std::string hub, camera;
  ota::Splitter splitter(
      [&hub](const uint8_t* d, size_t n) {
        return hub.append(reinterpret_cast<const char*>(d), n), true;
      },
      [&camera](const uint8_t* d, size_t n) {
        return camera.append(reinterpret_cast<const char*>(d), n), true;
      });
  splitter.Consume(reinterpret_cast<const uint8_t*>(package.data()), package.size());
  if (!splitter.HeaderDone() || splitter.Failed()) {
    std::printf("not a package: %s\n",
                splitter.Failed() ? splitter.error().c_str() : "shorter than its header");
    return 1;
  }
  const ota::PackageHeader& h = splitter.header();
  std::printf("words: 0x%08x 0x%08x\n", h.word0, h.word1);
  std::printf("hub image: %u bytes, md5 %s\n", h.hub_length, h.hub_md5.c_str());
  std::printf("camera image: %u bytes, md5 %s\n", h.camera_length, h.camera_md5.c_str());
  bool ok = splitter.Complete();
  if (!ok) std::printf("incomplete: the images are cut short\n");
  if (ok && ota::Md5Hex(hub.data(), hub.size()) != h.hub_md5) {
    std::printf("hub image digest does not match\n");
    ok = false;
  }
  if (ok && ota::Md5Hex(camera.data(), camera.size()) != h.camera_md5) {
    std::printf("camera image digest does not match\n");
    ok = false;
  }
  if (ok && !key_path.empty()) {
    uint8_t pk[ota::kPublicKeySize];
    if (!ReadKey(key_path, pk, sizeof(pk))) {
      std::printf("cannot read the public key %s\n", key_path.c_str());
      return 1;
    }
    if (splitter.VerifySignature(pk)) {
      std::printf("signature: verifies\n");
    } else {
      std::printf("signature: %s\n", splitter.error().c_str());
      ok = false;
    }
  }
  if (ok) std::printf("ok\n");
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (sodium_init() < 0) {
    std::fprintf(stderr, "tarvo-mkota: libsodium does not start\n");
    return 1;
  }
  std::vector<std::string> args(argv + 1, argv + argc);
  std::string hub_path, camera_path, sign_path, out, show, key;
  uint64_t camsim_version = 0, word0 = 0, word1 = 0;
  for (size_t i = 0; i < args.size(); i++) {
    const std::string& a = args[i];
    auto value = [&](std::string* v) {
      if (i + 1 >= args.size()) return false;
      *v = args[++i];
      return true;
    };
    std::string v;
    if (a == "-h" || a == "--help") {
      PrintHelp();
      return 0;
    } else if (a == "--keygen") {
      if (i + 2 >= args.size()) return Usage("--keygen needs SECRET and PUBLIC");
      return KeyGen(args[i + 1], args[i + 2]);
    } else if (a == "--hub") {
      if (!value(&hub_path)) return Usage("--hub needs a file");
    } else if (a == "--camera") {
      if (!value(&camera_path)) return Usage("--camera needs a file");
    } else if (a == "--camsim-version") {
      if (!value(&v) || !ParseNumber(v, 999999, &camsim_version) || camsim_version == 0)
        return Usage("--camsim-version needs a number 1..999999");
    } else if (a == "--word0" || a == "--word1") {
      if (!value(&v) || !ParseNumber(v, 0xFFFFFFFFu, a == "--word0" ? &word0 : &word1))
        return Usage(a + " needs a number 0..4294967295");
    } else if (a == "--sign") {
      if (!value(&sign_path)) return Usage("--sign needs a key file");
    } else if (a == "--show") {
      if (!value(&show)) return Usage("--show needs a package");
    } else if (a == "--key") {
      if (!value(&key)) return Usage("--key needs a key file");
    } else if (!a.empty() && a[0] == '-') {
      return Usage("unknown option " + a);
    } else if (out.empty()) {
      out = a;
    } else {
      return Usage("more than one OUT");
    }
  }
  if (!show.empty()) return Show(show, key);
  if (hub_path.empty() || out.empty()) return Usage("--hub and OUT are needed");
  if (camera_path.empty() == (camsim_version == 0))
    return Usage("give one of --camera and --camsim-version");

  std::string hub, camera;
  if (!ReadAll(hub_path, &hub)) return Usage("cannot read " + hub_path);
  if (camsim_version != 0) {
    camera = camsim::MakeImage(static_cast<int>(camsim_version));
  } else if (!ReadAll(camera_path, &camera)) {
    return Usage("cannot read " + camera_path);
  }
  if (hub.empty() || hub.size() > ota::kMaxHubImage) return Usage("hub image size out of range");
  if (camera.empty() || camera.size() > ota::kMaxCameraImage)
    return Usage("camera image size out of range");
  uint8_t sk[ota::kSecretKeySize];
  const bool sign = !sign_path.empty();
  if (sign && !ReadKey(sign_path, sk, sizeof(sk)))
    return Usage("cannot read the secret key " + sign_path);
  const std::string package = ota::BuildPackage(hub, camera, static_cast<uint32_t>(word0),
                                                static_cast<uint32_t>(word1), sign ? sk : nullptr);
  sodium_memzero(sk, sizeof(sk));
  if (!WriteAll(out, package)) {
    std::fprintf(stderr, "tarvo-mkota: cannot write %s: %s\n", out.c_str(), std::strerror(errno));
    return 1;
  }
  std::printf("%s: %zu bytes, hub %zu, camera %zu%s\n", out.c_str(), package.size(), hub.size(),
              camera.size(), sign ? ", signed" : "");
  return 0;
}
