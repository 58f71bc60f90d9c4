#include "cloudsim/cloudsim.h"

#include <json-c/json.h>
#include <mosquitto.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <mutex>
#include <random>

#include "cloud/mqtttopics.h"
#include "viewer/credentials.h"

namespace cloudsim {

namespace {

using viewer::Credentials;
using viewer::WriteCredentialsFile;

std::string FirstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  if (!in || !std::getline(in, line)) return "";
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

// The device key and token of a board root (empty strings when unreadable).
void ReadBoardSecrets(const std::string& board, std::string* device_key,
                      std::string* device_token) {
  device_key->clear();
  device_token->clear();
  if (board.empty()) return;
  std::ifstream conf(board + "/etc/zelo/device.conf");
  std::string line;
  while (std::getline(conf, line)) {
    if (line.compare(0, 4, "key=") == 0) {
      *device_key = line.substr(4);
      break;
    }
  }
  *device_token = FirstLine(board + "/etc/zelo/device.token");
}

constexpr int kQos = 2;

std::once_flag g_lib_once;
std::atomic<int> g_client_counter{0};

// Ids above the hub's report range (1..10,000,000) so that they never meet the hub's own.
std::atomic<int> g_next_id{[] {
  std::random_device rd;
  return 20000000 + static_cast<int>(rd() % 1000000) * 100;
}()};

// A parsed message; fields empty when absent.
struct Parsed {
  bool ok = false;
  bool has_id = false;
  int id = 0;
  std::string method;
  json_object* root = nullptr;
  json_object* params = nullptr;
  explicit Parsed(const std::string& text) {
    root = json_tokener_parse(text.c_str());
    if (root == nullptr || !json_object_is_type(root, json_type_object)) return;
    ok = true;
    json_object* v = nullptr;
    if (json_object_object_get_ex(root, "id", &v) && json_object_is_type(v, json_type_int)) {
      has_id = true;
      id = json_object_get_int(v);
    }
    if (json_object_object_get_ex(root, "method", &v) && json_object_is_type(v, json_type_string)) {
      method = json_object_get_string(v);
    }
    json_object_object_get_ex(root, "params", &params);
  }
  ~Parsed() {
    if (root != nullptr) json_object_put(root);
  }
  std::string Param(const char* key) const {
    json_object* v = nullptr;
    if (params == nullptr || !json_object_is_type(params, json_type_object) ||
        !json_object_object_get_ex(params, key, &v) || !json_object_is_type(v, json_type_string)) {
      return "";
    }
    return json_object_get_string(v);
  }
};

std::string JsonString(const std::string& text) {
  json_object* s = json_object_new_string_len(text.data(), static_cast<int>(text.size()));
  std::string out = json_object_to_json_string_ext(s, JSON_C_TO_STRING_NOSLASHESCAPE);
  json_object_put(s);
  return out;
}

// Hexadecimal text to bytes; false when it is not whole hexadecimal pairs.
bool Unhex(const std::string& hex, std::string* out) {
  if (hex.size() % 2 != 0) return false;
  out->clear();
  for (size_t i = 0; i < hex.size(); i += 2) {
    if (!std::isxdigit(static_cast<unsigned char>(hex[i])) ||
        !std::isxdigit(static_cast<unsigned char>(hex[i + 1]))) {
      return false;
    }
    out->push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return true;
}

}  // namespace

CloudAgent::CloudAgent(Options options)
    : options_(std::move(options)),
      url_requests_to_ignore_(options_.ignore_url_requests),
      event_reports_to_ignore_(options_.ignore_event_reports) {}

CloudAgent::~CloudAgent() {
  Stop();
}

void CloudAgent::SetObserver(std::function<void(const Message&)> observer) {
  observer_ = std::move(observer);
}

int CloudAgent::NextId() {
  return g_next_id.fetch_add(1);
}

int CloudAgent::Start(std::chrono::milliseconds timeout, std::string* error) {
  std::call_once(g_lib_once, [] { mosquitto_lib_init(); });
  const std::string id = "tarvo-cloudsim-" + std::to_string(getpid()) + "-" +
                         std::to_string(g_client_counter.fetch_add(1));
  mosq_ = mosquitto_new(id.c_str(), true, this);
  if (mosq_ == nullptr) {
    if (error) *error = "out of memory";
    return -1;
  }
  mosquitto_connect_callback_set(mosq_, OnConnect);
  mosquitto_subscribe_callback_set(mosq_, OnSubscribe);
  mosquitto_message_callback_set(mosq_, OnMessage);
  mosquitto_reconnect_delay_set(mosq_, 1, 4, false);
  mosquitto_int_option(mosq_, MOSQ_OPT_TCP_NODELAY, 1);
  int rc = mosquitto_connect(mosq_, options_.host.c_str(), options_.port, 60);
  if (rc == MOSQ_ERR_SUCCESS) rc = mosquitto_loop_start(mosq_);
  if (rc != MOSQ_ERR_SUCCESS) {
    if (error) {
      *error = "cannot connect to " + options_.host + ":" + std::to_string(options_.port) + ": " +
               (rc == MOSQ_ERR_ERRNO ? std::string(strerror(errno)) : mosquitto_strerror(rc));
    }
    mosquitto_destroy(mosq_);
    mosq_ = nullptr;
    return -1;
  }
  started_ = true;
  std::unique_lock<std::mutex> lock(mutex_);
  if (!changed_.wait_for(lock, timeout, [&] { return subscribed_ >= 3; })) {
    if (error) *error = "subscriptions not granted";
    return -1;
  }
  return 0;
}

void CloudAgent::Stop() {
  if (mosq_ == nullptr) return;
  if (started_) {
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, false);
  }
  mosquitto_destroy(mosq_);
  mosq_ = nullptr;
  started_ = false;
}

void CloudAgent::OnConnect(struct mosquitto* mosq, void*, int rc) {
  if (rc != 0) return;
  for (const char* topic : {mqtttopics::kReport, mqtttopics::kCommandAck, mqtttopics::kClientIn}) {
    mosquitto_subscribe(mosq, nullptr, topic, kQos);
  }
}

void CloudAgent::OnSubscribe(struct mosquitto*, void* self, int, int, const int*) {
  auto* agent = static_cast<CloudAgent*>(self);
  std::lock_guard<std::mutex> lock(agent->mutex_);
  agent->subscribed_++;
  agent->changed_.notify_all();
}

void CloudAgent::OnMessage(struct mosquitto*, void* self, const struct mosquitto_message* m) {
  if (m == nullptr || m->topic == nullptr) return;
  Message message;
  message.topic = m->topic;
  if (m->payload != nullptr && m->payloadlen > 0) {
    message.payload.assign(static_cast<const char*>(m->payload),
                           static_cast<size_t>(m->payloadlen));
  }
  static_cast<CloudAgent*>(self)->Handle(message);
}

void CloudAgent::Handle(const Message& message) {
  if (message.topic == mqtttopics::kReport) AnswerReport(message.payload);
  if (message.topic == mqtttopics::kClientIn) AnswerClientIn(message.payload);
  if (observer_) observer_(message);
  // Waiters see the message only after its answer went out.
  std::lock_guard<std::mutex> lock(mutex_);
  messages_.push_back(message);
  changed_.notify_all();
}

void CloudAgent::AnswerReport(const std::string& payload) {
  Parsed report(payload);
  if (!report.ok || !report.has_id) return;
  const std::string id = std::to_string(report.id);
  if (report.method == "_sync.get_p2p_id") {
    if (!options_.uid.empty()) {
      Publish(mqtttopics::kReportAck,
              "{\"id\":" + id + ",\"result\":" + JsonString(options_.uid) + "}");
    }
    return;
  }
  if (report.method == "props" && !report.Param("p2p_id").empty()) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (++credentials_seen_ <= options_.ignore_credentials) return;
    }
    if (!options_.credentials_file.empty()) {
      Credentials c;
      c.uid = report.Param("p2p_id");
      c.password = report.Param("p2p_password");
      c.public_key = report.Param("p2p_dev_public_key");
      c.checktoken = report.Param("p2p_checktoken");
      ReadBoardSecrets(options_.board, &c.device_key, &c.device_token);
      // The hub signs with the token it read, which the check token carries.
      std::string token;
      if (!c.checktoken.empty() && Unhex(c.checktoken, &token)) c.device_token = token;
      WriteCredentialsFile(options_.credentials_file, c);
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      credential_acks_++;
    }
    Publish(mqtttopics::kReportAck, "{\"id\":" + id + ",\"result\":\"ok\"}");
    return;
  }
  if (report.method == "_sync.gen_presigned_url") {
    if (options_.upload_base.empty()) return;
    IssuedUpload upload;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (url_requests_to_ignore_ > 0) {
        url_requests_to_ignore_--;
        return;
      }
      std::string suffix = report.Param("suffix");
      if (suffix != "mp4" && suffix != "jpeg") return;
      upload = IssueUpload(options_.upload_base, suffix, static_cast<int>(uploads_.size()) + 1);
      upload.id = report.id;
      uploads_.push_back(upload);
    }
    Publish(mqtttopics::kReportAck, PresignedUrlReply(upload));
    return;
  }
  if (report.method.compare(0, 6, "event.") == 0) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (event_reports_to_ignore_ > 0) {
      event_reports_to_ignore_--;
      return;
    }
  }
  if (options_.answer_reports && !report.method.empty()) {
    Publish(mqtttopics::kReportAck, "{\"id\":" + id + ",\"result\":\"ok\"}");
  }
}

