#include "camsim/camsimconsole.h"

#include <arpa/inet.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <sstream>

#include "camsim/camsimarp.h"
#include "camsim/camsimwire.h"

namespace camsim {
namespace {

bool ParseInt(const std::string& text, long low, long high, long* out) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || v < low || v > high) return false;
  *out = v;
  return true;
}

std::vector<std::string> Split(const std::string& text, char sep) {
  std::vector<std::string> parts;
  std::string part;
  std::istringstream in(text);
  while (std::getline(in, part, sep)) parts.push_back(part);
  if (!text.empty() && text.back() == sep) parts.push_back("");
  return parts;
}

std::vector<std::string> Words(const std::string& line) {
  std::vector<std::string> words;
  std::istringstream in(line);
  std::string w;
  while (in >> w) words.push_back(w);
  return words;
}

}  // namespace

int ParseCameraDescription(const std::string& text, CameraConfig* config, std::string* error) {
  auto fail = [&](const std::string& why) {
    if (error != nullptr) *error = "camera \"" + text + "\": " + why;
    return -1;
  };
  const std::vector<std::string> parts = Split(text, ',');
  if (parts.size() < 2) return fail("give MAC,IP");
  CameraConfig c = *config;
  if (!NormalizeMac(parts[0], &c.mac)) return fail("not a MAC: " + parts[0]);
  struct in_addr addr;
  if (inet_pton(AF_INET, parts[1].c_str(), &addr) != 1) return fail("not an address: " + parts[1]);
  c.ip = parts[1];
  for (size_t i = 2; i < parts.size(); i++) {
    const size_t eq = parts[i].find('=');
    if (eq == std::string::npos) return fail("not KEY=VALUE: " + parts[i]);
    const std::string key = parts[i].substr(0, eq);
    const std::string value = parts[i].substr(eq + 1);
    long v = 0;
    auto number = [&](long low, long high) {
      if (ParseInt(value, low, high, &v)) return true;
      fail(key + " must be a number " + std::to_string(low) + ".." + std::to_string(high));
      return false;
    };
    if (key == "hw" || key == "fw") {
      if (!number(0, 999999)) return -1;
      (key == "hw" ? c.hard_ver : c.soft_ver) = static_cast<int>(v);
    } else if (key == "vbat") {
      if (!number(0, 100000)) return -1;
      c.vbat = static_cast<uint32_t>(v);
    } else if (key == "rssi") {
      if (!number(-128, 127)) return -1;
      c.rssi = static_cast<int>(v);
    } else if (key == "battery") {
      if (!number(0, 2)) return -1;
      c.battery_status = static_cast<int>(v);
    } else if (key == "pir" || key == "power" || key == "night") {
      if (!number(0, 255)) return -1;
      (key == "pir" ? c.pir : key == "power" ? c.power : c.night) = static_cast<int>(v);
    } else if (key == "interval") {
      if (!number(0, 65535)) return -1;
      c.pir_interval = static_cast<int>(v);
    } else if (key == "video") {
      c.video_file = value;
    } else if (key == "audio") {
      c.audio_file = value;
    } else if (key == "talk") {
      c.talk_file = value;
    } else if (key == "ssid") {
      c.expect_ssid = value;
    } else if (key == "key") {
      c.expect_key = value;
    } else {
      return fail("unknown key " + key);
    }
  }
  *config = c;
  return 0;
}

struct Simulator::Entry {
  std::unique_ptr<Camera> camera;
  bool started = false;
};

Simulator::Simulator(HubEndpoint hub, Behaviour behaviour, std::string board)
    : hub_(std::move(hub)), behaviour_(behaviour), board_(std::move(board)) {}

Simulator::~Simulator() {
  StopAll();
}

void Simulator::SetLogger(Camera::Logger logger) {
  logger_ = std::move(logger);
}

int Simulator::Add(const CameraConfig& config, std::string* error) {
  std::string mac;
  if (!NormalizeMac(config.mac, &mac)) {
    if (error != nullptr) *error = "not a MAC: " + config.mac;
    return -1;
  }
  for (const auto& e : cameras_) {
    if (e->camera->mac() == mac || e->camera->ip() == config.ip) {
      if (error != nullptr) *error = "camera " + mac + " or address " + config.ip + " given twice";
      return -1;
    }
  }
  if (!board_.empty() && SetArpEntry(board_, config.ip, mac, error) < 0) return -1;
  auto entry = std::unique_ptr<Entry>(new Entry);
  entry->camera.reset(new Camera(config, hub_, behaviour_));
  if (logger_) entry->camera->SetLogger(logger_);
  cameras_.push_back(std::move(entry));
  return 0;
}

int Simulator::StartAll(std::string* error) {
  int result = 0;
  for (auto& e : cameras_) {
    if (e->started) continue;
    std::string why;
    if (e->camera->Start(&why) < 0) {
      if (error != nullptr) *error = e->camera->mac() + ": " + why;
      result = -1;
      continue;
    }
    e->started = true;
  }
  return result;
}

