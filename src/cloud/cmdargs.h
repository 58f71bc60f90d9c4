// What the cloud command handlers share: the command id, "params", camera MACs from params,
// the known cameras, and the reply texts and their sending.
#pragma once

#include <json-c/json.h>

#include <string>
#include <vector>

#include "core/zelojson.h"

namespace camera {
struct Status;
}

namespace cmdargs {

// The command's integer "id". Logs "[abnormal] msg without id" when it has none.
bool GetId(const char* msg, int* id);

// "params" of the parsed command, or nullptr after logging "params_obj is null ,return".
json_object* GetParams(const zelojson::Doc& doc);
// "params" of a [MAC, value] command: an array of exactly two elements. Otherwise nullptr after
// logging "params is not an array: " or length_message followed by the length.
json_object* GetPairParams(const zelojson::Doc& doc, const char* length_message);

// {"id":ID,"result":RESULT}, RESULT being JSON text.
std::string Reply(int id, const std::string& result);
// {"id":ID,"result":["ok"]}
std::string OkReply(int id);
// Logs what followed by the reply and publishes it with MqttCommandAck: 0 when it went out,
// else -1.
int SendReply(const std::string& what, const std::string& reply);

// A camera MAC text from a JSON value: twelve hexadecimal digits, returned upper case. Logs
// "Invalid camera mac: " and returns false otherwise.
bool GetMac(json_object* value, std::string* mac);
// The camera MAC of "params" given either as the MAC text or as an array whose first element is
// the MAC text.
bool GetCameraMac(json_object* params, std::string* mac);
// The id of a command about one camera and that camera's MAC from its "params" (as above).
bool GetIdAndCameraMac(const char* msg, int* id, std::string* mac);

// The cameras of the configuration store: the twelve-digit section names of package "p2p".
std::vector<std::string> CameraList();
// True when the camera has a section in package "p2p". Logs "Unknown camera: " otherwise.
bool IsKnownCamera(const std::string& mac);

// The camera's configuration: "p2p.MAC.SETTING", its text (dflt when absent) or integer (0).
std::string CameraKey(const std::string& mac, const char* setting);
std::string CameraText(const std::string& mac, const char* setting, const char* dflt);
int CameraInt(const std::string& mac, const char* setting);

// The camera record of list and property replies:
// {"mac":..,"name":..,"battery":..,"battery_status":..,"wifi":..,"pir":..,"version":..,
//  "hardver":..,"power":..,"night":..,"event":..}. Values from the configuration store, or, when
// fresh is given, the camera's own reported values (name and event stay the store's).
std::string CameraRecord(const std::string& mac, const camera::Status* fresh = nullptr);

}  // namespace cmdargs
