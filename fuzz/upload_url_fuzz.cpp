// The cloud's presigned-URL reply on arbitrary payloads. A head alarm record waits with the id
// the payload carries (when it carries one), so replies reach the store path; whatever is
// stored must be terminated, within its limits and of the allowed characters, and a refused
// reply must leave the record as it was.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/zelojson.h"
#include "storage/pirupload.h"

namespace {

bool Printable(const char* s, size_t max) {
  const size_t n = strnlen(s, max + 1);
  if (n == 0 || n > max) return false;
  for (size_t i = 0; i < n; i++) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c < 0x20 || c > 0x7E || c == '"' || c == '\\') return false;
  }
  return true;
}

void Check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static alarm_mgr_list* record = [] {
    auto* r = new alarm_mgr_list();
    std::strcpy(r->mac, "0A0000000001");
    InsertInAlarmLists(r);
    return r;
  }();
  std::string payload(reinterpret_cast<const char*>(data), size);
  int id = 0;
  record->request_id.store(json_get_int_value(payload.c_str(), "id", &id) == 0 ? id : 1);
  record->mp4_url_ready.store(0);
  record->pic_url_ready.store(0);
  std::memset(record->mp4_url, 0, sizeof(record->mp4_url));
  std::memset(record->pic_url, 0, sizeof(record->pic_url));

  const int rc = ParseUploadUrl(payload.c_str());
  const int stored = record->mp4_url_ready.load() + record->pic_url_ready.load();
  Check(rc == 0 ? stored == 1 : stored == 0);
  if (record->mp4_url_ready.load() != 0) {
    Check(Printable(record->mp4_url, kMaxUploadUrl));
    Check(Printable(record->mp4_obj_name, kMaxObjectName));
    Check(Printable(record->mp4_pwd, kMaxUploadPassword));
    Check(std::strncmp(record->mp4_url, "http", 4) == 0);
  }
  if (record->pic_url_ready.load() != 0) {
    Check(Printable(record->pic_url, kMaxUploadUrl));
    Check(Printable(record->pic_obj_name, kMaxObjectName));
    Check(Printable(record->pic_pwd, kMaxUploadPassword));
  }
  if (rc != 0) Check(record->mp4_url[0] == '\0' && record->pic_url[0] == '\0');
  return 0;
}
