// Firmware update of the hub and its cameras.
//
// "zeLO.ota" (MQTT thread) acknowledges and starts one detached download thread, which fetches
// the package (otapackage.h) with libcurl and splits it as it arrives into the hub image
// "/tmp/hub_upgrade.bin" and the camera image "/tmp/camera/camera.muz", checks both MD5 digests
// of the header (and, when the hub has a signing key, the package's signature), lets every
// connected camera fetch the camera image from the hub's web server, puts the provisioning
// files back into /etc/config and runs "sysupgrade /tmp/hub_upgrade.bin". Each step is reported
// with "prop.ota_state": 242 downloading, 243 downloaded, 244 installing, 245 installed, 246
// failed. Any failure clears the updating flag, so a new "zeLO.ota" may start again; while an
// update runs further "zeLO.ota" commands are acknowledged and ignored.
//
// Threads: the handlers run on the MQTT thread; the download thread writes the percentage (curl's
// progress callback) and the flags; any thread reads them. All three are atomics.
//
// Signing key: when "/etc/zelo/ota_sign.pub" exists (one line of 64 hexadecimal digits, an
// Ed25519 public key), a package without a trailer that verifies under it is refused with 246
// before anything is installed; a key file that cannot be read or parsed refuses every package.
// Without the file the hub accepts packages on their MD5 digests alone.
#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <string>

// Cloud methods, with the whole message text.
int ProcMsgzeloOta(const char* msg);         // "zeLO.ota"
int ProcMsgGetOtaState(const char* msg);     // "zeLO.get_ota_state": logged only
int ProcMsgGetOtaProgress(const char* msg);  // "zeLO.get_ota_progress": {"id":N,"result":[P]}

// Starts an update from url unless one runs. 0 started, 1 ignored (one runs), -1 refused (a URL
// that is not http(s), longer than 511 bytes or holding blanks or control characters: 246).
int UpgradeSystem(const char* url, const char* md5, const char* install);
// Body of the download thread; arg is the URL in a 512-byte heap buffer, freed here.
void* DownloadBin(void* arg);

// Reports {"id":N,"method":"prop.ota_state","params":["TEXT"]} with a fresh id that the router
// then recognises. The publisher's result.
int ReportOtaState(int code);
// "downloading" .. "failed" for 242..246, "idle" for any other code.
const char* OtaStateText(int code);
// The report text for an id and a code.
std::string OtaStateReport(int id, int code);

void SetSystemUpdating(bool on);
bool IsSystemUpdating();
void SetCameraUpdating(bool on);
bool IsCameraUpdating();
// The download's percentage 0..100.
int GetOtaPercent();

// libcurl callbacks of the download. context: the download's splitter.
size_t WriteFileCallback(void* buffer, size_t size, size_t count, void* context);
int ProgressCallback(void* data, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal,
                     curl_off_t ulnow);

namespace ota {

// Where the cameras fetch the image: "http://" + hub address + "/camera.muz", with
// ":TARVO_CAMERA_HTTP_PORT" when that is not 80.
std::string CameraImageUrl();

// The path of the signing key.
constexpr char kSigningKeyFile[] = "/etc/zelo/ota_sign.pub";

// Timing of the download thread. The defaults are the hub's; tests shorten them.
struct Timing {
  long download_timeout_seconds = 300;  // the whole transfer
  int camera_poll_ms = 5000;            // between looks at the cameras' versions
  int camera_polls = 120;               // looks before a camera counts as failed (10 minutes)
  int sysupgrade_delay_ms = 2000;       // between the "installed" report and sysupgrade
};
void SetTiming(const Timing& timing);
Timing GetTiming();

}  // namespace ota
