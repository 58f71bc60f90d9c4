// The hub's MQTT client in this process against a real mosquitto broker, with the cloud agent
// simulator on the other side and a board root for the configuration store, nvram and shims.
#include <gtest/gtest.h>
#include <mosquitto.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "cloud/cloudcmd.h"
#include "cloud/mqttclient.h"
#include "cloudsim/cloudsim.h"
#include "core/configuration.h"
#include "platform/board.h"
#include "platform/nvram.h"
#include "platform/uci.h"
#include "support/broker.h"
#include "support/logcapture.h"
#include "support/testsupport.h"
#include "viewer/credentials.h"

namespace {

using namespace std::chrono_literals;
using testsupport::WaitFor;

constexpr char kCamA[] = "A1B2C3D4E5F6";
constexpr char kCamB[] = "0C0D0E0F1011";

testsupport::Broker* g_broker = nullptr;
testsupport::TempDir* g_board = nullptr;
testsupport::LogCapture* g_log = nullptr;

class HubEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    g_log = new testsupport::LogCapture();
    g_broker = new testsupport::Broker();
    ASSERT_TRUE(g_broker->Start());
    g_board = new testsupport::TempDir();
    testsupport::MakeBoard(g_board->path(), {"--force", "--camera", kCamA, "--camera", kCamB,
                                             "--clock", "1700000000"});
    setenv("TARVO_MQTT_HOST", "127.0.0.1", 1);
    setenv("TARVO_MQTT_PORT", std::to_string(g_broker->port()).c_str(), 1);
    platform::SetRootForTest(g_board->path());
    size_t mark = g_log->Mark();
    InitMqtt();
    ASSERT_TRUE(g_log->Wait("Subscribed \\(mid: 3\\)", mark, 20s));
  }
  // The broker is a process of its own: stop it, or it outlives the test program. The client
  // thread keeps running until the program ends and only retries its connection meanwhile.
  void TearDown() override {
    delete g_broker;
    g_broker = nullptr;
    delete g_board;  // no board root is left behind in the temporary folder
    g_board = nullptr;
  }
};

const auto* const g_env = ::testing::AddGlobalTestEnvironment(new HubEnvironment());

std::string Board(const std::string& path) {
  return g_board->path() + path;
}

std::unique_ptr<cloudsim::CloudAgent> Agent(cloudsim::Options options = {}) {
  return g_broker->StartAgent(options);
}

std::string Reply(int id, const std::string& result) {
  return "{\"id\":" + std::to_string(id) + ",\"result\":" + result + "}";
}

std::string Command(cloudsim::CloudAgent& agent, const std::string& method,
                    const std::string& params) {
  int id = agent.SendCommand(method, params);
  std::string reply;
  EXPECT_TRUE(agent.WaitReply(id, &reply)) << method << " " << params;
  return reply;
}

using testsupport::Barrier;
using testsupport::RepliesTo;

std::string Uci(const std::string& key) {
  char value[256];
  return zcfg_uci_get(key.c_str(), value, sizeof(value)) == 0 ? value : "(absent)";
}

std::string Nvram(const std::string& key) {
  std::string value;
  return platform::NvramLookup("p2p", key, &value) == 0 ? value : "(absent)";
}

TEST(Router, RepliesOnCommandAckWithTheCommandsId) {
  auto agent = Agent();
  int id = agent->SendCommand("set_power_threshold", "[37]");
  std::string reply;
  ASSERT_TRUE(agent->WaitReply(id, &reply));
  EXPECT_EQ(Reply(id, "[\"ok\"]"), reply);
  id = agent->SendCommand("get_power_threshold", "");
  ASSERT_TRUE(agent->WaitReply(id, &reply));
  EXPECT_EQ(Reply(id, "[37]"), reply);
  EXPECT_EQ("37", Uci("hub_config.power.threshold"));
}

// The window and the ring's size are the message ring's unit tests'; here: the router uses it.
TEST(Router, RepeatedIdIsDropped) {
  auto agent = Agent();
  const int id = cloudsim::CloudAgent::NextId();
  agent->SendCommandWithId(id, "get_power_threshold", "");
  ASSERT_TRUE(agent->WaitReply(id, nullptr));
  size_t mark = g_log->Mark();
  agent->SendCommandWithId(id, "get_power_threshold", "");
  Barrier(*agent);
  EXPECT_EQ(1, RepliesTo(*agent, id));
  EXPECT_TRUE(g_log->Has("repeated message\\[[0-9]+\\]: ", mark));
}

