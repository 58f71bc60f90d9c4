// The cloud's commands about the SD card and the recordings: "get_sd_storage", "sd_format",
// "sd_umount" and "deleteVideo". The MQTT router calls them on the MQTT thread with the whole
// message text; each sends its own reply and returns 0, or -1 when nothing was answered. The
// card and the index are the storage modules' (src/storage/sdcard.h, recordindex.h).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// "sd_format": starts a format when the card is normal; replies {"id":ID,"result":["OK"]} at
// once in every case.
int ProcMsgSdCardFormat(const char* msg);
// "sd_umount": replies ["OK"] when the card was unmounted; nothing otherwise.
int ProcMsgSdCardUmount(const char* msg);
// "get_sd_storage": [0, total MiB, free MiB] with a normal card; [1, 0, 0] without a card or
// not mounted; [3, 0, 0] abnormal; [4, 0, 0] while a format runs.
int ProcMsgGetSdCardStorage(const char* msg);
// "deleteVideo" [MAC, T1, T2, ...]: removes the events in order; replies ["OK"] when all are
// removed; stops without a reply at the first that fails, or when the request is refused.
int ProcMsgDeleteVideo(const char* msg);

namespace storagecmd {

// One "deleteVideo" names at most this many events.
constexpr size_t kMaxDeleteTimes = 1000;

// A "deleteVideo" command: its id, the camera MAC (upper case) and the event start times.
struct DeleteRequest {
  int id = 0;
  std::string mac;
  std::vector<long> times;
};
// Checks the whole command before anything is removed: an integer "id", and "params" an array
// of a MAC text (twelve hexadecimal digits) followed by 1 to kMaxDeleteTimes JSON integers
// that are event start times (recordindex.h). False after a log line otherwise. Whether the
// camera is paired is the caller's check.
bool ParseDeleteRequest(const char* msg, DeleteRequest* request);

}  // namespace storagecmd
