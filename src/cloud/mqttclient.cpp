#include "cloud/mqttclient.h"

#include <mosquitto.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "base/log.h"
#include "cloud/cameracmd.h"
#include "cloud/cloudcmd.h"
#include "cloud/cloudinput.h"
#include "cloud/mqtttopics.h"
#include "cloud/msgring.h"
#include "cloud/ota.h"
#include "cloud/storagecmd.h"
#include "core/configuration.h"
#include "core/utils.h"
#include "core/zelojson.h"
#include "platform/board.h"
#include "storage/pirupload.h"

namespace {

constexpr char kClientId[] = "mqttclient";
constexpr int kKeepAliveSeconds = 60;
constexpr int kPublishQos = 2;
constexpr int kFirstRetrySeconds = 1;
constexpr int kMaxRetrySeconds = 10;
// Larger payloads are no message of the cloud agent; they are dropped unread.
constexpr int kMaxPayload = 64 * 1024;

// Publishers take this lock; the client thread takes it to install, reconnect and drop the
// client, so no publish ever meets a client in the middle of a reconnect.
std::mutex g_client_mutex;
struct mosquitto* g_client = nullptr;
std::atomic<bool> g_connected{false};

msgring::MsgRing g_ring;

std::atomic<int> g_uid_request_id{0};
std::atomic<int> g_p2p_info_report_id{0};
std::atomic<int> g_ota_state_report_id{0};
std::atomic<bool> g_first_p2p_info_acked{false};
std::atomic<bool> g_first_ota_state_acked{false};

// Log texts of one publishing function.
struct PublishTexts {
  const char* topic;
  const char* before;  // logged with the text before publishing, or nullptr
  const char* ok;      // "... publish result: "
  const char* error;   // prefix of the error texts
  const char* other;   // prefix of the fallback error text (with the code or the message)
  bool other_with_text;
};

const PublishTexts kReportTexts = {
    mqtttopics::kReport,  "Report msg: ",       "MqttReport publish result: ",
    "MqttReport error: ", "MqttReport error: ", false};
const PublishTexts kCommandAckTexts = {
    mqtttopics::kCommandAck,     nullptr,         "MqttCommandAck publish result: ",
    "MqttReportToCloud error: ", "Command ack: ", true};
const PublishTexts kClientInTexts = {
    mqtttopics::kClientIn,    "Zelo_client_in msg: ",   "Zelo_client_in publish result: ",
    "Zelo_client_in error: ", "Zelo_client_in error: ", false};

const char* ErrorName(int rc) {
  switch (rc) {
    case MOSQ_ERR_NO_CONN:
      return "MOSQ_ERR_NO_CONN";
    case MOSQ_ERR_NOMEM:
      return "MOSQ_ERR_NOMEM";
    case MOSQ_ERR_PAYLOAD_SIZE:
      return "MOSQ_ERR_PAYLOAD_SIZE";
    case MOSQ_ERR_ERRNO:
      return "MOSQ_ERR_ERRNO";
    default:
      return nullptr;
  }
}

// The text as logged: the value of "p2p_checktoken" (the device token in hexadecimal) is hidden.
std::string Loggable(const char* text) {
  static constexpr char kCheckToken[] = "\"p2p_checktoken\":\"";
  std::string logged(text);
  size_t at = logged.find(kCheckToken);
  if (at == std::string::npos) return logged;
  at += sizeof(kCheckToken) - 1;
  const size_t end = logged.find('"', at);
  logged.replace(at, (end == std::string::npos ? logged.size() : end) - at, "(device token)");
  return logged;
}

int Publish(const PublishTexts& texts, const char* text) {
  if (text == nullptr) return 0;
  if (texts.before != nullptr) TLOG(LOG_DEBUG) << texts.before << Loggable(text);
  int rc = MOSQ_ERR_NO_CONN;
  {
    std::lock_guard<std::mutex> lock(g_client_mutex);
    if (g_client == nullptr) return 0;
    if (g_connected.load()) {
      size_t len = std::strlen(text);
      rc = mosquitto_publish(g_client, nullptr, texts.topic, static_cast<int>(len), text,
                             kPublishQos, false);
    }
  }
  if (rc == MOSQ_ERR_SUCCESS) {
    TLOG(LOG_DEBUG) << texts.ok << rc << ", message: " << Loggable(text);
    return 1;
  }
  if (const char* name = ErrorName(rc)) {
    TLOG(LOG_DEBUG) << texts.error << name;
  } else if (texts.other_with_text) {
    TLOG(LOG_DEBUG) << texts.other << Loggable(text);
  } else {
    TLOG(LOG_DEBUG) << texts.other << rc;
  }
  return 0;
}

void LogLoopError(int rc) {
  switch (rc) {
    case MOSQ_ERR_NO_CONN:
      TLOG(LOG_DEBUG) << "mosquitto_loop error: MOSQ_ERR_NO_CONN";
      break;
    case MOSQ_ERR_CONN_LOST:
      TLOG(LOG_DEBUG) << "mosquitto_loop error: MOSQ_ERR_CONN_LOST";
      break;
    case MOSQ_ERR_ERRNO:
      TLOG(LOG_DEBUG) << "mosquitto_loop error: MOSQ_ERR_ERRNO";
      std::perror("mosquitto_loop error");
      break;
    case MOSQ_ERR_NOMEM:
      TLOG(LOG_DEBUG) << "mosquitto_loop error: MOSQ_ERR_NOMEM";
      break;
    default:
      TLOG(LOG_DEBUG) << "mosquitto_loop error: " << rc;
  }
  TLOG(LOG_DEBUG) << "mqtt strErr: " << mosquitto_strerror(rc);
}

// The uid answer: a plain token only, then nvram and the configuration.
void SaveUid(const std::string& uid) {
  if (!cloudinput::IsValidUid(uid)) {
    TLOG(LOG_DEBUG) << "Refuse uid from cloud, not 1 to " << cloudinput::kMaxUidLen
                    << " letters and digits: " << zelojson::Quote(uid.substr(0, 64));
    return;
  }
  char command[64];
  std::snprintf(command, sizeof(command), "nvram set p2p uid '%s'", uid.c_str());
  if (platform::System(command) != 0) TLOG(LOG_DEBUG) << "nvram set p2p uid failed";
  if (platform::System("nvram commit") != 0) TLOG(LOG_DEBUG) << "nvram commit failed";
  Configuration::getInstance().SetP2pUid(uid);
}

// An answer matches a request only while that request is pending; the match ends it. Report ids
// are 1..10,000,000, so 0 means nothing is pending.
bool TakePending(std::atomic<int>& pending, int id) {
  int expected = id;
  return id > 0 && pending.compare_exchange_strong(expected, 0);
}

void HandleStringAnswer(const char* payload, const std::string& result) {
  int id = 0;
  if (json_get_int_value(payload, "id", &id) != 0) {
    TLOG(LOG_DEBUG) << "get uid has no id.....";
    return;
  }
  TLOG(LOG_DEBUG) << "curuid_id: " << id;
  if (TakePending(g_uid_request_id, id)) {
    TLOG(LOG_DEBUG) << "this is get tutk uid callback, uid: " << result;
    SaveUid(result);
  } else if (TakePending(g_p2p_info_report_id, id)) {
    TLOG(LOG_DEBUG) << "this is report tutk info ack, ret: " << result;
    if (result == "ok" && !g_first_p2p_info_acked.exchange(true)) {
      TLOG(LOG_DEBUG) << "first report tutk info ok";
    }
  } else if (TakePending(g_ota_state_report_id, id)) {
    TLOG(LOG_DEBUG) << "report upgrade state ack: " << result;
    if (result == "ok" && !g_first_ota_state_acked.exchange(true)) {
      TLOG(LOG_DEBUG) << "first report upgrade state ok";
    }
  }
  AckAlarmReport(id);
}

int ProcMsgSetLegalStatusLogged(const char* msg) {
  TLOG(LOG_DEBUG) << "set legal_status...";
  return ProcMsgSetLegalStatus(msg);
}

struct Method {
  const char* name;
  int (*handler)(const char* msg);
};

// Compared in this order; the first name that matches takes the message.
const Method kMethods[] = {
    {"local.status", ProcMsgLocalStatus},
    {"get_camera_list", ProcMsgGetCameraList},
    {"rename", ProcMsgCameraRename},
    {"get_camera_prop", ProcMsgGetCameraProp},
    {"delete_camera", ProcMsgDeleteCamera},
    {"get_sd_storage", ProcMsgGetSdCardStorage},
    {"sd_format", ProcMsgSdCardFormat},
    {"sd_umount", ProcMsgSdCardUmount},
    {"get_alarm_config", ProcMsgGetAlarmConfig},
    {"set_alarm_config", ProcMsgSetAlarmConfig},
    {"set_night_mode", ProcMsgSetNightMode},
    {"set_power", ProcMsgSetCameraPower},
    {"let_connect_gateway", ProcMsgOpenAuth},
    {"zeLO.ota", ProcMsgzeloOta},
    {"zeLO.get_ota_state", ProcMsgGetOtaState},
    {"zeLO.get_ota_progress", ProcMsgGetOtaProgress},
    {"deleteVideo", ProcMsgDeleteVideo},
    {"zeLO.restore", ProcMsgRestore},
    {"zeLO.event", ProcMsgEvent},
    {"get_power_threshold", ProcMsgGetThreshold},
    {"set_power_threshold", ProcMsgSetThreshold},
    {"local.time", ProcMsgSyncLocalTime},
    {"set_s_legal_status", ProcMsgSetLegalStatusLogged},
    {"get_alarm_config2", ProcMsgGetAlarmConfigNew},
    {"set_alarm_config2", ProcMsgSetAlarmConfigNew},
};

}  // namespace