TEST(Router, UnknownMethodsAndMalformedMessagesGetNoReplyAndDoNoHarm) {
  auto agent = Agent();
  const int unknown = cloudsim::CloudAgent::NextId();
  const int wrong_type = cloudsim::CloudAgent::NextId();
  const int no_method = cloudsim::CloudAgent::NextId();
  const int prefix = cloudsim::CloudAgent::NextId();
  size_t mark = g_log->Mark();
  agent->SendCommandWithId(unknown, "no_such_method", "{}");
  agent->SendCommandWithId(prefix, "get_power_threshold_x", "");
  agent->Publish("zelo/command",
                 "{\"id\":" + std::to_string(wrong_type) + ",\"method\":5,\"params\":[]}");
  agent->Publish("zelo/command", "{\"id\":" + std::to_string(no_method) + "}");
  agent->Publish("zelo/command", "{\"id\":1,\"method\":\"get_power_threshold\"");  // cut short
  agent->Publish("zelo/command", "");
  agent->Publish("zelo/command", "[1,2,3]");
  agent->Publish("zelo/command", std::string("{\"id\":2,\0\"method\":\"rename\"}", 28));
  agent->Publish("zelo/command", std::string(200 * 1024, '{'));
  agent->Publish("local/zelo_client_out", "\xff\xfe garbage");
  Barrier(*agent);
  for (int id : {unknown, wrong_type, no_method, prefix, 1, 2}) EXPECT_EQ(0, RepliesTo(*agent, id));
  EXPECT_GE(g_log->Count("json_verify failed", mark), 3);
  EXPECT_TRUE(g_log->Has("Drop message of 204800 bytes", mark));
}

TEST(Router, MessagesUpTo64KiBAreReadAndOneByteMoreIsDropped) {
  std::string topic = "zelo/command";
  for (int len : {64 * 1024, 64 * 1024 + 1}) {
    // A command padded to the length: the largest still goes to the parser.
    const std::string head = "{\"id\":1,\"method\":\"no_such_method\",\"pad\":\"";
    std::string text = head + std::string(static_cast<size_t>(len) - head.size() - 2, 'p') + "\"}";
    ASSERT_EQ(static_cast<size_t>(len), text.size());
    mosquitto_message message{};
    message.topic = topic.data();
    message.payload = text.data();
    message.payloadlen = len;
    const size_t mark = g_log->Mark();
    my_message_callback(nullptr, nullptr, &message);
    EXPECT_EQ(len > 64 * 1024,
              g_log->Has("Drop message of " + std::to_string(len) + " bytes", mark))
        << len;
  }
}

TEST(Router, TopicIsMatchedByItsPrefix) {
  auto agent = Agent();
  const int id = cloudsim::CloudAgent::NextId();
  const std::string command =
      "{\"id\":" + std::to_string(id) + ",\"method\":\"get_power_threshold\"}";
  std::string topic = "zelo/command/more";
  mosquitto_message message{};
  message.topic = topic.data();
  message.payload = const_cast<char*>(command.data());
  message.payloadlen = static_cast<int>(command.size());
  my_message_callback(nullptr, nullptr, &message);
  EXPECT_TRUE(agent->WaitReply(id, nullptr));

  size_t mark = g_log->Mark();
  topic = "zelo/other";
  const int other = cloudsim::CloudAgent::NextId();
  const std::string second =
      "{\"id\":" + std::to_string(other) + ",\"method\":\"get_power_threshold\"}";
  message.payload = const_cast<char*>(second.data());
  message.payloadlen = static_cast<int>(second.size());
  my_message_callback(nullptr, nullptr, &message);
  EXPECT_TRUE(g_log->Has("Got Unknown msg from zelo: ", mark));
  Barrier(*agent);
  EXPECT_EQ(0, RepliesTo(*agent, other));
}

