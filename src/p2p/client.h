// One viewer session slot. The media server keeps four for the process's life, indexed by the
// P2P session ID 0..3 that each serves; a slot is reused by the next session with the same ID.
//
// The session thread of the slot writes avIndex; the frame senders, the talkback thread and the
// playback code read it from their own threads, so every field that more than one thread
// touches is atomic or guarded. The send lock serialises the sends and buffer resets on the
// slot's AV channel; the frame senders only ever try it, so a slow viewer is skipped rather
// than waited for.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

namespace client {

constexpr int kSlots = 4;

class Client {
 public:
  explicit Client(int slot) : slot_(slot) {}
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // The session slot 0..3, equal to the session ID served; also the slot of the viewer's
  // stream key.
  int slot() const { return slot_; }

  // The AV channel index of the session; negative while the slot has none.
  int avIndex() const { return av_index_.load(); }
  void SetAvIndex(int index) { av_index_.store(index); }
  // Sets the index to -1 when it still is `index` (a later session may have replaced it).
  // True when it was cleared.
  bool ClearAvIndex(int index) { return av_index_.compare_exchange_strong(index, -1); }

  // The viewer's AV channel number for talkback and whether the talkback thread is to run.
  int talkChannel() const { return talk_channel_.load(); }
  void SetTalkChannel(int channel) { talk_channel_.store(channel); }
  int talking() const { return talking_.load(); }
  void SetTalking(int on) { talking_.store(on); }

  // Whether the viewer is registered for a camera's audio and video; live frames go to it only
  // while video is set.
  uint8_t audioRegistered() const { return audio_registered_.load(); }
  void SetAudioRegistered(uint8_t on) { audio_registered_.store(on); }
  uint8_t videoRegistered() const { return video_registered_.load(); }
  void SetVideoRegistered(uint8_t on) { video_registered_.store(on); }

  // The MAC of the camera the viewer watches; empty until it starts live view.
  std::string camera() const;
  void SetCamera(const std::string& mac);

  // Held around avSendFrameData, avSendAudioData and avServResetBuffer on this slot's channel.
  std::mutex& sendLock() { return send_lock_; }

 private:
  const int slot_;
  std::atomic<int> av_index_{-1};
  std::atomic<int> talk_channel_{0};
  std::atomic<int> talking_{0};
  std::atomic<uint8_t> audio_registered_{0};
  std::atomic<uint8_t> video_registered_{0};
  std::mutex send_lock_;
  mutable std::mutex camera_mutex_;  // guards camera_
  std::string camera_;
};

}  // namespace client
