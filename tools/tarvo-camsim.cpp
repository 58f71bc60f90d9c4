// tarvo-camsim: simulated battery cameras for the hub, for development and tests.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "camsim/camsim.h"
#include "camsim/camsimconsole.h"
#include "camsim/camsimwire.h"

namespace {

const char kUsage[] =
    "Usage: tarvo-camsim [OPTION]... --camera MAC,IP[,KEY=VALUE]...\n"
    "Simulates battery cameras for the hub. Each camera has its MAC and its own loopback\n"
    "address; it pairs, connects to the camera listener from that address, logs in, keeps the\n"
    "hub informed while awake, sleeps with heartbeats, wakes on the hub's TCP and UDP wake\n"
    "frames, answers the hub's commands, streams H.264 and A-law at 15 frames a second\n"
    "when asked, and upgrades its firmware from the hub's web server.\n"
    "\n"
    "Cameras:\n"
    "  --camera MAC,IP[,KEY=VALUE]...\n"
    "                       a camera (repeatable). MAC: twelve hexadecimal digits, colons\n"
    "                       allowed. IP: the camera's own address, 127.0.0.N, one per camera;\n"
    "                       the hub tells cameras apart by the MAC its ARP table gives for the\n"
    "                       address, so the camera's line is written there (--board).\n"
    "                       Keys: hw=N fw=N (decimal versions, default 100), vbat=MV (3900),\n"
    "                       rssi=DBM (-50), battery=0|1|2 (discharging, charging, full),\n"
    "                       pir=N (1), power=N (1), night=N (0), interval=SECONDS (60),\n"
    "                       video=FILE, audio=FILE, talk=FILE (where talk-back audio goes),\n"
    "                       ssid=SSID and key=KEY (the credentials pairing must give;\n"
    "                       default: any)\n"
    "  --video FILE         H.264 Annex B file for cameras without video= (default: generated\n"
    "                       frames, a key frame every 15)\n"
    "  --audio FILE         raw 8 kHz G.711 A-law file for cameras without audio= (default:\n"
    "                       silence); scripts/make-test-media.sh makes both\n"
    "  --talk DIR           cameras without talk= write the talk-back audio they receive to\n"
    "                       DIR/MAC.alaw (raw A-law, the frames' payloads one after the\n"
    "                       other; made empty at start; default: not kept)\n"
    "  --send-log DIR       each camera writes DIR/MAC.csv, a line \"index,sent_ns\" per video\n"
    "                       frame: the CLOCK_MONOTONIC nanoseconds at which its last piece\n"
    "                       went to the socket (for latency measurements; default: not kept)\n"
    "  --board DIR          board root: each camera's line goes into DIR/proc/net/arp\n"
    "                       (default TARVO_ROOT; --board '' writes nothing)\n"
    "\n"
    "Hub:\n"
    "  --hub-ip IP          hub address (TARVO_HUB_IP, else 10.17.1.1)\n"
    "  --camera-port PORT   camera listener (TARVO_CAMERA_PORT, else 8000)\n"
    "  --pairing-port PORT  pairing server (TARVO_PAIRING_PORT, else 6788)\n"
    "  --wake-port PORT     UDP wake port on each camera's address (TARVO_WAKE_PORT, else 8000)\n"
    "\n"
    "Behaviour:\n"
    "  --pair               pair each camera at start, one after the other (the hub must be in\n"
    "                       pairing mode for each: one camera per pairing period)\n"
    "  --no-connect         do not connect at start (\"connect MAC\" does)\n"
    "  --awake SECONDS      sleep after this long awake with nothing to do (default 10; 0: stay\n"
    "                       awake until told)\n"
    "  --heartbeat SECONDS  heartbeat byte interval while asleep (default 10)\n"
    "  --keepalive MS       longest time without a frame while awake (default 1000; the hub\n"
    "                       takes a camera silent for 3 seconds as asleep)\n"
    "  --reconnect SECONDS  reconnect this long after losing the connection (default 5; 0: never)\n"
    "  --pir-stream SECONDS longest stream after a motion event (default 65, past the\n"
    "                       hub's longest event of 60 s, which the hub ends itself)\n"
    "  --no-tcp-wake        a sleeping camera ignores the TCP wake frame\n"
    "  --no-udp-wake        a sleeping camera ignores the UDP wake datagrams\n"
    "  --silent             acknowledge nothing and answer no property query\n"
    "  --fail-upgrade       refuse every firmware upgrade (acknowledged with result 0)\n"
    "  --reboot SECONDS     an upgrade's restart keeps the camera offline this long (default 1)\n"
    "  --stay               keep running at the end of standard input (until \"quit\", SIGINT or\n"
    "                       SIGTERM); without it the end of input ends the simulator\n"
    "  -q, --quiet          print only the replies to commands\n"
    "  -h, --help           this text\n"
    "\n"
    "Commands on standard input, one a line, while the simulator runs:\n";

const char kUsageEnd[] =
    "\n"
    "Output: one line per camera event, \"[SECONDS] MAC TEXT\" (what it sends and receives), and\n"
    "the reply to each command. Exit status 0, 1 when a camera failed to pair or connect at\n"
    "start, 2 on a usage error.\n"
    "\n"
    "Example (a hub on a board in /tmp/board with TARVO_HUB_IP=127.0.0.1):\n"
    "  tarvo-camsim --board /tmp/board --hub-ip 127.0.0.1 \\\n"
    "      --camera 0A0000000001,127.0.0.2 --camera 0A0000000002,127.0.0.3,fw=203\n"
    "  pir 0A0000000001\n"
    "  battery 0A0000000002 3650\n"
    "  sleep all\n"
    "  quit\n";

std::atomic<bool> g_stop{false};

void OnSignal(int) {
  g_stop.store(true);
}

int Usage(const std::string& error) {
  std::fprintf(stderr, "tarvo-camsim: %s\nTry tarvo-camsim --help.\n", error.c_str());
  return 2;
}

bool ParsePort(const std::string& text, uint16_t* port) {
  char* end = nullptr;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || v < 1 || v > 65535) return false;
  *port = static_cast<uint16_t>(v);
  return true;
}

