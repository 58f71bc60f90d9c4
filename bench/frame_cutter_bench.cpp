// Throughput of the camera receive path on a realistic stream: 16 KiB video pieces with G.711
// audio packets between them, arriving in receives of 4 KiB, against plain memcpy of the same
// bytes in the same receive sizes. BM_CutterVsMemcpy measures both in one run and reports the
// ratio (cutter time / memcpy time).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <vector>

#include "camera/frame.h"
#include "camera/framecutter.h"

namespace {

constexpr size_t kHubBuffer = 17408;
constexpr size_t kReceive = 4096;
constexpr int kAudioPerPiece = 6;  // 40 ms packets of 320 bytes beside 500 kbit/s video

std::vector<uint8_t> Stream() {
  std::vector<uint8_t> stream;
  std::vector<uint8_t> payload(command::kVideoPieceHeader + command::kVideoPieceData, 0x41);
  std::vector<uint8_t> frame(payload.size() + command::kFrameOverhead);
  const uint8_t zero[6] = {0};
  for (int piece = 0; piece < 64; piece++) {
    command::FrameFields f;
    f.src = zero;
    f.dst = zero;
    f.type = command::kTypeMedia;
    f.subtype = command::kSubVideo;
    f.mark1 = 4;
    f.mark2 = static_cast<uint8_t>(piece % 4 + 1);
    int n = command::BuildFrame(frame.data(), frame.size(), f, payload.data(), payload.size());
    stream.insert(stream.end(), frame.begin(), frame.begin() + n);
    f.subtype = command::kSubAudio;
    for (int a = 0; a < kAudioPerPiece; a++) {
      n = command::BuildFrame(frame.data(), frame.size(), f, payload.data(),
                              command::kAudioPrefix + 320);
      stream.insert(stream.end(), frame.begin(), frame.begin() + n);
    }
  }
  return stream;
}

// One pass of the stream through the cutter; returns the frames cut.
size_t CutPass(command::FrameCutter& cutter, const std::vector<uint8_t>& stream) {
  size_t frames = 0;
  size_t off = 0;
  while (off < stream.size()) {
    size_t n = std::min({kReceive, stream.size() - off, cutter.Space()});
    std::memcpy(cutter.WritePtr(), stream.data() + off, n);
    cutter.Commit(n);
    off += n;
    frames += cutter.Cut([](const _net_cmd_type* f) { benchmark::DoNotOptimize(f); });
  }
  return frames;
}

// The same bytes copied in the same receive sizes into a buffer of the same size.
void CopyPass(uint8_t* buffer, const std::vector<uint8_t>& stream) {
  size_t off = 0;
  size_t at = 0;
  while (off < stream.size()) {
    size_t n = std::min(kReceive, stream.size() - off);
    if (at + n > kHubBuffer) at = 0;
    std::memcpy(buffer + at, stream.data() + off, n);
    benchmark::ClobberMemory();
    at += n;
    off += n;
  }
}

void BM_Cutter(benchmark::State& state) {
  const std::vector<uint8_t> stream = Stream();
  command::FrameCutter cutter(kHubBuffer);
  for (auto _ : state) benchmark::DoNotOptimize(CutPass(cutter, stream));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * stream.size()));
}
BENCHMARK(BM_Cutter);

void BM_Memcpy(benchmark::State& state) {
  const std::vector<uint8_t> stream = Stream();
  std::vector<uint8_t> buffer(kHubBuffer);
  for (auto _ : state) CopyPass(buffer.data(), stream);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * stream.size()));
}
BENCHMARK(BM_Memcpy);

void BM_CutterVsMemcpy(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  const std::vector<uint8_t> stream = Stream();
  command::FrameCutter cutter(kHubBuffer);
  std::vector<uint8_t> buffer(kHubBuffer);
  Clock::duration cut{0}, copy{0};
  for (auto _ : state) {
    auto t0 = Clock::now();
    benchmark::DoNotOptimize(CutPass(cutter, stream));
    auto t1 = Clock::now();
    CopyPass(buffer.data(), stream);
    auto t2 = Clock::now();
    cut += t1 - t0;
    copy += t2 - t1;
  }
  const double bytes = static_cast<double>(state.iterations()) * stream.size();
  const double cut_s = std::chrono::duration<double>(cut).count();
  const double copy_s = std::chrono::duration<double>(copy).count();
  state.counters["cutter_MBps"] = bytes / cut_s / 1e6;
  state.counters["memcpy_MBps"] = bytes / copy_s / 1e6;
  state.counters["time_ratio"] = cut_s / copy_s;
}
BENCHMARK(BM_CutterVsMemcpy);

}  // namespace
