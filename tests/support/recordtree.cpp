#include "support/recordtree.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>

#include "storage/recordindex.h"
#include "support/testsupport.h"

namespace testsupport {

std::string HourFolder(long t) {
  const time_t when = t;
  struct tm local;
  localtime_r(&when, &local);
  char name[16];
  std::strftime(name, sizeof(name), "%Y%m%d%H", &local);
  return name;
}

std::string EventPath(const std::string& root, const std::string& mac, long t,
                      const std::string& ext) {
  const time_t when = t;
  struct tm local;
  localtime_r(&when, &local);
  char name[32];
  std::strftime(name, sizeof(name), "%MM%SS_", &local);
  return root + "/" + mac + "/" + HourFolder(t) + "/" + name + std::to_string(t) + "." + ext;
}

void StoreEvent(const std::string& root, const std::string& mac, long t, uint64_t clip_bytes) {
  const std::string clip = EventPath(root, mac, t, "mp4");
  WriteFile(clip, "");
  std::filesystem::resize_file(clip, clip_bytes);
  WriteFile(EventPath(root, mac, t, "jpeg"), "jpeg");
  ASSERT_EQ(
      recordindex::AppendRecord(root + "/" + mac + "/.timestamp", static_cast<uint32_t>(t), 10), 0);
}

std::vector<uint32_t> IndexTimes(const std::string& index) {
  const std::string bytes = ReadFile(index);
  std::vector<uint32_t> times;
  for (const auto& r : recordindex::ParseRecords(
           reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size())) {
    times.push_back(r.start);
  }
  return times;
}

}  // namespace testsupport