void Simulator::StopAll() {
  for (auto& e : cameras_) e->camera->Stop();
}

Camera* Simulator::Find(const std::string& mac) const {
  std::string digits;
  if (!NormalizeMac(mac, &digits)) return nullptr;
  for (const auto& e : cameras_) {
    if (e->camera->mac() == digits) return e->camera.get();
  }
  return nullptr;
}

std::vector<Camera*> Simulator::Cameras() const {
  std::vector<Camera*> all;
  for (const auto& e : cameras_) all.push_back(e->camera.get());
  return all;
}

const char* Simulator::CommandHelp() {
  return "  pair MAC          pair (the hub must be in pairing mode), then connect\n"
         "  connect MAC       connect to the camera listener and log in (again)\n"
         "  disconnect MAC    close the connection\n"
         "  sleep MAC         go to sleep: no frames, heartbeats only\n"
         "  wake MAC          wake up and log in\n"
         "  login MAC         send a login now\n"
         "  pir MAC           motion: wake, send the motion event and stream\n"
         "  battery MAC MV    battery report with a new voltage in mV, e.g. battery MAC 3700\n"
         "  status [MAC]      one line per camera\n"
         "  help              this list\n"
         "  quit              stop every camera and end\n"
         "MAC may be \"all\" for every camera.\n";
}

std::string Simulator::StatusLine(const Camera& camera) {
  const Stats s = camera.GetStats();
  std::ostringstream out;
  out << camera.mac() << " " << camera.ip() << " " << (s.connected ? "connected" : "disconnected")
      << " " << (s.awake ? "awake" : "asleep") << (s.streaming ? " streaming" : "")
      << " pairings=" << s.pairings << " logins=" << s.logins << " wakes=tcp:" << s.wakes_tcp
      << ",udp:" << s.wakes_udp << " frames=" << s.frames << " heartbeats=" << s.heartbeats
      << " video=" << s.video_frames << " audio=" << s.audio_packets << " talk=" << s.talk_frames
      << " pir=" << s.pir << " night=" << s.night << " vbat=" << s.vbat;
  return out.str();
}

int Simulator::Execute(const std::string& line, std::string* reply) {
  reply->clear();
  const std::vector<std::string> w = Words(line);
  if (w.empty() || w[0][0] == '#') return 0;
  const std::string& cmd = w[0];
  if (cmd == "quit" || cmd == "exit") return 1;
  if (cmd == "help") {
    *reply = CommandHelp();
    return 0;
  }
  std::vector<Camera*> targets;
  if (w.size() >= 2) {
    if (w[1] == "all") {
      targets = Cameras();
    } else if (Camera* c = Find(w[1])) {
      targets.push_back(c);
    } else {
      *reply = "no camera " + w[1];
      return -1;
    }
  }
  if (cmd == "status") {
    if (w.size() == 1) targets = Cameras();
    for (Camera* c : targets) *reply += StatusLine(*c) + "\n";
    if (!reply->empty()) reply->pop_back();
    return 0;
  }
  const size_t want = cmd == "battery" ? 3 : 2;
  static const char* const kKnown[] = {"pair", "connect", "disconnect", "sleep",
                                       "wake", "login",   "pir",        "battery"};
  bool known = false;
  for (const char* k : kKnown) known = known || cmd == k;
  if (!known) {
    *reply = "unknown command " + cmd + " (help lists them)";
    return -1;
  }
  if (w.size() != want) {
    *reply = cmd == "battery" ? "usage: battery MAC MV" : "usage: " + cmd + " MAC";
    return -1;
  }
  long vbat = 0;
  if (cmd == "battery" && !ParseInt(w[2], 0, 100000, &vbat)) {
    *reply = "battery voltage must be 0..100000 mV";
    return -1;
  }
  int result = 0;
  for (Camera* c : targets) {
    std::string why;
    int r = 0;
    if (cmd == "pair") {
      r = c->Pair(&why);
      if (r == 0) r = c->Connect(&why);
    } else if (cmd == "connect") {
      r = c->Connect(&why);
    } else if (cmd == "disconnect") {
      c->Disconnect();
    } else if (cmd == "sleep") {
      r = c->Sleep();
    } else if (cmd == "wake") {
      r = c->Wake();
    } else if (cmd == "login") {
      r = c->Login();
    } else if (cmd == "pir") {
      r = c->RaisePir();
    } else {
      r = c->RaiseBattery(static_cast<uint32_t>(vbat));
    }
    if (!reply->empty()) *reply += "\n";
    if (r < 0) {
      *reply += c->mac() + ": " + cmd + " failed" + (why.empty() ? " (not connected)" : ": " + why);
      result = -1;
    } else {
      *reply += c->mac() + ": " + cmd + " ok";
    }
  }
  return result;
}

}  // namespace camsim
