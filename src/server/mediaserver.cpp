#include "server/mediaserver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "base/log.h"
#include "camera/frame.h"
#include "camera/livechannel.h"
#include "core/configuration.h"
#include "core/eventloop.h"
#include "core/utils.h"
#include "crypto/hubauth.h"
#include "media/orump4playlist.h"
#include "p2p/client.h"
#include "p2p/iotc.h"
#include "platform/board.h"
#include "platform/hwlib.h"
#include "platform/uci.h"
#include "server/pairing.h"

std::atomic<server::MediaServer*> server_play{nullptr};

namespace server {
namespace {

constexpr int kMaxSections = 16;
std::atomic<MediaServer*> g_current{nullptr};

// The P2P side's limits and waits.
constexpr unsigned kMaxSessions = client::kSlots;
constexpr int kAvChannels = 12;
constexpr unsigned kListenTimeoutMs = 100;
constexpr unsigned kAvStartTimeoutS = 15;
constexpr unsigned kIoCtrlTimeoutMs = 500;
constexpr int kIoCtrlMax = 1024;
constexpr auto kUidPoll = std::chrono::seconds(1);
constexpr auto kLoginRetry = std::chrono::seconds(5);
constexpr auto kOverLimitPause = std::chrono::seconds(1);

static_assert(kMaxSessions == static_cast<unsigned>(kClientKeySlots), "a stream key a slot");

// The login check of each session slot.
const authFn kSlotAuth[client::kSlots] = {AuthCallBackFn0, AuthCallBackFn1, AuthCallBackFn2,
                                          AuthCallBackFn3};

// Four bytes, most significant first, as "a.b.c.d".
std::string DottedVersion(unsigned int version) {
  char text[16];
  std::snprintf(text, sizeof(text), "%d.%d.%d.%d", static_cast<int>((version >> 24) & 0xff),
                static_cast<int>((version >> 16) & 0xff), static_cast<int>((version >> 8) & 0xff),
                static_cast<int>(version & 0xff));
  return text;
}

const char* ModeName(unsigned char mode) {
  switch (mode) {
    case IOTC_MODE_P2P:
      return "P2P";
    case IOTC_MODE_RLY:
      return "RLY";
    case IOTC_MODE_LAN:
      return "LAN";
    default:
      return "UNKNOWN";
  }
}

// Starts a detached thread. 0 or the pthread_create code.
int StartDetached(void* (*body)(void*), void* arg) {
  pthread_t thread;
  const int rc = pthread_create(&thread, nullptr, body, arg);
  if (rc == 0) pthread_detach(thread);
  return rc;
}

// The camera MACs of the sections of uci package "p2p", upper case; other names are skipped.
std::vector<std::string> ConfiguredCameras() {
  std::vector<std::string> macs;
  char list[kMaxSections][kUciSectionNameLen];
  const int count = zcfg_uci_get_section_list("p2p", list, kMaxSections);
  for (int i = 0; i < count; i++) {
    const std::string mac = utils::ConvertToUppercase(std::string(list[i]));
    uint8_t bytes[6];
    if (command::AddressFromText(mac, bytes) < 0) {
      TLOG(LOG_DEBUG) << "Section p2p." << mac << " is no camera, skipped";
      continue;
    }
    macs.push_back(mac);
  }
  return macs;
}

}  // namespace

MediaServer::MediaServer() {
  ev_io_init(&accept_watcher_, &MediaServer::OnAccept, -1, EV_READ);
  accept_watcher_.data = this;
  server_play.store(this);
}

MediaServer::~MediaServer() {
  MediaServer* self = this;
  server_play.compare_exchange_strong(self, nullptr);
  for (client::Client*& c : clients_) {
    delete c;
    c = nullptr;
  }
}

MediaServer* MediaServer::Current() {
  return g_current.load();
}

int MediaServer::Init() {
  g_current.store(this);
  for (int slot = 0; slot < client::kSlots; slot++) {
    if (clients_[slot] == nullptr) clients_[slot] = new client::Client(slot);
  }
  for (const std::string& mac : ConfiguredCameras()) {
    TLOG(LOG_DEBUG) << "Init live channel camera: " << mac;
    InsertInLiveChannels(mac, std::make_shared<channel::LiveChannel>(mac));
  }
  if (RunTcpServer() < 0) return -1;
  return 0;
}

client::Client* MediaServer::GetClient(int slot) const {
  if (slot < 0 || slot >= client::kSlots) return nullptr;
  return clients_[slot];
}

int MediaServer::StartTutk() {
  running_.store(1);
  IOTC_Set_Max_Session_Number(kMaxSessions);
  int ret = IOTC_Initialize2(0);
  if (ret != IOTC_ER_NoERROR) {
    TLOG(LOG_DEBUG) << "Initialize tutk platform error: " << ret;
    return -1;
  }
  ret = RDT_Initialize();
  if (ret < 1) {
    TLOG(LOG_DEBUG) << "RDT_Initialize error: " << ret;
    IOTC_DeInitialize();
    return -1;
  }
  unsigned int iotc_version = 0;
  IOTC_Get_Version(&iotc_version);
  const unsigned int av_version = static_cast<unsigned int>(avGetAVApiVer());
  TLOG(LOG_DEBUG) << "IOTCAPI version: " << DottedVersion(iotc_version)
                  << ", AVAPI version: " << DottedVersion(av_version);
  IOTC_Get_Login_Info_ByCallBackFn(&MediaServer::LoginInfoCallback);
  ret = avInitialize(kAvChannels);
  if (ret < 0) {
    TLOG(LOG_DEBUG) << "Initialize TUKU av module error: " << ret;
    return -1;
  }
  int rc = StartDetached(&MediaServer::Login, nullptr);
  if (rc != 0) {
    TLOG(LOG_ERR) << "pthread_create login failed ret: " << rc;
    return -1;
  }
  rc = StartDetached(&MediaServer::DoListen, this);
  if (rc != 0) {
    TLOG(LOG_ERR) << "pthread_create listen failed ret: " << rc;
    return -1;
  }
  return 0;
}

void MediaServer::StopTutk() {
  running_.store(0);
}

void* MediaServer::Login(void* /*arg*/) {
  Configuration& config = Configuration::getInstance();
  for (;;) {
    std::string uid = config.GetP2pUid();
    while (uid.empty()) {
      std::this_thread::sleep_for(kUidPoll);
      uid = config.GetP2pUid();
    }
    const int ret = IOTC_Device_Login(uid.c_str(), nullptr, nullptr);
    if (ret == IOTC_ER_NoERROR) {
      TLOG(LOG_DEBUG) << "Login to Tutk platform succeed";
      return nullptr;
    }
    TLOG(LOG_DEBUG) << "Login to Tutk platform failed, try again, code: " << ret;
    std::this_thread::sleep_for(kLoginRetry);
  }
}

void MediaServer::LoginInfoCallback(unsigned int flags) {
  if ((flags & 0x04) != 0) {
    TLOG(LOG_DEBUG) << "I can be connected via Internet";
  } else if ((flags & 0x08) != 0) {
    TLOG(LOG_DEBUG) << "I am be banned by IOTC Server because UID multi-login";
  } else if (flags == 3) {
    TLOG(LOG_DEBUG) << "Device reboot after 15 minutes if connect Internet but do not connenct "
                       "tutk server";
  }
}

void* MediaServer::DoListen(void* arg) {
  MediaServer* server = static_cast<MediaServer*>(arg);
  TLOG(LOG_DEBUG) << "Tutk listen server started";
  while (server->running_.load() != 0) {
    const int sid = IOTC_Listen(kListenTimeoutMs);
    if (sid >= 0) {
      TLOG(LOG_DEBUG) << "Found a client sessionID: " << sid;
      int* heap_sid = new int(sid);
      const int rc = StartDetached(&MediaServer::Thread_ForAVServerStart, heap_sid);
      if (rc != 0) {
        TLOG(LOG_DEBUG) << "pthread_create av failed ret: " << rc;
        delete heap_sid;
        // Nobody serves the session: give its slot back.
        IOTC_Session_Close(sid);
      }
      continue;
    }
    switch (sid) {
      case IOTC_ER_TIMEOUT:
        break;
      case IOTC_ER_EXCEED_MAX_SESSION:
        TLOG(LOG_DEBUG) << "IOTC Listen got IOTC_ER_EXCEED_MAX_SESSION";
        std::this_thread::sleep_for(kOverLimitPause);
        break;
      case IOTC_ER_NOT_INITIALIZED:
        TLOG(LOG_DEBUG) << "IOTC Listen got IOTC_ER_NOT_INITIALIZED";
        break;
      case IOTC_ER_LISTEN_ALREADY_CALLED:
        TLOG(LOG_DEBUG) << "IOTC Listen got IOTC_ER_LISTEN_ALREADY_CALLED";
        break;
      case IOTC_ER_EXIT_LISTEN:
        TLOG(LOG_DEBUG) << "IOTC Listen got IOTC_ER_EXIT_LISTEN";
        break;
      case IOTC_ER_DEVICE_IS_BANNED:
        TLOG(LOG_DEBUG) << "IOTC Listen got IOTC_ER_DEVICE_IS_BANNED";
        break;
      default:
        TLOG(LOG_DEBUG) << "IOTC SID < 0, SID: " << sid;
        break;
    }
  }
  TLOG(LOG_DEBUG) << "Tutk listen thread unexpected exit...";
  for (client::Client* c : server->clients_) {
    if (c == nullptr) continue;
    std::lock_guard<std::mutex> lock(c->sendLock());
    c->SetAvIndex(-1);
  }
  avDeInitialize();
  RDT_DeInitialize();
  IOTC_DeInitialize();
  // Other threads still run: end without running the destructors of objects they use.
  std::fflush(nullptr);
  std::_Exit(0);
}

void* MediaServer::Thread_ForAVServerStart(void* arg) {
  int* heap_sid = static_cast<int*>(arg);
  const int sid = *heap_sid;
  delete heap_sid;
  MediaServer* server = server_play.load();
  client::Client* client = server != nullptr ? server->GetClient(sid) : nullptr;
  if (client == nullptr) {
    TLOG(LOG_DEBUG) << "thread_ForAVServerStart: no session slot for SID: " << sid;
    IOTC_Session_Close(sid);
    return nullptr;
  }
  int resend = -1;
  const int av_index = avServStart3(sid, kSlotAuth[sid], kAvStartTimeoutS, 0, 0, &resend);
  if (av_index < 0) {
    TLOG(LOG_DEBUG) << "avServStart3 failed!! SID: " << sid << ", code: " << av_index;
    TLOG(LOG_DEBUG) << "thread_ForAVServerStart: exit!! SID: " << sid;
    IOTC_Session_Close(sid);
    return nullptr;
  }
  client->SetAvIndex(av_index);

  struct st_SInfo info;
  std::memset(&info, 0, sizeof(info));
  if (IOTC_Session_Check(sid, &info) == IOTC_ER_NoERROR) {
    info.RemoteIP[sizeof(info.RemoteIP) - 1] = '\0';
    TLOG(LOG_DEBUG) << "Client is from[IP:" << info.RemoteIP << ", Port:" << info.RemotePort
                    << "] Mode[" << ModeName(info.Mode) << "] VPG[" << info.VID << ":" << info.PID
                    << ":" << info.GID << "] VER[" << DottedVersion(info.IOTCVersion) << "]";
  }
  TLOG(LOG_DEBUG) << "avServStart3 OK, avIndex: " << av_index << ", Resend: " << resend;

  // One byte more than a message can hold, so a text that fills the message still ends in NUL.
  char buffer[kIoCtrlMax + 1];
  for (;;) {
    std::memset(buffer, 0, sizeof(buffer));
    unsigned int type = 0;
    const int ret = avRecvIOCtrl(av_index, &type, buffer, kIoCtrlMax, kIoCtrlTimeoutMs);
    if (ret == AV_ER_TIMEOUT) continue;
    if (ret < 0) {
      TLOG(LOG_DEBUG) << "SID: " << sid << ", avIndex: " << av_index
                      << " avRecvIOCtrl error, code: " << ret;
      CloseSession(sid, av_index);
      return nullptr;
    }
    server->Handle_IOCTRL_Cmd(sid, av_index, buffer, static_cast<int>(type));
  }
}

int MediaServer::CloseSession(int sid, int avIndex) {
  TLOG(LOG_DEBUG) << "Close client sessionID: " << sid << ", avIndex: " << avIndex
                  << ", time: " << utils::GetTimestamp();
  avServStop(avIndex);
  playlist_stop_play(sid);
  // The slot keeps no index of a stopped channel: the transport hands indexes out again.
  MediaServer* server = server_play.load();
  client::Client* client = server != nullptr ? server->GetClient(sid) : nullptr;
  if (client != nullptr) {
    {
      std::lock_guard<std::mutex> lock(client->sendLock());
      client->ClearAvIndex(avIndex);
    }
    // The slot's next session must not inherit the cameras this one watched: the frame senders
    // would drop the slot only at the next frame, and a sleeping or recording camera sends none.
    server->LeaveAllCameras(client);
  }
  return IOTC_Session_Close(sid);
}

void MediaServer::LeaveAllCameras(client::Client* client) {
  for (const std::string& mac : LiveChannelMacs()) {
    const std::shared_ptr<channel::LiveChannel> ch = FindLiveChannel(mac);
    if (ch != nullptr && ch->IsClientExist(client)) ch->UnRegisteVideoForLiveClient(client);
  }
}

int MediaServer::RunTcpServer() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    TLOG(LOG_ERR) << "create camera listener socket failed";
    return -1;
  }
  int on = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0) {
    TLOG(LOG_DEBUG) << "Setsockopt failed";
  }
  struct sockaddr_in addr;
  std::memset(&addr, 0, sizeof(addr));
  addr.sin_family = AF_INET;
  addr.sin_port = htons(platform::CameraPort());
  if (inet_pton(AF_INET, platform::HubIp().c_str(), &addr.sin_addr) != 1 ||
      bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) < 0 || listen(fd, 20) < 0) {
    TLOG(LOG_ERR) << "camera listener on " << platform::HubIp() << ":" << platform::CameraPort()
                  << " failed: " << std::strerror(errno);
    close(fd);
    return -1;
  }
  listen_fd_ = fd;
  TLOG(LOG_DEBUG) << "camera listener on " << platform::HubIp() << ":" << platform::CameraPort();
  // Watchers belong to the loop thread, which may already run.
  eventloop::RunInLoop([this, fd] {
    ev_io_set(&accept_watcher_, fd, EV_READ);
    ev_io_start(eventloop::Loop(), &accept_watcher_);
  });
  return 0;
}

