// Cloud commands about the hub itself: connection status, time, factory reset, service events,
// legal status and the low-battery threshold. They run on the MQTT thread.
#pragma once

// The hub's connection status as the local agent reports it ("local.status").
enum WifiConnectStatusCode {
  kStatusUnknown = 0,     // nothing reported yet
  kStatusWifiFailed = 1,  // "wifi_failed", "wifi_wrong_password"
  kStatusWifiConnecting = 2,
  kStatusWifiConnected = 3,
  kStatusApMode = 4,  // "wifi_ap_mode": the agent's set-up access point is up
  kStatusCloudConnected = 5,
  kStatusApMode2 = 6,  // "wifi_ap_mode_2": the second set-up access point form
};

void SetWifiConnectStatus(int status);
int GetWifiConnectStatus();
// True in status 5.
bool IsCloudConnected();
// True once "local.time" has set the clock.
bool IsFirstTimeSynced();

// Times before this (2020-01-01 00:00:00 UTC) or from this (2100-01-01) on are ignored.
constexpr long long kMinSaneTime = 1577836800LL;
constexpr long long kMaxSaneTime = 4102444800LL;

// How the process ends when the P2P service reports its known fault -90 ("zeLO.event"): by
// default at once, with the given status. The fuzz target replaces it.
void SetFaultExit(void (*exit_fn)(int status));

int ProcMsgLocalStatus(const char* msg);     // "local.status"
int ProcMsgSyncLocalTime(const char* msg);   // "local.time"
int ProcMsgRestore(const char* msg);         // "zeLO.restore"
int ProcMsgEvent(const char* msg);           // "zeLO.event"
int ProcMsgSetLegalStatus(const char* msg);  // "set_s_legal_status"
int ProcMsgGetThreshold(const char* msg);    // "get_power_threshold"
int ProcMsgSetThreshold(const char* msg);    // "set_power_threshold"
