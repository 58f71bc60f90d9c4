// Upload of motion alarms: for every finished event, in order, the snapshot and then the clip
// each get a presigned URL from the cloud over MQTT, are encrypted in place with AES-256-CBC and
// uploaded with an HTTP(S) PUT; then the event is reported with the object names and passwords.
// The cloud's acknowledgement of the report frees the camera for its next event.
//
// Threads and ownership. Records are made zeroed by the event recorder and owned by the alarm
// list from InsertInAlarmLists until the upload thread erases them; only the upload thread
// erases. The live channels insert and ask IsCameraUploading; the upload thread works on the
// head record; the MQTT thread delivers URL replies (ParseUploadUrl) and report answers
// (AckAlarmReport) for the head record. alarm_mutex guards the list and is held by the MQTT
// thread while it looks at and writes to the head record, so a record is never freed under it.
// The MQTT thread writes a file's URL, object name and password only while that file's ready
// flag is 0 and then sets the flag (release); the upload thread reads them after seeing the flag
// (acquire) and never while the MQTT thread may write them. The flags, the request id and the
// acknowledgement are atomics. One curl handle is shared under its own mutex.
//
// Paths in a record are the hub's scratch paths ("/tmp/MAC/alarm.mp4"); the upload opens them
// under the board root. aes_encrypt_file and zelo_alarm_upload take paths as they are opened.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

// One alarm awaiting upload. Zeroed by value-initialisation (new alarm_mgr_list()).
struct alarm_mgr_list {
  std::atomic<int> request_id{0};  // id of the last MQTT request sent for this record
  char mac[32] = {};
  char mp4_path[64] = {};
  char pic_path[64] = {};
  std::atomic<int> mp4_url_ready{0};
  std::atomic<int> mp4_uploaded{0};
  char mp4_url[512] = {};
  char mp4_obj_name[128] = {};
  char mp4_pwd[32] = {};
  std::atomic<int> pic_url_ready{0};
  std::atomic<int> pic_uploaded{0};
  char pic_url[512] = {};
  char pic_obj_name[128] = {};
  char pic_pwd[32] = {};
  std::atomic<int> event_acked{0};
};

// The list of records in insertion order and its lock.
extern std::vector<alarm_mgr_list*> alarm_list;
extern std::mutex alarm_mutex;

// The shared curl handle: made (with curl's global set-up) and destroyed; its lock is static, so
// alarm_upload_lock_init only says so. 0 or -1.
int alarm_upload_init();
int alarm_upload_finish();
int alarm_upload_lock_init();

// How requests and reports reach the cloud (the MQTT client's report publisher, handed over at
// start; 1 when the message went out). Without one nothing is sent and every wait times out.
using AlarmReportFn = int (*)(const char* text);
void SetAlarmReportPublisher(AlarmReportFn publish);

// Starts the detached upload thread. 0 (-1 when the thread cannot be made).
int InitPirUpload();
// The upload thread's body.
void* upload_thread_function(void* arg);

// Appends under alarm_mutex; the list owns the record from here on. 0, -1 for a null record.
int InsertInAlarmLists(alarm_mgr_list* record);
// Non-zero while a record of this MAC is in the list ("Camera " MAC " still uploading").
int IsCameraUploading(const std::string& mac);
// Removes and frees the first record of this MAC. 0, or -1 when there is none.
int TryEraseAlarmLists(const char* mac);
// Records in the list.
size_t AlarmListSize();

// The presigned URL requests ("suffix" "mp4" or "jpeg"): a fresh id into the record's request id,
// then the report publisher. The publish result (1 sent, 0 not).
int GetUploadMp4Url(alarm_mgr_list* record);
int GetUploadPicUrl(alarm_mgr_list* record);

// Field limits of a URL reply, in characters (each buffer holds one more for the terminator).
constexpr size_t kMaxUploadUrl = 511;
constexpr size_t kMaxObjectName = 127;
constexpr size_t kMaxUploadPassword = 31;

// A URL reply {"id":N,"result":{"jpeg"|"mp4":{"url":..,"obj_name":..,"pwd":..}}} (MQTT thread).
// Stored into the head record when N is its request id and every field is a string within its
// limit (URL: http:// or https://, printable, no blanks or quotes; object name and password:
// printable, no quotes or backslashes). 0 when stored, -1 when refused or dropped (logged).
int ParseUploadUrl(const char* msg);
// The cloud answered a report with this id: when it is the head record's request id, the record
// counts as acknowledged ("This is upload motion succeed ack " MAC).
void AckAlarmReport(int id);

// URL, encryption and upload of one file. 0 or -1.
int RequestUploadMp4(alarm_mgr_list* record);
int RequestUploadPic(alarm_mgr_list* record);
// Reports the event ("event." + the camera's event name) and waits for the acknowledgement.
// 0 or -1.
int UploadMotionAlarm(alarm_mgr_list* record);
// Snapshot, clip, report, each step only when not done yet. 0 or -1.
int HandleAlarmFunc(alarm_mgr_list* record);

// The AES key of a password: the 32 lower-case hexadecimal characters of its MD5, as bytes.
void alarm_aes_key(const char* password, unsigned char key[32]);
// Encrypts len bytes (a multiple of 16) in place with AES-256-CBC under key, chained from iv;
// iv is left at the last ciphertext block, so a following call continues the chain. 0 or -1.
int my_aes_cbc_encrypt(const unsigned char key[32], unsigned char iv[16], unsigned char* data,
                       size_t len);
// Encrypts the file with the password's key, a zero IV and zero padding to a multiple of 16
// bytes. The file is streamed through a fixed buffer into a temporary file beside it that is
// renamed over it: the file is either wholly plain or wholly encrypted. 0 or -1 (an empty or
// missing file among the failures).
int aes_encrypt_file(const char* path, const char* password);

// PUTs the file to the URL (http or https only; peer and host verification on; CA folder
// /etc/ssl/certs under the board root). The HTTP status, or a negative value (-1 when the file
// cannot be opened, minus the curl code on a transfer failure).
int zelo_alarm_upload(const char* path, const char* url);

// Tests: how long the URL and acknowledgement waits poll (25 x this, 200 ms on the hub), and a
// way to end the upload thread (it finishes the record in hand first).
void SetAlarmPollIntervalForTest(int milliseconds);
void StopPirUploadForTest();
