// Cloud commands about the cameras: list, names, power, alarm settings, properties, night mode,
// removal and pairing. They run on the MQTT thread; each validates its input before it touches
// the configuration store or a camera, and replies through MqttCommandAck.
//
// Alarm settings come in two forms. "params" of the get commands is the camera MAC (or [MAC]);
// "params" of the set commands is an object with "mac" and any of the form's fields:
//   first form ("get_alarm_config", "set_alarm_config"):
//     starthour 0..23, startmin 0..59, stophour 0..24, stopmin 0..59 (0 when stophour is 24),
//     pushalarm 0..1, interval 0..1440 (minutes between alarms)
//   second form ("get_alarm_config2", "set_alarm_config2"): the same schedule and pushalarm,
//     new_interval 0..3600 (seconds between alarms) and pir_duration 5..60 (seconds recorded)
// A get replies {"id":ID,"result":{"mac":"MAC",<every field of the form>}}; a set replies
// {"id":ID,"result":["ok"]} after writing every field it carried, and refuses the whole command
// when any field is unknown, not an integer or out of range.
#pragma once

int ProcMsgGetCameraList(const char* msg);      // "get_camera_list"
int ProcMsgCameraRename(const char* msg);       // "rename" [MAC, name]
int ProcMsgSetCameraPower(const char* msg);     // "set_power" [MAC, 0 or 1]
int ProcMsgGetAlarmConfig(const char* msg);     // "get_alarm_config"
int ProcMsgSetAlarmConfig(const char* msg);     // "set_alarm_config"
int ProcMsgGetAlarmConfigNew(const char* msg);  // "get_alarm_config2"
int ProcMsgSetAlarmConfigNew(const char* msg);  // "set_alarm_config2"

// Requests carried out by the camera's live channel.
int ProcMsgGetCameraProp(const char* msg);  // "get_camera_prop" MAC or [MAC]
int ProcMsgSetNightMode(const char* msg);   // "set_night_mode" [MAC, mode]
int ProcMsgDeleteCamera(const char* msg);   // "delete_camera" [MAC]
int ProcMsgOpenAuth(const char* msg);       // "let_connect_gateway": pairing mode
