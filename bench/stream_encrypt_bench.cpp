// Partial video encryption of 1080p-sized frames against memcpy of the same bytes: a key frame of
// about 150 KB (parameter sets and four IDR slices) and a P frame of about 20 KB (four slices).
// The hub scans a frame's NAL units once (get_nalu_info) and runs video_chacha20_encrypt into the
// video work buffer once per viewer. BM_EncryptVsMemcpy measures scan, encryption and memcpy in
// one run and reports the ratios to memcpy; audio is measured on its own.
#include <benchmark/benchmark.h>
#include <sodium.h>

#include <time.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "benchsupport.h"
#include "crypto/stream_encrypt.h"

namespace {

using benchsupport::kSlices;
using benchsupport::SlicedFrame;

constexpr size_t kKeyFrameBytes = 150 * 1024;
constexpr size_t kPFrameBytes = 20 * 1024;

struct Work {
  std::vector<unsigned char> out =
      std::vector<unsigned char>(kVideoWorkCapacity + kVideoHeaderRoom);
  unsigned char key[kChachaKeyBytes];
  crypto_nalu_info info{};
  Work() {
    if (sodium_init() < 0) std::abort();
    randombytes_buf(key, sizeof(key));
  }
};

// The unit scan, once per frame whatever the number of viewers.
int Scan(Work& w, const std::vector<unsigned char>& frame) {
  return get_nalu_info(frame.data(), static_cast<unsigned>(frame.size()), &w.info);
}

// One viewer's encryption of a scanned frame.
unsigned Encrypt(Work& w, const std::vector<unsigned char>& frame) {
  unsigned len = 0;
  video_chacha20_encrypt(frame.data(), static_cast<unsigned>(frame.size()), w.key, &len, &w.info,
                         w.out.data(), w.out.size());
  benchmark::ClobberMemory();
  return len;
}

// The same bytes to the same place as the encryption puts them: behind a header of 9 + 8k bytes.
// (A destination at the same offset within its page as the source can make memcpy much slower
// on some processors, which would flatter the encryption.)
void Copy(Work& w, const std::vector<unsigned char>& frame) {
  std::memcpy(w.out.data() + VideoHeaderBytes(kSlices), frame.data(), frame.size());
  benchmark::ClobberMemory();
}

void BM_VideoEncrypt(benchmark::State& state) {
  const std::vector<unsigned char> frame =
      SlicedFrame(state.range(0) ? kKeyFrameBytes : kPFrameBytes, state.range(0) != 0);
  Work w;
  Scan(w, frame);
  for (auto _ : state) benchmark::DoNotOptimize(Encrypt(w, frame));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frame.size()));
  state.SetLabel(state.range(0) ? "key frame" : "P frame");
}
BENCHMARK(BM_VideoEncrypt)->Arg(1)->Arg(0);

void BM_UnitScan(benchmark::State& state) {
  const std::vector<unsigned char> frame =
      SlicedFrame(state.range(0) ? kKeyFrameBytes : kPFrameBytes, state.range(0) != 0);
  Work w;
  for (auto _ : state) benchmark::DoNotOptimize(Scan(w, frame));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frame.size()));
  state.SetLabel(state.range(0) ? "key frame" : "P frame");
}
BENCHMARK(BM_UnitScan)->Arg(1)->Arg(0);

void BM_Memcpy(benchmark::State& state) {
  const std::vector<unsigned char> frame =
      SlicedFrame(state.range(0) ? kKeyFrameBytes : kPFrameBytes, state.range(0) != 0);
  Work w;
  for (auto _ : state) Copy(w, frame);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frame.size()));
  state.SetLabel(state.range(0) ? "key frame" : "P frame");
}
BENCHMARK(BM_Memcpy)->Arg(1)->Arg(0);

// Processor time of this thread, so that other processes on a busy machine do not count.
double ThreadSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void BM_EncryptVsMemcpy(benchmark::State& state) {
  constexpr int kBatch = 32;  // frames per clock reading, so reading the clock costs nothing
  const std::vector<unsigned char> frame =
      SlicedFrame(state.range(0) ? kKeyFrameBytes : kPFrameBytes, state.range(0) != 0);
  Work w;
  double scan_s = 0, encrypt_s = 0, copy_s = 0;
  for (auto _ : state) {
    const double t0 = ThreadSeconds();
    for (int i = 0; i < kBatch; i++) benchmark::DoNotOptimize(Scan(w, frame));
    const double t1 = ThreadSeconds();
    for (int i = 0; i < kBatch; i++) benchmark::DoNotOptimize(Encrypt(w, frame));
    const double t2 = ThreadSeconds();
    for (int i = 0; i < kBatch; i++) Copy(w, frame);
    const double t3 = ThreadSeconds();
    scan_s += t1 - t0;
    encrypt_s += t2 - t1;
    copy_s += t3 - t2;
  }
  const double bytes = static_cast<double>(state.iterations()) * kBatch * frame.size();
  state.counters["encrypt_MBps"] = bytes / encrypt_s / 1e6;
  state.counters["memcpy_MBps"] = bytes / copy_s / 1e6;
  // video_chacha20_encrypt alone, and with the frame's unit scan, against memcpy.
  state.counters["encrypt_ratio"] = encrypt_s / copy_s;
  state.counters["scan_encrypt_ratio"] = (scan_s + encrypt_s) / copy_s;
  state.SetLabel(state.range(0) ? "key frame" : "P frame");
}
BENCHMARK(BM_EncryptVsMemcpy)->Arg(1)->Arg(0);

void BM_AudioEncrypt(benchmark::State& state) {
  std::vector<unsigned char> audio(320, 0x55);
  Work w;
  for (auto _ : state) {
    benchmark::DoNotOptimize(audio_chacha20_encrypt(reinterpret_cast<const char*>(audio.data()),
                                                    320, w.key, w.out.data(), w.out.size()));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * audio.size()));
}
BENCHMARK(BM_AudioEncrypt);

}  // namespace
