// The media server: the camera listener and the registry of live channels, and the P2P side.
//
// The registry maps a camera's MAC (twelve upper-case hexadecimal digits) to its live channel.
// Look-ups hand out shared references, so a channel taken out of the registry lives on until its
// last user lets go; its connection is closed on the event-loop thread when it leaves.
//
// The P2P side brings the P2P libraries up, logs the hub in under its uid, waits for viewers and
// serves each session on its own thread: the AV server channel with the slot's login check, then
// the viewer's I/O-control messages one at a time until the session ends.
#pragma once

#include <ev.h>

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace channel {
class LiveChannel;
}
namespace client {
class Client;
}

namespace server {

class MediaServer {
 public:
  // Sets server_play to this server.
  MediaServer();
  ~MediaServer();
  MediaServer(const MediaServer&) = delete;
  MediaServer& operator=(const MediaServer&) = delete;

  // Creates the four viewer session slots, builds one live channel per camera section of uci
  // package "p2p" and starts the camera listener. 0 or -1.
  int Init();
  // Brings the P2P libraries up (at most four sessions, twelve AV channels) and starts the
  // login and listen threads; returns at once. 0, or -1 when a library does not start (the
  // rest of the hub runs on without viewers).
  int StartTutk();
  // Clears the running flag: the listen loop then takes every slot's AV channel away, shuts the
  // P2P libraries down and ends the process with status 0.
  void StopTutk();
  bool running() const { return running_.load() != 0; }

  // The viewer session slot 0..3, or nullptr for another index or before Init.
  client::Client* GetClient(int slot) const;

  // Thread body: logs the device in to the P2P service under the configuration's uid, waiting
  // while there is none and retrying every 5 seconds until it succeeds.
  static void* Login(void* arg);
  // The login-state callback: only logs.
  static void LoginInfoCallback(unsigned int flags);
  // Thread body, arg the server: accepts viewer sessions, one detached thread each.
  static void* DoListen(void* arg);
  // Thread body, arg a heap int holding the session ID (freed here): serves one viewer session.
  static void* Thread_ForAVServerStart(void* arg);
  // Ends a viewer session: stops its AV channel and any playback of it, closes the session.
  // The result of IOTC_Session_Close.
  static int CloseSession(int sid, int avIndex);

  // One I/O-control message of the viewer of session sid (payload zero-filled after the
  // message, so texts are NUL-terminated), dispatched by type to the handlers of ioctrl.h. Runs
  // on that session's thread.
  void Handle_IOCTRL_Cmd(int sid, int avIndex, char* payload, int type);

  // The media server that ran Init last (the daemon has one), or nullptr.
  static MediaServer* Current();

  // Opens the camera listener on TARVO_HUB_IP:TARVO_CAMERA_PORT and registers its accept
  // watcher with the event loop. 0 or -1.
  int RunTcpServer();
  // Accepts one camera connection and attaches it to its channel (event-loop thread).
  void AcceptCallback();

  // Puts a channel under the MAC; a channel already there is released.
  void InsertInLiveChannels(const std::string& mac, std::shared_ptr<channel::LiveChannel> channel);
  // Removes and releases the channel of the MAC. 0, or -1 when there is none.
  int TryEraseLiveChannels(const std::string& mac);
  // The channel of the MAC; throws std::out_of_range when there is none.
  std::shared_ptr<channel::LiveChannel> GetLiveChannel(const std::string& mac);
  // The channel of the MAC, or nullptr.
  std::shared_ptr<channel::LiveChannel> FindLiveChannel(const std::string& mac);
  std::vector<std::string> LiveChannelMacs();
  // Takes the viewer slot off every camera it watches (a camera left without viewers is told to
  // stop streaming).
  void LeaveAllCameras(client::Client* client);
  // A camera has just paired: its old channel, if any, is replaced by a new one.
  void SyncNewCamera(const std::string& mac);

 private:
  static void OnAccept(struct ev_loop* loop, ev_io* watcher, int revents);

  std::array<client::Client*, 4> clients_{};  // made by Init, deleted with the server
  std::atomic<int> running_{0};
  std::mutex mutex_;  // guards live_channels_
  std::map<std::string, std::shared_ptr<channel::LiveChannel>> live_channels_;
  int listen_fd_ = -1;
  ev_io accept_watcher_;
};

}  // namespace server

// The media server of the process, set by its constructor.
extern std::atomic<server::MediaServer*> server_play;

// Asks the camera access point to drop the stations of every configured camera, so that they
// associate and connect afresh to this process.
void DisConnectCameraList();
