// The tests' web server, seen through libcurl as the hub uses it: HTTPS uploads land byte for
// byte, certificates verify against a CA folder only when the test CA is in it, and the fail
// and stall switches change what the server answers.
#include "support/webserver.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <random>

namespace testsupport {
namespace {

struct Reply {
  CURLcode code = CURLE_OK;
  long status = 0;
  std::string body;
};

size_t Collect(char* data, size_t size, size_t n, void* out) {
  static_cast<std::string*>(out)->append(data, size * n);
  return size * n;
}

struct Upload {
  const std::string* data;
  size_t at = 0;
};

size_t Supply(char* buf, size_t size, size_t n, void* in) {
  auto* up = static_cast<Upload*>(in);
  const size_t count = std::min(size * n, up->data->size() - up->at);
  std::copy_n(up->data->data() + up->at, count, buf);
  up->at += count;
  return count;
}

// GET (or PUT when body is given) with verification against the CA folder ca_dir only: no
// bundle file, so the machine's own CAs play no part.
Reply Fetch(const std::string& url, const std::string& ca_dir, const std::string* body = nullptr,
            long timeout_ms = 20000) {
  Reply reply;
  CURL* curl = curl_easy_init();
  Upload upload{body};
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_CAINFO, nullptr);
  curl_easy_setopt(curl, CURLOPT_CAPATH, ca_dir.empty() ? nullptr : ca_dir.c_str());
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeout_ms);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply.body);
  if (body != nullptr) {
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(body->size()));
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, Supply);
    curl_easy_setopt(curl, CURLOPT_READDATA, &upload);
  }
  reply.code = curl_easy_perform(curl);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply.status);
  curl_easy_cleanup(curl);
  return reply;
}

WebServerOptions Options(bool tls, bool put, const std::string& root = "") {
  WebServerOptions options;
  options.tls = tls;
  options.put = put;
  options.root = root;
  return options;
}

std::string RandomBytes(size_t n) {
  std::mt19937 gen(7);
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(gen());
  return s;
}

TEST(WebServer, HttpsPutLandsExactlyAndGetVerifiesAgainstTheInstalledCa) {
  WebServer server(Options(true, true));
  ASSERT_TRUE(server.Start());
  TempDir board;
  const std::string ca_dir = board.path() + "/etc/ssl/certs";
  const std::string installed = server.InstallCa(ca_dir);
  ASSERT_FALSE(installed.empty());
  EXPECT_EQ(ReadFile(server.CaPath()), ReadFile(installed));
  // installing again keeps the one file
  EXPECT_EQ(installed, server.InstallCa(ca_dir));

  // a clip-sized body with every byte value, to a presigned-style URL with a query
  const std::string clip = RandomBytes(3 * 1024 * 1024 + 17);
  Reply put = Fetch(server.Url("/uploads/alarm/clip.enc?sig=ab%2Fcd&expires=60"), ca_dir, &clip);
  ASSERT_EQ(CURLE_OK, put.code) << curl_easy_strerror(put.code);
  EXPECT_EQ(200, put.status);
  EXPECT_TRUE(ReadFile(server.uploads() + "/alarm/clip.enc") == clip) << "upload differs";
  auto logged = server.WaitForRequest(
      [](const WebRequest& r) { return r.method == "PUT" && r.path == "/uploads/alarm/clip.enc"; });
  ASSERT_TRUE(logged);
  EXPECT_EQ(200, logged->status);
  EXPECT_EQ("/uploads/alarm/clip.enc?sig=ab%2Fcd&expires=60", logged->target);
  EXPECT_GT(logged->received, static_cast<long long>(clip.size()));

  // a download by IP and by name (both in the certificate)
  const std::string package = RandomBytes(200000);
  WriteFile(server.root() + "/fw/update.bin", package);
  for (const std::string& url :
       {server.Url("fw/update.bin"),
        "https://localhost:" + std::to_string(server.port()) + "/fw/update.bin"}) {
    Reply get = Fetch(url, ca_dir);
    ASSERT_EQ(CURLE_OK, get.code) << url << ": " << curl_easy_strerror(get.code);
    EXPECT_EQ(200, get.status);
    EXPECT_TRUE(get.body == package) << url;
  }
  EXPECT_TRUE(server.WaitForRequest("^GET /fw/update.bin 200 200000 "));
}

