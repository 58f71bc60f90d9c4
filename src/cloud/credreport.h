// The P2P credentials' way to the cloud: the credential report (uid, password, check token and
// the hub's public key), the uid request, and the credentials thread that drives both until the
// cloud has answered, then reports the idle firmware state.
#pragma once

#include <functional>
#include <string>

// The credential report. lock_region null gives the short form (legal_status then unused).
std::string BuildCredentialReport(int id, const std::string& uid, const std::string& password,
                                  const std::string& check_token, const std::string& public_key,
                                  const std::string* lock_region, const std::string* legal_status);
// Publishes uid, password, check token (the device token in hexadecimal) and public key, with
// nvram p2p "lockregion" and "legalstatus" when "lockregion" is set, under a fresh report id
// that the MQTT router then recognises. The publisher's result (1 published, 0 not), or -1 when
// the device token cannot be read.
int ReportNewPasswordToCloud();
// Asks the cloud for a uid ("_sync.get_p2p_id") under a fresh id the router recognises. The
// publisher's result.
int RequestUid();

// Where the two reports above and the idle firmware-state report go; null restores MqttReport.
void SetCredentialPublisher(int (*publish)(const char* text));
// The firmware-state report of step 5 of the credentials thread, given the state code; null
// restores the built-in one, which reports state 241 as "idle".
void SetOtaStateReporter(int (*report)(int code));

// What the credentials thread looks at and how it waits; each has the daemon's default.
struct UidPwdHooks {
  std::function<int()> wifi_status;          // the connection status; 5 is cloud connected
  std::function<bool()> report_acked;        // the first credential report was answered "ok"
  std::function<bool()> time_synced;         // the clock was set by the cloud once
  std::function<bool()> idle_report_acked;   // the first firmware-state report was answered
  std::function<int(int)> report_ota_state;  // reports a firmware state code
  std::function<bool()> wait;                // one polling period (1 s); false ends the thread
};
UidPwdHooks DefaultUidPwdHooks();

// The credentials thread. arg: a UidPwdHooks* that outlives the thread, or null for the
// defaults. In order, polling once a period: wait for status 5; ask for a uid while there is
// none; make and report a new password until the first report is answered; wait for the first
// time synchronisation; report firmware state 241 until that report is answered. Returns null.
void* UidPwdFunc(void* arg);
