// Viewer credentials on a board root: the login sign (checked against OpenSSL's HMAC), the login
// text and its refusals, the per-slot stream keys, the P2P password, the exact texts of the
// credential report and the uid request, and the order of the credentials thread's waits.
#include <gtest/gtest.h>
#include <malloc.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <sodium.h>

#include <cctype>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "base/log.h"
#include "cloud/credreport.h"
#include "cloud/mqttclient.h"
#include "core/configuration.h"
#include "crypto/hubauth.h"
#include "crypto/viewerlogin.h"
#include "platform/board.h"
#include "platform/boardmaker.h"
#include "platform/nvram.h"
#include "support/testsupport.h"

namespace {

const std::string kDeviceKey = "TarvoDeviceKey01";
const std::string kToken = "tok-123";
const std::string kTokenHex = "746f6b2d313233";
const std::string kUid = "TARVOUID0001";

testsupport::TempDir* g_dir = nullptr;
std::string g_root;

std::mutex g_log_mutex;
std::vector<std::string> g_logs;
// Every text published through the credential publisher.
std::mutex g_pub_mutex;
std::vector<std::string> g_published;

int Capture(const char* text) {
  std::lock_guard<std::mutex> lock(g_pub_mutex);
  g_published.push_back(text);
  return 1;
}

std::vector<std::string> Published() {
  std::lock_guard<std::mutex> lock(g_pub_mutex);
  return g_published;
}

bool Logged(const std::string& fragment) {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  for (const auto& line : g_logs) {
    if (line.find(fragment) != std::string::npos) return true;
  }
  return false;
}

class HubAuth : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    g_dir = new testsupport::TempDir();
    g_root = g_dir->path() + "/root";
    std::string error;
    ASSERT_EQ(0, platform::MakeBoardRoot(g_root, platform::BoardOptions(), &error)) << error;
    platform::SetRootForTest(g_root);
    testsupport::WriteFile(g_root + "/etc/zelo/device.token", kToken + "\n");
    Configuration::getInstance().SetDeviceKey(kDeviceKey);
    Configuration::getInstance().SetP2pUid(kUid);
    tlog::SetCaptureSink([](int, const std::string& text) {
      std::lock_guard<std::mutex> lock(g_log_mutex);
      g_logs.push_back(text);
    });
    ASSERT_EQ(0, libsodium_init());
    SetCredentialPublisher(Capture);
  }
  static void TearDownTestSuite() {
    SetCredentialPublisher(nullptr);
    tlog::SetCaptureSink({});
    delete g_dir;  // no board root is left behind in the temporary folder
    g_dir = nullptr;
  }
  void SetUp() override {
    std::lock_guard<std::mutex> lock(g_pub_mutex);
    g_published.clear();
  }

  static std::vector<unsigned char> HubKey() {
    std::vector<unsigned char> key(32);
    EXPECT_EQ(0, decode_hex32(get_dev_pub_key().data(), get_dev_pub_key().size(), key.data()));
    return key;
  }
  static std::string Login(const app_key_pair& keys, const std::string& key = kDeviceKey,
                           const std::string& token = kToken) {
    return make_login_text("alice", key, token, get_dev_pub_key(), keys);
  }
};

std::string Hex(const unsigned char* bytes, size_t n) {
  std::vector<char> hex(2 * n + 1);
  sodium_bin2hex(hex.data(), hex.size(), bytes, n);
  return hex.data();
}