int InitMqtt() {
  pthread_t thread;
  int ret = pthread_create(&thread, nullptr, StartMqttClient, nullptr);
  if (ret != 0) {
    TLOG(LOG_DEBUG) << "create mqtt thread error, ret: " << ret;
    std::exit(0);
  }
  pthread_detach(thread);
  return 0;
}

void* StartMqttClient(void*) {
  mosquitto_lib_init();
  struct mosquitto* mosq = mosquitto_new(kClientId, true, nullptr);
  if (mosq == nullptr) {
    TLOG(LOG_DEBUG) << "Error: Out of memory.";
    mosquitto_lib_cleanup();
    return nullptr;
  }
  mosquitto_connect_callback_set(mosq, my_connect_callback);
  mosquitto_disconnect_callback_set(mosq, my_disconnect_callback);
  mosquitto_message_callback_set(mosq, my_message_callback);
  mosquitto_subscribe_callback_set(mosq, my_subscribe_callback);
  mosquitto_publish_callback_set(mosq, my_publish_callback);
  mosquitto_log_callback_set(mosq, my_log_callback);
  // Replies and reports are small and someone waits for each: no coalescing delay.
  mosquitto_int_option(mosq, MOSQ_OPT_TCP_NODELAY, 1);
  {
    std::lock_guard<std::mutex> lock(g_client_mutex);
    g_client = mosq;
  }

  const std::string host = platform::MqttHost();
  const int port = platform::MqttPort();
  bool first = true;
  int retry = kFirstRetrySeconds;
  while (true) {
    int rc;
    {
      std::lock_guard<std::mutex> lock(g_client_mutex);
      rc = first ? mosquitto_connect(mosq, host.c_str(), port, kKeepAliveSeconds)
                 : mosquitto_reconnect(mosq);
    }
    if (rc == MOSQ_ERR_SUCCESS) {
      first = false;
      while ((rc = mosquitto_loop(mosq, -1, 1)) == MOSQ_ERR_SUCCESS) {
        if (g_connected.load()) retry = kFirstRetrySeconds;
      }
      g_connected.store(false);
      LogLoopError(rc);
    } else {
      TLOG(LOG_DEBUG) << "Unable to connect. " << host << ":" << port << " "
                      << mosquitto_strerror(rc);
    }
    TLOG(LOG_DEBUG) << "Reconnect to broker in " << retry << " s";
    sleep(static_cast<unsigned>(retry));
    retry = std::min(retry * 2, kMaxRetrySeconds);
  }
  return nullptr;
}

