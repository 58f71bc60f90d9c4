// The recording index with 10,000 records: an append, a whole read and the removal of the
// oldest record, each beside plain stdio moving the same bytes on the same file system in the
// same run (the ratio is the index's cost over the bytes' own). BM_FwriteTimestampOnCard adds
// what the daemon's append costs with its card status query (one shell command) on a board.
//
//   build/bench/record_index_bench --benchmark_repetitions=3
//   --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/log.h"
#include "platform/board.h"
#include "platform/boardmaker.h"
#include "storage/recordindex.h"

namespace {

constexpr int kRecords = 10000;
constexpr uint32_t kFirst = 1700000000;

std::string TempFolder() {
  char dir[] = "/tmp/tarvo-index-bench-XXXXXX";
  if (mkdtemp(dir) == nullptr) std::abort();
  return dir;
}

// An index of kRecords records, oldest first, at path.
void MakeIndex(const std::string& path) {
  std::vector<unsigned char> bytes;
  for (uint32_t i = 0; i < kRecords; i++) {
    const uint32_t t = kFirst + i * 60;
    const unsigned char rec[5] = {static_cast<unsigned char>(t), static_cast<unsigned char>(t >> 8),
                                  static_cast<unsigned char>(t >> 16),
                                  static_cast<unsigned char>(t >> 24), 10};
    bytes.insert(bytes.end(), rec, rec + 5);
  }
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) std::abort();
  std::fclose(f);
}

struct Files {
  Files() : dir(TempFolder()), index(dir + "/.timestamp"), plain(dir + "/plain") {
    tlog::SetLevel(-1);  // no log records in the timed loops
  }
  ~Files() {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
  std::string dir, index, plain;
};

uint32_t OldestStart(const std::string& path) {
  unsigned char rec[5];
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr || std::fread(rec, 1, 5, f) != 5) std::abort();
  std::fclose(f);
  return static_cast<uint32_t>(rec[0]) | static_cast<uint32_t>(rec[1]) << 8 |
         static_cast<uint32_t>(rec[2]) << 16 | static_cast<uint32_t>(rec[3]) << 24;
}

void BM_IndexAppend(benchmark::State& state) {
  Files files;
  MakeIndex(files.index);
  uint32_t t = kFirst + kRecords * 60;
  for (auto _ : state) {
    if (recordindex::AppendRecord(files.index, t++, 10) != 0) state.SkipWithError("append");
  }
}
BENCHMARK(BM_IndexAppend);

void BM_StdioAppend(benchmark::State& state) {
  Files files;
  MakeIndex(files.plain);
  const unsigned char rec[5] = {1, 2, 3, 4, 10};
  for (auto _ : state) {
    FILE* f = std::fopen(files.plain.c_str(), "a+");
    std::fwrite(rec, 1, sizeof(rec), f);
    std::fclose(f);
  }
}
BENCHMARK(BM_StdioAppend);

void BM_IndexReadWhole(benchmark::State& state) {
  Files files;
  MakeIndex(files.index);
  std::vector<unsigned char> buffer(kRecords * 5);
  for (auto _ : state) {
    const int n = recordindex::ReadRecords(files.index, buffer.data(), buffer.size());
    if (n != kRecords * 5) state.SkipWithError("read");
    benchmark::DoNotOptimize(buffer.data());
  }
  state.SetBytesProcessed(state.iterations() * kRecords * 5);
}
BENCHMARK(BM_IndexReadWhole);

// Decoding the 10,000 records read (what retention walks), on its own.
void BM_IndexDecode(benchmark::State& state) {
  Files files;
  MakeIndex(files.index);
  std::vector<unsigned char> buffer(kRecords * 5);
  const int n = recordindex::ReadRecords(files.index, buffer.data(), buffer.size());
  for (auto _ : state) {
    benchmark::DoNotOptimize(recordindex::ParseRecords(buffer.data(), static_cast<size_t>(n)));
  }
}
BENCHMARK(BM_IndexDecode);

void BM_StdioReadWhole(benchmark::State& state) {
  Files files;
  MakeIndex(files.plain);
  std::vector<unsigned char> buffer(kRecords * 5);
  for (auto _ : state) {
    FILE* f = std::fopen(files.plain.c_str(), "rb");
    benchmark::DoNotOptimize(std::fread(buffer.data(), 1, buffer.size(), f));
    std::fclose(f);
  }
  state.SetBytesProcessed(state.iterations() * kRecords * 5);
}
BENCHMARK(BM_StdioReadWhole);

// Removal of the oldest of 10,000 records: the whole file is rewritten, synced and cut. The
// removed record is appended again (untimed) so every removal meets 10,000 records.
void BM_IndexRemoveOldest(benchmark::State& state) {
  Files files;
  MakeIndex(files.index);
  uint32_t t = kFirst + kRecords * 60;
  for (auto _ : state) {
    if (recordindex::RemoveRecord(files.index, OldestStart(files.index)) != 0) {
      state.SkipWithError("remove");
    }
    state.PauseTiming();
    recordindex::AppendRecord(files.index, t++, 10);
    state.ResumeTiming();
  }
}
BENCHMARK(BM_IndexRemoveOldest)->UseRealTime();

// The same bytes with stdio: read the file, write it back without its first record, sync, cut.
void BM_StdioRemoveOldest(benchmark::State& state) {
  Files files;
  MakeIndex(files.plain);
  std::vector<unsigned char> buffer(kRecords * 5);
  const unsigned char rec[5] = {1, 2, 3, 4, 10};
  for (auto _ : state) {
    FILE* f = std::fopen(files.plain.c_str(), "r+");
    const size_t n = std::fread(buffer.data(), 1, buffer.size(), f);
    std::fseek(f, 0, SEEK_SET);
    std::fwrite(buffer.data() + 5, 1, n - 5, f);
    std::fflush(f);
    fdatasync(fileno(f));
    std::fclose(f);
    if (truncate(files.plain.c_str(), static_cast<off_t>(n - 5)) != 0) state.SkipWithError("cut");
    state.PauseTiming();
    f = std::fopen(files.plain.c_str(), "a");
    std::fwrite(rec, 1, sizeof(rec), f);
    std::fclose(f);
    state.ResumeTiming();
  }
}
BENCHMARK(BM_StdioRemoveOldest)->UseRealTime();

// The daemon's append on a board whose card is mounted: the card status query (a shell
// command), the camera's duration setting and the append.
void BM_FwriteTimestampOnCard(benchmark::State& state) {
  Files files;
  platform::BoardOptions options;
  options.card = true;
  options.cameras.push_back({"0A00000000A1", ""});
  std::string error;
  const std::string root = files.dir + "/board";
  if (platform::MakeBoardRoot(root, options, &error) != 0) std::abort();
  platform::SetRootForTest(root);
  std::filesystem::create_directories(root + "/mnt/mmcblk0p1/KELDA_RECORD_VIDEO/0A00000000A1");
  long t = kFirst;
  for (auto _ : state) {
    if (FwriteTimestamp(&t, 0, "0A00000000A1") != 0) state.SkipWithError("append");
    t++;
  }
  platform::SetRootForTest("");
}
BENCHMARK(BM_FwriteTimestampOnCard)->UseRealTime();

}  // namespace
