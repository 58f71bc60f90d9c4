// The alarm upload thread in this process with the hub's MQTT client, against a real mosquitto
// broker, the cloud agent simulator giving presigned URLs, and Debian's nginx taking the PUTs
// (HTTPS with a test CA in the board's CA folder, or plain HTTP). Alarm records are queued as
// the recorder queues them, with scratch files in the board's /tmp; what arrives on the server
// is decrypted with the passwords the cloud gave.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <regex>
#include <string>

#include "cloud/mqttclient.h"
#include "cloudsim/cloudsim.h"
#include "cloudsim/uploads.h"
#include "platform/board.h"
#include "storage/pirupload.h"
#include "support/broker.h"
#include "support/logcapture.h"
#include "support/testsupport.h"
#include "support/webserver.h"

namespace {

using namespace std::chrono_literals;
using testsupport::ReadFile;
using testsupport::WaitFor;
using testsupport::WriteFile;

constexpr char kCam[] = "0A00000000E1";

testsupport::Broker* g_broker = nullptr;
testsupport::TempDir* g_board = nullptr;
testsupport::LogCapture* g_log = nullptr;

class UploadEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    g_log = new testsupport::LogCapture();
    g_broker = new testsupport::Broker();
    ASSERT_TRUE(g_broker->Start());
    g_board = new testsupport::TempDir();
    testsupport::MakeBoard(g_board->path(), {"--force", "--camera", kCam});
    setenv("TARVO_MQTT_HOST", "127.0.0.1", 1);
    setenv("TARVO_MQTT_PORT", std::to_string(g_broker->port()).c_str(), 1);
    platform::SetRootForTest(g_board->path());
    const size_t mark = g_log->Mark();
    InitMqtt();
    ASSERT_TRUE(g_log->Wait("Subscribed \\(mid: 3\\)", mark, 20s));
    SetAlarmPollIntervalForTest(40);  // a URL or acknowledgement wait gives up after 1 s
    SetAlarmReportPublisher(MqttReport);
    ASSERT_EQ(0, alarm_upload_init());
    ASSERT_EQ(0, InitPirUpload());
  }
  void TearDown() override {
    StopPirUploadForTest();
    delete g_broker;
    g_broker = nullptr;
    delete g_board;  // no board root is left behind in the temporary folder
    g_board = nullptr;
  }
};

const auto* const g_env = ::testing::AddGlobalTestEnvironment(new UploadEnvironment());

std::string Pattern(size_t n, unsigned seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; i++) s[i] = static_cast<char>((i * 31 + seed) & 0xFF);
  return s;
}

class AlarmUpload : public ::testing::Test {
 protected:
  void Start(bool tls = true, bool install_ca = true) {
    testsupport::WebServerOptions options;
    options.tls = tls;
    options.put = true;
    web_ = std::make_unique<testsupport::WebServer>(options);
    std::system(("rm -rf " + g_board->path() + "/etc/ssl/certs").c_str());
    if (install_ca) web_->InstallCa(g_board->path() + "/etc/ssl/certs");
    ASSERT_TRUE(web_->Start());
    cloudsim::Options agent;
    agent.upload_base = web_->Url("/uploads");
    agent_ = g_broker->StartAgent(agent);
  }

  // Queues an alarm as the recorder does, with a snapshot and a clip of the given sizes.
  void Queue(size_t jpeg_size, size_t mp4_size) {
    jpeg_ = Pattern(jpeg_size, 1);
    mp4_ = Pattern(mp4_size, 2);
    WriteFile(g_board->path() + "/tmp/" + kCam + "/alarm.jpeg", jpeg_);
    WriteFile(g_board->path() + "/tmp/" + kCam + "/alarm.mp4", mp4_);
    mark_ = g_log->Mark();
    auto* record = new alarm_mgr_list();
    std::snprintf(record->mac, sizeof(record->mac), "%s", kCam);
    std::snprintf(record->mp4_path, sizeof(record->mp4_path), "/tmp/%s/alarm.mp4", kCam);
    std::snprintf(record->pic_path, sizeof(record->pic_path), "/tmp/%s/alarm.jpeg", kCam);
    ASSERT_EQ(0, InsertInAlarmLists(record));
  }