int MqttReport(const char* text) {
  return Publish(kReportTexts, text);
}

int MqttCommandAck(const char* text) {
  return Publish(kCommandAckTexts, text);
}

int MqttLocalRequest(const char* text) {
  return Publish(kClientInTexts, text);
}

int MqttMsgAckOK(const char* msg) {
  int id = 0;
  if (json_get_int_value(msg, "id", &id) != 0) {
    TLOG(LOG_DEBUG) << "[abnormal] msg without id, " << (msg != nullptr ? msg : "");
    return -1;
  }
  char reply[256];
  std::snprintf(reply, sizeof(reply), "{\"id\":%d,\"result\":[\"ok\"]}", id);
  return MqttCommandAck(reply) == 1 ? 0 : -1;
}

int MqttReportPropSdStatus(int status) {
  char report[256];
  std::snprintf(report, sizeof(report),
                "{\"id\":%d,\"method\":\"props\",\"params\":{\"sdcard_status\":\"%d\"}}",
                utils::generate_random_id(), status);
  return MqttReport(report);
}

bool IsMqttConnected() {
  return g_connected.load();
}

void HandleZeloMsg(const char* payload) {
  if (payload == nullptr || json_verify(payload) != 0) {
    TLOG(LOG_DEBUG) << "json_verify failed";
    return;
  }
  IsMsgError(payload);
  if (IsMsgRepeated(payload)) return;

  zelojson::Doc doc(payload);
  json_object* result = doc.Get("result");
  std::string result_text;
  if (zelojson::GetString(result, &result_text)) {
    HandleStringAnswer(payload, result_text);
    return;
  }
  if (result != nullptr && json_object_is_type(result, json_type_object)) {
    ParseUploadUrl(payload);
    return;
  }
  std::string method;
  if (!zelojson::GetString(doc.Get("method"), &method)) return;
  for (const Method& entry : kMethods) {
    if (method == entry.name) {
      entry.handler(payload);
      return;
    }
  }
}