TEST(WebServer, UnknownCaIsRefused) {
  WebServer server;
  ASSERT_TRUE(server.Start());
  WriteFile(server.root() + "/f", "x");
  TempDir empty_ca_dir;
  Reply get = Fetch(server.Url("/f"), empty_ca_dir.path());
  EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, get.code) << curl_easy_strerror(get.code);
  EXPECT_TRUE(get.body.empty());

  // another server's CA does not vouch for this one
  WebServer other;
  TempDir other_ca_dir;
  ASSERT_FALSE(other.InstallCa(other_ca_dir.path()).empty());
  EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, Fetch(server.Url("/f"), other_ca_dir.path()).code);
}

TEST(WebServer, FailAndStallSwitches) {
  WebServer server(Options(true, true));
  ASSERT_TRUE(server.Start());
  TempDir ca;
  server.InstallCa(ca.path());
  WriteFile(server.root() + "/a", "a");
  WriteFile(server.root() + "/b", "b");

  server.FailPath("/a", true);
  EXPECT_EQ(500, Fetch(server.Url("/a"), ca.path()).status);
  EXPECT_EQ(500, Fetch(server.Url("/a?retry=2"), ca.path()).status);
  EXPECT_EQ(200, Fetch(server.Url("/b"), ca.path()).status);
  server.FailPath("/a", false);
  EXPECT_EQ(200, Fetch(server.Url("/a"), ca.path()).status);

  // a failed upload stores nothing
  const std::string body = "snapshot";
  server.FailAll(true);
  EXPECT_EQ(500, Fetch(server.Url("/b"), ca.path()).status);
  EXPECT_EQ(500, Fetch(server.Url("/uploads/s.enc"), ca.path(), &body).status);
  EXPECT_FALSE(FileExists(server.uploads() + "/s.enc"));
  server.FailAll(false);
  EXPECT_EQ(200, Fetch(server.Url("/uploads/s.enc"), ca.path(), &body).status);
  EXPECT_EQ(2, server.CountRequests(
                   [](const WebRequest& r) { return r.path == "/a" && r.status == 500; }));

  // a stalled answer never completes within a client's time limit; others are served meanwhile
  server.StallPath("/uploads/late.enc", true);
  Reply stalled = Fetch(server.Url("/uploads/late.enc"), ca.path(), &body, 1500);
  EXPECT_EQ(CURLE_OPERATION_TIMEDOUT, stalled.code) << curl_easy_strerror(stalled.code);
  // nginx's interim "100 Continue" to the PUT is not slowed; no final status comes
  EXPECT_LT(stalled.status, 200);
  EXPECT_FALSE(FileExists(server.uploads() + "/late.enc"));
  EXPECT_EQ(200, Fetch(server.Url("/b"), ca.path()).status);
  server.StallPath("/uploads/late.enc", false);
  EXPECT_EQ(200, Fetch(server.Url("/uploads/late.enc"), ca.path(), &body).status);
}

TEST(WebServer, PlainHttpServesAFolderAndRestartsOnItsPort) {
  TempDir camera_dir;  // stands for a board's tmp/camera
  WriteFile(camera_dir.path() + "/image.bin", "firmware image");
  WebServer server(Options(false, false, camera_dir.path()));
  ASSERT_TRUE(server.Start());
  EXPECT_EQ("http://127.0.0.1:" + std::to_string(server.port()) + "/image.bin",
            server.Url("image.bin"));
  Reply get = Fetch(server.Url("/image.bin"), "");
  ASSERT_EQ(CURLE_OK, get.code) << curl_easy_strerror(get.code);
  EXPECT_EQ("firmware image", get.body);
  EXPECT_EQ(404, Fetch(server.Url("/missing.bin"), "").status);

  // without PUT enabled nothing can be stored
  const std::string body = "x";
  EXPECT_EQ(405, Fetch(server.Url("/uploads/x"), "", &body).status);
  EXPECT_FALSE(FileExists(server.uploads() + "/x"));

  const uint16_t port = server.port();
  server.Stop();
  EXPECT_FALSE(server.Running());
  EXPECT_EQ(CURLE_COULDNT_CONNECT, Fetch(server.Url("/image.bin"), "").code);
  ASSERT_TRUE(server.Start());
  EXPECT_EQ(port, server.port());
  EXPECT_EQ("firmware image", Fetch(server.Url("/image.bin"), "").body);
}

}  // namespace
}  // namespace testsupport
