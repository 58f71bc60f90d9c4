#include "storage/pirevent.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <set>
#include <system_error>
#include <thread>

#include "base/log.h"
#include "camera/camera.h"
#include "camera/livechannel.h"
#include "camera/mediaframe.h"
#include "core/utils.h"
#include "media/snapshot.h"
#include "platform/board.h"
#include "storage/pirupload.h"
#include "storage/recordindex.h"
#include "storage/sdcard.h"

namespace pirevent {
namespace {

// Path buffers: record root and camera folder 256 bytes (a development machine's board root
// lies in front), hour folder and files 512, the "/%MM%SS_" piece 32.
constexpr size_t kFolderPath = 256;
constexpr size_t kFilePath = 512;

// Cameras whose ended event is being finished (by MAC: a reconnected camera's new recorder
// must not reuse the scratch files its old one is still copying).
std::mutex g_finishing_mutex;
std::set<std::string> g_finishing;

void SetFinishing(const std::string& mac, bool finishing) {
  std::lock_guard<std::mutex> lock(g_finishing_mutex);
  if (finishing) {
    g_finishing.insert(mac);
  } else {
    g_finishing.erase(mac);
  }
}

// Forces a folder's entries (a rename into it) to the card.
void SyncFolder(const char* dir) {
  const int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  if (fsync(fd) != 0) TLOG(LOG_DEBUG) << "fsync " << dir << " error: " << std::strerror(errno);
  close(fd);
}

}  // namespace

PirEvent::PirEvent(std::shared_ptr<camera::Camera> camera)
    : camera_(std::move(camera)), frame_buf_(new uint8_t[kFrameBufferSize]) {
  // Not zeroed: each slot a frame uses is written whole before the frame is read, so a recorder
  // holds resident only the pages its camera's frames reach, not the whole megabyte.
  std::memset(frame_buf_.get(), 0, video::kFrameHeaderBytes);
}

PirEvent::~PirEvent() {
  if (record_handle_ != nullptr) orump4_close_file_for_create(record_handle_);
}

const std::string& PirEvent::mac() const {
  return camera_->mac();
}

std::string PirEvent::ScratchDir() const {
  return platform::BoardPath("/tmp/" + camera_->mac());
}

void PirEvent::ResetFrame() {
  packet_count_ = 0;
  refusing_ = false;
  // Every piece fills its whole slot, so no byte of an earlier frame survives in the part of
  // the buffer a frame uses: clearing the header is enough.
  std::memset(frame_buf_.get(), 0, video::kFrameHeaderBytes);
}

int PirEvent::HappenEvent() {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::string& mac = camera_->mac();
  const uint32_t start = utils::GetTimestamp();
  TLOG(LOG_DEBUG) << "Found a PIR event camera: " << mac << " time: " << start;
  if (start < kEarliestEventTime) {
    TLOG(LOG_DEBUG) << "pir time < 1514736000, system time error!!!";
    return -1;
  }
  const int64_t last = last_event_time_.load();
  if (utils::GetIntConfig(("p2p." + mac + ".set_pir_type").c_str()) != 0) {
    // Intervals of 60 s or less are left to the camera.
    const int seconds = camera_->NewAlarmInterval();
    if (seconds >= 61 && start < last + seconds) {
      TLOG(LOG_DEBUG) << "Pir event happen new interval < " << seconds << " seconds";
      return -1;
    }
  } else {
    const int minutes = camera_->AlarmInterval();
    if (start < last + int64_t{minutes} * 60) {
      TLOG(LOG_DEBUG) << "Pir event happen interval < " << minutes << "min";
      return -1;
    }
  }
  if (IsFinishing() || IsCameraUploading(mac)) {
    TLOG(LOG_DEBUG) << "last event still handling, stop new pir";
    return -1;
  }

  // Accepted: from here on the recorder takes the camera's media.
  start_time_.store(start);
  expected_index_ = 0;
  recording_.store(1);
  ResetFrame();
  key_frames_ = 0;
  last_frame_index_.store(0);
  const std::string dir = ScratchDir();
  if (utils::CheckDirExist(dir.c_str()) < 0) {
    TLOG(LOG_DEBUG) << "Create " << dir << " dir for save pir video failed";
    return -1;
  }
  // The last event's snapshot must not pass for this one's.
  const std::string jpeg = dir + "/alarm.jpeg";
  if (unlink(jpeg.c_str()) != 0 && errno != ENOENT) {
    TLOG(LOG_DEBUG) << "Remove " << jpeg << " error: " << std::strerror(errno);
  }
  if (record_handle_ != nullptr) {
    TLOG(LOG_DEBUG) << "record_handle != NUll, close old";
    orump4_close_file_for_create(record_handle_);
    record_handle_ = nullptr;
  }
  const std::string clip = dir + "/alarm.mp4";
  if (orump4_create_file(clip.c_str(), kOruMp4VideoH264, kOruMp4AudioG711A, 1, 15, 1920, 1080, 1,
                         8000, &record_handle_) != 0) {
    TLOG(LOG_DEBUG) << "Create record file failed: " << start;
    return -1;
  }
  return 0;
}

void PirEvent::RecvEventVideo(const _net_cmd_type* frame) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (recording_.load() == 0) return;  // stopped between the channel's test and this call
  const size_t n = frame->Length();
  if (n < video::kFrameHeaderBytes) {
    TLOG(LOG_DEBUG) << "pir video piece len is error: " << n;
    return;
  }
  const uint8_t* payload = frame->Payload();
  const int total = frame->mark1;
  const int piece = frame->mark2;
  const uint32_t index = command::GetLe32(payload + 12);
  if (refusing_ && index == refused_index_) return;
  refusing_ = false;