int IsMsgError(const char* msg) {
  int id = 0;
  if (json_get_int_value(msg, "id", &id) != 0) TLOG(LOG_DEBUG) << "Msg ID: " << msg;
  return 0;
}

int IsMsgRepeated(const char* msg) {
  int id = 0;
  if (json_get_int_value(msg, "id", &id) != 0) return 0;
  int slot = 0;
  if (g_ring.CheckAndRecord(id, platform::NowSeconds(), &slot)) {
    TLOG(LOG_DEBUG) << "repeated message[" << slot << "]: " << msg;
    return 1;
  }
  return 0;
}

void SetMsgRepeatWindow(int64_t seconds) {
  g_ring.SetWindow(seconds);
  g_ring.Clear();
}

void SetUidRequestId(int id) {
  g_uid_request_id.store(id);
}
void SetP2pInfoReportId(int id) {
  g_p2p_info_report_id.store(id);
}
void SetOtaStateReportId(int id) {
  g_ota_state_report_id.store(id);
}
bool IsFirstP2pInfoReportAcked() {
  return g_first_p2p_info_acked.load();
}
bool IsFirstOtaStateReportAcked() {
  return g_first_ota_state_acked.load();
}

void my_connect_callback(struct mosquitto* mosq, void*, int result) {
  if (result != 0) {
    TLOG(LOG_DEBUG) << "Connect failed, result: " << result;
    return;
  }
  TLOG(LOG_DEBUG) << "Connected to broker";
  g_connected.store(true);
  for (const char* topic : {mqtttopics::kReportAck, mqtttopics::kCommand, mqtttopics::kClientOut}) {
    mosquitto_subscribe(mosq, nullptr, topic, 0);
  }
}

void my_disconnect_callback(struct mosquitto*, void*, int result) {
  g_connected.store(false);
  TLOG(LOG_DEBUG) << "Disconnected from broker, result: " << result;
}

void my_message_callback(struct mosquitto*, void*, const struct mosquitto_message* message) {
  if (message == nullptr || message->topic == nullptr) return;
  if (message->payloadlen < 0 || message->payloadlen > kMaxPayload) {
    TLOG(LOG_DEBUG) << "Drop message of " << message->payloadlen << " bytes on " << message->topic;
    return;
  }
  // The payload has no terminating zero of its own.
  std::string payload;
  if (message->payload != nullptr) {
    payload.assign(static_cast<const char*>(message->payload),
                   static_cast<size_t>(message->payloadlen));
  }
  const char* topic = message->topic;
  if (std::strncmp(topic, mqtttopics::kCommand, 12) == 0) {
    TLOG(LOG_DEBUG) << "Recv zelo command: " << payload;
    HandleZeloMsg(payload.c_str());
  } else if (std::strncmp(topic, mqtttopics::kReportAck, 15) == 0) {
    TLOG(LOG_DEBUG) << "Recv zelo report ack: " << payload;
    HandleZeloMsg(payload.c_str());
  } else if (std::strncmp(topic, mqtttopics::kClientOut, 21) == 0) {
    TLOG(LOG_DEBUG) << "Recv zelo_client_out ack: " << payload;
    HandleZeloMsg(payload.c_str());
  } else {
    TLOG(LOG_DEBUG) << "Got Unknown msg from zelo: " << payload;
  }
  std::fflush(stdout);
}

void my_subscribe_callback(struct mosquitto*, void*, int mid, int qos_count,
                           const int* granted_qos) {
  tlog::Record record(LOG_DEBUG, __LINE__, __func__, __FILE__);
  record << "Subscribed (mid: " << mid << "): ";
  for (int i = 0; i < qos_count && granted_qos != nullptr; i++) {
    record << "item: " << granted_qos[i] << " ";
  }
}

void my_publish_callback(struct mosquitto*, void*, int) {}

void my_log_callback(struct mosquitto*, void*, int, const char* str) {
  TLOG(LOG_DEBUG) << "Mqtt log: " << (str != nullptr ? str : "");
}