TEST_F(HubAuth, SignIsTheHmacOfKeyTokenAndHubKeyOverTheAppKey) {
  app_key_pair app;
  make_app_key_pair(&app);
  const std::vector<unsigned char> hub = HubKey();
  std::string hmac_key = kDeviceKey + kToken;
  hmac_key.append(reinterpret_cast<const char*>(hub.data()), hub.size());
  unsigned char expected[32];
  unsigned int expected_len = 0;
  HMAC(EVP_sha256(), hmac_key.data(), static_cast<int>(hmac_key.size()), app.public_key, 32,
       expected, &expected_len);
  ASSERT_EQ(32u, expected_len);

  unsigned char sign[32];
  ASSERT_EQ(0, login_sign_hmacsha256(kDeviceKey, kToken, hub.data(), app.public_key, sign));
  EXPECT_EQ(0, std::memcmp(expected, sign, 32));
  EXPECT_EQ(1, check_sign_hmacsha256(app.public_key, sign));
  sign[31] ^= 1;
  EXPECT_EQ(0, check_sign_hmacsha256(app.public_key, sign));
  EXPECT_TRUE(Logged("!!!!!SIGN VERIFY FAIL!!!!! "));
  EXPECT_EQ(0, check_sign_hmacsha256(nullptr, sign));
  EXPECT_TRUE(Logged("app public key or app sign error! (NULL)"));
  EXPECT_EQ(64u, get_dev_pub_key().size());
  EXPECT_TRUE(std::regex_match(get_dev_pub_key(), std::regex("[0-9a-f]{64}")));
}

TEST_F(HubAuth, GoodLoginSetsTheSlotKeyBothEndsAgreeOn) {
  for (int slot = 0; slot < 4; slot++) {
    app_key_pair app;
    make_app_key_pair(&app);
    std::string text = Login(app);
    char account[] = "viewer";
    int (*const callbacks[])(char*, char*) = {AuthCallBackFn0, AuthCallBackFn1, AuthCallBackFn2,
                                              AuthCallBackFn3};
    ASSERT_EQ(1, callbacks[slot](account, &text[0])) << slot;
    EXPECT_TRUE(Logged("tutk Auth " + std::to_string(slot) + "......"));
    unsigned char hub_side[32];
    unsigned char app_side[32];
    ASSERT_EQ(0, client_encrypt_info.Get(slot, hub_side));
    ASSERT_EQ(0, app_share_key(get_dev_pub_key(), app, app_side));
    EXPECT_EQ(0, std::memcmp(hub_side, app_side, 32)) << slot;
  }
  // The app side refuses a hub key that would give it a key anybody can compute (a weak, all
  // zero key) as well as one that is not 64 hexadecimal digits.
  app_key_pair app;
  make_app_key_pair(&app);
  unsigned char share[32];
  EXPECT_EQ(-1, app_share_key(std::string(64, '0'), app, share));
  EXPECT_EQ(-1, app_share_key(std::string(62, '1'), app, share));
  EXPECT_EQ(-1, app_share_key(get_dev_pub_key(), app, nullptr));
  unsigned char out[32];
  EXPECT_EQ(-1, client_encrypt_info.Get(4, out));
  EXPECT_EQ(-1, client_encrypt_info.Get(-1, out));
  // Slots outside the table are left alone (the sanitizer build sees any write past it).
  client_encrypt_info.Clear(4);
  client_encrypt_info.Clear(-1);
  ASSERT_EQ(0, client_encrypt_info.Get(3, out));
  client_encrypt_info.Clear(1);
  EXPECT_EQ(-1, client_encrypt_info.Get(1, out));
}

