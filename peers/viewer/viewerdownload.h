// Download of a stored event from the hub: the clip and then the snapshot, each asked for with
// IOTYPE_USER_IPCAM_RECORD_DOWNLOAD, answered with IOTYPE_USER_IPCAM_RECORD_DOWNLOAD_RESP, and
// read whole from an RDT channel of the session into DIR under the name the card gives it.
// A file is written as NAME.part and renamed once all its bytes have come, so a broken transfer
// never leaves a file that looks whole. docs/playback.md ("Download") describes the exchange.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace viewer {

class Session;

struct DownloadOptions {
  std::string camera_mac;  // twelve hexadecimal digits
  long long start = 0;     // the event's start time
  std::string dir;         // existing folder the files go to
  std::vector<std::string> files = {"mp4", "jpg"};
  uint8_t channel = 2;     // IOTC channel of the RDT end, 1..31
  int timeout_ms = 10000;  // for the answer, the RDT open and each read
};

struct DownloadedFile {
  std::string kind;  // "mp4" or "jpg"
  std::string name;  // as on the card
  std::string path;  // where it was written
  long long size = 0;
};

struct DownloadResult {
  std::vector<DownloadedFile> files;
  int refused = 0;    // the hub's non-zero result, when it refused
  std::string error;  // empty when every file came whole
};

// A card file name the hub may give: letters, digits, '_', '-' and '.', not starting with a
// dot, at most 64 characters.
bool IsPlainFileName(const std::string& name);

// Downloads the files in order; stops at the first failure. 0, or -1 (result->error tells).
int Download(Session& session, const DownloadOptions& options, DownloadResult* result);

}  // namespace viewer
