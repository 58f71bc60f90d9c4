// The media side of a camera's channel: the viewers registered on it, the reassembly of the
// camera's video pieces into whole frames, and the fan-out of every frame and audio packet to
// each viewer, encrypted with that viewer's stream key. The motion-event recorder that takes the
// media while an event is recorded is a narrow interface; a factory set once at start gives
// every new channel its own.
//
// Threads. TranVideoData and TranAudioData run on the camera's receive thread (the event loop)
// and own the reassembly state. Viewers are registered and unregistered from their session
// threads and from the senders. The viewer list is an immutable snapshot: writers serialise on
// the list mutex, build a new list and publish it; a sender takes the current snapshot once and
// walks it without any lock, so its end is fixed when the walk starts and a concurrent change
// never touches the list being walked. The camera's thread never waits for a viewer: each
// viewer's send lock is only tried, a busy viewer loses that frame.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "camera/frame.h"
#include "camera/frameinfo.h"

namespace client {
class Client;
}
namespace video {
class H264Frame;
}

namespace channel {

class LiveChannel;

// The motion-event recorder of a channel. Called on the event-loop thread, except
// IsRecording/StopEvent/EventStartTime, which a viewer's start of live view also calls.
class EventSink {
 public:
  virtual ~EventSink() = default;
  virtual bool IsRecording() = 0;
  // A motion event (0x81): 0 when an event was opened, -1 when refused.
  virtual int HappenEvent() = 0;
  virtual void RecvEventVideo(const _net_cmd_type* frame) = 0;
  virtual void RecvEventAudio(const _net_cmd_type* frame) = 0;
  // Frame index of the last whole frame of the event, and the event's start time.
  virtual uint32_t LastFrameIndex() = 0;
  virtual uint32_t EventStartTime() = 0;
  // Ends the event; force 1 abandons it (a viewer wants live video).
  virtual void StopEvent(uint32_t start_time, int force) = 0;
  // The camera's last alarm was handled at this time (the alarm upload's thread): the next
  // event is spaced from it.
  virtual void SetLastEventTime(uint32_t /*seconds*/) {}
};

struct Sinks {
  std::shared_ptr<EventSink> events;
};

// Makes the sinks of a new channel. Set once at start, before any channel exists; without a
// factory a channel has no recorder.
using SinkFactory = std::function<Sinks(LiveChannel& channel)>;
void SetSinkFactory(SinkFactory factory);

// AV transport results the senders act on.
constexpr int kAvExceedMaxSize = -20006;
constexpr int kAvClientNoAvLogin = -20008;
constexpr int kAvInvalidSid = -20010;
constexpr int kAvSessionCloseByRemote = -20015;
constexpr int kAvRemoteTimeoutDisconnect = -20016;

// The per-viewer send of live view, which playback shares. The caller holds the viewer's send
// lock and av is its AV channel. Video: the caller holds encrypto_video.mutex and
// encrypto_video.nalu lists the frame's units; audio: the caller holds encrypto_audio.mutex.
// The payload is encrypted with the viewer's stream key (raw, encrypted flag 0, when that
// fails), info's encrypted flag set, and the frame queued. The transport's result. Video is
// encrypted straight into the queued message under `nonce` (8 bytes; one drawn when null: a
// frame sent to several viewers draws one for all).
int SendVideoLocked(const uint8_t* frame, uint32_t len, const client::Client& client, int av,
                    _FRAMEINFO* info, const unsigned char* nonce = nullptr);
int SendAudioLocked(const uint8_t* samples, int len, const client::Client& client, int av,
                    _FRAMEINFO* info);

class Channel {
 public:
  // Reassembly: a 16-byte frame header and up to 1 MiB of frame. A frame of more than 63
  // pieces of 16384 bytes is refused.
  static constexpr size_t kReassemblyCapacity = 1048576;
  static constexpr int kMaxFramePieces = 63;
  using ClientList = std::vector<client::Client*>;