bool ParseSeconds(const std::string& text, long max, long* out) {
  char* end = nullptr;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || v < 0 || v > max) return false;
  *out = v;
  return true;
}

std::mutex g_out_mutex;
const auto g_start = std::chrono::steady_clock::now();

void Print(const std::string& text) {
  std::lock_guard<std::mutex> lock(g_out_mutex);
  std::fputs(text.c_str(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  camsim::HubEndpoint hub = camsim::HubEndpoint::FromEnvironment();
  camsim::Behaviour behaviour;
  behaviour.awake_time = std::chrono::seconds(10);
  behaviour.reconnect = std::chrono::seconds(5);
  const char* root = std::getenv("TARVO_ROOT");
  std::string board = root != nullptr ? root : "";
  std::string video, audio, talk_dir, send_log_dir;
  std::vector<std::string> cameras;
  bool pair = false, connect = true, stay = false, quiet = false;

  std::vector<std::string> args(argv + 1, argv + argc);
  for (size_t i = 0; i < args.size(); i++) {
    std::string opt = args[i];
    std::string value;
    bool has_value = false;
    const size_t eq = opt.find('=');
    if (opt.compare(0, 2, "--") == 0 && eq != std::string::npos) {
      value = opt.substr(eq + 1);
      opt = opt.substr(0, eq);
      has_value = true;
    }
    auto take = [&]() -> bool {
      if (has_value) return true;
      if (i + 1 >= args.size()) return false;
      value = args[++i];
      return true;
    };
    long n = 0;
    if (opt == "-h" || opt == "--help") {
      std::fputs(kUsage, stdout);
      std::fputs(camsim::Simulator::CommandHelp(), stdout);
      std::fputs(kUsageEnd, stdout);
      return 0;
    } else if (opt == "--camera") {
      if (!take()) return Usage("--camera needs MAC,IP");
      cameras.push_back(value);
    } else if (opt == "--talk") {
      if (!take() || value.empty()) return Usage("--talk needs a folder");
      talk_dir = value;
    } else if (opt == "--send-log") {
      if (!take() || value.empty()) return Usage("--send-log needs a folder");
      send_log_dir = value;
    } else if (opt == "--video" || opt == "--audio" || opt == "--board" || opt == "--hub-ip") {
      if (!take()) return Usage(opt + " needs a value");
      (opt == "--video"   ? video
       : opt == "--audio" ? audio
       : opt == "--board" ? board
                          : hub.ip) = value;
    } else if (opt == "--camera-port" || opt == "--pairing-port" || opt == "--wake-port") {
      uint16_t port = 0;
      if (!take() || !ParsePort(value, &port)) return Usage(opt + " needs a port 1..65535");
      (opt == "--camera-port"    ? hub.camera_port
       : opt == "--pairing-port" ? hub.pairing_port
                                 : hub.wake_port) = port;
    } else if (opt == "--awake" || opt == "--heartbeat" || opt == "--reconnect" ||
               opt == "--pir-stream" || opt == "--reboot") {
      if (!take() || !ParseSeconds(value, 86400, &n)) return Usage(opt + " needs seconds");
      const std::chrono::milliseconds ms = std::chrono::seconds(n);
      if (opt == "--awake") behaviour.awake_time = ms;
      if (opt == "--heartbeat") behaviour.heartbeat = ms;
      if (opt == "--reconnect") behaviour.reconnect = ms;
      if (opt == "--pir-stream") behaviour.pir_stream = ms;
      if (opt == "--reboot") behaviour.reboot = ms;
    } else if (opt == "--keepalive") {
      if (!take() || !ParseSeconds(value, 2900, &n) || n < 10) {
        return Usage("--keepalive needs 10..2900 milliseconds");
      }
      behaviour.keepalive = std::chrono::milliseconds(n);
    } else if (opt == "--pair") {
      pair = true;
    } else if (opt == "--no-connect") {
      connect = false;
    } else if (opt == "--no-tcp-wake") {
      behaviour.wake_on_tcp = false;
    } else if (opt == "--no-udp-wake") {
      behaviour.wake_on_udp = false;
    } else if (opt == "--silent") {
      behaviour.answer = false;
    } else if (opt == "--fail-upgrade") {
      behaviour.fail_upgrade = true;
    } else if (opt == "--stay") {
      stay = true;
    } else if (opt == "-q" || opt == "--quiet") {
      quiet = true;
    } else {
      return Usage("unknown option " + opt);
    }
  }
  if (cameras.empty()) return Usage("no camera (--camera MAC,IP)");
  if (behaviour.heartbeat.count() == 0) behaviour.heartbeat = std::chrono::seconds(1);

  camsim::Simulator sim(hub, behaviour, board);
  if (!quiet) {
    sim.SetLogger([](const std::string& mac, const std::string& text) {
      const double t =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - g_start).count();
      char stamp[32];
      std::snprintf(stamp, sizeof(stamp), "[%8.3f] ", t);
      Print(stamp + mac + " " + text);
    });
  }
  for (const std::string& text : cameras) {
    camsim::CameraConfig config;
    config.video_file = video;
    config.audio_file = audio;
    std::string error;
    if (camsim::ParseCameraDescription(text, &config, &error) < 0) return Usage(error);
    std::string digits;
    if (!send_log_dir.empty() && camsim::NormalizeMac(config.mac, &digits)) {
      config.send_log_file = send_log_dir + "/" + digits + ".csv";
    }
    if (config.talk_file.empty() && !talk_dir.empty()) {
      std::string digits;
      if (camsim::NormalizeMac(config.mac, &digits)) {
        config.talk_file = talk_dir + "/" + digits + ".alaw";
      }
    }
    if (sim.Add(config, &error) < 0) return Usage(error);
  }
  std::string error;
  if (sim.StartAll(&error) < 0) {
    std::fprintf(stderr, "tarvo-camsim: %s\n", error.c_str());
    return 2;
  }

  struct sigaction sa;
  std::memset(&sa, 0, sizeof(sa));
  sa.sa_handler = OnSignal;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);

  int status = 0;
  for (camsim::Camera* camera : sim.Cameras()) {
    std::string reply;
    if (pair) {
      if (sim.Execute("pair " + camera->mac(), &reply) < 0) status = 1;
    } else if (connect) {
      if (sim.Execute("connect " + camera->mac(), &reply) < 0) status = 1;
    }
    if (!reply.empty()) Print(reply);
  }

  // Commands from standard input until "quit", the end of input (unless --stay) or a signal.
  std::string pending;
  bool input_open = true;
  while (!g_stop.load()) {
    if (!input_open) {
      if (!stay) break;
      struct pollfd none = {-1, 0, 0};
      poll(&none, 1, 200);
      continue;
    }
    struct pollfd in = {STDIN_FILENO, POLLIN, 0};
    const int ready = poll(&in, 1, 200);
    if (ready < 0 && errno != EINTR) break;
    if (ready <= 0) continue;
    char buf[1024];
    const ssize_t n = read(STDIN_FILENO, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      input_open = false;
      if (!pending.empty()) pending += '\n';
    } else {
      pending.append(buf, static_cast<size_t>(n));
    }
    size_t nl;
    bool quit = false;
    while (!quit && (nl = pending.find('\n')) != std::string::npos) {
      const std::string line = pending.substr(0, nl);
      pending.erase(0, nl + 1);
      std::string reply;
      const int r = sim.Execute(line, &reply);
      if (r == 1) quit = true;
      if (!reply.empty()) Print(reply);
    }
    if (quit) break;
    if (pending.size() > 4096) {
      Print("line too long, dropped");
      pending.clear();
    }
  }
  sim.StopAll();
  return status;
}