TEST(Answers, UidAnswerGoesToNvramAndConfiguration) {
  cloudsim::Options options;
  options.uid = "NEWUID0123456789ABCD";
  auto agent = Agent(options);
  const int id = cloudsim::CloudAgent::NextId();
  SetUidRequestId(id);
  size_t mark = g_log->Mark();
  ASSERT_EQ(1, MqttReport(("{\"id\":" + std::to_string(id) +
                           ",\"method\":\"_sync.get_p2p_id\",\"params\":{}}")
                              .c_str()));
  ASSERT_TRUE(g_log->Wait("this is get tutk uid callback, uid: NEWUID0123456789ABCD", mark));
  EXPECT_TRUE(
      WaitFor([] { return Configuration::getInstance().GetP2pUid() == "NEWUID0123456789ABCD"; }));
  EXPECT_EQ("NEWUID0123456789ABCD", Nvram("uid"));
  EXPECT_NE(std::string::npos,
            testsupport::ReadFile(Board("/etc/nvram/store")).find("p2p.uid=NEWUID0123456789ABCD"))
      << "committed";
}

TEST(Answers, OnlyAPendingRequestIsAnswered) {
  const std::string before = "TARVOHUBPENDING00001";
  Configuration::getInstance().SetP2pUid(before);
  auto agent = Agent();
  auto answer = [&](int id, const char* uid) {
    size_t mark = g_log->Mark();
    agent->Publish("zelo/report_ack",
                   "{\"id\":" + std::to_string(id) + ",\"result\":\"" + uid + "\"}");
    EXPECT_TRUE(g_log->Wait("curuid_id: " + std::to_string(id), mark));
    Barrier(*agent);
    return !g_log->Has("tutk uid callback|tutk info ack|upgrade state ack", mark);
  };
  SetUidRequestId(0);
  SetP2pInfoReportId(0);
  SetOtaStateReportId(0);
  // A pending request takes its answer; then nothing is pending and an answer with id 0, the
  // value of "nothing pending", is stray.
  const int id = cloudsim::CloudAgent::NextId();
  SetUidRequestId(id);
  EXPECT_FALSE(answer(id, "FIRSTUID000000000001"));
  EXPECT_TRUE(
      WaitFor([] { return Configuration::getInstance().GetP2pUid() == "FIRSTUID000000000001"; }));
  EXPECT_TRUE(answer(0, "EVILUID0000000000002"));
  EXPECT_EQ("FIRSTUID000000000001", Configuration::getInstance().GetP2pUid());
}

TEST(Answers, UidThatIsNotAPlainTokenIsRefused) {
  const std::string before = Nvram("uid");
  Configuration::getInstance().SetP2pUid(before);
  for (const std::string& bad :
       {std::string("AB'; reboot; echo '"), std::string(33, 'U'), std::string("UID WITH BLANKS")}) {
    cloudsim::Options options;
    options.uid = bad;
    auto agent = Agent(options);
    const int id = cloudsim::CloudAgent::NextId();
    SetUidRequestId(id);
    size_t mark = g_log->Mark();
    MqttReport(("{\"id\":" + std::to_string(id) + ",\"method\":\"_sync.get_p2p_id\",\"params\":{}}")
                   .c_str());
    ASSERT_TRUE(g_log->Wait("Refuse uid from cloud", mark)) << bad;
    EXPECT_EQ(before, Nvram("uid"));
    EXPECT_EQ(before, Configuration::getInstance().GetP2pUid());
  }
  EXPECT_FALSE(testsupport::FileExists(Board("/var/log/reboot.log")));

  // An answer to an id nobody waits for is only logged.
  auto agent = Agent();
  SetUidRequestId(cloudsim::CloudAgent::NextId());
  const int stray = cloudsim::CloudAgent::NextId();
  size_t mark = g_log->Mark();
  agent->Publish("zelo/report_ack", "{\"id\":" + std::to_string(stray) + ",\"result\":\"XYZ123\"}");
  ASSERT_TRUE(g_log->Wait("curuid_id: " + std::to_string(stray), mark));
  Barrier(*agent);
  EXPECT_FALSE(g_log->Has("tutk uid callback|tutk info ack|upgrade state ack", mark));
  EXPECT_EQ(before, Configuration::getInstance().GetP2pUid());
}

