#include "cloudsim/uploads.h"

#include <json-c/json.h>
#include <openssl/evp.h>

#include <cstdio>
#include <fstream>
#include <random>

namespace cloudsim {
namespace {

std::string RandomText(size_t n) {
  static const char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  std::random_device rd;
  std::string s;
  for (size_t i = 0; i < n; i++) s += kChars[rd() % (sizeof(kChars) - 1)];
  return s;
}

std::string JsonString(const std::string& text) {
  json_object* s = json_object_new_string_len(text.data(), static_cast<int>(text.size()));
  std::string out = json_object_to_json_string_ext(s, JSON_C_TO_STRING_NOSLASHESCAPE);
  json_object_put(s);
  return out;
}

}  // namespace

IssuedUpload IssueUpload(const std::string& base, const std::string& suffix, int n) {
  IssuedUpload u;
  u.suffix = suffix;
  u.object_name = "event-" + std::to_string(n) + "-" + RandomText(6) + "." + suffix;
  u.password = RandomText(16);
  std::string trimmed = base;
  while (!trimmed.empty() && trimmed.back() == '/') trimmed.pop_back();
  u.url = trimmed + "/" + u.object_name + "?expires=3600&signature=" + RandomText(24);
  return u;
}

std::string PresignedUrlReply(const IssuedUpload& u) {
  return "{\"id\":" + std::to_string(u.id) + ",\"result\":{" + JsonString(u.suffix) +
         ":{\"url\":" + JsonString(u.url) + ",\"obj_name\":" + JsonString(u.object_name) +
         ",\"pwd\":" + JsonString(u.password) + "}}}";
}

bool ParseEventReport(const std::string& text, EventReport* report) {
  json_object* root = json_tokener_parse(text.c_str());
  if (root == nullptr) return false;
  bool ok = false;
  json_object* method = nullptr;
  json_object* params = nullptr;
  if (json_object_is_type(root, json_type_object) &&
      json_object_object_get_ex(root, "method", &method) &&
      json_object_is_type(method, json_type_string) &&
      json_object_object_get_ex(root, "params", &params) &&
      json_object_is_type(params, json_type_array) && json_object_array_length(params) == 6) {
    const std::string name = json_object_get_string(method);
    std::string fields[6];
    ok = name.compare(0, 6, "event.") == 0;
    for (size_t i = 0; ok && i < 6; i++) {
      json_object* v = json_object_array_get_idx(params, i);
      ok = json_object_is_type(v, json_type_string);
      if (ok) fields[i] = json_object_get_string(v);
    }
    if (ok) {
      report->event = name.substr(6);
      report->clip_object = fields[0];
      report->clip_password = fields[1];
      report->snapshot_object = fields[2];
      report->snapshot_password = fields[3];
      report->push = fields[5];
    }
  }
  json_object_put(root);
  return ok;
}

int DecryptFile(const std::string& in, const std::string& out, const std::string& password,
                std::string* error) {
  auto fail = [error](const std::string& why) {
    if (error != nullptr) *error = why;
    return -1;
  };
  std::ifstream src(in, std::ios::binary);
  if (!src) return fail("cannot open " + in);
  const std::string cipher((std::istreambuf_iterator<char>(src)), std::istreambuf_iterator<char>());
  if (cipher.empty() || cipher.size() % 16 != 0) {
    return fail(in + " is not whole 16-byte blocks (" + std::to_string(cipher.size()) + " bytes)");
  }
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int md_len = 0;
  EVP_Digest(password.data(), password.size(), md, &md_len, EVP_md5(), nullptr);
  unsigned char key[33];
  for (unsigned i = 0; i < 16; i++) {
    std::snprintf(reinterpret_cast<char*>(key) + 2 * i, 3, "%2.2x", md[i]);
  }
  unsigned char iv[16] = {0};
  std::string plain(cipher.size(), '\0');
  int len = 0;
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  const bool ok = ctx != nullptr &&
                  EVP_DecryptInit_ex(ctx, EVP_aes_256_cbc(), nullptr, key, iv) == 1 &&
                  EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
                  EVP_DecryptUpdate(ctx, reinterpret_cast<unsigned char*>(&plain[0]), &len,
                                    reinterpret_cast<const unsigned char*>(cipher.data()),
                                    static_cast<int>(cipher.size())) == 1;
  EVP_CIPHER_CTX_free(ctx);
  if (!ok || static_cast<size_t>(len) != cipher.size()) return fail("decryption failed");
  std::ofstream dst(out, std::ios::binary | std::ios::trunc);
  if (!dst || !dst.write(plain.data(), static_cast<std::streamsize>(plain.size()))) {
    return fail("cannot write " + out);
  }
  return 0;
}

}  // namespace cloudsim
