#include "storage/recordstore.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "base/log.h"
#include "platform/uci.h"
#include "storage/recordindex.h"
#include "storage/sdcard.h"

namespace {

constexpr int kMaxCameras = 32;
// An index this large holds years of events; a larger one is not read whole.
constexpr size_t kMaxIndexBytes = kTimestampRecordSize * 200000;

std::vector<std::string> Cameras() {
  char list[kMaxCameras][kUciSectionNameLen] = {};
  const int n = zcfg_uci_get_section_list("p2p", list, kMaxCameras);
  std::vector<std::string> macs;
  for (int i = 0; i < n; i++) {
    std::string mac(list[i]);
    for (char& c : mac) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    macs.push_back(mac);
  }
  return macs;
}

int ReadIndex(const std::string& mac, std::vector<playlist::IndexRecord>* out) {
  out->clear();
  char path[kRecordPathMax] = {0};
  if (GetTimestampPath(path, mac.c_str()) != 0) return -1;
  const long size = recordindex::FileSize(path);
  if (size < 0) return 0;  // no index yet: no events
  const size_t capacity = std::min(static_cast<size_t>(size), kMaxIndexBytes);
  std::vector<unsigned char> buffer(capacity);
  const int read = recordindex::ReadRecords(path, buffer.data(), capacity);
  if (read < 0) return -1;
  for (const recordindex::Record& r : recordindex::ParseRecords(buffer.data(), read)) {
    out->push_back({r.start, r.length});
  }
  return 0;
}

int LocateClip(const std::string& mac, uint32_t start, std::string* path) {
  char buffer[kRecordPathMax] = {0};
  long t = static_cast<long>(start);
  char ext[] = "mp4";
  char mac_text[13] = {0};
  if (mac.size() != 12) return -1;
  std::memcpy(mac_text, mac.data(), 12);
  const int rc = IsFileExist(buffer, &t, ext, mac_text);
  if (rc == 0) *path = buffer;
  return rc;
}

bool CardReady() {
  return GetSdCardStatus() == SDCARD_STATUS_NORMAL;
}

}  // namespace

playlist::RecordStore MakeRecordStore() {
  playlist::RecordStore store;
  store.cameras = Cameras;
  store.read_index = ReadIndex;
  store.locate_clip = LocateClip;
  store.card_ready = CardReady;
  return store;
}