  // Waits until the record left the list; true when it was handled, false when dropped.
  bool Finished() {
    EXPECT_TRUE(
        g_log->Wait("(handle alarm succeed\\.\\.\\. |upload retry more than 3)", mark_, 30s));
    EXPECT_TRUE(WaitFor([] { return IsCameraUploading(kCam) == 0; }));
    return g_log->Has("handle alarm succeed\\.\\.\\. " + std::string(kCam), mark_);
  }

  int Logged(const std::string& pattern) { return g_log->Count(pattern, mark_); }

  // The stored upload of an issued object, decrypted with the password the cloud gave.
  std::string Received(const cloudsim::IssuedUpload& u) {
    const std::string out = web_->uploads() + "/" + u.object_name + ".plain";
    std::string error;
    EXPECT_EQ(0,
              cloudsim::DecryptFile(web_->uploads() + "/" + u.object_name, out, u.password, &error))
        << error;
    return ReadFile(out);
  }

  static std::string Padded(const std::string& plain) {
    return plain + std::string((16 - plain.size() % 16) % 16, '\0');
  }

  int Puts(int status) {
    return web_->CountRequests([status](const testsupport::WebRequest& r) {
      return r.method == "PUT" && r.status == status;
    });
  }

  std::unique_ptr<testsupport::WebServer> web_;
  std::unique_ptr<cloudsim::CloudAgent> agent_;
  std::string jpeg_, mp4_;
  size_t mark_ = 0;
};

TEST_F(AlarmUpload, SnapshotThenClipAreEncryptedUploadedOverHttpsAndTheEventReported) {
  Start();
  const size_t report_from = agent_->MessageCount();
  Queue(1000, 70001);
  ASSERT_TRUE(Finished());

  const std::vector<cloudsim::IssuedUpload> urls = agent_->Uploads();
  ASSERT_EQ(2u, urls.size());
  EXPECT_EQ("jpeg", urls[0].suffix);  // the snapshot goes first
  EXPECT_EQ("mp4", urls[1].suffix);
  EXPECT_NE(urls[0].password, urls[1].password);
  EXPECT_EQ(Padded(jpeg_), Received(urls[0]));
  EXPECT_EQ(Padded(mp4_), Received(urls[1]));
  // a 1000-byte file goes up as 1008 bytes of ciphertext
  auto put = web_->WaitForRequest("^PUT /uploads/" + urls[0].object_name);
  ASSERT_TRUE(put.has_value());
  EXPECT_EQ(200, put->status);  // as object stores answer
  EXPECT_EQ(1008u, ReadFile(web_->uploads() + "/" + urls[0].object_name).size());

  // the URL requests and the event report, in their exact form
  std::string request;
  ASSERT_TRUE(agent_->WaitReport("_sync.gen_presigned_url", &request, 1s, report_from));
  EXPECT_TRUE(std::regex_match(
      request, std::regex("\\{\"id\":[0-9]+,\"method\":\"_sync\\.gen_presigned_url\",\"params\":"
                          "\\{\"suffix\":\"jpeg\",\"use_https\":true\\}\\}")))
      << request;
  std::string report;
  ASSERT_TRUE(agent_->WaitReport("event.motion", &report, 1s, report_from));
  EXPECT_TRUE(std::regex_match(
      report, std::regex("\\{\"id\":[0-9]+,\"method\":\"event\\.motion\",\"params\":\\[\"" +
                         urls[1].object_name + "\",\"" + urls[1].password + "\",\"" +
                         urls[0].object_name + "\",\"" + urls[0].password + "\",\"\",\"1\"\\]\\}")))
      << report;
  EXPECT_EQ(1, Logged("This is upload motion succeed ack " + std::string(kCam)));
  EXPECT_EQ(1, Logged("Upload motion ok!"));
}