void MediaServer::OnAccept(struct ev_loop* /*loop*/, ev_io* watcher, int /*revents*/) {
  static_cast<MediaServer*>(watcher->data)->AcceptCallback();
}

void MediaServer::AcceptCallback() {
  struct sockaddr_in peer;
  socklen_t len = sizeof(peer);
  const int fd = accept4(listen_fd_, reinterpret_cast<struct sockaddr*>(&peer), &len, SOCK_CLOEXEC);
  if (fd < 0) {
    TLOG(LOG_DEBUG) << "Accept timeout";
    return;
  }
  char ip[INET_ADDRSTRLEN] = {0};
  inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof(ip));
  char mac[32] = {0};
  if (utils::GetConnectMacFromArp(ip, mac, sizeof(mac)) < 0) mac[0] = '\0';
  utils::ConvertToUppercase(mac);
  TLOG(LOG_DEBUG) << "has tcp client ip: " << ip << ", mac: *" << mac << "*";
  struct timeval tv;
  tv.tv_sec = 5;
  tv.tv_usec = 0;
  if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) < 0) {
    TLOG(LOG_DEBUG) << "set tcp send timeout failed";
  }
  try {
    std::shared_ptr<channel::LiveChannel> ch = GetLiveChannel(mac);
    ch->CloseConnect();
    ch->camera().SetIp(ip);
    ch->InitConnect(fd);
  } catch (const std::out_of_range& e) {
    TLOG(LOG_DEBUG) << "New tcp client out of Range error: " << e.what();
    // Nobody owns a connection of an unknown camera.
    close(fd);
  }
}

