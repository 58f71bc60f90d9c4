// The hub's link to one battery camera: its TCP connection, the receive buffer cut into frames
// and routed by address and type, the commands sent to the camera, and the queue that keeps
// commands while the camera sleeps until it logs in again.
//
// Threads: the connection (InitConnect, CloseConnect, RecvStreams and everything routed from it)
// belongs to the event-loop thread. Commands may be sent from any thread. A channel taken out of
// the registry is handed to Release, which closes its connection on the loop thread.
//
// Counters: the send-failure count grows with every command refused while no connection is
// attached and calls disconnect_mac when it reaches 6 (then starts again). The wake-replacement
// count grows whenever a queued command is replaced by a newer one of the same type and subtype
// while the camera sleeps, and calls disconnect_mac each time it is 6 or more; it goes back to 0
// when the camera logs in or a new connection is attached, the two signs that the camera woke.
#pragma once

#include <ev.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "camera/camera.h"
#include "camera/channel.h"
#include "camera/framecutter.h"

namespace channel {

// The camera's alarm schedule kept by the hub (p2p.MAC.starthour ... pushalarm).
struct Schedule {
  int start_hour = 0;
  int start_min = 0;
  int stop_hour = 24;
  int stop_min = 0;
  int push_alarm = 1;
  // Whether the minute of the day (0..1439) lies in the schedule; a start after the stop spans
  // midnight; equal start and stop mean all day.
  bool Covers(int minute_of_day) const;
};

class LiveChannel : public Channel {
 public:
  static constexpr size_t kRecvBufferSize = 17408;
  static constexpr size_t kCommandBufferSize = 1388;
  static constexpr size_t kMaxCommandPayload = kCommandBufferSize - command::kFrameOverhead;
  static constexpr int64_t kAwakeSeconds = 3;
  static constexpr int kFailuresBeforeDisconnect = 6;
  static constexpr int kUdpWakeCount = 30;

  // A channel for a configured camera (MAC: twelve hexadecimal digits): its record is read from
  // the configuration, the hub's MAC from the configuration object.
  explicit LiveChannel(const std::string& mac);
  LiveChannel(std::shared_ptr<camera::Camera> camera, const std::string& hub_mac);
  ~LiveChannel() override;

  camera::Camera& camera() const { return *camera_; }
  const std::shared_ptr<camera::Camera>& camera_ptr() const { return camera_; }
  const std::string& mac() const { return camera_->mac(); }
  const std::string& hub_mac() const { return hub_mac_; }

  // Closes the connection of a channel that left the registry, on the loop thread; the channel
  // is destroyed there once nothing else holds it. Safe from any thread.
  static void Release(std::shared_ptr<LiveChannel> channel);

  // --- Connection, on the event-loop thread ---
  // Attaches a new connection (the channel owns the socket from here on).
  void InitConnect(int sockfd);
  // Drops the current connection, if any, and empties the receive buffer.
  void CloseConnect();
  // Read callback: receives what has arrived and routes the whole frames. Returns the receive
  // result. When the camera closes its connection or it fails, the link is dropped but the
  // camera stays connected for the rest of the hub: its commands are queued and it is woken
  // (TCP wake on the dead link fails, the UDP wake reaches it) until it connects again.
  int RecvStreams();
  // Cuts the whole frames out of the receive buffer and routes each with GotPacket.
  void RecivedRawData();
  // Routes one valid frame by destination address, type and subtype.
  void GotPacket(const _net_cmd_type* frame);

  // --- Sending, from any thread ---
  // Builds a command (hub address, or src as the ACK ID address) and sends it, or queues it and
  // wakes the camera. 1 when handed on, -1 when the camera is not connected or the payload is
  // longer than kMaxCommandPayload.
  int SendCommand(uint8_t type, uint8_t subtype, const uint8_t* payload, size_t length);
  int SendCommand(uint8_t type, uint8_t subtype, const uint8_t* payload, size_t length,
                  const uint8_t src[6]);
  // Sends a finished frame at once. Returns the bytes sent or -1.
  int SendCommand(const uint8_t* frame, size_t count);
  // Sends now when a frame arrived less than 3 seconds ago; otherwise queues the frame and
  // wakes the camera by TCP and UDP. Returns the send result, 0 when queued, -1 when dropped.
  int JudgeCameraAlive(const uint8_t* frame, size_t count);
  // Queues a frame for the next login; a queued frame of the same type and subtype is replaced.
  void PushCommandInVector(std::unique_ptr<uint8_t[]> frame);
  // Sends the wake frame on the TCP connection. Bytes sent or -1.
  int SendWakePackage();
  // Body of a detached thread: 30 wake datagrams, 100 ms apart, to the camera's address on the
  // wake port. Holds only the camera record, never the channel.
  static void SendUdpWakePackage(std::shared_ptr<camera::Camera> camera, std::string hub_mac);
  // Refreshes the camera's IP address from the ARP table. 0 when found, -1 otherwise (the last
  // known address stays).
  int CheckCameraIp();
  static int CheckCameraIp(camera::Camera& camera);

