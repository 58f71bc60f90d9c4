// The alarm upload's parts that need no network: file encryption checked against the openssl
// command line and an independent decryption, the cloud's URL reply with its bounds and id
// matching, the report acknowledgement, and the alarm list.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "storage/pirupload.h"
#include "support/testsupport.h"

namespace {

using testsupport::ReadFile;
using testsupport::WriteFile;

std::string Pattern(size_t n, unsigned seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; i++) s[i] = static_cast<char>((i * 131 + seed * 7 + (i >> 9)) & 0xFF);
  return s;
}

// AES-256-CBC decryption without padding, zero IV, key = MD5 hex text of the password: the
// cloud's side, written with OpenSSL's EVP calls independently of the hub's code.
std::string Decrypt(const std::string& cipher, const std::string& password) {
  unsigned char md[16];
  unsigned int n = 0;
  EVP_Digest(password.data(), password.size(), md, &n, EVP_md5(), nullptr);
  char key[33];
  for (int i = 0; i < 16; i++) std::snprintf(key + 2 * i, 3, "%2.2x", md[i]);
  unsigned char iv[16] = {0};
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  EVP_DecryptInit_ex(ctx, EVP_aes_256_cbc(), nullptr, reinterpret_cast<unsigned char*>(key), iv);
  EVP_CIPHER_CTX_set_padding(ctx, 0);
  std::string plain(cipher.size(), '\0');
  int len = 0;
  EVP_DecryptUpdate(ctx, reinterpret_cast<unsigned char*>(&plain[0]), &len,
                    reinterpret_cast<const unsigned char*>(cipher.data()),
                    static_cast<int>(cipher.size()));
  EVP_CIPHER_CTX_free(ctx);
  plain.resize(static_cast<size_t>(len));
  return plain;
}

TEST(AlarmCrypt, FileIsPaddedWithZerosToTheBlockAndDecryptsWithThePasswordsKey) {
  testsupport::TempDir dir;
  for (size_t size : {1000u, 1008u, 1u, 65536u * 3 + 5}) {  // the last spans several pieces
    SCOPED_TRACE(size);
    const std::string path = dir.path() + "/alarm.mp4";
    const std::string plain = Pattern(size, static_cast<unsigned>(size));
    WriteFile(path, plain);
    ASSERT_EQ(0, aes_encrypt_file(path.c_str(), "Pw-0123456789"));
    const std::string cipher = ReadFile(path);
    const size_t padded = (size + 15) / 16 * 16;
    ASSERT_EQ(padded, cipher.size());
    EXPECT_EQ(plain + std::string(padded - size, '\0'), Decrypt(cipher, "Pw-0123456789"));
    EXPECT_FALSE(testsupport::FileExists(path + ".aes"));
  }
}

TEST(AlarmCrypt, SameBytesAsTheOpensslCommandLine) {
  testsupport::TempDir dir;
  const std::string plain = Pattern(70001, 3);
  const std::string padded_path = dir.path() + "/padded";
  WriteFile(padded_path, plain + std::string(15, '\0'));  // 70016 = whole blocks
  const std::string path = dir.path() + "/clip";
  WriteFile(path, plain);
  ASSERT_EQ(0, aes_encrypt_file(path.c_str(), "secret"));

  unsigned char key[32];
  alarm_aes_key("secret", key);
  // the key is the MD5 of "secret" as lower-case hexadecimal text
  EXPECT_EQ("5ebe2294ecd0e0f08eab7690d2a6ee69", std::string(reinterpret_cast<char*>(key), 32));
  std::string key_hex;
  for (unsigned char c : key) {
    char h[3];
    std::snprintf(h, sizeof(h), "%02x", c);
    key_hex += h;
  }
  const std::string out = dir.path() + "/openssl.out";
  const std::string command = "openssl enc -aes-256-cbc -nopad -K " + key_hex + " -iv " +
                              std::string(32, '0') + " -in " + padded_path + " -out " + out;
  ASSERT_EQ(0, std::system(command.c_str()));
  EXPECT_EQ(ReadFile(out), ReadFile(path));
}

