// The media side of a camera's channel: where the camera's live video and audio go, and the
// motion-event recorder that takes them while an event is recorded. Both are narrow interfaces;
// the viewer forwarding and the event recorder implement them, and a factory set once at start
// gives every new channel its own pair.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "camera/frame.h"

namespace channel {

class LiveChannel;

// The viewers registered on a channel. Called on the event-loop thread with whole, validated
// frames (the frame's Length() payload bytes follow its header).
class FrameSink {
 public:
  virtual ~FrameSink() = default;
  virtual bool HasLiveClient() = 0;
  // One video piece (0x8A/0x00) and one audio packet (0x8A/0x01).
  virtual int TranVideoData(const _net_cmd_type* frame) = 0;
  virtual int TranAudioData(const _net_cmd_type* frame) = 0;
};

// The motion-event recorder of a channel. Called on the event-loop thread, except
// IsRecording/StopEvent, which a viewer's start of live view also calls.
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
};

struct Sinks {
  std::shared_ptr<FrameSink> frames;
  std::shared_ptr<EventSink> events;
};

// Makes the sinks of a new channel. Set once at start, before any channel exists; without a
// factory a channel has no viewers and no recorder.
using SinkFactory = std::function<Sinks(LiveChannel& channel)>;
void SetSinkFactory(SinkFactory factory);

// The base of a camera's channel: its media side. Without a viewer sink nobody watches, and
// media that reaches TranVideoData or TranAudioData is dropped.
class Channel {
 public:
  virtual ~Channel() = default;
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  bool HasLiveClient() const;
  int TranVideoData(const _net_cmd_type* frame);
  int TranAudioData(const _net_cmd_type* frame);
  EventSink* event_sink() const { return sinks_.events.get(); }
  FrameSink* frame_sink() const { return sinks_.frames.get(); }

 protected:
  Channel() = default;
  // Takes this channel's sinks from the factory; called once from the derived constructor.
  void MakeSinks(LiveChannel& self);

 private:
  Sinks sinks_;
};

}  // namespace channel
