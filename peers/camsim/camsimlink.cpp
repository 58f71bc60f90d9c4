// The simulated camera's link to the hub: sending frames, connecting and dropping, receiving
// and executing the hub's commands.
#include "camsim/camsimcamera.h"

namespace camsim {

// --- Sending ---------------------------------------------------------------------------------

Origin Camera::Impl::Next() {
  Origin origin;
  origin.camera = addr_;
  origin.seq = seq_++;
  origin.timestamp = static_cast<uint32_t>(std::time(nullptr));
  return origin;
}

int Camera::Impl::SendBytes(const uint8_t* bytes, size_t n) {
  if (tcp_fd_ < 0) return -1;
  size_t done = 0;
  while (done < n) {
    const ssize_t w = send(tcp_fd_, bytes + done, n - done, MSG_NOSIGNAL);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      Dropped(std::string("send failed: ") + std::strerror(errno), false);
      return -1;
    }
    done += static_cast<size_t>(w);
  }
  return static_cast<int>(n);
}

int Camera::Impl::SendKeepAlive() {
  uint8_t frame[kKeepAliveSize];
  KeepAliveFrame(frame);
  const size_t skip = pending_heartbeats_;
  if (SendBytes(frame + skip, kKeepAliveSize - skip) < 0) return -1;
  pending_heartbeats_ = 0;
  last_sent_ = Clock::now();
  Update([&](Stats& s) {
    s.keepalives++;
    s.last_sent = last_sent_;
  });
  return 0;
}

int Camera::Impl::SendHeartbeat() {
  const uint8_t beat = kHeartbeatByte;
  if (SendBytes(&beat, 1) < 0) return -1;
  pending_heartbeats_++;
  Update([](Stats& s) { s.heartbeats++; });
  return 0;
}

int Camera::Impl::SendFrame(const uint8_t* frame, int size) {
  if (size < 0 || tcp_fd_ < 0) return -1;
  if (pending_heartbeats_ > 0 && SendKeepAlive() < 0) return -1;
  if (SendBytes(frame, static_cast<size_t>(size)) < 0) return -1;
  last_sent_ = Clock::now();
  Update([&](Stats& s) { s.last_sent = last_sent_; });
  return 0;
}

_net_cmd_get_info_type Camera::Impl::Info() const {
  _net_cmd_get_info_type info;
  std::memcpy(info.mac, addr_, 6);
  struct in_addr ip;
  if (inet_pton(AF_INET, config_.ip.c_str(), &ip) == 1) std::memcpy(info.ip, &ip, 4);
  info.hard_ver = WireVersion(config_.hard_ver);
  info.soft_ver = WireVersion(soft_ver_);
  info.battery_status = static_cast<uint8_t>(config_.battery_status);
  info.pir = static_cast<uint8_t>(pir_);
  info.power = static_cast<uint8_t>(config_.power);
  info.night = static_cast<uint8_t>(night_);
  info.vbat = vbat_;
  info.pir_interval = static_cast<uint16_t>(pir_interval_);
  info.rssi = static_cast<int8_t>(config_.rssi);
  return info;
}

int Camera::Impl::SendInfo(uint8_t type, const uint8_t* dst) {
  uint8_t payload[_net_cmd_get_info_type::kWireSize];
  Info().Encode(payload);
  uint8_t frame[_net_cmd_get_info_type::kWireSize + command::kFrameOverhead];
  return SendFrame(frame, BuildCameraFrame(frame, sizeof(frame), Next(), dst, type, 0, payload,
                                           sizeof(payload)));
}

void Camera::Impl::Ack(const _net_cmd_type* command, bool ok) {
  if (!behaviour_.answer) return;
  uint8_t frame[3 + command::kFrameOverhead];
  const uint8_t result = ok ? behaviour_.ack_result : 0;
  SendFrame(frame, BuildAck(frame, sizeof(frame), Next(), command, result));
}

