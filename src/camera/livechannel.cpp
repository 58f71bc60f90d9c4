#include "camera/livechannel.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <system_error>
#include <thread>
#include <utility>

#include "base/log.h"
#include "camera/cloudrequest.h"
#include "camera/command.h"
#include "core/configuration.h"
#include "core/eventloop.h"
#include "core/utils.h"
#include "p2p/client.h"
#include "platform/board.h"
#include "platform/hwlib.h"
#include "platform/uci.h"

namespace channel {
namespace {

constexpr auto kSendPause = std::chrono::milliseconds(10);
constexpr auto kUdpWakePause = std::chrono::milliseconds(100);
constexpr char kArpTable[] = "/proc/net/arp";
const uint8_t kUnaddressed[6] = {0, 0, 0, 0, 0, 0};

std::atomic<int> g_active_udp_wakes{0};

}  // namespace

struct LiveChannel::Connection {
  explicit Connection(int sockfd) : fd(sockfd) {}
  ~Connection() { close(fd); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  const int fd;
  std::mutex send_mutex;  // one frame on the wire at a time
};

bool Schedule::Covers(int minute_of_day) const {
  int start = start_hour * 60 + start_min;
  int stop = stop_hour * 60 + stop_min;
  if (stop > 1440) stop = 1440;
  if (start == stop) return true;
  if (start < stop) return minute_of_day >= start && minute_of_day < stop;
  return minute_of_day >= start || minute_of_day < stop;
}

int64_t LiveChannel::SystemUptime() {
  struct timespec ts;
  clock_gettime(CLOCK_BOOTTIME, &ts);
  return ts.tv_sec;
}

LiveChannel::LiveChannel(const std::string& mac)
    : LiveChannel(std::make_shared<camera::Camera>(utils::ConvertToUppercase(mac)),
                  Configuration::getInstance().GetMac()) {
  camera_->LoadConfig();
}

LiveChannel::LiveChannel(std::shared_ptr<camera::Camera> camera, const std::string& hub_mac)
    : camera_(std::move(camera)),
      hub_mac_(command::MacDigits(hub_mac)),
      rx_(kRecvBufferSize),
      uptime_(&LiveChannel::SystemUptime) {
  if (utils::ConverToUint8(hub_mac_.c_str(), hub_addr_) < 0) {
    TLOG(LOG_DEBUG) << "Invalid hub mac for camera " << mac() << ": " << hub_mac;
  }
  ev_io_init(&watcher_, &LiveChannel::OnReadable, -1, EV_READ);
  watcher_.data = this;
  MakeSinks(*this);
}

LiveChannel::~LiveChannel() {
  // Release has stopped the watcher on the loop thread; a channel that never left the loop's
  // hands that way is only destroyed while the loop does not run.
  if (ev_is_active(&watcher_)) ev_io_stop(eventloop::Loop(), &watcher_);
}

void LiveChannel::Release(std::shared_ptr<LiveChannel> channel) {
  if (channel == nullptr) return;
  eventloop::RunInLoop([channel]() mutable {
    channel->CloseConnect();
    channel.reset();
  });
}

std::shared_ptr<LiveChannel::Connection> LiveChannel::GetConnection() const {
  std::lock_guard<std::mutex> lock(conn_mutex_);
  return conn_;
}

bool LiveChannel::IsConnected() const {
  return CanSend(GetConnection());
}

bool LiveChannel::CanSend(const std::shared_ptr<Connection>& conn) const {
  return conn != nullptr && camera_->state() >= camera::kStateConnected;
}

// ---------------------------------------------------------------------------------------------
// Connection

void LiveChannel::InitConnect(int sockfd) {
  auto conn = std::make_shared<Connection>(sockfd);
  std::shared_ptr<Connection> old;
  {
    std::lock_guard<std::mutex> lock(conn_mutex_);
    old.swap(conn_);
    conn_ = conn;
  }
  if (old != nullptr) shutdown(old->fd, SHUT_RDWR);
  camera_->SetState(camera::kStateConnected);
  TLOG(LOG_DEBUG) << "init connect sockfd: " << sockfd;
  struct ev_loop* loop = eventloop::Loop();
  if (ev_is_active(&watcher_)) ev_io_stop(loop, &watcher_);
  rx_.Clear();
  ev_io_set(&watcher_, sockfd, EV_READ);
  ev_io_start(loop, &watcher_);
  last_recv_time_.store(Now());
  link_dropped_.store(false);
  wake_replacements_.store(0);
}

void LiveChannel::CloseConnect() {
  std::shared_ptr<Connection> old;
  {
    std::lock_guard<std::mutex> lock(conn_mutex_);
    old.swap(conn_);
  }
  if (ev_is_active(&watcher_)) ev_io_stop(eventloop::Loop(), &watcher_);
  rx_.Clear();
  if (old == nullptr) return;
  TLOG(LOG_DEBUG) << "close rxbuf and old sockfd: " << old->fd;
  // Senders still holding the connection fail from here on; the descriptor is closed when the
  // last of them lets go.
  shutdown(old->fd, SHUT_RDWR);
  camera_->SetState(camera::kStateLost);
}

void LiveChannel::DropLink(const std::shared_ptr<Connection>& conn) {
  // A battery camera drops its link to sleep or loses it on the way: it stays a camera the hub
  // can wake. The connection stays attached (commands are accepted and queued, as for a camera
  // that sleeps), the socket is shut so nothing more is read or sent on it, and the watcher
  // stops so the loop does not spin on the dead socket. The camera's next connection replaces it.
  if (ev_is_active(&watcher_)) ev_io_stop(eventloop::Loop(), &watcher_);
  rx_.Clear();
  shutdown(conn->fd, SHUT_RDWR);
  link_dropped_.store(true);
}

void LiveChannel::OnReadable(struct ev_loop* /*loop*/, ev_io* watcher, int /*revents*/) {
  static_cast<LiveChannel*>(watcher->data)->RecvStreams();
}

int LiveChannel::RecvStreams() {
  const std::shared_ptr<Connection> conn = GetConnection();
  if (conn == nullptr) return -1;
  if (rx_.Space() == 0) rx_.Clear();
  const ssize_t got = recv(conn->fd, rx_.WritePtr(), rx_.Space(), MSG_DONTWAIT);
  if (got <= 0) {
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return -1;
    if (got == 0) {
      TLOG(LOG_DEBUG) << "Camera " << mac() << " closed its connection";
    } else {
      TLOG(LOG_DEBUG) << "Camera " << mac() << " receive failed: " << std::strerror(errno);
    }
    DropLink(conn);
    return static_cast<int>(got);
  }
  if (got == 1) TLOG(LOG_DEBUG) << "recv " << mac() << " heartbeat len: " << 1;
  rx_.Commit(static_cast<size_t>(got));
  RecivedRawData();
  return static_cast<int>(got);
}

void LiveChannel::RecivedRawData() {
  rx_.Cut([this](const _net_cmd_type* frame) { GotPacket(frame); });
}

void LiveChannel::GotPacket(const _net_cmd_type* frame) {
  last_recv_time_.store(Now());
  const uint8_t type = frame->type;
  const uint8_t subtype = frame->subtype;
  const uint8_t* payload = frame->Payload();
  const size_t n = frame->Length();

  if (std::memcmp(frame->dst_addr, kUnaddressed, 6) == 0) {
    EventSink* events = event_sink();
    if (type == command::kTypeMedia && subtype == command::kSubVideo) {
      if (events != nullptr && events->IsRecording()) {
        events->RecvEventVideo(frame);
        CheckVideoEnough();
      } else if (!HasLiveClient()) {
        StopAVStream();
      } else {
        TranVideoData(frame);
      }
    } else if (type == command::kTypeMedia && subtype == command::kSubAudio) {
      if (events != nullptr && events->IsRecording()) {
        events->RecvEventAudio(frame);
      } else {
        TranAudioData(frame);
      }
    } else if (type == command::kTypePirEvent && subtype == 0) {
      if (events != nullptr) {
        events->HappenEvent();
      } else {
        TLOG(LOG_DEBUG) << "Motion event of camera " << mac() << ", no event recorder";
      }
    } else if (type == command::kTypeBatteryEvent && subtype == 0) {
      if (n == _net_cmd_get_info_type::kWireSize) {
        HandleBatteryEvent(payload);
      } else {
        TLOG(LOG_DEBUG) << "bat event len is error";
      }
    } else if (type == command::kTypeLogin && subtype == 0) {
      TLOG(LOG_DEBUG) << "Recv camera login 1...";
      RecvLoginPackage(payload, n);
    }
    return;
  }

  if (std::memcmp(frame->dst_addr, hub_addr_, 6) == 0) {
    if (type == command::kTypeAck && subtype == 0) {
      if (n < 3) {
        TLOG(LOG_DEBUG) << "Camera " << mac() << " ack len is error: " << n;
        return;
      }
      if (payload[0] == command::kTypeControl) {
        if (payload[1] == command::kSubStartStream && payload[2] == 1) {
          TLOG(LOG_DEBUG) << "This is live start ok...";
          stream_wait_.store(0);
        } else if (payload[1] == command::kSubStopStream && payload[2] == 1) {
          TLOG(LOG_DEBUG) << "This is live stop ok...";
          stream_wait_.store(0);
        }
      } else if (payload[0] == command::kTypeSetting) {
        if (payload[1] == command::kSubVideoQuality && payload[2] == 1) {
          const int quality = pending_quality_.load();
          TLOG(LOG_DEBUG) << "Set video quality to " << quality << " success";
          uint16_t width, height;
          command::QualitySize(quality, &width, &height);
          video_width_.store(width);
          video_height_.store(height);
        } else if (payload[1] == command::kSubReset && payload[2] == 1) {
          TLOG(LOG_DEBUG) << "Reset camera " << mac() << " ok!";
        }
      } else if (payload[0] == command::kTypePir) {
        if (payload[1] == command::kSubPirMain) HandleAckPirMain(frame);
        if (payload[1] == command::kSubPirMain1) HandleAckPirMain1(frame);
        if (payload[1] == command::kSubPirNew) HandleAckPirNew(frame);
      }
    } else if (type == command::kTypeProp && subtype == 0) {
      HandleAckProp(payload, n);
    } else if (type == command::kTypeLogin && subtype == 0) {
      TLOG(LOG_DEBUG) << "Recv camera login 2...";
      RecvLoginPackage(payload, n);
    }
    return;
  }

  uint32_t id = 0;
  if (command::IsAckIdAddress(frame->dst_addr, &id)) {
    TLOG(LOG_DEBUG) << "This is camera ack type: " << static_cast<int>(type)
                    << ", subtype: " << static_cast<int>(subtype);
    TLOG(LOG_DEBUG) << "~~~~~~~~~~~~ACK ID: " << id;
    if (type == command::kTypeProp && subtype == 0) {
      HandleAckProp(payload, n, id);
    } else if (type == command::kTypeAck && subtype == 0 && n >= 3) {
      if (payload[0] == command::kTypePir && payload[1] == command::kSubPirMain) {
        HandleAckPir(frame, id);
      } else if (payload[0] == command::kTypeSetting && payload[1] == command::kSubNight) {
        HandleAckNight(frame, id);
      }
    }
  }
  // Any other destination is not for this hub.
}

// ---------------------------------------------------------------------------------------------
// Sending

int LiveChannel::SendBytes(const std::shared_ptr<Connection>& conn, const uint8_t* bytes,
                           size_t count) {
  std::lock_guard<std::mutex> lock(conn->send_mutex);
  size_t sent = 0;
  while (sent < count) {
    const ssize_t r = send(conn->fd, bytes + sent, count - sent, MSG_NOSIGNAL);
    if (r < 0) {
      if (errno == EINTR) continue;
      TLOG(LOG_DEBUG) << "Send to camera " << mac() << " failed: " << std::strerror(errno);
      return -1;
    }
    sent += static_cast<size_t>(r);
  }
  return static_cast<int>(sent);
}

void LiveChannel::CountSendFailure() {
  const int count = send_failures_.fetch_add(1) + 1;
  if (count >= kFailuresBeforeDisconnect) {
    TLOG(LOG_DEBUG) << "Camera don't connect more than 5, disconnet " << mac();
    disconnect_mac(mac().c_str());
    send_failures_.store(0);
  }
}

int LiveChannel::SendBuilt(uint8_t type, uint8_t subtype, const uint8_t* payload, size_t length,
                           const uint8_t* src) {
  std::this_thread::sleep_for(kSendPause);
  if (length > kMaxCommandPayload) {
    TLOG(LOG_DEBUG) << "Command to camera " << mac() << " too long: " << length;
    return -1;
  }
  const std::shared_ptr<Connection> conn = GetConnection();
  if (!CanSend(conn)) {
    TLOG(LOG_DEBUG) << "Camera " << mac() << " tcp can't connected";
    CountSendFailure();
    return -1;
  }
  uint8_t frame[kCommandBufferSize];
  const command::Command cmd(mac(), hub_mac_);
  const int count =
      command::BuildCommand(cmd, frame, sizeof(frame), type, subtype, payload, length, src);
  if (count < 0) return -1;
  JudgeCameraAlive(frame, static_cast<size_t>(count));
  return 1;
}

int LiveChannel::SendCommand(uint8_t type, uint8_t subtype, const uint8_t* payload, size_t length) {
  return SendBuilt(type, subtype, payload, length, nullptr);
}

int LiveChannel::SendCommand(uint8_t type, uint8_t subtype, const uint8_t* payload, size_t length,
                             const uint8_t src[6]) {
  return SendBuilt(type, subtype, payload, length, src);
}

int LiveChannel::SendCommand(const uint8_t* frame, size_t count) {
  std::this_thread::sleep_for(kSendPause);
  const std::shared_ptr<Connection> conn = GetConnection();
  if (!CanSend(conn)) {
    TLOG(LOG_DEBUG) << "Camera " << mac() << " tcp can't connected";
    return -1;
  }
  return SendBytes(conn, frame, count);
}

int LiveChannel::JudgeCameraAlive(const uint8_t* frame, size_t count) {
  if (!CanSend(GetConnection()) || count > kCommandBufferSize) return -1;
  const int64_t idle = Now() - last_recv_time_.load();
  if (idle < kAwakeSeconds && !link_dropped_.load()) {
    const int res = SendCommand(frame, count);
    if (res < 0) {
      TLOG(LOG_DEBUG) << "Send command to camera mac: " << mac() << " failed, res = " << res;
    }
    return res;
  }
  std::unique_ptr<uint8_t[]> copy(new uint8_t[kCommandBufferSize]());
  std::memcpy(copy.get(), frame, count);
  PushCommandInVector(std::move(copy));
  TLOG(LOG_DEBUG) << "send tcp wake package... " << idle;
  SendWakePackage();
  try {
    std::thread(&LiveChannel::SendUdpWakePackage, camera_, hub_mac_).detach();
  } catch (const std::system_error& e) {
    TLOG(LOG_DEBUG) << "Start UDP wake thread failed: " << e.what();
  }
  return 0;
}

void LiveChannel::PushCommandInVector(std::unique_ptr<uint8_t[]> frame) {
  const uint8_t type = command::AsFrame(frame.get())->type;
  const uint8_t subtype = command::AsFrame(frame.get())->subtype;
  bool disconnect = false;
  {
    std::lock_guard<std::mutex> lock(queue_mutex_);
    for (auto it = queue_.begin(); it != queue_.end(); ++it) {
      const _net_cmd_type* old = command::AsFrame(it->get());
      if (old->type == type && old->subtype == subtype) {
        TLOG(LOG_DEBUG) << "found a old cmd earse it, and push_back a new, type: "
                        << static_cast<int>(type) << ", subtype: " << static_cast<int>(subtype);
        queue_.erase(it);
        disconnect = wake_replacements_.fetch_add(1) + 1 >= kFailuresBeforeDisconnect;
        break;
      }
    }
    queue_.push_back(std::move(frame));
  }
  if (disconnect) {
    TLOG(LOG_DEBUG) << "Camera " << mac() << " unawake >5, disconnect";
    disconnect_mac(mac().c_str());
  }
}

size_t LiveChannel::QueuedCommands() const {
  std::lock_guard<std::mutex> lock(queue_mutex_);
  return queue_.size();
}

int LiveChannel::SendWakePackage() {
  const std::shared_ptr<Connection> conn = GetConnection();
  if (!CanSend(conn)) {
    TLOG(LOG_DEBUG) << "Camera " << mac() << " tcp can't connected";
    return -1;
  }
  uint8_t wake[command::kWakeFrameSize];
  command::BuildWakeFrame(command::Command(mac(), hub_mac_), wake);
  TLOG(LOG_DEBUG) << "send wakeup type: " << static_cast<int>(command::kTypeWake)
                  << ", subtype: 0, seq: " << command::AsFrame(wake)->Seq();
  return SendBytes(conn, wake, sizeof(wake));
}

int LiveChannel::ActiveUdpWakes() {
  return g_active_udp_wakes.load();
}

void LiveChannel::SendUdpWakePackage(std::shared_ptr<camera::Camera> camera, std::string hub_mac) {
  struct Active {
    Active() { g_active_udp_wakes.fetch_add(1); }
    ~Active() { g_active_udp_wakes.fetch_sub(1); }
  } active;
  const std::string& mac = camera->mac();
  TLOG(LOG_DEBUG) << "start thread send UDP wakeup camera: " << mac;
  CheckCameraIp(*camera);
  const std::string ip = camera->ip();
  if (ip.empty()) {
    TLOG(LOG_DEBUG) << "camera: " << mac << " ip is not exist, stop";
    return;
  }
  struct sockaddr_in addr;
  std::memset(&addr, 0, sizeof(addr));
  addr.sin_family = AF_INET;
  addr.sin_port = htons(platform::WakePort());
  if (inet_pton(AF_INET, ip.c_str(), &addr.sin_addr) != 1) {
    TLOG(LOG_DEBUG) << "camera: " << mac << " ip is not valid, stop";
    return;
  }
  const int sock = socket(AF_INET, SOCK_DGRAM, 0);
  if (sock < 0) {
    TLOG(LOG_DEBUG) << "create UDP client socket failed";
    return;
  }
  uint8_t wake[command::kWakeFrameSize];
  command::BuildWakeFrame(command::Command(mac, hub_mac), wake);
  for (int i = 0; i < kUdpWakeCount; i++) {
    sendto(sock, wake, sizeof(wake), 0, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
    std::this_thread::sleep_for(kUdpWakePause);
  }
  close(sock);
  TLOG(LOG_DEBUG) << "exit thread send UDP wakeup camera: " << mac;
}

int LiveChannel::CheckCameraIp() {
  return CheckCameraIp(*camera_);
}

int LiveChannel::CheckCameraIp(camera::Camera& camera) {
  FILE* arp = std::fopen(platform::BoardPath(kArpTable).c_str(), "r");
  if (arp == nullptr) {
    TLOG(LOG_DEBUG) << "Open arp table failed, camera " << camera.mac() << " keeps its ip";
    return -1;
  }
  // Columns: IP address, HW type, Flags, HW address, Mask, Device; the first line is a heading.
  char line[512];
  int found = -1;
  bool heading = true;
  while (std::fgets(line, sizeof(line), arp) != nullptr) {
    if (heading) {
      heading = false;
      continue;
    }
    char ip[64] = {0};
    char hw[64] = {0};
    if (std::sscanf(line, "%63s %*s %*s %63s", ip, hw) != 2) continue;
    if (command::MacDigits(hw) != camera.mac()) continue;
    struct in_addr parsed;
    if (inet_pton(AF_INET, ip, &parsed) != 1) continue;
    camera.SetIp(ip);
    found = 0;
    break;
  }
  std::fclose(arp);
  return found;
}

// ---------------------------------------------------------------------------------------------
// Viewers

void LiveChannel::RegisteVideoForLiveClient(client::Client* client) {
  client->SetVideoRegistered(1);
  AddLiveClient(client);
}

void LiveChannel::RegisteAudioForLiveClient(client::Client* client) {
  client->SetAudioRegistered(1);
  AddLiveClient(client);
}

void LiveChannel::UnRegisteVideoForLiveClient(client::Client* client) {
  client->SetVideoRegistered(0);
  client->SetAudioRegistered(0);
  TryRemoveLiveClient(client);
}

void LiveChannel::UnRegisteAudioForLiveClient(client::Client* client) {
  // Only the video flag is cleared: a viewer whose audio flag stays set stays in the list and
  // gets neither video nor audio.
  client->SetVideoRegistered(0);
  TryRemoveLiveClient(client);
}

void LiveChannel::AddLiveClient(client::Client* client) {
  std::lock_guard<std::mutex> lock(live_clients_mutex());
  const std::shared_ptr<const ClientList> now = LiveClients();
  if (std::find(now->begin(), now->end(), client) != now->end()) return;
  auto next = std::make_shared<ClientList>();
  next->reserve(now->size() + 1);
  *next = *now;
  next->push_back(client);
  PublishLiveClients(std::move(next));
  TLOG(LOG_DEBUG) << "Add live client slot " << client->slot() << " to camera " << mac()
                  << ", viewers: " << now->size() + 1;
}

bool LiveChannel::IsClientExist(client::Client* client) const {
  const std::shared_ptr<const ClientList> now = LiveClients();
  return std::find(now->begin(), now->end(), client) != now->end();
}

void LiveChannel::TryRemoveLiveClient(client::Client* client) {
  bool emptied = false;
  {
    std::lock_guard<std::mutex> lock(live_clients_mutex());
    const std::shared_ptr<const ClientList> now = LiveClients();
    if (now->empty() || client->audioRegistered() != 0 || client->videoRegistered() != 0) return;
    auto next = std::make_shared<ClientList>();
    for (client::Client* c : *now) {
      if (c != client) next->push_back(c);
    }
    if (next->size() == now->size()) return;
    emptied = next->empty();
    PublishLiveClients(std::move(next));
    TLOG(LOG_DEBUG) << "Remove live client slot " << client->slot() << " from camera " << mac();
  }
  // The command is sent outside the list lock: sending may pause and wake the camera.
  if (emptied) StopAVStream();
}

}  // namespace channel
