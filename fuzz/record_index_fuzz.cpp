// The recording index on arbitrary file contents: reading, removal of a record and an append.
// After each step the file must still parse, hold whole records (apart from a torn tail that
// was there before), and have lost or gained exactly the record meant.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/log.h"
#include "storage/recordindex.h"

namespace {

std::string g_dir;
std::string g_path;

void RemoveFolder() {
  std::error_code ec;
  std::filesystem::remove_all(g_dir, ec);
}

std::string Contents() {
  std::string out;
  FILE* f = std::fopen(g_path.c_str(), "rb");
  if (f == nullptr) return out;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof(buf), f)) > 0) out.append(buf, n);
  std::fclose(f);
  return out;
}

void Put(const uint8_t* data, size_t size) {
  FILE* f = std::fopen(g_path.c_str(), "wb");
  if (f == nullptr) std::abort();
  if (size > 0 && std::fwrite(data, 1, size, f) != size) std::abort();
  std::fclose(f);
}

std::vector<recordindex::Record> Parse(const std::string& bytes) {
  return recordindex::ParseRecords(reinterpret_cast<const unsigned char*>(bytes.data()),
                                   bytes.size());
}

bool Same(const recordindex::Record& a, const recordindex::Record& b) {
  return a.start == b.start && a.length == b.length;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool ready = [] {
    tlog::SetLevel(-1);  // no log records
    // Memory-backed when the machine has it: every removal syncs the file.
    std::string dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    dir += "/tarvo-index-fuzz-XXXXXX";
    if (mkdtemp(&dir[0]) == nullptr) std::abort();
    g_dir = dir;
    g_path = dir + "/.timestamp";
    std::atexit(RemoveFolder);
    return true;
  }();
  (void)ready;
  // The first byte picks the start time to remove: one of the file's records, or none.
  const uint8_t pick = size > 0 ? data[0] : 0;
  Put(data, size);
  const std::vector<recordindex::Record> before = Parse(Contents());
  const size_t whole = size - size % kTimestampRecordSize;

  std::vector<unsigned char> buffer(size + 1);
  const size_t capacity = pick % 2 == 0 ? buffer.size() : buffer.size() / 2;
  const int got = recordindex::ReadRecords(g_path, buffer.data(), capacity);
  if (got >= 0) {
    if (got == 0 || got % kTimestampRecordSize != 0 || static_cast<size_t>(got) > capacity ||
        static_cast<size_t>(got) > whole) {
      std::abort();
    }
    if (std::memcmp(buffer.data(), data, static_cast<size_t>(got)) != 0) std::abort();
  } else if (whole >= kTimestampRecordSize && capacity >= kTimestampRecordSize) {
    std::abort();  // whole records that fit must be readable
  }

  uint32_t start = 0xFFFFFFFFu - pick;
  if (!before.empty() && pick < 200) start = before[pick % before.size()].start;
  const int removed = recordindex::RemoveRecord(g_path, start);
  std::vector<recordindex::Record> expected = before;
  size_t at = 0;
  while (at < expected.size() && expected[at].start != start) at++;
  if ((removed == 0) != (at < expected.size())) std::abort();
  if (removed == 0) expected.erase(expected.begin() + static_cast<long>(at));
  const std::string after_removal = Contents();
  if (removed == 0 && after_removal.size() % kTimestampRecordSize != 0) std::abort();
  std::vector<recordindex::Record> now = Parse(after_removal);
  if (now.size() != expected.size()) std::abort();
  for (size_t i = 0; i < now.size(); i++) {
    if (!Same(now[i], expected[i])) std::abort();
  }

  if (recordindex::AppendRecord(g_path, 0x12345678u, pick) != 0) std::abort();
  const std::string after_append = Contents();
  if (after_append.size() % kTimestampRecordSize != 0) std::abort();
  now = Parse(after_append);
  expected.push_back(recordindex::Record{0x12345678u, pick});
  if (now.size() != expected.size()) std::abort();
  for (size_t i = 0; i < now.size(); i++) {
    if (!Same(now[i], expected[i])) std::abort();
  }
  return 0;
}