int Camera::Impl::DoLogin(bool addressed) {
  if (!connected_) return -1;
  _net_cmd_login_type login;
  login.hard_ver = WireVersion(config_.hard_ver);
  login.soft_ver = WireVersion(soft_ver_);
  uint8_t payload[_net_cmd_login_type::kWireSize];
  login.Encode(payload);
  const uint8_t* dst = addressed && hub_known_ ? hub_addr_ : nullptr;
  uint8_t frame[_net_cmd_login_type::kWireSize + command::kFrameOverhead];
  if (SendFrame(frame, BuildCameraFrame(frame, sizeof(frame), Next(), dst, command::kTypeLogin, 0,
                                        payload, sizeof(payload))) < 0) {
    return -1;
  }
  Log(std::string("login sent") +
      (dst != nullptr ? " to the hub " + command::AddressText(dst) : " unaddressed"));
  Update([](Stats& s) { s.logins++; });
  return 0;
}

// --- Connections -----------------------------------------------------------------------------

void Camera::Impl::CloseTcp() {
  std::lock_guard<std::mutex> lock(fd_mutex_);
  if (tcp_fd_ >= 0) close(tcp_fd_);
  tcp_fd_ = -1;
}

void Camera::Impl::Dropped(const std::string& why, bool by_hub) {
  if (tcp_fd_ < 0) return;
  CloseTcp();
  rx_->Clear();
  connected_ = false;
  pending_heartbeats_ = 0;
  if (streaming_) StopStreaming("connection lost");
  Log("connection lost: " + why);
  if (want_connected_ && behaviour_.reconnect.count() > 0) {
    reconnect_at_ = Clock::now() + behaviour_.reconnect;
  }
  Update([&](Stats& s) {
    s.connected = false;
    if (by_hub) s.hub_closes++;
  });
}

int Camera::Impl::DoConnect(std::string* error) {
  auto fail = [&](const std::string& text) {
    if (error != nullptr) *error = text;
    // A camera that reconnects keeps trying until the hub listens.
    if (behaviour_.reconnect.count() > 0 && !connected_) {
      want_connected_ = true;
      reconnect_at_ = Clock::now() + behaviour_.reconnect;
    }
    return -1;
  };
  struct sockaddr_in local, remote;
  SockAddr(config_.ip, 0, &local);
  if (!SockAddr(hub_.ip, hub_.camera_port, &remote)) return fail("not a hub address: " + hub_.ip);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return fail(std::string("socket: ") + std::strerror(errno));
  if (bind(fd, reinterpret_cast<struct sockaddr*>(&local), sizeof(local)) != 0 ||
      connect(fd, reinterpret_cast<struct sockaddr*>(&remote), sizeof(remote)) != 0) {
    const std::string why = std::strerror(errno);
    close(fd);
    return fail("connect from " + config_.ip + " to " + hub_.ip + ":" +
                std::to_string(hub_.camera_port) + ": " + why);
  }
  struct timeval tv;
  tv.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(kSendTimeout).count();
  tv.tv_usec = 0;
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
  if (tcp_fd_ >= 0) {
    // The old connection stays open: the hub drops it when it takes the new one.
    old_fds_.push_back(tcp_fd_);
  }
  {
    std::lock_guard<std::mutex> lock(fd_mutex_);
    tcp_fd_ = fd;
  }
  rx_->Clear();
  connected_ = true;
  want_connected_ = true;
  pending_heartbeats_ = 0;
  awake_ = true;
  last_activity_ = Clock::now();
  Log("connected to " + hub_.ip + ":" + std::to_string(hub_.camera_port));
  Update([](Stats& s) {
    s.connects++;
    s.connected = true;
    s.awake = true;
  });
  // The first login of a connection is unaddressed.
  if (DoLogin(false) < 0) return fail("login failed");
  return 0;
}

void Camera::Impl::DoDisconnect() {
  want_connected_ = false;
  if (streaming_) StopStreaming("disconnecting");
  if (tcp_fd_ >= 0) Log("disconnected");
  CloseTcp();
  rx_->Clear();
  for (int fd : old_fds_) close(fd);
  old_fds_.clear();
  connected_ = false;
  pending_heartbeats_ = 0;
  Update([](Stats& s) { s.connected = false; });
}

void Camera::Impl::ReadOld(size_t index) {
  const int fd = old_fds_[index];
  uint8_t sink[4096];
  const ssize_t n = recv(fd, sink, sizeof(sink), MSG_DONTWAIT);
  if (n > 0) return;  // frames on a replaced connection are not for the camera any more
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
  close(fd);
  old_fds_.erase(old_fds_.begin() + static_cast<std::ptrdiff_t>(index));
  Log("the hub closed the replaced connection");
  Update([](Stats& s) { s.replaced_closes++; });
}

