// Download throughput on loopback: a 32 MiB file read from disk and sent over a session's
// reliable transfer (RDT_Write on the hub, the viewer library reading), against the same file
// copied over a plain TCP connection in the same run. bytes_per_second is the figure.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "benchsupport.h"
#include "benchtransport.h"
#include "p2p/iotc.h"
#include "viewer/p2pviewer.h"

namespace {

constexpr size_t kFileBytes = 32 * 1024 * 1024;
constexpr size_t kPiece = 64 * 1024;  // as the hub's file transfer reads and writes
const char kUid[] = "TARVOBENCH0000000002";
const char kPassword[] = "314159";

// The file both copies send, in the system's temporary folder; removed at exit.
char g_name[] = "/tmp/tarvo-download-bench-XXXXXX";

void RemoveFile() {
  unlink(g_name);
}

const char* TheFile() {
  static const bool made = [] {
    const int fd = mkstemp(g_name);
    if (fd < 0) std::abort();
    std::atexit(RemoveFile);
    std::vector<char> block(kPiece);
    std::mt19937 random(7);
    for (size_t done = 0; done < kFileBytes; done += block.size()) {
      for (auto& c : block) c = static_cast<char>(random());
      if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) std::abort();
    }
    close(fd);
    return true;
  }();
  (void)made;
  return g_name;
}

// Reads the file in pieces and hands each to send; false when send fails.
template <typename Send>
bool SendFile(Send send) {
  const int fd = open(TheFile(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  std::vector<char> piece(kPiece);
  bool ok = true;
  for (;;) {
    const ssize_t n = read(fd, piece.data(), piece.size());
    if (n <= 0) break;
    if (!send(piece.data(), static_cast<size_t>(n))) {
      ok = false;
      break;
    }
  }
  close(fd);
  return ok;
}

// One hub session with a viewer, made once.
struct Session {
  p2p::Viewer viewer;
  int sid = -1;
  uint8_t channel = 1;

  Session() {
    const uint16_t port = benchsupport::StartTransport(1, 4, kUid, kPassword);
    if (RDT_Initialize() < 1 || viewer.Connect("127.0.0.1", port, kUid, kPassword) != 0) {
      std::abort();
    }
    sid = benchsupport::AcceptSession([this] { return viewer.Login("v", "x", 10000); }).sid;
  }
};

Session& TheSession() {
  static Session* s = new Session();  // its threads run until the process ends
  return *s;
}

void BM_DownloadOverRdt(benchmark::State& state) {
  Session& s = TheSession();
  TheFile();
  std::vector<char> buf(kPiece);
  for (auto _ : state) {
    // A fresh channel per file, as every download makes one.
    const uint8_t ch = s.channel = static_cast<uint8_t>(s.channel % 30 + 1);
    auto viewer_end = std::async(std::launch::async, [&] { return s.viewer.RdtCreate(ch, 10000); });
    const int id = RDT_Create(s.sid, 10000, ch);
    if (id < 0 || viewer_end.get() != ch) std::abort();
    auto sender = std::async(std::launch::async, [id] {
      const bool ok = SendFile([id](const char* d, size_t n) {
        return RDT_Write(id, d, static_cast<int>(n)) == static_cast<int>(n);
      });
      return ok && RDT_Destroy(id) == 0;
    });
    size_t got = 0;
    for (;;) {
      const int n = s.viewer.RdtRead(ch, buf.data(), buf.size(), 10000);
      if (n < 0) break;
      got += static_cast<size_t>(n);
    }
    if (!sender.get() || got != kFileBytes) std::abort();
    s.viewer.RdtDestroy(ch);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileBytes));
}
BENCHMARK(BM_DownloadOverRdt)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

void BM_PlainTcpCopy(benchmark::State& state) {
  TheFile();
  std::vector<char> buf(kPiece);
  for (auto _ : state) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len) != 0 ||
        listen(listener, 1) != 0)
      std::abort();
    auto sender = std::async(std::launch::async, [listener] {
      const int fd = accept(listener, nullptr, nullptr);
      const int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      const bool ok = SendFile([fd](const char* d, size_t n) {
        for (size_t done = 0; done < n;) {
          const ssize_t w = send(fd, d + done, n - done, MSG_NOSIGNAL);
          if (w <= 0) return false;
          done += static_cast<size_t>(w);
        }
        return true;
      });
      close(fd);
      return ok;
    });
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) std::abort();
    size_t got = 0;
    for (;;) {
      const ssize_t n = recv(fd, buf.data(), buf.size(), 0);
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    close(fd);
    close(listener);
    if (!sender.get() || got != kFileBytes) std::abort();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFileBytes));
}
BENCHMARK(BM_PlainTcpCopy)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

}  // namespace