  if (index != expected_index_) {
    TLOG(LOG_DEBUG) << "**pir_last_frame_index: " << expected_index_ << " != item_index: " << index
                    << "**, drop it";
    ResetFrame();
    expected_index_ = index;
  }
  if (piece == 1) {
    ResetFrame();
    std::memcpy(frame_buf_.get(), payload, video::kFrameHeaderBytes);
  }
  if (piece < 1 || total > kMaxFramePieces || piece > kMaxFramePieces ||
      packet_count_ >= kMaxFramePieces) {
    TLOG(LOG_DEBUG) << "pir video frame index " << index << " refused: more than "
                    << kMaxFramePieces << " pieces";
    ResetFrame();
    refusing_ = true;
    refused_index_ = index;
    expected_index_ = index + 1;
    return;
  }
  // A whole 16384-byte slot per piece; a short last piece is padded with zeros.
  const size_t bytes = std::min(n - video::kFrameHeaderBytes, command::kVideoPieceData);
  uint8_t* slot = frame_buf_.get() + video::kFrameHeaderBytes +
                  static_cast<size_t>(packet_count_) * command::kVideoPieceData;
  std::memcpy(slot, payload + video::kFrameHeaderBytes, bytes);
  if (bytes < command::kVideoPieceData) {
    std::memset(slot + bytes, 0, command::kVideoPieceData - bytes);
  }
  packet_count_ = static_cast<uint8_t>(packet_count_ + 1);
  if (piece != total || piece != packet_count_) return;

  video::H264Frame whole(frame_buf_.get());
  if (whole.length() == 0 ||
      whole.length() > static_cast<uint32_t>(packet_count_) * command::kVideoPieceData) {
    TLOG(LOG_DEBUG) << "pir video frame index " << index << " of length " << whole.length()
                    << " does not fit its " << static_cast<int>(packet_count_)
                    << " pieces, refused";
    expected_index_++;
    return;
  }
  last_frame_index_.store(whole.frame_index());
  if (whole.GetType() == 1 && ++key_frames_ == 2) HandleSecondIFrame(&whole);
  orump4_write_video_frame(record_handle_, whole.data(), whole.length(), 0);
  expected_index_++;
}

void PirEvent::RecvEventAudio(const _net_cmd_type* frame) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (recording_.load() == 0) return;
  audio::G711AFrame packet;
  if (packet.Fill(frame) < 0 || packet.length == 0) return;
  orump4_write_audio_frame(record_handle_, packet.data, packet.length);
}

void PirEvent::HandleSecondIFrame(video::H264Frame* frame) {
  const std::string& mac = camera_->mac();
  TLOG(LOG_DEBUG) << "Convert second I frame to jpeg camera mac: " << mac;
  const std::string jpeg = ScratchDir() + "/alarm.jpeg";
  if (ConvertH264FrameToJpeg(jpeg.c_str(), frame->data(), frame->length(), kSnapshotWidth,
                             kSnapshotHeight) == 0) {
    TLOG(LOG_DEBUG) << "Convert to jpeg ok camera: " << mac;
  } else {
    TLOG(LOG_DEBUG) << "Convert to jpeg fail!!! camera: " << mac;
  }
}

void PirEvent::StopEvent(uint32_t start_time, int force) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::string& mac = camera_->mac();
  if (recording_.load() == 0) {
    TLOG(LOG_DEBUG) << "No pir event of " << mac << " recording, stop ignored";
    return;
  }
  recording_.store(0);
  ORU_MP4_HANDLE clip = record_handle_;
  record_handle_ = nullptr;
  expected_index_ = 0;
  ResetFrame();
  if (force == 1) {
    if (clip != nullptr) orump4_close_file_for_create(clip);
    TLOG(LOG_DEBUG) << "This is force stop pir event";
    return;
  }
  // The clip's remux, the card copies and their syncs take from tens of milliseconds to
  // seconds on a slow card: on the event loop they would hold every camera's live frames.
  SetFinishing(mac, true);
  if (std::shared_ptr<PirEvent> self = weak_from_this().lock()) {
    try {
      std::thread([self, clip, start_time] { self->FinishEvent(clip, start_time); }).detach();
      return;
    } catch (const std::system_error& e) {
      TLOG(LOG_DEBUG) << "Start the event's finishing thread failed: " << e.what();
    }
  }
  FinishEvent(clip, start_time);  // no thread (or not owned by a channel): here
}

