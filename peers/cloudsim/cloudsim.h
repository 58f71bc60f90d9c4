// The cloud agent simulator: an MQTT client of the hub's broker that plays the local cloud
// agent. It answers the hub's reports on "zelo/report_ack" (uid requests with a uid, credential
// reports and every other report with "ok"), answers time queries on "local/zelo_client_in"
// with a "local.time" command on "local/zelo_client_out", sends "local.status" and any command,
// and collects everything the hub publishes. For alarm uploads it answers presigned-URL
// requests with URLs on an upload server and a fresh password per file (uploads.h), and
// acknowledges event reports.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "cloudsim/uploads.h"

struct mosquitto;
struct mosquitto_message;

namespace cloudsim {

struct Options {
  std::string host = "localhost";
  uint16_t port = 1883;
  // The uid given for "_sync.get_p2p_id"; empty: uid requests stay unanswered.
  std::string uid = "TARVOSIM00000000000A";
  // Board root whose /etc/zelo holds the device key and token.
  std::string board;
  // Where the last acknowledged credential report goes (credentials.h); empty: nowhere.
  std::string credentials_file;
  // The first this many credential reports stay unanswered.
  int ignore_credentials = 0;
  // Answer reports other than uid requests and credential reports with "ok".
  bool answer_reports = true;
  // Time given for "local.query_time"; 0: the machine's clock.
  int64_t time = 0;
  // Presigned URLs ("_sync.gen_presigned_url"): the upload folder's URL, e.g.
  // "https://127.0.0.1:8443/uploads"; empty: URL requests stay unanswered.
  std::string upload_base;
  // The first this many URL requests, and event reports ("event.NAME"), stay unanswered.
  int ignore_url_requests = 0;
  int ignore_event_reports = 0;
};

struct Message {
  std::string topic;
  std::string payload;
};

class CloudAgent {
 public:
  explicit CloudAgent(Options options);
  ~CloudAgent();
  CloudAgent(const CloudAgent&) = delete;
  CloudAgent& operator=(const CloudAgent&) = delete;

  // Connects, subscribes and starts the network thread; waits until the subscriptions are
  // granted. 0, or -1 (message in *error when given).
  int Start(std::chrono::milliseconds timeout = std::chrono::seconds(10),
            std::string* error = nullptr);
  void Stop();

  // Every message received, also given to this function on the network thread once the agent's
  // answer to it (if any) went out. Set before Start.
  void SetObserver(std::function<void(const Message&)> observer);

  // A fresh message id (process-wide, never repeated).
  static int NextId();

  // Publishes {"id":ID,"method":METHOD,"params":PARAMS} on "zelo/command" (without "params"
  // when params is empty; params is JSON text). Returns the id, or -1.
  int SendCommand(const std::string& method, const std::string& params);
  // The same with a given id.
  int SendCommandWithId(int id, const std::string& method, const std::string& params);
  // {"id":ID,"method":"local.status","params":"TEXT"} on "local/zelo_client_out".
  int SendLocalStatus(const std::string& text);
  // {"id":ID,"method":"local.time","params":SECONDS} on "local/zelo_client_out".
  int SendLocalTime(int64_t seconds);
  // Any payload on any topic (QoS 2). 0 or -1.
  int Publish(const std::string& topic, const std::string& payload);

  // The reply to command id on "zelo/command_ack".
  bool WaitReply(int id, std::string* reply,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // The first message at or after index from that satisfies pred; its index in *index.
  bool WaitMessage(const std::function<bool(const Message&)>& pred, Message* out,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10), size_t from = 0,
                   size_t* index = nullptr);
  // The first report on "zelo/report" with this method, at or after index from.
  bool WaitReport(const std::string& method, std::string* report,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10), size_t from = 0);
  std::vector<Message> Messages();
  size_t MessageCount();
  // Credential reports answered so far.
  int CredentialAcks();
  // Every presigned URL given so far, oldest first.
  std::vector<IssuedUpload> Uploads();
  // How many of the next URL requests / event reports stay unanswered (replaces the count left).
  void IgnoreUrlRequests(int n);
  void IgnoreEventReports(int n);

 private:
  static void OnConnect(struct mosquitto* mosq, void* self, int rc);
  static void OnSubscribe(struct mosquitto* mosq, void* self, int mid, int count,
                          const int* granted);
  static void OnMessage(struct mosquitto* mosq, void* self, const struct mosquitto_message* m);
  void Handle(const Message& message);
  void AnswerReport(const std::string& payload);
  void AnswerClientIn(const std::string& payload);

  Options options_;
  struct mosquitto* mosq_ = nullptr;
  bool started_ = false;
  std::function<void(const Message&)> observer_;

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Message> messages_;
  int subscribed_ = 0;
  int credentials_seen_ = 0;
  int credential_acks_ = 0;
  int url_requests_to_ignore_ = 0;
  int event_reports_to_ignore_ = 0;
  std::vector<IssuedUpload> uploads_;
};

}  // namespace cloudsim
