#include "camera/channel.h"

#include <sodium.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/log.h"
#include "camera/mediaframe.h"
#include "core/utils.h"
#include "crypto/hubauth.h"
#include "crypto/stream_encrypt.h"
#include "p2p/client.h"
#include "p2p/iotc.h"

namespace channel {
namespace {

std::mutex g_factory_mutex;
SinkFactory g_factory;

constexpr unsigned kResetWaitMs = 1000;

// Copies a viewer's stream key; wiped when the holder goes.
struct StreamKey {
  unsigned char bytes[kShareKeyBytes];
  ~StreamKey() { sodium_memzero(bytes, sizeof(bytes)); }
};

// What the transport's fill call needs to encrypt one frame for one viewer.
struct VideoFill {
  const uint8_t* frame;
  uint32_t len;
  const unsigned char* key;
  const unsigned char* nonce;
  const crypto_nalu_info* nalu;
  bool failed;
};

int EncryptVideoInto(void* context, unsigned char* dst, int size) {
  auto* fill = static_cast<VideoFill*>(context);
  unsigned int out_len = 0;
  if (video_chacha20_encrypt_nonce(fill->frame, fill->len, fill->key, fill->nonce, &out_len,
                                   fill->nalu, dst, static_cast<size_t>(size)) != 0 ||
      out_len != static_cast<unsigned int>(size)) {
    fill->failed = true;
    return -1;
  }
  return 0;
}

}  // namespace

void SetSinkFactory(SinkFactory factory) {
  std::lock_guard<std::mutex> lock(g_factory_mutex);
  g_factory = std::move(factory);
}

Channel::Channel()
    : live_clients_(std::make_shared<const ClientList>()),
      // Not zeroed: every slot a frame uses is written whole (data, then zeros) before the frame
      // is read, so only the pages the camera's frames reach ever become resident (a channel
      // of a 1080p stream uses a few hundred KiB of its 1 MiB; zeroing made every channel hold
      // all of it). The header starts zeroed.
      frame_buf_(new uint8_t[video::kFrameHeaderBytes + kReassemblyCapacity]) {
  std::memset(frame_buf_.get(), 0, video::kFrameHeaderBytes);
}

Channel::~Channel() = default;

void Channel::MakeSinks(LiveChannel& self) {
  SinkFactory factory;
  {
    std::lock_guard<std::mutex> lock(g_factory_mutex);
    factory = g_factory;
  }
  if (factory) sinks_ = factory(self);
}

// ---------------------------------------------------------------------------------------------
// Viewer list

std::shared_ptr<const Channel::ClientList> Channel::LiveClients() const {
  return std::atomic_load(&live_clients_);
}

void Channel::PublishLiveClients(std::shared_ptr<const ClientList> list) {
  std::atomic_store(&live_clients_, std::move(list));
}

bool Channel::HasLiveClient() const {
  return !LiveClients()->empty();
}

// ---------------------------------------------------------------------------------------------
// Video

void Channel::RefuseFrame(uint32_t index, const char* why) {
  TLOG(LOG_DEBUG) << "video frame index " << index << " refused: " << why;
  refusing_ = true;
  refused_index_ = index;
  piece_count_ = 0;
  last_frame_index_ = index + 1;
}

int Channel::TranVideoData(const _net_cmd_type* frame) {
  const size_t n = frame->Length();
  if (n < video::kFrameHeaderBytes) {
    TLOG(LOG_DEBUG) << "video piece len is error: " << n;
    return piece_count_;
  }
  const uint8_t* payload = frame->Payload();
  const int total = frame->mark1;
  const int piece = frame->mark2;
  const uint32_t index = command::GetLe32(payload + 12);
  // The remaining pieces of a refused frame go nowhere.
  if (refusing_ && index == refused_index_) return piece_count_;
  refusing_ = false;

  if (index != last_frame_index_) {
    TLOG(LOG_DEBUG) << "****last_frame_index: " << last_frame_index_ << " != item_index: " << index
                    << "***, drop it";
    std::memset(frame_buf_.get(), 0, video::kFrameHeaderBytes);
    piece_count_ = 0;
    last_frame_index_ = index;
  }
  if (piece == 1) {
    piece_count_ = 0;
    std::memcpy(frame_buf_.get(), payload, video::kFrameHeaderBytes);
  }
  if (total > kMaxFramePieces || piece > kMaxFramePieces || piece_count_ >= kMaxFramePieces) {
    RefuseFrame(index, "more than 63 pieces");
    return piece_count_;
  }

  // Whole 16384-byte slots; a short piece is padded with zeros, so no byte of an earlier frame
  // stays in the slot.
  const size_t bytes = std::min(n - video::kFrameHeaderBytes, command::kVideoPieceData);
  uint8_t* slot = frame_buf_.get() + video::kFrameHeaderBytes +
                  static_cast<size_t>(piece_count_) * command::kVideoPieceData;
  std::memcpy(slot, payload + video::kFrameHeaderBytes, bytes);
  if (bytes < command::kVideoPieceData)
    std::memset(slot + bytes, 0, command::kVideoPieceData - bytes);
  piece_count_ = static_cast<uint8_t>(piece_count_ + 1);

  if (piece != total || piece != piece_count_) return piece_count_;

  const video::H264Frame whole(frame_buf_.get());
  if (whole.length() == 0 ||
      whole.length() > static_cast<uint32_t>(piece_count_) * command::kVideoPieceData) {
    TLOG(LOG_DEBUG) << "video frame index " << index << " of length " << whole.length()
                    << " does not fit its " << static_cast<int>(piece_count_) << " pieces, refused";
  } else {
    FanOutVideoFrame(whole);
  }
  last_frame_index_++;
  return static_cast<int>(last_frame_index_);
}

int Channel::FanOutVideoFrame(const video::H264Frame& frame) {
  const std::shared_ptr<const ClientList> viewers = LiveClients();
  if (viewers->empty()) return 0;
  frameinfo::VideoFields fields;
  fields.key = frame.GetType() == 1;
  fields.viewers = static_cast<uint8_t>(viewers->size());
  fields.frame_index = frame.frame_index();
  fields.width = VideoWidth();
  fields.height = VideoHeight();
  fields.milliseconds = utils::GetTimestampUS1();
  fields.seconds = utils::GetTimestamp();
  _FRAMEINFO info;

  std::lock_guard<std::mutex> hold(encrypto_video.mutex);
  if (get_nalu_info(frame.data(), frame.length(), &encrypto_video.nalu) != 0) {
    TLOG(LOG_DEBUG) << "live: get nalu info before encrypto fail!";
  }
  static_assert(sizeof(video_nonce_) == kChachaNonceBytes, "one nonce a frame");
  randombytes_buf(video_nonce_, sizeof(video_nonce_));
  for (client::Client* client : *viewers) {
    frameinfo::SetVideoFrameInfo(&info, fields);
    TranVideoFrame(frame, client, &info);
  }
  return static_cast<int>(viewers->size());
}

int Channel::TranVideoFrame(const video::H264Frame& frame, client::Client* client,
                            _FRAMEINFO* info) {
  // Never wait for a viewer: one whose lock is held loses this frame. Its session and video
  // flag are read once, under the lock: a session thread may register or unregister it at any
  // moment, and what decides whether to send must also be what decides whether to drop.
  std::unique_lock<std::mutex> send(client->sendLock(), std::try_to_lock);
  if (!send.owns_lock()) return 0;
  const int av = client->avIndex();
  if (av < 0 || client->videoRegistered() == 0) {
    send.unlock();
    TLOG(LOG_DEBUG) << "Stop client avindex < 0";
    UnRegisteVideoForLiveClient(client);
    UnRegisteAudioForLiveClient(client);
    return 0;
  }

  const int ret = SendVideoLocked(frame.data(), frame.length(), *client, av, info, video_nonce_);
  if (ret == kAvExceedMaxSize) {
    // The viewer's queue is full: drop its queued video instead of waiting for it.
    avServResetBuffer(av, RESET_VIDEO, kResetWaitMs);
    TLOG(LOG_DEBUG) << "AV_ER_EXCEED_MAX_SIZE index: " << av;
  }
  send.unlock();
  if (ret >= 0 || ret == kAvExceedMaxSize) return ret;
  if (!DropGoneClient(ret, client)) TLOG(LOG_DEBUG) << "send video frame error: " << ret;
  return ret;
}

bool Channel::DropGoneClient(int result, client::Client* client) {
  switch (result) {
    case kAvClientNoAvLogin:
      TLOG(LOG_DEBUG) << "stop client AV_ER_CLIENT_NO_AVLOGIN";
      break;
    case kAvSessionCloseByRemote:
      TLOG(LOG_DEBUG) << "stop client AV_ER_SESSION_CLOSE_BY_REMOTE";
      break;
    case kAvRemoteTimeoutDisconnect:
      TLOG(LOG_DEBUG) << "stop client AV_ER_REMOTE_TIMEOUT_DISCONNECT";
      break;
    case kAvInvalidSid:
      TLOG(LOG_DEBUG) << "stop client AV_ER_INVALID_SID";
      break;
    default:
      return false;
  }
  UnRegisteVideoForLiveClient(client);
  UnRegisteAudioForLiveClient(client);
  return true;
}

// ---------------------------------------------------------------------------------------------
// Audio

int Channel::TranAudioData(const _net_cmd_type* frame) {
  audio::G711AFrame packet;
  if (packet.Fill(frame) < 0) return -1;
  if (packet.length == 0) return 0;
  const std::shared_ptr<const ClientList> viewers = LiveClients();
  if (viewers->empty()) return 0;
  _FRAMEINFO info;

  std::lock_guard<std::mutex> hold(encrypto_audio.mutex);
  for (client::Client* client : *viewers) {
    // Audio follows the video flag, not the audio flag.
    if (client->avIndex() < 0 || client->videoRegistered() == 0) continue;
    std::unique_lock<std::mutex> send(client->sendLock(), std::try_to_lock);
    if (!send.owns_lock()) continue;
    const int av = client->avIndex();
    if (av < 0) continue;

    frameinfo::SetAudioFrameInfo(&info, packet.time_ms);
    const int ret = SendAudioLocked(packet.data, packet.length, *client, av, &info);
    send.unlock();
    // A full queue loses this packet only; unlike video, nothing is reset.
    if (ret >= 0 || ret == kAvExceedMaxSize) continue;
    if (!DropGoneClient(ret, client)) TLOG(LOG_DEBUG) << "Send audio frame error: " << ret;
  }
  return 0;
}

// ---------------------------------------------------------------------------------------------
// The per-viewer send, shared by live view and playback

int SendVideoLocked(const uint8_t* frame, uint32_t len, const client::Client& client, int av,
                    _FRAMEINFO* info, const unsigned char* nonce) {
  // The frame is encrypted straight into the transport's message for this viewer: one pass
  // over the frame per viewer. A frame whose encrypted form would not fit the work buffer's
  // capacity goes out raw, as it always has.
  unsigned char drawn[kChachaNonceBytes];
  if (nonce == nullptr) {
    randombytes_buf(drawn, sizeof(drawn));
    nonce = drawn;
  }
  StreamKey key;
  VideoFill fill{frame, len, key.bytes, nonce, &encrypto_video.nalu, false};
  const size_t encrypted_len = VideoHeaderBytes(encrypto_video.nalu.count) + len;
  int ret = AV_ER_INVALID_ARG;
  if (client_encrypt_info.Get(client.slot(), key.bytes) == 0 &&
      encrypto_video.nalu.count <= kMaxListedNalus && encrypted_len <= encrypto_video.capacity) {
    frameinfo::SetEncrypted(info, true);
    ret = avSendFrameDataFill(av, static_cast<int>(encrypted_len), info,
                              static_cast<int>(sizeof(*info)), EncryptVideoInto, &fill);
  } else {
    fill.failed = true;
  }
  if (fill.failed) {
    TLOG(LOG_DEBUG) << "ERROR:video chacha20 encrypto fail!, send raw video data";
    frameinfo::SetEncrypted(info, false);
    ret = avSendFrameData(av, reinterpret_cast<const char*>(frame), static_cast<int>(len), info,
                          static_cast<int>(sizeof(*info)));
  }
  return ret;
}

int SendAudioLocked(const uint8_t* samples, int len, const client::Client& client, int av,
                    _FRAMEINFO* info) {
  const char* data = reinterpret_cast<const char*>(samples);
  int length = len;
  StreamKey key;
  if (client_encrypt_info.Get(client.slot(), key.bytes) == 0 &&
      audio_chacha20_encrypt(reinterpret_cast<const char*>(samples), len, key.bytes,
                             encrypto_audio.data, encrypto_audio.capacity) != nullptr) {
    data = reinterpret_cast<const char*>(encrypto_audio.data);
    length = len + static_cast<int>(kChachaNonceBytes);
    frameinfo::SetEncrypted(info, true);
  } else {
    TLOG(LOG_DEBUG) << "audio chacha20 encrypto fail!, send raw data!";
    frameinfo::SetEncrypted(info, false);
  }
  return avSendAudioData(av, data, length, info, static_cast<int>(sizeof(*info)));
}

}  // namespace channel