void MediaServer::InsertInLiveChannels(const std::string& mac,
                                       std::shared_ptr<channel::LiveChannel> channel) {
  std::shared_ptr<channel::LiveChannel> old;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = live_channels_.find(mac);
    if (it != live_channels_.end()) {
      old = std::move(it->second);
      it->second = std::move(channel);
    } else {
      live_channels_.emplace(mac, std::move(channel));
    }
  }
  if (old != nullptr) channel::LiveChannel::Release(std::move(old));
}

int MediaServer::TryEraseLiveChannels(const std::string& mac) {
  std::shared_ptr<channel::LiveChannel> channel;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = live_channels_.find(mac);
    if (it == live_channels_.end()) {
      TLOG(LOG_DEBUG) << "Don't find " << mac << " in live_channels";
      return -1;
    }
    channel = std::move(it->second);
    live_channels_.erase(it);
  }
  TLOG(LOG_DEBUG) << "Erase camera " << mac << " in live_channels succeed";
  channel::LiveChannel::Release(std::move(channel));
  return 0;
}

std::shared_ptr<channel::LiveChannel> MediaServer::GetLiveChannel(const std::string& mac) {
  std::lock_guard<std::mutex> lock(mutex_);
  return live_channels_.at(mac);
}

std::shared_ptr<channel::LiveChannel> MediaServer::FindLiveChannel(const std::string& mac) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = live_channels_.find(mac);
  return it == live_channels_.end() ? nullptr : it->second;
}

std::vector<std::string> MediaServer::LiveChannelMacs() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> macs;
  for (const auto& entry : live_channels_) macs.push_back(entry.first);
  return macs;
}

void MediaServer::SyncNewCamera(const std::string& mac) {
  std::shared_ptr<channel::LiveChannel> old;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = live_channels_.find(mac);
    if (it != live_channels_.end()) {
      old = std::move(it->second);
      live_channels_.erase(it);
    }
  }
  if (old == nullptr) {
    TLOG(LOG_DEBUG) << "It's a new camera sync to hub";
  } else {
    TLOG(LOG_DEBUG) << "It's exist in live channels, delete old and insert new";
    channel::LiveChannel::Release(std::move(old));
    TLOG(LOG_DEBUG) << "delete succeed.....";
  }
  InsertInLiveChannels(mac, std::make_shared<channel::LiveChannel>(mac));
}

}  // namespace server

void DisConnectCameraList() {
  for (const std::string& mac : server::ConfiguredCameras()) {
    TLOG(LOG_DEBUG) << "Drop camera station " << mac;
    disconnect_mac(mac.c_str());
  }
}