void CloudAgent::AnswerClientIn(const std::string& payload) {
  Parsed request(payload);
  if (!request.ok || request.method != "local.query_time") return;
  int64_t now = options_.time != 0 ? options_.time : static_cast<int64_t>(std::time(nullptr));
  int id = request.has_id ? request.id : NextId();
  Publish(mqtttopics::kClientOut,
          "{\"id\":" + std::to_string(id) +
              ",\"method\":\"local.time\",\"params\":" + std::to_string(now) + "}");
}

int CloudAgent::SendCommand(const std::string& method, const std::string& params) {
  return SendCommandWithId(NextId(), method, params);
}

int CloudAgent::SendCommandWithId(int id, const std::string& method, const std::string& params) {
  std::string text = "{\"id\":" + std::to_string(id) + ",\"method\":" + JsonString(method);
  if (!params.empty()) text += ",\"params\":" + params;
  text += "}";
  return Publish(mqtttopics::kCommand, text) == 0 ? id : -1;
}

int CloudAgent::SendLocalStatus(const std::string& text) {
  int id = NextId();
  std::string msg = "{\"id\":" + std::to_string(id) +
                    ",\"method\":\"local.status\",\"params\":" + JsonString(text) + "}";
  return Publish(mqtttopics::kClientOut, msg) == 0 ? id : -1;
}

