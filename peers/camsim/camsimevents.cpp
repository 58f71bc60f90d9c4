// The simulated camera's own doings: sleep and wake, PIR and battery events, streaming its
// media, and pairing.
#include "camsim/camsimcamera.h"

#include <time.h>

#include <cstdio>

namespace camsim {

// --- Sleep, wake and events ------------------------------------------------------------------

void Camera::Impl::WakeUp(WakeReason reason) {
  if (awake_) return;
  awake_ = true;
  last_activity_ = Clock::now();
  static const char* const kWhy[] = {"TCP wake frame", "UDP wake datagram", "command",
                                     "the camera itself"};
  Log(std::string("woken by ") + kWhy[static_cast<int>(reason)]);
  Update([&](Stats& s) {
    s.awake = true;
    if (reason == WakeReason::kTcp) s.wakes_tcp++;
    if (reason == WakeReason::kUdp) s.wakes_udp++;
    if (reason == WakeReason::kCommand) s.wakes_command++;
    if (reason == WakeReason::kSelf) s.wakes_self++;
  });
  if (connected_) {
    DoLogin(true);
  } else if (want_connected_) {
    std::string error;
    if (DoConnect(&error) < 0) Log("connect after waking failed: " + error);
  }
}

int Camera::Impl::DoSleep(const std::string& why) {
  if (!awake_) return 0;
  if (streaming_) StopStreaming("going to sleep");
  awake_ = false;
  next_heartbeat_ = Clock::now() + behaviour_.heartbeat;
  Log("asleep (" + why + ")");
  Update([](Stats& s) {
    s.awake = false;
    s.sleeps++;
  });
  return 0;
}

int Camera::Impl::DoWake() {
  if (!connected_ && !want_connected_) return -1;
  WakeUp(WakeReason::kSelf);
  return 0;
}

int Camera::Impl::DoPir() {
  if (!connected_) return -1;
  WakeUp(WakeReason::kSelf);
  uint8_t frame[command::kFrameOverhead];
  if (SendFrame(frame, BuildCameraFrame(frame, sizeof(frame), Next(), nullptr,
                                        command::kTypePirEvent, 0, nullptr, 0)) < 0) {
    return -1;
  }
  Log("motion event sent");
  Update([](Stats& s) { s.pir_events++; });
  if (!streaming_) StartStreaming(true);
  return 0;
}

int Camera::Impl::DoBattery(uint32_t vbat) {
  vbat_ = vbat;
  Update([&](Stats& s) { s.vbat = vbat; });
  if (!connected_) return -1;
  WakeUp(WakeReason::kSelf);
  if (SendInfo(command::kTypeBatteryEvent, nullptr) < 0) return -1;
  Log("battery event sent, " + std::to_string(vbat) + " mV");
  Update([](Stats& s) { s.battery_events++; });
  return 0;
}

void Camera::Impl::StartStreaming(bool pir) {
  if (streaming_) {
    pir_stream_ = pir_stream_ && pir;
    return;
  }
  streaming_ = true;
  pir_stream_ = pir;
  tick_ = 0;
  frame_index_ = 0;
  next_tick_ = Clock::now();
  stream_end_ = next_tick_ + behaviour_.pir_stream;
  Log(pir ? "streaming for the motion event" : "streaming");
  Update([](Stats& s) {
    s.streaming = true;
    s.streams++;
  });
}

void Camera::Impl::StopStreaming(const std::string& why) {
  if (!streaming_) return;
  streaming_ = false;
  pir_stream_ = false;
  last_activity_ = Clock::now();
  Log("stream stopped after " + std::to_string(frame_index_) + " frames (" + why + ")");
  Update([](Stats& s) { s.streaming = false; });
}

void Camera::Impl::SendTick() {
  const VideoFrame& f = video_->at(static_cast<size_t>(tick_));
  VideoFrameHeader header;
  header.length = static_cast<uint32_t>(f.data.size());
  header.word1 = f.key ? 1 : 0;
  header.word2 = WallMillis();
  header.index = frame_index_;
  const int total = PieceCount(f.data.size());
  timespec last_piece{};
  for (int piece = 1; piece <= total; piece++) {
    const int size =
        BuildVideoPiece(out_.get(), kMaxCameraFrame, Next(), header, f.data.data(), piece, total);
    // Taken as the last piece goes to the socket: the hub may forward the frame before this
    // thread runs again after the call.
    if (piece == total) clock_gettime(CLOCK_MONOTONIC, &last_piece);
    if (SendFrame(out_.get(), size) < 0) return;
  }
  if (send_log_ != nullptr) {
    std::fprintf(send_log_, "%u,%lld\n", header.index,
                 static_cast<long long>(last_piece.tv_sec) * 1000000000LL + last_piece.tv_nsec);
  }
  frame_index_++;
  const uint64_t from = AudioPosition(tick_, kFps);
  const size_t n = static_cast<size_t>(AudioPosition(tick_ + 1, kFps) - from);
  uint8_t alaw[kMaxAudioData];
  audio_->Copy(from, alaw, n);
  const int size = BuildAudioPacket(out_.get(), kMaxCameraFrame, Next(),
                                    static_cast<uint32_t>(tick_), header.word2, alaw, n);
  tick_++;
  if (SendFrame(out_.get(), size) < 0) return;
  Update([&](Stats& s) {
    s.video_frames++;
    s.video_pieces += total;
    s.audio_packets++;
  });
}

// --- Pairing ---------------------------------------------------------------------------------

int Camera::Impl::DoPair(std::string* error) {
  PairingAttempt attempt;
  attempt.camera_ip = config_.ip;
  attempt.hub_ip = hub_.ip;
  attempt.port = hub_.pairing_port;
  attempt.origin = Next();
  attempt.info = Info();
  attempt.deadline = Clock::now() + behaviour_.pair_timeout;
  attempt.close_wait = kPairCloseWait;
  attempt.stopping = [this] { return Stopping(); };
  attempt.on_connect_try = [this] { Update([](Stats& s) { s.pair_attempts++; }); };
  Log("pairing with " + hub_.ip + ":" + std::to_string(hub_.pairing_port));
  std::string ssid, key, why;
  if (PairWithHub(attempt, &ssid, &key, &why) == 0) {
    if (!config_.expect_ssid.empty() && ssid != config_.expect_ssid) {
      why = "pairing gave network " + ssid + ", expected " + config_.expect_ssid;
    } else if (!config_.expect_key.empty() && key != config_.expect_key) {
      why = "pairing gave a wrong passphrase for network " + ssid;
    } else {
      Log("paired: network " + ssid);
      Update([&](Stats& s) {
        s.pairings++;
        s.ssid = ssid;
        s.key = key;
        s.pair_error.clear();
      });
      return 0;
    }
  }
  Log("pairing failed: " + why);
  Update([&](Stats& s) { s.pair_error = why; });
  if (error != nullptr) *error = why;
  return -1;
}

}  // namespace camsim