TEST(AlarmCrypt, EmptyOrMissingFileIsRefusedAndLeftAlone) {
  testsupport::TempDir dir;
  const std::string empty = dir.path() + "/empty";
  WriteFile(empty, "");
  EXPECT_EQ(-1, aes_encrypt_file(empty.c_str(), "pw"));
  EXPECT_EQ("", ReadFile(empty));
  EXPECT_EQ(-1, aes_encrypt_file((dir.path() + "/none").c_str(), "pw"));
  EXPECT_EQ(-1, aes_encrypt_file(dir.path().c_str(), "pw"));  // a folder
  // the chained block cipher refuses what is not whole blocks
  unsigned char key[32] = {0};
  unsigned char iv[16] = {0};
  unsigned char buf[17] = {0};
  EXPECT_EQ(-1, my_aes_cbc_encrypt(key, iv, buf, 17));
}

// The alarm list with one head record; emptied after each test.
class UrlReply : public ::testing::Test {
 protected:
  void SetUp() override {
    head_ = new alarm_mgr_list();
    std::strcpy(head_->mac, "0A0000000001");
    head_->request_id.store(4242);
    ASSERT_EQ(0, InsertInAlarmLists(head_));
  }
  void TearDown() override {
    while (TryEraseAlarmLists("0A0000000001") == 0) {
    }
    while (TryEraseAlarmLists("0A0000000002") == 0) {
    }
  }
  static std::string Reply(int id, const std::string& type, const std::string& url,
                           const std::string& obj, const std::string& pwd) {
    return "{\"id\":" + std::to_string(id) + ",\"result\":{\"" + type + "\":{\"url\":\"" + url +
           "\",\"obj_name\":\"" + obj + "\",\"pwd\":\"" + pwd + "\"}}}";
  }
  bool Untouched() const {
    return head_->pic_url_ready.load() == 0 && head_->mp4_url_ready.load() == 0 &&
           head_->pic_url[0] == '\0' && head_->mp4_url[0] == '\0' && head_->pic_pwd[0] == '\0' &&
           head_->mp4_pwd[0] == '\0';
  }
  alarm_mgr_list* head_ = nullptr;
};

TEST_F(UrlReply, StoredIntoTheFileItNamesWhenTheIdIsTheHeads) {
  EXPECT_EQ(-1, ParseUploadUrl(Reply(4243, "jpeg", "https://h/a", "o", "p").c_str()));
  EXPECT_TRUE(Untouched());
  ASSERT_EQ(0,
            ParseUploadUrl(
                Reply(4242, "jpeg", "https://h:8443/up/e1.jpeg?sig=ab", "e1.jpeg", "pw1").c_str()));
  EXPECT_EQ(1, head_->pic_url_ready.load());
  EXPECT_EQ(0, head_->mp4_url_ready.load());
  EXPECT_STREQ("https://h:8443/up/e1.jpeg?sig=ab", head_->pic_url);
  EXPECT_STREQ("e1.jpeg", head_->pic_obj_name);
  EXPECT_STREQ("pw1", head_->pic_pwd);
  // a second reply for a file whose URL is known changes nothing
  EXPECT_EQ(-1, ParseUploadUrl(Reply(4242, "jpeg", "https://x/y", "o2", "p2").c_str()));
  EXPECT_STREQ("pw1", head_->pic_pwd);

  head_->request_id.store(77);
  ASSERT_EQ(0, ParseUploadUrl(Reply(77, "mp4", "http://h/e1.mp4", "e1.mp4", "pw2").c_str()));
  EXPECT_EQ(1, head_->mp4_url_ready.load());
  EXPECT_STREQ("http://h/e1.mp4", head_->mp4_url);
  EXPECT_STREQ("pw2", head_->mp4_pwd);

  // only the head record is answered
  auto* second = new alarm_mgr_list();
  std::strcpy(second->mac, "0A0000000002");
  second->request_id.store(88);
  InsertInAlarmLists(second);
  EXPECT_EQ(-1, ParseUploadUrl(Reply(88, "mp4", "http://h/x", "x", "y").c_str()));
  EXPECT_EQ(0, second->mp4_url_ready.load());
}

