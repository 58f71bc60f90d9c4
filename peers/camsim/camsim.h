// A simulated battery camera for the hub: it pairs, connects to the camera listener from its
// own loopback address, logs in, keeps the hub informed while awake, sleeps with heartbeats,
// wakes on the hub's TCP and UDP wake frames, answers the hub's commands, streams H.264 and
// A-law at 15 frames a second when asked, and raises motion and battery events. Any number of
// cameras run in one process, each on a thread of its own; every method may be called from any
// thread and waits until the camera has carried it out.
//
// How the camera behaves on the wire (docs/camsim.md has the whole story):
// - connecting: a TCP connection from the camera's address (port chosen by the system) to the
//   hub's listener, then a login addressed to nobody (the first login of a connection);
// - awake: a keep-alive frame whenever nothing else was sent for the keep-alive interval, so
//   the hub, which counts a camera as asleep after 3 seconds without a frame, sends at once;
// - asleep: no frames; a heartbeat byte every heartbeat interval (at most 26 per sleep, see
//   camsimwire.h); the TCP connection stays open;
// - waking (wake frame by TCP or UDP, a command, a motion or battery event, Wake): a login
//   addressed to the hub, which makes the hub replay the commands it kept;
// - commands: acknowledged (0x80) to the command's source address, property queries answered
//   with the property record, settings kept and reported in later records;
// - upgrade (0x01/0x06): fetches the image from the URL given (HTTP, libcurl, on a thread of its
//   own), checks that it was served and is a simulator image (camsimimage.h), acknowledges with
//   1 and restarts: the connection closes, and after the reboot time the camera connects and
//   logs in with the image's version. An image that cannot be fetched or read is acknowledged
//   with 0, and so is every request when the behaviour says to fail.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace camsim {

// Where the hub listens.
struct HubEndpoint {
  std::string ip = "10.17.1.1";
  uint16_t camera_port = 8000;
  uint16_t pairing_port = 6788;
  uint16_t wake_port = 8000;  // UDP, on the camera's own address
  // TARVO_HUB_IP, TARVO_CAMERA_PORT, TARVO_PAIRING_PORT, TARVO_WAKE_PORT, or the hub's values.
  static HubEndpoint FromEnvironment();
};

// Who the camera is and what it reports.
struct CameraConfig {
  std::string mac;  // twelve hexadecimal digits (colons allowed)
  std::string ip;   // the camera's own address, 127.0.0.N
  // Versions as decimal numbers 0..999999; on the wire a version is the number whose
  // hexadecimal digits spell it (123 travels as 0x123).
  int hard_ver = 100;
  int soft_ver = 100;
  uint32_t vbat = 3900;    // battery voltage, mV
  int rssi = -50;          // Wi-Fi signal, dBm (-128..127)
  int battery_status = 0;  // 0 discharging, 1 charging, 2 full
  int pir = 1;
  int power = 1;
  int night = 0;
  int pir_interval = 60;   // seconds
  std::string video_file;  // H.264 Annex B; empty: generated frames
  std::string audio_file;  // 8 kHz A-law, raw; empty: silence
  // Talk-back audio from the hub is written here, the payloads one after the other as they
  // arrive (made empty at Start); empty: not kept.
  std::string talk_file;
  // A line "index,sent_ns" per video frame goes here (made empty at Start): the camera's frame
  // index and the CLOCK_MONOTONIC time at which the frame's last piece was handed to the
  // socket (taken just before the call), for latency measurements; empty: not kept.
  std::string send_log_file;
  // Credentials the pairing reply must carry; empty: any.
  std::string expect_ssid;
  std::string expect_key;
};

// How the camera behaves.
struct Behaviour {
  std::chrono::milliseconds keepalive{1000};   // awake: longest time without a frame
  std::chrono::milliseconds heartbeat{10000};  // asleep: time between heartbeat bytes
  std::chrono::milliseconds awake_time{0};     // sleep after this long awake with nothing to do
                                               // (0: stay awake until told)
  std::chrono::milliseconds reconnect{0};      // reconnect this long after losing the connection
                                               // (0: stay disconnected)
  // Longest stream after a motion event: longer than the hub's longest event (60 s), which the
  // hub ends itself by telling the camera to stop.
  std::chrono::milliseconds pir_stream{65000};
  std::chrono::milliseconds pair_timeout{20000};  // pairing: reach the server and get a reply
  bool wake_on_tcp = true;                        // a sleeping camera wakes on the TCP wake frame
  bool wake_on_udp = true;                        // ... and on the UDP wake datagram
  bool answer = true;      // acknowledge commands and answer property queries
  uint8_t ack_result = 1;  // result byte of acknowledgements (1 success)
  // Firmware upgrade: refuse every request (acknowledged with result 0) instead of fetching.
  bool fail_upgrade = false;
  std::chrono::milliseconds reboot{1000};  // offline this long while an upgrade restarts it
};

// One frame received from the hub.
struct Received {
  uint8_t type = 0;
  uint8_t subtype = 0;
  std::string src;  // source address, twelve hexadecimal digits
  uint16_t seq = 0;
  std::vector<uint8_t> payload;
  bool asleep = false;  // arrived while the camera slept
};