  // --- Viewers (any thread) ---
  void RegisteVideoForLiveClient(client::Client* client) override;
  void RegisteAudioForLiveClient(client::Client* client) override;
  void UnRegisteVideoForLiveClient(client::Client* client) override;
  void UnRegisteAudioForLiveClient(client::Client* client) override;
  // Appends the viewer to the list unless it is there.
  void AddLiveClient(client::Client* client);
  // Whether the viewer is in the list (a snapshot; takes no lock).
  bool IsClientExist(client::Client* client) const;
  // Removes the viewer when neither of its flags is set; when that empties the list the camera
  // is told to stop streaming (once). An absent viewer changes nothing.
  void TryRemoveLiveClient(client::Client* client);

  // --- Commands the hub sends ---
  int ActionSleep();
  int StartAVStream();
  int StopAVStream();
  int UpgradeCamera(const std::string& url);
  int SetCameraPir(int pir);
  int SetCameraPirNew(int pir);
  int GetCameraInfo();
  int GetCameraProp(uint32_t id);
  int SetVideoQuality(int quality);
  int ResetCamera();
  int SetCameraNightMode(uint32_t id, int mode);
  // Talk-back audio to the camera's speaker: sent at once while connected, never queued.
  int SendAudio(const uint8_t* data, size_t length);

  // --- Camera answers, on the event-loop thread (payload: the frame's n payload bytes) ---
  void HandleAckProp(const uint8_t* payload, size_t n);
  void HandleAckProp(const uint8_t* payload, size_t n, uint32_t id);
  void HandleAckPir(const _net_cmd_type* frame, uint32_t id);
  void HandleAckPirMain(const _net_cmd_type* frame);
  void HandleAckPirMain1(const _net_cmd_type* frame);
  void HandleAckPirNew(const _net_cmd_type* frame);
  void HandleAckNight(const _net_cmd_type* frame, uint32_t id);
  void HandleBatteryEvent(const uint8_t* payload);
  void RecvLoginPackage(const uint8_t* payload, size_t n);
  // Ends a motion event that reached its length; sends stop and sleep when nobody watches.
  void CheckVideoEnough();
  // Reads the camera's alarm schedule from the configuration. 0.
  int GetLocalSchedule(Schedule* schedule) const;

  // --- State ---
  bool IsConnected() const;
  int64_t LastReceptionTime() const { return last_recv_time_.load(); }
  size_t QueuedCommands() const;
  int SendFailures() const { return send_failures_.load(); }
  int WakeReplacements() const { return wake_replacements_.load(); }
  // 1 from a start or stop request until the camera acknowledges it.
  int StreamWait() const { return stream_wait_.load(); }
  // Number of UDP wake threads running in the process.
  static int ActiveUdpWakes();

  // The uptime clock (seconds) that decides whether the camera sleeps; tests replace it.
  using UptimeFn = int64_t (*)();
  void SetUptimeClock(UptimeFn fn) { uptime_.store(fn); }
  static int64_t SystemUptime();

 private:
  struct Connection;
  std::shared_ptr<Connection> GetConnection() const;
  bool CanSend(const std::shared_ptr<Connection>& conn) const;
  void DropLink(const std::shared_ptr<Connection>& conn);
  int SendBytes(const std::shared_ptr<Connection>& conn, const uint8_t* bytes, size_t count);
  int Build(uint8_t type, uint8_t subtype, const uint8_t* payload, size_t length,
            const uint8_t* src);
  int SendBuilt(uint8_t type, uint8_t subtype, const uint8_t* payload, size_t length,
                const uint8_t* src);
  void CountSendFailure();
  void ReplayCommands();
  void StoreInfo(const _net_cmd_get_info_type& info);
  void AnswerCloud(uint32_t id, uint8_t type, const uint8_t* ack, int result);
  int64_t Now() const { return uptime_.load()(); }
  static void OnReadable(struct ev_loop* loop, ev_io* watcher, int revents);

  const std::shared_ptr<camera::Camera> camera_;
  const std::string hub_mac_;
  uint8_t hub_addr_[6] = {0};

  // Connection: the pointer is swapped under conn_mutex_; senders hold their own reference.
  mutable std::mutex conn_mutex_;
  std::shared_ptr<Connection> conn_;
  ev_io watcher_;            // loop thread only
  command::FrameCutter rx_;  // loop thread only

  std::atomic<UptimeFn> uptime_;
  std::atomic<int64_t> last_recv_time_{0};
  std::atomic<bool> link_dropped_{false};  // the camera closed the attached connection
  std::atomic<int> send_failures_{0};
  std::atomic<int> wake_replacements_{0};
  std::atomic<int> stream_wait_{0};
  // Values asked for and not yet acknowledged.
  std::atomic<int> pending_pir_{0};
  std::atomic<int> pending_night_{0};
  std::atomic<int> pending_quality_{0};

  mutable std::mutex queue_mutex_;
  std::vector<std::unique_ptr<uint8_t[]>> queue_;
};

}  // namespace channel