TEST_F(AlarmUpload, PlainHttpWhenTheUrlSaysSo) {
  Start(/*tls=*/false);
  Queue(4000, 5000);
  ASSERT_TRUE(Finished());
  const std::vector<cloudsim::IssuedUpload> urls = agent_->Uploads();
  ASSERT_EQ(2u, urls.size());
  EXPECT_EQ(0u, urls[1].url.rfind("http://", 0));
  EXPECT_EQ(Padded(mp4_), Received(urls[1]));
}

TEST_F(AlarmUpload, Http500ThenSuccessResendsTheEncryptedFileWithoutEncryptingAgain) {
  Start();
  web_->FailAll(true);
  // the first answer 500 lets the server heal before the retry, which follows at once
  g_log->OnceOn("upload pic response code1: 500", [this] { web_->FailAll(false); });
  Queue(1000, 3000);
  ASSERT_TRUE(Finished());
  EXPECT_EQ(1, Logged("handle alarm failed, retry: 1"));
  EXPECT_EQ(1, Logged("upload pic response code2: 200"));
  EXPECT_EQ(1, Logged("Get pic url ok "));  // no second URL, no second encryption
  const std::vector<cloudsim::IssuedUpload> urls = agent_->Uploads();
  ASSERT_EQ(2u, urls.size());
  EXPECT_EQ(1, Puts(500));
  EXPECT_EQ(2, Puts(200));
  // both tries sent the same 1008 bytes, which decrypt once to the snapshot
  EXPECT_EQ(Padded(jpeg_), Received(urls[0]));
}

TEST_F(AlarmUpload, ThreeFailuresDropTheAlarm) {
  Start();
  web_->FailAll(true);
  Queue(1000, 1000);
  EXPECT_FALSE(Finished());
  EXPECT_EQ(1, Logged("handle alarm failed, retry: 3"));
  EXPECT_EQ(1, Logged("upload retry more than 3, but still fail"));
  EXPECT_EQ(1, Logged("Erase report mac " + std::string(kCam) + " in alarm_list succeed"));
  EXPECT_EQ(3, Puts(500));
  EXPECT_EQ(1u, agent_->Uploads().size());  // the clip was never reached
  EXPECT_FALSE(agent_->WaitReport("event.motion", nullptr, 100ms));
}

TEST_F(AlarmUpload, UrlTimeOutAndMissingAcknowledgementAreRetriedWhereTheyFailed) {
  Start();
  agent_->IgnoreUrlRequests(1);
  agent_->IgnoreEventReports(1);
  Queue(2000, 2000);
  ASSERT_TRUE(Finished());
  EXPECT_EQ(1, Logged("Get pic url timeout failed " + std::string(kCam)));
  EXPECT_EQ(1, Logged("get rpc pic url fail"));
  EXPECT_EQ(1, Logged("Upload motion failed!"));
  EXPECT_EQ(1, Logged("upload sds fail " + std::string(kCam)));
  EXPECT_EQ(2, Logged("handle alarm failed, retry: [12]"));
  // the third try only reported again: two URLs, two uploads in all
  EXPECT_EQ(2u, agent_->Uploads().size());
  EXPECT_EQ(2, Puts(200));
}

TEST_F(AlarmUpload, UnknownCertificateAuthorityFailsTheUpload) {
  Start(/*tls=*/true, /*install_ca=*/false);
  Queue(1000, 1000);
  EXPECT_FALSE(Finished());
  EXPECT_EQ(3, Logged("Can not upload .*alarm\\.jpeg to https://127\\.0\\.0\\.1:[0-9]+/uploads/"
                      ".*: .*certificate.* \\(60\\)"));
  EXPECT_EQ(0, Puts(200));
}

}  // namespace