TEST(Answers, CredentialReportAcknowledgedOnceIntoTheCredentialsFile) {
  testsupport::WriteFile(Board("/etc/zelo/device.conf"),
                         "did=1000000001\nkey=TarvoDeviceKey01\nvendor=brovalin\n"
                         "mac=02:1A:2B:3C:4D:5E\nmodel=brovalin.gateway.hbx011\n");
  cloudsim::Options options;
  options.board = g_board->path();
  options.credentials_file = Board("/tmp/credentials");
  options.ignore_credentials = 1;
  auto agent = Agent(options);
  const std::string hex_token = "746f6b656e2d31";  // "token-1"
  auto report = [&](int id, const char* password) {
    return "{\"id\":" + std::to_string(id) +
           ",\"method\":\"props\",\"params\":{\"p2p_id\":\"HUBUID1\",\"p2p_password\":\"" +
           password + "\",\"p2p_checktoken\":\"" + hex_token + "\",\"p2p_dev_public_key\":\"" +
           std::string(64, 'a') + "\"}}";
  };
  int first = cloudsim::CloudAgent::NextId();
  SetP2pInfoReportId(first);
  MqttReport(report(first, "000042").c_str());
  ASSERT_TRUE(agent->WaitReport("props", nullptr));
  Barrier(*agent);
  EXPECT_FALSE(IsFirstP2pInfoReportAcked());  // the simulator left the first one unanswered
  EXPECT_FALSE(testsupport::FileExists(options.credentials_file));

  size_t mark = g_log->Mark();
  int second = cloudsim::CloudAgent::NextId();
  SetP2pInfoReportId(second);
  MqttReport(report(second, "123456").c_str());
  ASSERT_TRUE(WaitFor([] { return IsFirstP2pInfoReportAcked(); }));
  EXPECT_TRUE(g_log->Has("this is report tutk info ack, ret: ok", mark));
  EXPECT_EQ(1, g_log->Count("first report tutk info ok", 0));
  viewer::Credentials c;
  ASSERT_EQ(0, viewer::ReadCredentialsFile(options.credentials_file, &c));
  EXPECT_EQ("HUBUID1", c.uid);
  EXPECT_EQ("123456", c.password);
  EXPECT_EQ(std::string(64, 'a'), c.public_key);
  EXPECT_EQ("TarvoDeviceKey01", c.device_key);
  EXPECT_EQ("token-1", c.device_token);

  // A later acknowledgement does not announce the first one again.
  int third = cloudsim::CloudAgent::NextId();
  SetP2pInfoReportId(third);
  mark = g_log->Mark();
  MqttReport(report(third, "654321").c_str());
  ASSERT_TRUE(g_log->Wait("this is report tutk info ack, ret: ok", mark));
  EXPECT_EQ(1, g_log->Count("first report tutk info ok", 0));
}

TEST(Answers, OtaStateAndSdStatusReports) {
  auto agent = Agent();
  const int id = cloudsim::CloudAgent::NextId();
  SetOtaStateReportId(id);
  MqttReport(
      ("{\"id\":" + std::to_string(id) + ",\"method\":\"prop.ota_state\",\"params\":[\"241\"]}")
          .c_str());
  EXPECT_TRUE(WaitFor([] { return IsFirstOtaStateReportAcked(); }));

  ASSERT_EQ(1, MqttReportPropSdStatus(3));
  std::string report;
  ASSERT_TRUE(agent->WaitReport("props", &report));
  EXPECT_TRUE(std::regex_match(
      report,
      std::regex(
          "\\{\"id\":[0-9]+,\"method\":\"props\",\"params\":\\{\"sdcard_status\":\"3\"\\}\\}")))
      << report;
}