TEST_F(HubAuth, RefusedLoginsLeaveTheSlotKeyAlone) {
  app_key_pair app;
  make_app_key_pair(&app);
  const std::string good = Login(app);
  const std::string public_hex = Hex(app.public_key, 32);
  unsigned char sign[32];
  login_sign_hmacsha256(kDeviceKey, kToken, HubKey().data(), app.public_key, sign);
  const std::string sign_hex = Hex(sign, 32);
  auto text = [](const std::string& pk, const std::string& sg) {
    return "{\"public_key\":\"" + pk + "\",\"sign\":\"" + sg + "\",\"account\":\"alice\"}";
  };
  ASSERT_EQ(text(public_hex, sign_hex), good);

  // A sign for another hub key pair, and one whose app key is weak (all zero).
  unsigned char other_hub[32];
  randombytes_buf(other_hub, sizeof(other_hub));
  unsigned char other_hub_sign[32];
  login_sign_hmacsha256(kDeviceKey, kToken, other_hub, app.public_key, other_hub_sign);
  unsigned char zero_key[32] = {0};
  unsigned char zero_sign[32];
  login_sign_hmacsha256(kDeviceKey, kToken, HubKey().data(), zero_key, zero_sign);
  app_key_pair other_app;
  make_app_key_pair(&other_app);

  struct Case {
    const char* what;
    std::string text;
    const char* logged;
  };
  const std::vector<Case> cases = {
      {"no sign", "{\"public_key\":\"" + public_hex + "\",\"account\":\"alice\"}",
       "get sign error"},
      {"no public key", "{\"sign\":\"" + sign_hex + "\",\"account\":\"alice\"}",
       "get public_key error"},
      {"no account", "{\"public_key\":\"" + public_hex + "\",\"sign\":\"" + sign_hex + "\"}",
       "get account_name error"},
      {"public key not a string",
       "{\"public_key\":5,\"sign\":\"" + sign_hex + "\",\"account\":\"a\"}",
       "get public_key error"},
      {"other token", Login(app, kDeviceKey, "tok-124"), "AuthCallBackFn failed. Password: "},
      {"other device key", Login(app, "TarvoDeviceKey02"), "AuthCallBackFn failed. Password: "},
      {"other hub key", text(public_hex, Hex(other_hub_sign, 32)), "!!!!!SIGN VERIFY FAIL!!!!!"},
      {"sign of another app key", text(Hex(other_app.public_key, 32), sign_hex),
       "!!!!!SIGN VERIFY FAIL!!!!!"},
      {"weak app key", text(Hex(zero_key, 32), Hex(zero_sign, 32)), "weak app public key"},
      {"bad hex", text(public_hex, "zz" + sign_hex.substr(2)), "parse encrypt params error!"},
      {"over-long public key", text(public_hex + "00", sign_hex), "parse encrypt params error!"},
      {"over-long sign", text(public_hex, sign_hex + "ab"), "parse encrypt params error!"},
      {"short sign", text(public_hex, sign_hex.substr(2)), "parse encrypt params error!"},
      {"hex with a separator",
       text(public_hex.substr(0, 62) + ":" + public_hex.substr(63), sign_hex),
       "parse encrypt params error!"},
      {"not json", "public_key=" + public_hex, "Not in json format"},
      {"trailing bytes", good + "x", "Not in json format"},
      {"an array", "[" + good + "]", "Not in json format"},
      {"empty", "", "Not in json format"},
      {"over-long text",
       good.substr(0, good.size() - 1) + ",\"pad\":\"" + std::string(1000, 'p') + "\"}",
       "longer than 1024 bytes"},
  };
  unsigned char marker[32];
  std::memset(marker, 0x5A, sizeof(marker));
  client_encrypt_info.Set(2, marker);
  for (const Case& c : cases) {
    {
      std::lock_guard<std::mutex> lock(g_log_mutex);
      g_logs.clear();
    }
    EXPECT_EQ(0, AuthCallBackFn(2, "viewer", c.text.c_str())) << c.what;
    EXPECT_TRUE(Logged(c.logged)) << c.what << ": no \"" << c.logged << "\"";
    unsigned char now[32];
    ASSERT_EQ(0, client_encrypt_info.Get(2, now));
    EXPECT_EQ(0, std::memcmp(marker, now, 32)) << c.what;
  }
  EXPECT_EQ(0, AuthCallBackFn(4, "viewer", good.c_str()));
  EXPECT_EQ(0, AuthCallBackFn(-1, "viewer", good.c_str()));
  EXPECT_EQ(0, AuthCallBackFn(2, "viewer", nullptr));
  // Upper-case hexadecimal and blanks around the object are still a good login text.
  auto upper = [](std::string hex) {
    for (char& c : hex) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return hex;
  };
  const std::string loose = " \n" + text(upper(public_hex), upper(sign_hex)) + "\n";
  EXPECT_EQ(1, AuthCallBackFn(2, "viewer", loose.c_str()));
}