// --- Receiving -------------------------------------------------------------------------------

void Camera::Impl::ReadTcp() {
  if (rx_->Space() == 0) rx_->Clear();
  const ssize_t n = recv(tcp_fd_, rx_->WritePtr(), rx_->Space(), MSG_DONTWAIT);
  if (n == 0) {
    Dropped("the hub closed the connection", true);
    return;
  }
  if (n < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
    Dropped(std::string("receive failed: ") + std::strerror(errno), true);
    return;
  }
  rx_->Commit(static_cast<size_t>(n));
  const uint64_t discards = rx_->Discards();
  rx_->Cut([this](const _net_cmd_type* frame) { HandleFrame(frame); });
  if (rx_->Discards() != discards) {
    Log("received bytes that are no frame, dropped");
    Update([](Stats& s) { s.discards++; });
  }
}

void Camera::Impl::ReadUdp() {
  uint8_t buf[kDatagramMax];
  struct sockaddr_in from;
  socklen_t len = sizeof(from);
  const ssize_t n = recvfrom(udp_fd_, buf, sizeof(buf), MSG_DONTWAIT,
                             reinterpret_cast<struct sockaddr*>(&from), &len);
  if (n <= 0) return;
  const uint16_t count = static_cast<uint16_t>(n);
  const _net_cmd_type* frame = command::AsFrame(buf);
  if (command::CheckCommand(buf, count) != 1 || frame->type != command::kTypeWake ||
      frame->subtype != 0) {
    Log("datagram of " + std::to_string(n) + " bytes is no wake frame, ignored");
    return;
  }
  if (std::memcmp(frame->dst_addr, addr_, 6) != 0) {
    Log("wake datagram for " + command::AddressText(frame->dst_addr) + " ignored");
    return;
  }
  Update([](Stats& s) { s.wake_datagrams++; });
  if (!hub_known_) {
    std::memcpy(hub_addr_, frame->src_addr, 6);
    hub_known_ = true;
  }
  if (awake_) return;
  if (!behaviour_.wake_on_udp) {
    Log("wake datagram ignored while asleep");
    return;
  }
  WakeUp(WakeReason::kUdp);
}

void Camera::Impl::HandleFrame(const _net_cmd_type* frame) {
  if (std::memcmp(frame->dst_addr, addr_, 6) != 0) {
    Log("frame " + FrameName(frame->type, frame->subtype) + " for " +
        command::AddressText(frame->dst_addr) + " ignored");
    Update([](Stats& s) { s.foreign_frames++; });
    return;
  }
  uint32_t ack_id = 0;
  if (!command::IsAckIdAddress(frame->src_addr, &ack_id) &&
      std::memcmp(frame->src_addr, kAllOnes, 6) != 0 &&
      std::memcmp(frame->src_addr, kZero, 6) != 0) {
    std::memcpy(hub_addr_, frame->src_addr, 6);
    hub_known_ = true;
  }
  Received r;
  r.type = frame->type;
  r.subtype = frame->subtype;
  r.src = command::AddressText(frame->src_addr);
  r.seq = frame->Seq();
  r.payload.assign(frame->Payload(), frame->Payload() + frame->Length());
  r.asleep = !awake_;
  const bool wake = frame->type == command::kTypeWake && frame->subtype == 0;
  // A camera plays only what comes as talk-back audio (subtype 1); any other subtype of the
  // talk-back type is refused, unplayed and unanswered.
  const bool talk = frame->type == command::kTypeTalk && frame->subtype == 1;
  if (frame->type == command::kTypeTalk && !talk) {
    Log("talk-back frame of subtype " + std::to_string(frame->subtype) + " refused");
    Update([](Stats& s) { s.refused_frames++; });
    return;
  }
  if (!talk) {
    Log("recv " + FrameName(frame->type, frame->subtype) + " seq " + std::to_string(r.seq) +
        " from " + r.src +
        (r.payload.empty() ? "" : ", " + std::to_string(r.payload.size()) + " bytes") +
        (r.asleep ? " (asleep)" : ""));
  }
  Update([&](Stats& s) {
    s.frames++;
    s.counts[static_cast<uint16_t>(frame->type << 8 | frame->subtype)]++;
    if (wake) s.wake_frames++;
    if (talk) {
      s.talk_bytes += static_cast<int>(frame->Length());
      s.talk_frames++;
    }
    if (r.asleep && !wake) s.commands_asleep++;
    if (s.received.size() >= Stats::kKeptFrames) s.received.erase(s.received.begin());
    s.received.push_back(std::move(r));
  });
  if (wake) {
    if (awake_) return;
    if (!behaviour_.wake_on_tcp) {
      Log("wake frame ignored while asleep");
      return;
    }
    WakeUp(WakeReason::kTcp);
    return;
  }
  if (talk) {
    WriteTalk(frame);
    return;
  }
  if (!awake_) WakeUp(WakeReason::kCommand);
  last_activity_ = Clock::now();
  Execute(frame);
}