TEST(Hub, LocalStatusSetsTheConnectionStatus) {
  auto agent = Agent();
  struct Step {
    const char* text;
    int status;
  };
  const Step steps[] = {{"wifi_connecting", 2},     {"wifi_connected", 3}, {"cloud_connected", 5},
                        {"cloud_retry", 5},         {"wifi_ap_mode", 4},   {"wifi_ap_mode_2", 6},
                        {"wifi_wrong_password", 1}, {"wifi_failed", 1}};
  for (const Step& step : steps) {
    size_t mark = g_log->Mark();
    agent->SendLocalStatus(step.text);
    ASSERT_TRUE(g_log->Wait(std::string("local.status: ") + step.text + "$", mark)) << step.text;
    EXPECT_EQ(step.status, GetWifiConnectStatus()) << step.text;
    EXPECT_EQ(step.status == 5, IsCloudConnected());
  }
  size_t mark = g_log->Mark();
  agent->SendLocalStatus("wifi_failed");
  ASSERT_TRUE(g_log->Wait("\\[repeated msg\\] ommitted", mark));
  agent->SendLocalStatus("wifi_exploded");
  ASSERT_TRUE(g_log->Wait("unknown msg: wifi_exploded", mark));
  agent->Publish("local/zelo_client_out",
                 "{\"id\":" + std::to_string(cloudsim::CloudAgent::NextId()) +
                     ",\"method\":\"local.status\",\"params\":5}");
  ASSERT_TRUE(g_log->Wait("Wrong local.status, msg: ", mark));
  EXPECT_EQ(1, GetWifiConnectStatus());
  agent->SendLocalStatus("cloud_connected");
  ASSERT_TRUE(g_log->Wait("local.status: cloud_connected", mark));
  EXPECT_TRUE(IsCloudConnected());
  Barrier(*agent);
  for (const auto& m : agent->Messages()) {
    if (m.topic == "zelo/command_ack") {
      EXPECT_EQ(std::string::npos, m.payload.find("local"));
    }
  }
}

TEST(Hub, TimeFromTheLocalAgentSetsTheBoardClock) {
  cloudsim::Options options;
  options.time = 1800000000;
  auto agent = Agent(options);
  size_t mark = g_log->Mark();
  // The hub's time query goes to the agent, whose answer comes back as "local.time".
  ASSERT_EQ(1, MqttLocalRequest(("{\"id\":" + std::to_string(cloudsim::CloudAgent::NextId()) +
                                 ",\"method\":\"local.query_time\"}")
                                    .c_str()));
  ASSERT_TRUE(g_log->Wait("Set system time success: 1800000000", mark));
  EXPECT_GE(platform::NowSeconds(), 1800000000);
  EXPECT_LT(platform::NowSeconds(), 1800000000 + 60);
  EXPECT_TRUE(IsFirstTimeSynced());
  EXPECT_EQ(1, g_log->Count("first sync local time ok", 0));

  for (const std::string& bad :
       {std::string("\"1800000100\""), std::string("1.8e9"), std::string("1000"),
        std::string("5000000000"), std::string("[1800000100]")}) {
    mark = g_log->Mark();
    agent->Publish("local/zelo_client_out",
                   "{\"id\":" + std::to_string(cloudsim::CloudAgent::NextId()) +
                       ",\"method\":\"local.time\",\"params\":" + bad + "}");
    ASSERT_TRUE(g_log->Wait("Ignore system time: ", mark)) << bad;
    EXPECT_LT(platform::NowSeconds(), 1800000000 + 60) << bad;
  }
  mark = g_log->Mark();
  agent->SendLocalTime(1700000000);
  ASSERT_TRUE(g_log->Wait("Set system time success: 1700000000", mark));
  EXPECT_LT(platform::NowSeconds(), 1700000000 + 60);
  EXPECT_EQ(1, g_log->Count("first sync local time ok", 0));
}