// A viewer may send any number of refused login texts: each must cost nothing once refused.
// JSON that is not an object (an array of 200 numbers) is parsed whole before it is refused.
TEST_F(HubAuth, RefusedLoginTextsCostNoMemory) {
  std::string array = "[";
  for (int i = 0; i < 200; ++i) array += i == 0 ? "1" : ",1";
  array += "]";
  login_text_fields fields;
  auto in_use = [] {
    {
      std::lock_guard<std::mutex> lock(g_log_mutex);
      g_logs.clear();
      g_logs.shrink_to_fit();
    }
    return mallinfo2().uordblks;
  };
  ASSERT_EQ(-1, parse_login_text(array.c_str(), &fields));
  const size_t before = in_use();
  for (int i = 0; i < 500; ++i) ASSERT_EQ(-1, parse_login_text(array.c_str(), &fields));
  // 500 leaked parse trees would hold megabytes; allocator noise is far below one.
  EXPECT_LT(in_use(), before + (1u << 20));
}

TEST_F(HubAuth, LoginTextKeepsFifteenCharactersOfTheAccount) {
  app_key_pair app;
  make_app_key_pair(&app);
  login_text_fields fields;
  ASSERT_EQ(0, parse_login_text(make_login_text("a-rather-long-account-name", kDeviceKey, kToken,
                                                get_dev_pub_key(), app)
                                    .c_str(),
                                &fields));
  EXPECT_STREQ("a-rather-long-a", fields.account);
  EXPECT_EQ(0, std::memcmp(app.public_key, fields.public_key, 32));
}

TEST_F(HubAuth, ANewKeyPairVoidsEveryEarlierSign) {
  app_key_pair app;
  make_app_key_pair(&app);
  const std::string before = Login(app);
  ASSERT_EQ(1, AuthCallBackFn(0, "viewer", before.c_str()));
  const std::string old_key = get_dev_pub_key();
  generate_new_key();  // what a restart does
  EXPECT_NE(old_key, get_dev_pub_key());
  EXPECT_EQ(0, AuthCallBackFn(0, "viewer", before.c_str()));
  EXPECT_EQ(1, AuthCallBackFn(0, "viewer", Login(app).c_str()));
}

TEST_F(HubAuth, SecretsNeverReachTheLog) {
  {
    std::lock_guard<std::mutex> lock(g_log_mutex);
    g_logs.clear();
  }
  app_key_pair app;
  make_app_key_pair(&app);
  ASSERT_EQ(1, AuthCallBackFn(1, "viewer", Login(app).c_str()));
  AuthCallBackFn(1, "viewer", Login(app, kDeviceKey, "tok-999").c_str());
  ASSERT_EQ(1, ReportNewPasswordToCloud());
  MakeNewAvPass();
  unsigned char key[32];
  ASSERT_EQ(0, client_encrypt_info.Get(1, key));
  const std::string key_hex = Hex(key, 32);
  EXPECT_TRUE(Logged("Report avpass to cloud: "));
  std::lock_guard<std::mutex> lock(g_log_mutex);
  for (const std::string& line : g_logs) {
    EXPECT_EQ(std::string::npos, line.find(kToken)) << line;
    EXPECT_EQ(std::string::npos, line.find(kTokenHex)) << line;
    EXPECT_EQ(std::string::npos, line.find(key_hex)) << line;
  }
}

