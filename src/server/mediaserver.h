// The media server: the camera listener and the registry of live channels, and the P2P side.
//
// The registry maps a camera's MAC (twelve upper-case hexadecimal digits) to its live channel.
// Look-ups hand out shared references, so a channel taken out of the registry lives on until its
// last user lets go; its connection is closed on the event-loop thread when it leaves.
#pragma once

#include <ev.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace channel {
class LiveChannel;
}

namespace server {

class MediaServer {
 public:
  MediaServer();
  MediaServer(const MediaServer&) = delete;
  MediaServer& operator=(const MediaServer&) = delete;

  // Builds one live channel per camera section of uci package "p2p" and starts the camera
  // listener. With TARVO_TEST_PAIRING=1 in the environment it also enters pairing mode: a test
  // hook that goes once the cloud's pairing command reaches the hub. 0 or -1.
  int Init();
  // Starts the P2P login and listen threads. 0 or -1.
  int StartTutk();

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
  // A camera has just paired: its old channel, if any, is replaced by a new one.
  void SyncNewCamera(const std::string& mac);

 private:
  static void OnAccept(struct ev_loop* loop, ev_io* watcher, int revents);

  std::mutex mutex_;  // guards live_channels_
  std::map<std::string, std::shared_ptr<channel::LiveChannel>> live_channels_;
  int listen_fd_ = -1;
  ev_io accept_watcher_;
};

}  // namespace server

// Asks the camera access point to drop the stations of every configured camera, so that they
// associate and connect afresh to this process.
void DisConnectCameraList();