void PirEvent::FinishEvent(ORU_MP4_HANDLE clip, uint32_t start_time) {
  const std::string& mac = camera_->mac();
  if (clip != nullptr) orump4_close_file_for_create(clip);
  if (CheckSdcardMount() != 0) {
    TLOG(LOG_DEBUG) << "Sdcard don't exist or popen fail";
  } else if (MovePirEventInSDCard(start_time) < 0) {
    TLOG(LOG_DEBUG) << "Move pir event in sdcard failed";
  } else {
    TLOG(LOG_DEBUG) << "Move " << mac << " pir event in sdcard succeed";
    long start = static_cast<long>(start_time);
    if (FwriteTimestamp(&start, 0, mac.c_str()) == -1) TLOG(LOG_DEBUG) << "Write timestamp error";
  }
  // The cloud gets the event whatever happened on the card.
  InsetInUploadList();
  SetFinishing(mac, false);
}

bool PirEvent::IsFinishing() const {
  std::lock_guard<std::mutex> lock(g_finishing_mutex);
  return g_finishing.count(camera_->mac()) != 0;
}

int PirEvent::MovePirEventInSDCard(unsigned int start_time) {
  const std::string& mac = camera_->mac();
  const time_t t = static_cast<time_t>(start_time);
  struct tm local;
  localtime_r(&t, &local);
  char hour[32];
  std::strftime(hour, sizeof(hour), "/%Y%m%d%H", &local);
  if (GetSdCardStatus() != SDCARD_STATUS_NORMAL) {
    TLOG(LOG_DEBUG) << "Sdcard do not exist";
    return -1;
  }
  char root[kFolderPath] = {0};
  int rc = GetSdCardRecordPath(root, sizeof(root));
  if (rc < 0) {
    TLOG(LOG_DEBUG) << "Sd card don't have path: " << root;
    return rc;
  }
  char camera_dir[kFolderPath];
  char hour_dir[kFilePath];
  if (std::snprintf(camera_dir, sizeof(camera_dir), "%s/%s", root, mac.c_str()) >=
          static_cast<int>(sizeof(camera_dir)) ||
      std::snprintf(hour_dir, sizeof(hour_dir), "%s%s", camera_dir, hour) >=
          static_cast<int>(sizeof(hour_dir))) {
    TLOG(LOG_DEBUG) << "Sd card path too long: " << root;
    return -1;
  }
  for (const char* dir : {camera_dir, hour_dir}) {
    rc = utils::CheckDirExist(dir);
    if (rc < 0) {
      TLOG(LOG_DEBUG) << "Sd card don't have path: " << dir;
      return rc;
    }
  }
  char piece[32];
  std::strftime(piece, sizeof(piece), "/%MM%SS_", &local);
  char base[kFilePath];
  char clip[kFilePath];
  char jpeg[kFilePath];
  if (std::snprintf(base, sizeof(base), "%s%s%u", hour_dir, piece, start_time) >=
          static_cast<int>(sizeof(base) - 8) ||
      std::snprintf(clip, sizeof(clip), "%s.mp4", base) >= static_cast<int>(sizeof(clip)) ||
      std::snprintf(jpeg, sizeof(jpeg), "%s.jpeg", base) >= static_cast<int>(sizeof(jpeg))) {
    TLOG(LOG_DEBUG) << "Sd card path too long: " << hour_dir;
    return -1;
  }
  TLOG(LOG_DEBUG) << "Record_mp4_path: " << clip;
  TLOG(LOG_DEBUG) << "Record_jpeg_path: " << jpeg;

  const std::string scratch = ScratchDir();
  rc = utils::CopyFile((scratch + "/alarm.mp4").c_str(), clip);
  if (rc < 0) {
    TLOG(LOG_DEBUG) << "Copy " << mac << " mp4 file to SD card failed";
    return rc;
  }
  TLOG(LOG_DEBUG) << "Copy " << mac << " mp4 file to SD card succeed";
  rc = utils::CopyFile((scratch + "/alarm.jpeg").c_str(), jpeg);
  if (rc < 0) {
    TLOG(LOG_DEBUG) << "Copy " << mac << " jpeg file to SD card failed";
  } else {
    TLOG(LOG_DEBUG) << "Copy " << mac << " jpeg file to SD card succeed";
  }
  // The renames reach the card before the index can name the files.
  SyncFolder(hour_dir);
  return rc;
}

int PirEvent::InsetInUploadList() {
  const std::string& mac = camera_->mac();
  auto* record = new alarm_mgr_list();
  std::snprintf(record->mac, sizeof(record->mac), "%s", mac.c_str());
  std::snprintf(record->mp4_path, sizeof(record->mp4_path), "/tmp/%s/alarm.mp4", mac.c_str());
  std::snprintf(record->pic_path, sizeof(record->pic_path), "/tmp/%s/alarm.jpeg", mac.c_str());
  return InsertInAlarmLists(record);
}

void InstallRecorder() {
  channel::SetSinkFactory([](channel::LiveChannel& live) {
    channel::Sinks sinks;
    sinks.events = std::make_shared<PirEvent>(live.camera_ptr());
    return sinks;
  });
}

}  // namespace pirevent