TEST(Hub, ThresholdAndLegalStatusRefuseBadValues) {
  auto agent = Agent();
  EXPECT_NE(std::string::npos,
            Command(*agent, "set_power_threshold", "[15]").find(",\"result\":[\"ok\"]}"));
  std::vector<int> refused;
  for (const char* bad : {"[\"20\"]", "[101]", "[-1]", "[20,30]", "20", "{\"v\":20}", "[2.5]"}) {
    refused.push_back(agent->SendCommand("set_power_threshold", bad));
  }
  refused.push_back(agent->SendCommand("set_power_threshold", ""));
  refused.push_back(agent->SendCommand("set_s_legal_status", "[\"0\"]"));
  refused.push_back(agent->SendCommand("set_s_legal_status", "[1]"));
  refused.push_back(agent->SendCommand("set_s_legal_status", "\"1\""));
  // Without an id nothing is done and nothing can be answered.
  size_t mark = g_log->Mark();
  agent->Publish("zelo/command", "{\"method\":\"set_power_threshold\",\"params\":[99]}");
  Barrier(*agent);
  for (int id : refused) EXPECT_EQ(0, RepliesTo(*agent, id));
  EXPECT_TRUE(g_log->Has("\\[abnormal\\] msg without id", mark));
  EXPECT_EQ("15", Uci("hub_config.power.threshold"));
  EXPECT_EQ("(absent)", Nvram("legalstatus"));

  int id = agent->SendCommand("set_s_legal_status", "[\"1\"]");
  std::string reply;
  ASSERT_TRUE(agent->WaitReply(id, &reply));
  EXPECT_EQ(Reply(id, "[\"ok\"]"), reply);
  EXPECT_EQ("1", Nvram("legalstatus"));
}

TEST(Hub, ServiceEventsAreCheckedAndLogged) {
  auto agent = Agent();
  size_t mark = g_log->Mark();
  agent->SendCommand("zeLO.event", "{\"code\":-3,\"ts\":1700000000}");
  ASSERT_TRUE(g_log->Wait("zeLO.event code: -3, ts: 1700000000", mark));
  agent->SendCommand("zeLO.event", "{\"ts\":1}");
  ASSERT_TRUE(g_log->Wait("get code error!!!", mark));
  agent->SendCommand("zeLO.event", "{\"code\":\"-90\",\"ts\":1}");
  ASSERT_TRUE(g_log->Wait("code not int", mark));
  agent->SendCommand("zeLO.event", "{\"code\":-90}");
  ASSERT_TRUE(g_log->Wait("get ts error", mark));
  agent->SendCommand("zeLO.event", "{\"code\":-90,\"ts\":\"x\"}");
  ASSERT_TRUE(g_log->Wait("ts not int", mark));
  agent->SendCommand("zeLO.event", "");
  ASSERT_TRUE(g_log->Wait("get params error!!!", mark));
  EXPECT_FALSE(g_log->Has("TUTK bug", mark));
}

TEST(Hub, RestoreHandsOverToTheResetDaemonOrReboots) {
  auto agent = Agent();
  // No reset daemon on the board: the reboot path, through the board's shim.
  int id = agent->SendCommand("zeLO.restore", "");
  std::string reply;
  ASSERT_TRUE(agent->WaitReply(id, &reply));
  EXPECT_EQ(Reply(id, "[\"ok\"]"), reply);
  ASSERT_TRUE(WaitFor([] { return testsupport::FileExists(Board("/var/log/reboot.log")); }));
  EXPECT_NE(std::string::npos, testsupport::ReadFile(Board("/dev/ttyS1")).find("error reboot"));
  const std::string reboots = testsupport::ReadFile(Board("/var/log/reboot.log"));

  // A reset daemon that runs from the board gets signal 42.
  std::filesystem::create_directories(Board("/usr/sbin"));
  std::filesystem::copy_file("/bin/sleep", Board("/usr/sbin/ipcamera-daemon"));
  testsupport::Process daemon({Board("/usr/sbin/ipcamera-daemon"), "60"}, {});
  ASSERT_TRUE(WaitFor([] { return platform::FindProcess("ipcamera-daemon") > 0; }));
  size_t mark = g_log->Mark();
  id = agent->SendCommand("zeLO.restore", "");
  ASSERT_TRUE(agent->WaitReply(id, nullptr));
  ASSERT_TRUE(g_log->Wait("Finish kill daemon signal", mark));
  int status = daemon.Wait(10s);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(42, WTERMSIG(status));
  EXPECT_EQ(reboots, testsupport::ReadFile(Board("/var/log/reboot.log")));  // no second reboot
}

