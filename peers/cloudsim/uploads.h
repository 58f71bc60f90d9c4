// The cloud's side of alarm uploads: presigned URLs on an upload server with a fresh password
// per file, the hub's event report read back into its objects and passwords, and decryption of
// an uploaded file with its password (AES-256-CBC, key = the 32 lower-case hexadecimal
// characters of MD5(password), zero IV, no padding), written with OpenSSL independently of the
// hub's encryption.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cloudsim {

// One presigned URL given to the hub.
struct IssuedUpload {
  int id = 0;               // the request's id
  std::string suffix;       // "mp4" or "jpeg"
  std::string object_name;  // e.g. "event-3-k2Q9fA.mp4"
  std::string password;
  std::string url;  // base + "/" + object name + a signature query
};

// Makes the URL of a new object under base (e.g. "https://127.0.0.1:8443/uploads") for the
// suffix, numbered n, with a fresh 16-character password.
IssuedUpload IssueUpload(const std::string& base, const std::string& suffix, int n);

// The reply the hub expects: {"id":ID,"result":{"SUFFIX":{"url":..,"obj_name":..,"pwd":..}}}.
std::string PresignedUrlReply(const IssuedUpload& upload);

// An event report {"id":..,"method":"event.NAME","params":[clip, clip password, snapshot,
// snapshot password, "", "push"]} read back. False when the text is no such report.
struct EventReport {
  std::string event;  // NAME
  std::string clip_object;
  std::string clip_password;
  std::string snapshot_object;
  std::string snapshot_password;
  std::string push;
};
bool ParseEventReport(const std::string& text, EventReport* report);

// Decrypts the file in into out (the zero padding stays: the plain length is not sent).
// 0, or -1 with a reason in *error.
int DecryptFile(const std::string& in, const std::string& out, const std::string& password,
                std::string* error);

}  // namespace cloudsim