  virtual ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // --- Viewer registration (any thread) ---
  // Video: sets the viewer's video flag and adds it to the list. Audio: sets the audio flag and
  // adds it. Unregistering video clears both flags, unregistering audio clears only the video
  // flag (the audio flag stays as it is); each then removes the viewer when neither flag is set,
  // and the removal of the last viewer tells the camera to stop streaming.
  virtual void RegisteVideoForLiveClient(client::Client* client) = 0;
  virtual void RegisteAudioForLiveClient(client::Client* client) = 0;
  virtual void UnRegisteVideoForLiveClient(client::Client* client) = 0;
  virtual void UnRegisteAudioForLiveClient(client::Client* client) = 0;

  // The current viewer list (never null). Lock-free for readers.
  std::shared_ptr<const ClientList> LiveClients() const;
  bool HasLiveClient() const;

  // --- Media from the camera (event-loop thread) ---
  // One video piece (0x8A/0x00). Returns the pieces gathered so far, or the next expected frame
  // index once a frame was complete and sent to the viewers.
  int TranVideoData(const _net_cmd_type* frame);
  // One audio packet (0x8A/0x01), sent to every viewer registered for video. 0, or -1 for a
  // malformed packet.
  int TranAudioData(const _net_cmd_type* frame);
  // Sends one whole frame to every viewer of the current list, in list order. Returns the
  // number of viewers walked.
  int FanOutVideoFrame(const video::H264Frame& frame);
  // Sends one frame to one viewer: encrypted with its stream key (raw with the encrypted flag 0
  // when that fails) straight into the transport's message, under the header `info`, whose
  // encrypted flag is set here. The caller holds encrypto_video.mutex, encrypto_video.nalu lists
  // the frame's units and the frame's nonce is drawn. The transport's result, or 0 when nothing
  // was sent (busy viewer, or one that was unregistered).
  int TranVideoFrame(const video::H264Frame& frame, client::Client* client, _FRAMEINFO* info);

  // The stream size copied into every video frame's information.
  uint16_t VideoWidth() const { return video_width_.load(); }
  uint16_t VideoHeight() const { return video_height_.load(); }

  // The frame index the reassembly expects next (event-loop thread).
  uint32_t LastFrameIndex() const { return last_frame_index_; }

  EventSink* event_sink() const { return sinks_.events.get(); }

 protected:
  Channel();
  // Takes this channel's sinks from the factory; called once from the derived constructor.
  void MakeSinks(LiveChannel& self);

  // The list writers' lock, and the publication of a new list (hold the lock).
  std::mutex& live_clients_mutex() { return live_clients_mutex_; }
  void PublishLiveClients(std::shared_ptr<const ClientList> list);

  std::atomic<uint16_t> video_width_{1920};
  std::atomic<uint16_t> video_height_{1080};

 private:
  // Acts on a send result that ends the viewer: logs and unregisters video then audio. True
  // when the result was one of those.
  bool DropGoneClient(int result, client::Client* client);
  void RefuseFrame(uint32_t index, const char* why);

  Sinks sinks_;

  std::mutex live_clients_mutex_;  // serialises the writers of live_clients_
  // Read with std::atomic_load, replaced with std::atomic_store.
  std::shared_ptr<const ClientList> live_clients_;

  // Reassembly, event-loop thread only.
  std::unique_ptr<uint8_t[]> frame_buf_;  // 16-byte header + kReassemblyCapacity
  uint8_t piece_count_ = 0;
  uint32_t last_frame_index_ = 0;
  bool refusing_ = false;  // the pieces of frame refused_index_ are being dropped
  uint32_t refused_index_ = 0;

  // The nonce of the frame being fanned out, drawn once for all its viewers (under
  // encrypto_video.mutex).
  unsigned char video_nonce_[8] = {0};
};

}  // namespace channel
