// The motion-event recorder of one camera: a PIR event turns the camera's following video and
// audio into a clip and a snapshot in the camera's scratch folder (/tmp/MAC/alarm.mp4 and
// alarm.jpeg), and when the event ends both are copied into the SD card's recording tree, the
// event is appended to the camera's index and an alarm is queued for upload.
//
// Who calls what. The live channel calls HappenEvent for the camera's PIR frame and hands over
// the media while IsRecording(); after each video packet it compares LastFrameIndex() with the
// event's length and calls StopEvent(start, 0); a viewer's start of live view calls
// StopEvent(start, 1) from its session thread. The alarm upload's thread calls
// SetLastEventTime when the camera's alarm was handled.
//
// Threads. Everything but SetLastEventTime and FinishEvent runs under the recorder's own lock,
// so the viewer's forced stop never meets the event-loop thread halfway through a frame; the
// lock is held for a frame's copy or a forced stop's clip close. A stored event ends on a thread
// of its own (FinishEvent: clip finish and remux, card copy and syncs, index append, alarm),
// which holds the recorder alive and uses only the camera and the clip handed to it, so the
// event loop, which forwards every camera's live frames, never waits for the card; the camera's
// next event is refused ("last event still handling") until it is done. The recording flag,
// the last frame index, the start time and the last event time are atomics
// for the lock-free readers. A stop while nothing is recorded does nothing, so a stop that loses
// the race against another never stores an abandoned event.
//
// Paths: the scratch folder and SD card paths are opened under the board root; the alarm record
// holds the hub's scratch paths.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "camera/channel.h"
#include "media/mp4mux.h"

namespace camera {
class Camera;
}
namespace video {
class H264Frame;
}

namespace pirevent {

// No event is recorded before this time (the hub's clock has not been set).
constexpr uint32_t kEarliestEventTime = 1514736000;
// Reassembly: 16-byte frame header and the pieces, 1 MiB in all; at most 63 pieces a frame.
constexpr size_t kFrameBufferSize = 1048576;
constexpr int kMaxFramePieces = 63;
// The snapshot's size.
constexpr int kSnapshotWidth = 640;
constexpr int kSnapshotHeight = 360;

class PirEvent : public channel::EventSink, public std::enable_shared_from_this<PirEvent> {
 public:
  explicit PirEvent(std::shared_ptr<camera::Camera> camera);
  ~PirEvent() override;  // closes an open clip
  PirEvent(const PirEvent&) = delete;
  PirEvent& operator=(const PirEvent&) = delete;

  bool IsRecording() override { return recording_.load() != 0; }
  // 0 when an event was accepted and its clip created; -1 when refused (clock not set, interval
  // not elapsed, the last alarm still uploading, scratch folder, clip creation).
  int HappenEvent() override;
  void RecvEventVideo(const _net_cmd_type* frame) override;
  void RecvEventAudio(const _net_cmd_type* frame) override;
  uint32_t LastFrameIndex() override { return last_frame_index_.load(); }
  uint32_t EventStartTime() override { return start_time_.load(); }
  // Ends the event: force 1 abandons it (nothing stored or uploaded); otherwise the clip is
  // finished, the files go to the card and the index, and the alarm is queued whatever happened
  // on the card, all of it by FinishEvent on a thread of its own (see the file's comment).
  void StopEvent(uint32_t start_time, int force) override;
  // An ended event of this camera (of this recorder or of one its channel had before a
  // reconnection) is still being finished: the scratch files are in use.
  bool IsFinishing() const;
  void SetLastEventTime(uint32_t seconds) override { last_event_time_.store(seconds); }

  // The snapshot of the event, from its second key frame (under the lock).
  void HandleSecondIFrame(video::H264Frame* frame);
  // Copies the scratch clip and snapshot into the recording tree. 0, or negative.
  int MovePirEventInSDCard(unsigned int start_time);
  // Queues the alarm of the event. The result of InsertInAlarmLists.
  int InsetInUploadList();

  uint32_t LastEventTime() const { return last_event_time_.load(); }
  const std::string& mac() const;
  // The scratch folder, clip and snapshot as opened (board root in front).
  std::string ScratchDir() const;

 private:
  void ResetFrame();
  // The end of a stored event: finishes the clip, moves it to the card, queues the alarm, then
  // marks the camera finished. Uses only the camera and its arguments, without the recorder's
  // lock.
  void FinishEvent(ORU_MP4_HANDLE clip, uint32_t start_time);

  std::mutex mutex_;
  std::atomic<int> recording_{0};
  uint32_t expected_index_ = 0;
  std::atomic<uint32_t> start_time_{0};
  std::atomic<uint32_t> last_event_time_{0};
  uint32_t key_frames_ = 0;
  std::atomic<uint32_t> last_frame_index_{0};
  const std::shared_ptr<camera::Camera> camera_;
  uint8_t packet_count_ = 0;
  bool refusing_ = false;  // the pieces of frame refused_index_ are being dropped
  uint32_t refused_index_ = 0;
  std::unique_ptr<uint8_t[]> frame_buf_;  // kFrameBufferSize, made with the recorder
  ORU_MP4_HANDLE record_handle_ = nullptr;
};

// Gives every live channel made from now on its own recorder. Called once at start, before the
// media server makes the channels.
void InstallRecorder();

}  // namespace pirevent
