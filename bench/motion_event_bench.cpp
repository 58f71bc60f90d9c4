// The motion event's media costs against baselines measured in the same run, on the generated
// 1080p camera clip (scripts/make-test-media.sh):
// - BM_SnapshotVsDecode: the 640x360 JPEG of a key frame (decode, scale, MJPEG encode, file)
//   against a bare libavcodec decode of the same frame: how much scaling and JPEG add.
// - BM_SnapshotVsFfmpegCli: the same conversion against the ffmpeg command line doing it
//   (`ffmpeg -i key.h264 -vf scale=640:360 -frames:v 1 out.jpeg`).
// - BM_ClipEncryptVsOpenssl: aes_encrypt_file on a 10 s clip against
//   `openssl enc -aes-256-cbc -nopad` on the same bytes (zero-padded), each reading and
//   writing its file.
// - BM_ClipEncryptPeakMemory: the growth of the peak resident size of a fresh process while it
//   encrypts a 10 s clip (the file is streamed through a fixed buffer, never held whole).
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "camsim/camsimmedia.h"
#include "media/mp4mux.h"
#include "media/snapshot.h"
#include "storage/pirupload.h"

namespace {

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string Dir() {
  static const std::string dir = [] {
    char tmpl[] = "/tmp/tarvo-bench-XXXXXX";
    return std::string(mkdtemp(tmpl));
  }();
  return dir;
}

std::string Media(const std::string& name) {
  static const std::string dir = std::string(TARVO_BENCH_BIN_DIR) + "/test-media";
  static const int made = std::system(
      (std::string(TARVO_BENCH_SOURCE_DIR) + "/scripts/make-test-media.sh " + dir + " >/dev/null")
          .c_str());
  if (made != 0) std::abort();
  return dir + "/" + name;
}

const camsim::VideoClip& Clip() {
  static const std::shared_ptr<const camsim::VideoClip> clip = [] {
    std::string error;
    auto c = camsim::VideoClip::Load(Media("camera-1080p15.h264"), &error);
    if (c == nullptr) std::abort();
    return c;
  }();
  return *clip;
}

const camsim::VideoFrame& KeyFrame() {
  return Clip().at(15);  // the second key frame, as the recorder takes it
}

void WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// A 10 s event clip (151 frames and their A-law) written by the clip writer, once.
const std::string& TenSecondClip() {
  static const std::string bytes = [] {
    const std::string path = Dir() + "/ten.mp4";
    std::shared_ptr<const camsim::AudioClip> audio =
        camsim::AudioClip::Load(Media("camera-8k.alaw"), nullptr);
    ORU_MP4_HANDLE h = nullptr;
    if (audio == nullptr ||
        orump4_create_file(path.c_str(), 0, 0, 1, 15, 1920, 1080, 1, 8000, &h) != 0) {
      std::abort();
    }
    for (size_t i = 0; i < 151; i++) {
      const camsim::VideoFrame& f = Clip().at(i);
      orump4_write_video_frame(h, f.data.data(), static_cast<uint32_t>(f.data.size()), 0);
      uint8_t alaw[533];
      audio->Copy(i * 533, alaw, sizeof(alaw));
      orump4_write_audio_frame(h, alaw, sizeof(alaw));
    }
    orump4_close_file_for_create(h);
    return ReadBytes(path);
  }();
  return bytes;
}

void BM_SnapshotVsDecode(benchmark::State& state) {
  const camsim::VideoFrame& key = KeyFrame();
  const std::string jpeg = Dir() + "/snap.jpeg";
  double convert_s = 0, decode_s = 0;
  for (auto _ : state) {
    const double t0 = Now();
    if (ConvertH264FrameToJpeg(jpeg.c_str(), key.data.data(),
                               static_cast<uint32_t>(key.data.size()), 640, 360) != 0) {
      state.SkipWithError("conversion failed");
      return;
    }
    const double t1 = Now();
    if (snapshot::DecodeOnly(key.data.data(), static_cast<uint32_t>(key.data.size())) != 0) {
      state.SkipWithError("decode failed");
      return;
    }
    const double t2 = Now();
    convert_s += t1 - t0;
    decode_s += t2 - t1;
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["snapshot_ms"] = convert_s / n * 1e3;
  state.counters["decode_ms"] = decode_s / n * 1e3;
  state.counters["snapshot_vs_decode"] = convert_s / decode_s;
  state.SetLabel(std::to_string(key.data.size()) + "-byte 1080p key frame");
}
BENCHMARK(BM_SnapshotVsDecode)->Unit(benchmark::kMillisecond)->Iterations(40);

void BM_SnapshotVsFfmpegCli(benchmark::State& state) {
  const camsim::VideoFrame& key = KeyFrame();
  const std::string in = Dir() + "/key.h264";
  WriteBytes(in, std::string(key.data.begin(), key.data.end()));
  const std::string jpeg = Dir() + "/snap.jpeg";
  const std::string command = "ffmpeg -nostdin -hide_banner -loglevel error -y -i " + in +
                              " -vf scale=640:360 -frames:v 1 " + Dir() + "/cli.jpeg";
  double convert_s = 0, cli_s = 0;
  for (auto _ : state) {
    const double t0 = Now();
    ConvertH264FrameToJpeg(jpeg.c_str(), key.data.data(), static_cast<uint32_t>(key.data.size()),
                           640, 360);
    const double t1 = Now();
    if (std::system(command.c_str()) != 0) {
      state.SkipWithError("ffmpeg failed");
      return;
    }
    const double t2 = Now();
    convert_s += t1 - t0;
    cli_s += t2 - t1;
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["snapshot_ms"] = convert_s / n * 1e3;
  state.counters["ffmpeg_cli_ms"] = cli_s / n * 1e3;
  state.counters["snapshot_vs_cli"] = convert_s / cli_s;
}
BENCHMARK(BM_SnapshotVsFfmpegCli)->Unit(benchmark::kMillisecond)->Iterations(10);

void BM_ClipEncryptVsOpenssl(benchmark::State& state) {
  const std::string& plain = TenSecondClip();
  const std::string padded = plain + std::string((16 - plain.size() % 16) % 16, '\0');
  const std::string padded_path = Dir() + "/padded.mp4";
  WriteBytes(padded_path, padded);
  const std::string path = Dir() + "/clip.mp4";
  unsigned char key[32];
  alarm_aes_key("benchmark-password", key);
  std::string key_hex;
  for (unsigned char c : key) {
    char h[3];
    std::snprintf(h, sizeof(h), "%02x", c);
    key_hex += h;
  }
  const std::string command = "openssl enc -aes-256-cbc -nopad -K " + key_hex + " -iv " +
                              std::string(32, '0') + " -in " + padded_path + " -out " + Dir() +
                              "/openssl.out";
  double hub_s = 0, cli_s = 0;
  for (auto _ : state) {
    state.PauseTiming();
    WriteBytes(path, plain);
    state.ResumeTiming();
    const double t0 = Now();
    if (aes_encrypt_file(path.c_str(), "benchmark-password") != 0) {
      state.SkipWithError("encryption failed");
      return;
    }
    const double t1 = Now();
    if (std::system(command.c_str()) != 0) {
      state.SkipWithError("openssl failed");
      return;
    }
    const double t2 = Now();
    hub_s += t1 - t0;
    cli_s += t2 - t1;
  }
  if (ReadBytes(path) != ReadBytes(Dir() + "/openssl.out")) {
    state.SkipWithError("the hub's ciphertext differs from openssl's");
    return;
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["clip_bytes"] = static_cast<double>(plain.size());
  state.counters["hub_ms"] = hub_s / n * 1e3;
  state.counters["openssl_cli_ms"] = cli_s / n * 1e3;
  state.counters["hub_vs_openssl"] = hub_s / cli_s;
  state.counters["hub_MBps"] = static_cast<double>(plain.size()) / (hub_s / n) / 1e6;
}
BENCHMARK(BM_ClipEncryptVsOpenssl)->Unit(benchmark::kMillisecond)->Iterations(20);

// The process's peak resident size (VmHWM), KiB.
long PeakKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, 6, "VmHWM:") == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

// Sets the peak back to the current resident size (Linux: clear_refs 5).
void ResetPeak() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

void BM_ClipEncryptPeakMemory(benchmark::State& state) {
  const std::string& plain = TenSecondClip();
  const std::string path = Dir() + "/peak.mp4";
  long growth = 0;
  for (auto _ : state) {
    WriteBytes(path, plain);
    int fds[2];
    if (pipe(fds) != 0) std::abort();
    const pid_t child = fork();
    if (child == 0) {
      // The child's peak before and after, reported through the pipe. A first encryption of
      // one block loads OpenSSL's algorithms, which any process pays once.
      const std::string warm = Dir() + "/warm";
      WriteBytes(warm, std::string(16, 'w'));
      aes_encrypt_file(warm.c_str(), "benchmark-password");
      ResetPeak();
      const long before = PeakKiB();
      const int rc = aes_encrypt_file(path.c_str(), "benchmark-password");
      const long delta = rc == 0 ? PeakKiB() - before : -1;
      (void)!write(fds[1], &delta, sizeof(delta));
      _exit(0);
    }
    close(fds[1]);
    long delta = -1;
    (void)!read(fds[0], &delta, sizeof(delta));
    close(fds[0]);
    waitpid(child, nullptr, 0);
    if (delta < 0) {
      state.SkipWithError("encryption failed");
      return;
    }
    growth = std::max(growth, delta);
  }
  state.counters["clip_KiB"] = static_cast<double>(plain.size()) / 1024;
  state.counters["peak_growth_KiB"] = static_cast<double>(growth);
  state.SetLabel("streamed through a 64 KiB buffer");
}
BENCHMARK(BM_ClipEncryptPeakMemory)->Iterations(3);

}  // namespace
