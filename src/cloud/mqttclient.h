// The MQTT client: connection to the local broker, routing of cloud requests, replies and
// reports.
//
// Topics: commands arrive on "zelo/command", answers to the hub's reports on "zelo/report_ack",
// messages of the local agent on "local/zelo_client_out" (all subscribed with QoS 0). Replies go
// to "zelo/command_ack", reports to "zelo/report", requests to the local agent to
// "local/zelo_client_in" (QoS 2, no retain).
//
// The client thread reconnects with a back-off of 1, 2, 4, 8, then 10 seconds between attempts
// after a lost connection or a failed connect, and subscribes again each time it is connected.
// While it is not connected every publishing function returns 0.
#pragma once

#include <cstdint>

struct mosquitto;
struct mosquitto_message;

// Starts the client thread (detached). Ends the process with status 0 when the thread cannot be
// created. Returns 0.
int InitMqtt();
// Thread body: connect to platform::MqttHost():MqttPort(), route messages, reconnect.
void* StartMqttClient(void* arg);

// Publish on "zelo/report" / "zelo/command_ack" / "local/zelo_client_in". 1 when the library
// took the message, 0 when there is no connected client or publishing failed.
int MqttReport(const char* text);
int MqttCommandAck(const char* text);
int MqttLocalRequest(const char* text);

// Replies {"id":ID,"result":["ok"]} to the command. 0 when sent; -1 without an id (logged
// "[abnormal] msg without id, ") or when the reply could not be published.
int MqttMsgAckOK(const char* msg);

// Reports {"id":N,"method":"props","params":{"sdcard_status":"S"}} with a fresh report id.
int MqttReportPropSdStatus(int status);

// True while the client is connected to the broker.
bool IsMqttConnected();

// The router: answers to the hub's reports, presigned-URL answers, then commands by "method".
void HandleZeloMsg(const char* payload);
// Logs a message that has no integer "id". Always 0: never rejects.
int IsMsgError(const char* msg);
// 1 when the message's id was seen within the last 5 seconds (among the last 30 ids), else 0.
int IsMsgRepeated(const char* msg);
// Changes the repeat window (seconds) and forgets every recorded id. For tests.
void SetMsgRepeatWindow(int64_t seconds);

// Ids of the hub's outstanding reports whose answers the router recognises. Each reporter
// stores the id it published with; 0 means none.
void SetUidRequestId(int id);      // "_sync.get_p2p_id": the answer is the P2P uid
void SetP2pInfoReportId(int id);   // the credential report ("props" with p2p_id ...)
void SetOtaStateReportId(int id);  // "prop.ota_state"
// Set by the router on the first "ok" answer to those reports; never cleared.
bool IsFirstP2pInfoReportAcked();
bool IsFirstOtaStateReportAcked();

// Library callbacks.
void my_connect_callback(struct mosquitto* mosq, void* obj, int result);
void my_disconnect_callback(struct mosquitto* mosq, void* obj, int result);
void my_message_callback(struct mosquitto* mosq, void* obj, const struct mosquitto_message* msg);
void my_subscribe_callback(struct mosquitto* mosq, void* obj, int mid, int qos_count,
                           const int* granted_qos);
void my_publish_callback(struct mosquitto* mosq, void* obj, int mid);
void my_log_callback(struct mosquitto* mosq, void* obj, int level, const char* str);