TEST_F(HubAuth, PasswordsAreAlwaysSixDigits) {
  EXPECT_EQ("000042", FormatAvPass(42));
  EXPECT_EQ("000000", FormatAvPass(0));
  EXPECT_EQ("999999", FormatAvPass(999999));
  EXPECT_EQ("000042", FormatAvPass(1000042));
  std::set<std::string> seen;
  const std::regex six("[0-9]{6}");
  for (int i = 0; i < 2000; i++) {
    const std::string password = MakeNewAvPass();
    ASSERT_TRUE(std::regex_match(password, six)) << password;
    EXPECT_EQ(password, Configuration::getInstance().GetP2pPassword());
    seen.insert(password);
  }
  EXPECT_GT(seen.size(), 1950u);  // 2000 uniform draws of a million collide a few times at most
  EXPECT_TRUE(Logged("MakeNewAvPass: "));
}

void SetNvram(const char* key, const char* value) {
  ASSERT_EQ(0, nvram_set("p2p", key, value));
  ASSERT_EQ(0, nvram_commit());
  ASSERT_EQ(0, nvram_filecache());
  ASSERT_EQ(0, nvram_parse());
}

// The id of a published report, or -1.
int IdOf(const std::string& text) {
  std::smatch m;
  if (!std::regex_search(text, m, std::regex("^\\{\"id\":([0-9]+),"))) return -1;
  return std::stoi(m[1]);
}

TEST_F(HubAuth, CredentialReportAndUidRequestInTheirExactForms) {
  // Without "lockregion": the short form, no blanks.
  ASSERT_EQ(0, nvram_filecache());
  ASSERT_EQ(0, nvram_parse());
  const std::string password = MakeNewAvPass();
  const std::string key = get_dev_pub_key();
  ASSERT_EQ(1, ReportNewPasswordToCloud());
  std::vector<std::string> sent = Published();
  ASSERT_EQ(1u, sent.size());
  int id = IdOf(sent[0]);
  ASSERT_GE(id, 1);
  ASSERT_LE(id, 10000000);
  EXPECT_EQ(
      "{\"id\":" + std::to_string(id) +
          ",\"method\":\"props\",\"params\":{\"p2p_id\":\"TARVOUID0001\",\"p2p_password\":\"" +
          password + "\",\"p2p_checktoken\":\"746f6b2d313233\",\"p2p_dev_public_key\":\"" + key +
          "\"}}",
      sent[0]);

  // With "lockregion" (and "legalstatus"): the long form with its three blanks.
  auto long_form = [&](int report_id, const std::string& legal) {
    return "{\"id\":" + std::to_string(report_id) +
           ",\"method\":\"props\",\"params\":{\"p2p_id\":\"TARVOUID0001\",\"p2p_password\":\"" +
           password + "\", \"p2p_checktoken\":\"746f6b2d313233\", \"p2p_dev_public_key\":\"" + key +
           "\", \"lock_region\":\"E\\\"U\", \"s_legal_status\":\"" + legal + "\"}}";
  };
  SetNvram("lockregion", "E\"U");
  ASSERT_EQ(1, ReportNewPasswordToCloud());
  sent = Published();
  ASSERT_EQ(2u, sent.size());
  EXPECT_EQ(long_form(IdOf(sent[1]), ""), sent[1]);
  SetNvram("legalstatus", "1");
  ASSERT_EQ(1, ReportNewPasswordToCloud());
  sent = Published();
  ASSERT_EQ(3u, sent.size());
  id = IdOf(sent[2]);
  EXPECT_EQ(long_form(id, "1"), sent[2]);

  // The MQTT router takes the cloud's "ok" to the last report's id as the first acknowledgement.
  EXPECT_FALSE(IsFirstP2pInfoReportAcked());
  HandleZeloMsg(("{\"id\":" + std::to_string(IdOf(sent[1])) + ",\"result\":\"ok\"}").c_str());
  EXPECT_FALSE(IsFirstP2pInfoReportAcked());  // an earlier report's id: not the pending one
  HandleZeloMsg(("{\"id\":" + std::to_string(id) + ",\"result\":\"ok\"}").c_str());
  EXPECT_TRUE(IsFirstP2pInfoReportAcked());
  EXPECT_TRUE(Logged("first report tutk info ok"));

  ASSERT_EQ(1, RequestUid());
  sent = Published();
  id = IdOf(sent.back());
  EXPECT_EQ("{\"id\":" + std::to_string(id) + ",\"method\":\"_sync.get_p2p_id\",\"params\":{}}",
            sent.back());

  // Without a readable token nothing goes out.
  const std::string token_file = g_root + "/etc/zelo/device.token";
  std::filesystem::rename(token_file, token_file + ".away");
  EXPECT_EQ(-1, ReportNewPasswordToCloud());
  std::filesystem::rename(token_file + ".away", token_file);
  EXPECT_EQ(4u, Published().size());
}