// What the camera did and received so far.
struct Stats {
  bool connected = false;
  bool awake = false;
  bool streaming = false;

  int pair_attempts = 0;  // connections tried to the pairing server
  int pairings = 0;       // pairings accepted by the hub
  std::string ssid;       // credentials of the last pairing
  std::string key;
  std::string pair_error;  // why the last pairing failed

  int connects = 0;         // connections to the listener
  int hub_closes = 0;       // connections the hub closed
  int replaced_closes = 0;  // connections replaced by a newer one and then closed by the hub
  int logins = 0;
  int sleeps = 0;
  int wakes_tcp = 0;       // wake-ups by a TCP wake frame
  int wakes_udp = 0;       // ... by a UDP wake datagram
  int wakes_command = 0;   // ... by a command that reached the sleeping camera
  int wakes_self = 0;      // ... by Wake, a motion or a battery event
  int wake_frames = 0;     // TCP wake frames received, awake or not
  int wake_datagrams = 0;  // UDP wake datagrams received, awake or not
  int heartbeats = 0;
  int keepalives = 0;  // keep-alive frames, whole or completing heartbeats

  int frames = 0;          // hub frames addressed to this camera
  int foreign_frames = 0;  // hub frames addressed to another camera
  int discards = 0;        // times received bytes were not a frame and were dropped
  int commands_asleep = 0;
  int talk_bytes = 0;         // talk-back audio received
  int talk_frames = 0;        // talk-back frames received
  int refused_frames = 0;     // hub frames a camera refuses (talk-back of another subtype)
  int upgrades = 0;           // upgrade requests received
  int upgrades_done = 0;      // upgrades fetched, checked and restarted into
  std::string upgrade_error;  // why the last upgrade failed
  int soft_ver = 0;           // the firmware version the camera runs now
  int resets = 0;

  int streams = 0;
  int video_frames = 0;
  int video_pieces = 0;
  int audio_packets = 0;
  int pir_events = 0;
  int battery_events = 0;

  // Settings and values as the camera holds them now.
  int pir = 0;
  int pir_interval = 0;
  int night = 0;
  uint32_t vbat = 0;
  int width = 1920;
  int height = 1080;
  int bitrate = 0;
  uint32_t stream_time = 0;  // local time carried by the last start command

  std::map<uint16_t, int> counts;                   // (type << 8 | subtype) -> frames received
  std::vector<Received> received;                   // the last kKeptFrames frames, oldest first
  std::chrono::steady_clock::time_point last_sent;  // last frame sent (not heartbeats)

  static constexpr size_t kKeptFrames = 256;
  int Count(uint8_t type, uint8_t subtype) const;
  std::chrono::milliseconds SinceLastFrame() const;
};

class Camera {
 public:
  // Receives what the camera does and receives, one line at a time, on the camera's thread.
  using Logger = std::function<void(const std::string& mac, const std::string& text)>;

  Camera(CameraConfig config, HubEndpoint hub, Behaviour behaviour = Behaviour());
  ~Camera();  // Stop
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;

  const std::string& mac() const;  // twelve upper-case hexadecimal digits
  const std::string& ip() const;
  // Where log lines go; without one they go to the log records. Set before Start.
  void SetLogger(Logger logger);

  // Checks the configuration, reads the media, binds the UDP wake socket on the camera's
  // address and starts the camera's thread. The camera starts unpaired and disconnected.
  // 0, or -1 with *error set.
  int Start(std::string* error = nullptr);
  // Closes the connections and ends the thread.
  void Stop();

  // Pairs with the hub's pairing server, trying until the server takes the connection (the
  // hub opens it only in pairing mode) and waiting until the hub closes the pairing connection
  // (by then the hub has made the camera's channel). 0, or -1 with *error set.
  int Pair(std::string* error = nullptr);
  // Connects to the camera listener and logs in; a camera already connected opens a new
  // connection and keeps the old one open until the hub drops it. 0, or -1 with *error set.
  int Connect(std::string* error = nullptr);
  // Closes the connection; no reconnect.
  void Disconnect();
  // Stops streaming and sleeps; Wake wakes it (a login when connected). 0, or -1.
  int Sleep();
  int Wake();
  // Sends a login now (awake or not). 0, or -1 when not connected.
  int Login();
  // Motion: wakes, sends the motion event and streams for up to the motion stream time, or
  // until the hub stops the stream. 0, or -1 when not connected.
  int RaisePir();
  // Battery report with a new voltage: wakes and sends the battery event. 0, or -1.
  int RaiseBattery(uint32_t vbat);

  Stats GetStats() const;
  // Waits until pred holds for the stats (checked on every change and every 50 ms).
  bool WaitUntil(const std::function<bool(const Stats&)>& pred,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// A version as it travels: the number whose hexadecimal digits spell the decimal version
// (123 -> 0x123). 0 for a version outside 0..999999.
uint32_t WireVersion(int version);

}  // namespace camsim