TEST(Cameras, ListHoldsEveryCameraRecord) {
  auto agent = Agent();
  int id = agent->SendCommand("get_camera_list", "");
  std::string reply;
  ASSERT_TRUE(agent->WaitReply(id, &reply));
  const std::string record =
      "\\{\"mac\":\"([0-9A-F]{12})\",\"name\":\"[^\"]*\",\"battery\":-?[0-9]+,\"battery_status\":-?"
      "[0-9]+,"
      "\"wifi\":-?[0-9]+,\"pir\":-?[0-9]+,\"version\":\"[^\"]*\",\"hardver\":\"[^\"]*\",\"power\":-"
      "?[0-9]+,"
      "\"night\":-?[0-9]+,\"event\":\"[^\"]*\"\\}";
  EXPECT_TRUE(
      std::regex_match(reply, std::regex("\\{\"id\":" + std::to_string(id) + ",\"result\":\\[" +
                                         record + "," + record + "\\]\\}")))
      << reply;
  EXPECT_NE(std::string::npos, reply.find(kCamA));
  EXPECT_NE(std::string::npos, reply.find(kCamB));
}

TEST(Cameras, RenameAndPowerCheckEveryValueBeforeWriting) {
  auto agent = Agent();
  const std::string cam = kCamA;
  std::string reply = Command(*agent, "rename", "[\"" + cam + "\",\"Front door\"]");
  EXPECT_NE(std::string::npos, reply.find("\"result\":[\"ok\"]"));
  EXPECT_EQ("Front door", Uci("p2p." + cam + ".name"));
  reply = Command(*agent, "set_power", "[\"a1b2c3d4e5f6\",0]");  // lower case is the same MAC
  EXPECT_NE(std::string::npos, reply.find("\"result\":[\"ok\"]"));
  EXPECT_EQ("0", Uci("p2p." + cam + ".power"));

  size_t mark = g_log->Mark();
  std::vector<int> refused;
  for (const std::string& params :
       {"[\"" + cam + "\",\"a\",\"b\"]", "[\"" + cam + "\",\"Say \\\"hi\\\"\"]",
        "[\"" + cam + "\",\"two\\nlines\"]", "[\"" + cam + "\",\"" + std::string(65, 'x') + "\"]",
        "[\"" + cam + "\",\"\"]", "[\"" + cam + "\",42]", std::string("[\"A1B2C3D4E5F\",\"x\"]"),
        std::string("[\"112233445566\",\"x\"]"), std::string("[\"../../../x\",\"x\"]")}) {
    refused.push_back(agent->SendCommand("rename", params));
  }
  for (const std::string& params : {"[\"" + cam + "\",2]", "[\"" + cam + "\",\"1\"]",
                                    "[\"" + cam + "\"]", std::string("[\"112233445566\",1]")}) {
    refused.push_back(agent->SendCommand("set_power", params));
  }
  Barrier(*agent);
  for (int id : refused) EXPECT_EQ(0, RepliesTo(*agent, id));
  EXPECT_TRUE(g_log->Has("Rename camera params length not equal 3", mark));
  EXPECT_TRUE(g_log->Has("Set camera power params length not equal 1", mark));
  EXPECT_EQ("Front door", Uci("p2p." + cam + ".name"));
  EXPECT_EQ("0", Uci("p2p." + cam + ".power"));
  EXPECT_EQ("(absent)", Uci("p2p.112233445566.name"));
}