std::string MethodOf(const std::string& text) {
  std::smatch m;
  if (!std::regex_search(text, m, std::regex("\"method\":\"([^\"]+)\""))) return "";
  return m[1];
}

TEST_F(HubAuth, CredentialsThreadWaitsInItsOrder) {
  Configuration::getInstance().SetP2pUid("");
  int waits = 0;
  int wifi_calls = 0;
  int time_calls = 0;
  UidPwdHooks hooks;
  hooks.wifi_status = [&] { return ++wifi_calls <= 2 ? 3 : 5; };
  hooks.report_acked = [] {
    int reports = 0;
    for (const auto& text : Published()) reports += MethodOf(text) == "props" ? 1 : 0;
    return reports == 3;
  };
  hooks.time_synced = [&] { return ++time_calls > 2; };
  hooks.idle_report_acked = [] {
    int reports = 0;
    for (const auto& text : Published()) reports += MethodOf(text) == "prop.ota_state" ? 1 : 0;
    return reports == 2;
  };
  hooks.wait = [&] {
    waits++;
    // The cloud answers the second uid request.
    int requests = 0;
    for (const auto& text : Published()) requests += MethodOf(text) == "_sync.get_p2p_id" ? 1 : 0;
    if (requests == 2) Configuration::getInstance().SetP2pUid(kUid);
    return true;
  };
  EXPECT_EQ(nullptr, UidPwdFunc(&hooks));

  const std::vector<std::string> sent = Published();
  std::vector<std::string> methods;
  for (const auto& text : sent) methods.push_back(MethodOf(text));
  EXPECT_EQ((std::vector<std::string>{"_sync.get_p2p_id", "_sync.get_p2p_id", "props", "props",
                                      "props", "prop.ota_state", "prop.ota_state"}),
            methods);
  EXPECT_EQ(2 + 2 + 3 + 2 + 2, waits);
  EXPECT_NE(std::string::npos,
            sent[5].find(",\"method\":\"prop.ota_state\",\"params\":[\"idle\"]}"));
  // Each unanswered report carried a new password; the last one is the configuration's.
  std::set<std::string> passwords;
  for (int i = 2; i < 5; i++) {
    std::smatch m;
    ASSERT_TRUE(std::regex_search(sent[i], m, std::regex("\"p2p_password\":\"([0-9]{6})\"")));
    passwords.insert(m[1]);
    if (i == 4) {
      EXPECT_EQ(m[1], Configuration::getInstance().GetP2pPassword());
    }
  }
  EXPECT_EQ(3u, passwords.size());
  EXPECT_TRUE(Logged("Create get tutk uid and timer report pwd thread success"));
  EXPECT_TRUE(Logged("tutk uid is not exist, get uid from cloud"));
}

TEST_F(HubAuth, CredentialsThreadEndsWhenItsWaitIsCancelled) {
  UidPwdHooks hooks;
  hooks.wifi_status = [] { return 1; };
  int waits = 0;
  hooks.wait = [&] { return ++waits < 3; };
  EXPECT_EQ(nullptr, UidPwdFunc(&hooks));
  EXPECT_EQ(3, waits);
  EXPECT_TRUE(Published().empty());
}

}  // namespace