int CloudAgent::SendLocalTime(int64_t seconds) {
  int id = NextId();
  std::string msg = "{\"id\":" + std::to_string(id) +
                    ",\"method\":\"local.time\",\"params\":" + std::to_string(seconds) + "}";
  return Publish(mqtttopics::kClientOut, msg) == 0 ? id : -1;
}

int CloudAgent::Publish(const std::string& topic, const std::string& payload) {
  if (mosq_ == nullptr) return -1;
  int rc = mosquitto_publish(mosq_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                             payload.data(), kQos, false);
  return rc == MOSQ_ERR_SUCCESS ? 0 : -1;
}

bool CloudAgent::WaitMessage(const std::function<bool(const Message&)>& pred, Message* out,
                             std::chrono::milliseconds timeout, size_t from, size_t* index) {
  std::unique_lock<std::mutex> lock(mutex_);
  auto deadline = std::chrono::steady_clock::now() + timeout;
  size_t checked = from;
  while (true) {
    for (; checked < messages_.size(); checked++) {
      if (pred(messages_[checked])) {
        if (out) *out = messages_[checked];
        if (index) *index = checked;
        return true;
      }
    }
    if (changed_.wait_until(lock, deadline) == std::cv_status::timeout) {
      for (; checked < messages_.size(); checked++) {
        if (pred(messages_[checked])) {
          if (out) *out = messages_[checked];
          if (index) *index = checked;
          return true;
        }
      }
      return false;
    }
  }
}

bool CloudAgent::WaitReply(int id, std::string* reply, std::chrono::milliseconds timeout) {
  Message m;
  bool found = WaitMessage(
      [id](const Message& message) {
        if (message.topic != mqtttopics::kCommandAck) return false;
        Parsed p(message.payload);
        return p.has_id && p.id == id;
      },
      &m, timeout);
  if (found && reply) *reply = m.payload;
  return found;
}

bool CloudAgent::WaitReport(const std::string& method, std::string* report,
                            std::chrono::milliseconds timeout, size_t from) {
  Message m;
  bool found = WaitMessage(
      [&method](const Message& message) {
        if (message.topic != mqtttopics::kReport) return false;
        return Parsed(message.payload).method == method;
      },
      &m, timeout, from);
  if (found && report) *report = m.payload;
  return found;
}

std::vector<Message> CloudAgent::Messages() {
  std::lock_guard<std::mutex> lock(mutex_);
  return messages_;
}

size_t CloudAgent::MessageCount() {
  std::lock_guard<std::mutex> lock(mutex_);
  return messages_.size();
}

std::vector<IssuedUpload> CloudAgent::Uploads() {
  std::lock_guard<std::mutex> lock(mutex_);
  return uploads_;
}

void CloudAgent::IgnoreUrlRequests(int n) {
  std::lock_guard<std::mutex> lock(mutex_);
  url_requests_to_ignore_ = n;
}

void CloudAgent::IgnoreEventReports(int n) {
  std::lock_guard<std::mutex> lock(mutex_);
  event_reports_to_ignore_ = n;
}

int CloudAgent::CredentialAcks() {
  std::lock_guard<std::mutex> lock(mutex_);
  return credential_acks_;
}

}  // namespace cloudsim