TEST(Cameras, AlarmConfigInBothForms) {
  auto agent = Agent();
  const std::string cam = kCamB;
  std::string reply = Command(*agent, "get_alarm_config", "[\"" + cam + "\"]");
  EXPECT_NE(std::string::npos,
            reply.find("\"result\":{\"mac\":\"" + cam +
                       "\",\"starthour\":0,\"startmin\":0,\"stophour\":24,\"stopmin\":0,"
                       "\"pushalarm\":1,\"interval\":0}"))
      << reply;
  reply = Command(
      *agent, "set_alarm_config",
      "{\"mac\":\"" + cam + "\",\"starthour\":8,\"stophour\":18,\"stopmin\":30,\"interval\":5}");
  EXPECT_NE(std::string::npos, reply.find("\"result\":[\"ok\"]")) << reply;
  reply = Command(*agent, "get_alarm_config", "\"" + cam + "\"");
  EXPECT_NE(std::string::npos,
            reply.find("\"starthour\":8,\"startmin\":0,\"stophour\":18,\"stopmin\":30,"
                       "\"pushalarm\":1,\"interval\":5}"))
      << reply;
  reply =
      Command(*agent, "set_alarm_config2",
              "{\"mac\":\"" + cam + "\",\"new_interval\":120,\"pir_duration\":20,\"pushalarm\":0}");
  EXPECT_NE(std::string::npos, reply.find("\"result\":[\"ok\"]")) << reply;
  reply = Command(*agent, "get_alarm_config2", "[\"" + cam + "\"]");
  EXPECT_NE(std::string::npos,
            reply.find("{\"mac\":\"" + cam +
                       "\",\"starthour\":8,\"startmin\":0,\"stophour\":18,\"stopmin\":30,"
                       "\"pushalarm\":0,\"new_interval\":120,\"pir_duration\":20}"))
      << reply;

  std::vector<int> refused;
  for (const std::string& params :
       {"{\"mac\":\"" + cam + "\",\"starthour\":24}", "{\"mac\":\"" + cam + "\",\"stophour\":24}",
        "{\"mac\":\"" + cam + "\",\"interval\":5,\"colour\":1}",
        "{\"mac\":\"" + cam + "\",\"pushalarm\":\"0\"}",
        "{\"mac\":\"" + cam + "\",\"new_interval\":5}", "{\"mac\":\"" + cam + "\"}",
        std::string("{\"mac\":\"112233445566\",\"interval\":1}"), std::string("{\"starthour\":1}"),
        "[\"" + cam + "\",1]"}) {
    refused.push_back(agent->SendCommand("set_alarm_config", params));
  }
  refused.push_back(
      agent->SendCommand("set_alarm_config2", "{\"mac\":\"" + cam + "\",\"pir_duration\":0}"));
  refused.push_back(agent->SendCommand("get_alarm_config", "[\"112233445566\"]"));
  Barrier(*agent);
  for (int id : refused) EXPECT_EQ(0, RepliesTo(*agent, id));
  EXPECT_EQ("8", Uci("p2p." + cam + ".starthour"));
  EXPECT_EQ("30", Uci("p2p." + cam + ".stopmin"));
  EXPECT_EQ("5", Uci("p2p." + cam + ".interval"));
  EXPECT_EQ("20", Uci("p2p." + cam + ".pir_duration"));
}

TEST(Client, BrokerRestartIsSurvivedAndNothingIsPublishedMeanwhile) {
  size_t mark = g_log->Mark();
  g_broker->Stop();
  ASSERT_TRUE(g_log->Wait("mosquitto_loop error: ", mark));
  ASSERT_TRUE(WaitFor([] { return !IsMqttConnected(); }));
  EXPECT_EQ(0, MqttReport("{\"id\":1,\"method\":\"event.low_battery\",\"params\":{}}"));
  EXPECT_EQ(0, MqttCommandAck("{\"id\":1,\"result\":[\"ok\"]}"));
  EXPECT_EQ(0, MqttLocalRequest("{\"id\":1,\"method\":\"local.query_time\"}"));
  EXPECT_TRUE(g_log->Has("MqttReport error: MOSQ_ERR_NO_CONN", mark));
  EXPECT_TRUE(g_log->Has("MqttReportToCloud error: MOSQ_ERR_NO_CONN", mark));
  EXPECT_TRUE(g_log->Has("Zelo_client_in error: MOSQ_ERR_NO_CONN", mark));
  // A reset asked for just before the link dropped still happens, though its "ok" cannot go out.
  std::filesystem::remove(Board("/var/log/reboot.log"));
  ProcMsgRestore("{\"id\":7,\"method\":\"zeLO.restore\",\"params\":{}}");
  EXPECT_TRUE(testsupport::FileExists(Board("/var/log/reboot.log")));

  ASSERT_TRUE(g_broker->Start());
  ASSERT_TRUE(WaitFor([] { return IsMqttConnected(); }, 30s));
  auto agent = Agent();
  // Subscribed again: a command is answered as before.
  int id = agent->SendCommand("get_power_threshold", "");
  EXPECT_TRUE(agent->WaitReply(id, nullptr, 20s));
  EXPECT_EQ(1, MqttReport("{\"id\":2,\"method\":\"event.low_battery\",\"params\":{}}"));
  EXPECT_TRUE(agent->WaitReport("event.low_battery", nullptr));
}

}  // namespace