TEST_F(UrlReply, EachFieldIsBoundedAndAWrongReplyChangesNothing) {
  const std::string url511 = "https://h/" + std::string(501, 'u');
  const std::string obj127(127, 'o');
  const std::string pwd31(31, 'p');
  const std::string refused[] = {
      Reply(4242, "jpeg", url511 + "u", "o", "p"),            // URL of 512
      Reply(4242, "jpeg", "https://h/a", obj127 + "o", "p"),  // object name of 128
      Reply(4242, "jpeg", "https://h/a", "o", pwd31 + "p"),   // password of 32
      Reply(4242, "jpeg", "ftp://h/a", "o", "p"),             // not http(s)
      Reply(4242, "jpeg", "https://h/a b", "o", "p"),         // a blank in the URL
      Reply(4242, "jpeg", "https://h/a", "o\\\"x", "p"),      // a quote in the object name
      Reply(4242, "jpeg", "https://h/a", "o", ""),            // empty password
      Reply(4242, "png", "https://h/a", "o", "p"),            // neither jpeg nor mp4
      "{\"id\":4242,\"result\":{\"jpeg\":{\"url\":1,\"obj_name\":\"o\",\"pwd\":\"p\"}}}",
      "{\"id\":4242,\"result\":{\"jpeg\":{\"url\":\"https://h/a\",\"pwd\":\"p\"}}}",
      "{\"id\":4242,\"result\":{\"jpeg\":\"https://h/a\"}}",
      "{\"id\":\"4242\",\"result\":{\"jpeg\":{\"url\":\"https://h/a\",\"obj_name\":\"o\","
      "\"pwd\":\"p\"}}}",
      "{\"result\":{\"jpeg\":{\"url\":\"https://h/a\",\"obj_name\":\"o\",\"pwd\":\"p\"}}}",
      "{\"id\":4242,\"result\":[1]}",
      "not json",
  };
  for (const std::string& reply : refused) {
    EXPECT_EQ(-1, ParseUploadUrl(reply.c_str())) << reply;
    EXPECT_TRUE(Untouched()) << reply;
  }
  // the limits themselves are accepted
  ASSERT_EQ(0, ParseUploadUrl(Reply(4242, "jpeg", url511, obj127, pwd31).c_str()));
  EXPECT_EQ(url511, head_->pic_url);
  EXPECT_EQ(obj127, head_->pic_obj_name);
  EXPECT_EQ(pwd31, head_->pic_pwd);
}

TEST_F(UrlReply, AcknowledgementCountsOnlyForTheHeadsReportId) {
  AckAlarmReport(4241);
  AckAlarmReport(0);
  EXPECT_EQ(0, head_->event_acked.load());
  AckAlarmReport(4242);
  EXPECT_EQ(1, head_->event_acked.load());
}

TEST_F(UrlReply, ListKeepsInsertionOrderAndAnswersPerCamera) {
  EXPECT_NE(0, IsCameraUploading("0A0000000001"));
  EXPECT_EQ(0, IsCameraUploading("0A0000000002"));
  auto* second = new alarm_mgr_list();
  std::strcpy(second->mac, "0A0000000002");
  InsertInAlarmLists(second);
  EXPECT_EQ(2u, AlarmListSize());
  EXPECT_NE(0, IsCameraUploading("0A0000000002"));
  EXPECT_EQ(0, TryEraseAlarmLists("0A0000000001"));
  EXPECT_EQ(-1, TryEraseAlarmLists("0A0000000001"));
  EXPECT_EQ(0, IsCameraUploading("0A0000000001"));
  {
    std::lock_guard<std::mutex> lock(alarm_mutex);
    EXPECT_EQ(second, alarm_list.front());
  }
  EXPECT_EQ(-1, InsertInAlarmLists(nullptr));
}

}  // namespace