void Camera::Impl::WriteTalk(const _net_cmd_type* frame) {
  if (talk_out_ == nullptr || frame->Length() == 0) return;
  // Flushed at once, so a reader of the file sees every frame received so far.
  if (std::fwrite(frame->Payload(), 1, frame->Length(), talk_out_) != frame->Length() ||
      std::fflush(talk_out_) != 0) {
    Log("writing the talk-back file failed: " + std::string(std::strerror(errno)));
  }
}

void Camera::Impl::Execute(const _net_cmd_type* frame) {
  using namespace command;
  const uint8_t* p = frame->Payload();
  const size_t n = frame->Length();
  const uint8_t type = frame->type;
  const uint8_t sub = frame->subtype;
  if (type == kTypeControl && sub == kSubSleep) {
    Ack(frame, true);
    DoSleep("asked by the hub");
  } else if (type == kTypeControl && sub == kSubStartStream) {
    if (n < kStartStreamSize) {
      Ack(frame, false);
      return;
    }
    const uint32_t local = GetLe32(p);
    Update([&](Stats& s) { s.stream_time = local; });
    Ack(frame, true);
    StartStreaming(false);
  } else if (type == kTypeControl && sub == kSubStopStream) {
    Ack(frame, true);
    StopStreaming("asked by the hub");
  } else if (type == kTypeControl && sub == kSubUpgrade) {
    const std::string url = n > 1 ? PaddedText(p + 1, n - 1) : std::string();
    Update([](Stats& s) { s.upgrades++; });
    if (behaviour_.fail_upgrade || upgrading_.load() || rebooting_) {
      const std::string why = behaviour_.fail_upgrade ? "told to fail" : "an upgrade runs";
      Log("upgrade from " + url + " refused: " + why);
      Update([&](Stats& s) { s.upgrade_error = why; });
      Ack(frame, false);
      return;
    }
    StartUpgrade(url, frame);
  } else if (type == kTypePir && (sub == kSubPirMain || sub == kSubPirMain1 || sub == kSubPirNew)) {
    const size_t need = sub == kSubPirNew ? 2 : 1;
    if (n < need) {
      Ack(frame, false);
      return;
    }
    pir_ = p[0];
    if (sub == kSubPirNew) pir_interval_ = p[1] >= 10 ? p[1] - 10 : 0;
    Update([&](Stats& s) {
      s.pir = pir_;
      s.pir_interval = pir_interval_;
    });
    Ack(frame, true);
  } else if (type == kTypeProp && sub == 0) {
    if (behaviour_.answer) SendInfo(kTypeProp, frame->src_addr);
  } else if (type == kTypeSetting && sub == kSubVideoQuality) {
    if (n < kVideoQualitySize) {
      Ack(frame, false);
      return;
    }
    Update([&](Stats& s) {
      s.width = static_cast<int>(GetLe32(p + 4));
      s.height = static_cast<int>(GetLe32(p + 8));
      s.bitrate = static_cast<int>(GetLe32(p + 16));
    });
    Ack(frame, true);
  } else if (type == kTypeSetting && sub == kSubReset) {
    Update([](Stats& s) { s.resets++; });
    Ack(frame, true);
  } else if (type == kTypeSetting && sub == kSubNight) {
    if (n < 1) {
      Ack(frame, false);
      return;
    }
    night_ = p[0];
    Update([&](Stats& s) { s.night = night_; });
    Ack(frame, true);
  } else {
    Log("command " + FrameName(type, sub) + " unknown to this camera, ignored");
  }
}

}  // namespace camsim
