// Cloud requests that a camera's live channel carries out: properties and night mode, answered
// when the camera answers; removal of a camera; pairing mode.
#include <pthread.h>

#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include "base/log.h"
#include "camera/cloudrequest.h"
#include "camera/livechannel.h"
#include "cloud/cameracmd.h"
#include "cloud/cmdargs.h"
#include "cloud/mqttclient.h"
#include "core/zelojson.h"
#include "platform/hwlib.h"
#include "platform/uci.h"
#include "server/mediaserver.h"
#include "server/pairing.h"

namespace {

// How long removal waits for a sleeping camera to take its reset before it is dropped anyway.
constexpr auto kResetWait = std::chrono::seconds(10);

std::mutex g_deleting_mutex;
std::set<std::string> g_deleting;

// The channel of the camera; logs "Msg Out of Range error: " when there is none.
std::shared_ptr<channel::LiveChannel> Channel(const std::string& mac) {
  server::MediaServer* server = server::MediaServer::Current();
  if (server == nullptr) {
    TLOG(LOG_DEBUG) << "No media server, camera " << mac << " unreachable";
    return nullptr;
  }
  try {
    return server->GetLiveChannel(mac);
  } catch (const std::out_of_range& e) {
    TLOG(LOG_DEBUG) << "Msg Out of Range error: " << e.what();
    return nullptr;
  }
}

// Sends the request to the camera with the command id as its ACK ID; the handler replies when
// the camera answers. A request the camera never answers is dropped with the registry's
// time-out, without a reply.
int AskCamera(int id, const char* what, const cloudrequest::Handler& handler,
              const std::function<int(uint32_t)>& send) {
  const uint32_t ack_id = static_cast<uint32_t>(id);
  if (!cloudrequest::CloudRequests().Add(ack_id, handler)) {
    TLOG(LOG_DEBUG) << what << ": request " << id << " already waits for its camera";
    return -1;
  }
  if (send(ack_id) < 0) {
    cloudrequest::CloudRequests().Cancel(ack_id);
    TLOG(LOG_DEBUG) << what << ": camera not reachable, request " << id << " dropped";
    return -1;
  }
  return 0;
}

void UnbindCamera(int id, std::string mac) {
  TLOG(LOG_DEBUG) << "Unbind camera " << mac;
  server::MediaServer* server = server::MediaServer::Current();
  std::shared_ptr<channel::LiveChannel> channel =
      server != nullptr ? server->FindLiveChannel(mac) : nullptr;
  // The camera forgets the hub: sent now, or queued and replayed when the woken camera logs in.
  if (channel != nullptr && channel->ResetCamera() > 0) {
    auto deadline = std::chrono::steady_clock::now() + kResetWait;
    while (channel->QueuedCommands() > 0 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (channel->QueuedCommands() > 0) {
      TLOG(LOG_DEBUG) << "Camera " << mac << " did not wake for its reset";
    }
  }
  channel.reset();
  if (server != nullptr) server->TryEraseLiveChannels(mac);
  bool removed = zcfg_uci_delete(("p2p." + mac).c_str()) == 0;
  if (!removed) TLOG(LOG_DEBUG) << "Delete camera " << mac << " in uci config failed";
  if (disconnect_mac(mac.c_str()) != 0) {
    TLOG(LOG_DEBUG) << "Disconnect camera " << mac << " station failed";
  }
  {
    std::lock_guard<std::mutex> lock(g_deleting_mutex);
    g_deleting.erase(mac);
  }
  if (!removed) return;
  std::string reply = cmdargs::OkReply(id);
  TLOG(LOG_DEBUG) << "Delete camera " << mac << " ack: " << reply;
  MqttCommandAck(reply.c_str());
}

}  // namespace

int ProcMsgGetCameraProp(const char* msg) {
  int id = 0;
  std::string mac;
  if (!cmdargs::GetIdAndCameraMac(msg, &id, &mac)) return -1;
  auto channel = Channel(mac);
  if (channel == nullptr) return -1;
  TLOG(LOG_DEBUG) << "Get camera prop: " << mac << ", ACK ID: " << id;
  return AskCamera(
      id, "get_camera_prop",
      [id, mac](const cloudrequest::Answer& answer) {
        std::string reply = cmdargs::Reply(id, cmdargs::CameraRecord(mac, &answer.status));
        TLOG(LOG_DEBUG) << "Get camera prop Ack: " << reply;
        MqttCommandAck(reply.c_str());
      },
      [&channel](uint32_t ack_id) { return channel->GetCameraProp(ack_id); });
}

int ProcMsgSetNightMode(const char* msg) {
  TLOG(LOG_DEBUG) << "Proc set night mode";
  int id = 0;
  if (!cmdargs::GetId(msg, &id)) return -1;
  zelojson::Doc doc(msg);
  json_object* params = cmdargs::GetPairParams(doc, "Set camera night params length not equal ");
  if (params == nullptr) return -1;
  std::string mac;
  if (!cmdargs::GetMac(json_object_array_get_idx(params, 0), &mac)) return -1;
  int mode = 0;
  json_object* mode_value = json_object_array_get_idx(params, 1);
  if (!zelojson::GetInt(mode_value, &mode) || mode < 0 || mode > 255) {
    TLOG(LOG_DEBUG) << "Night mode must be an integer 0..255: " << zelojson::ToText(mode_value);
    return -1;
  }
  TLOG(LOG_DEBUG) << "night_mode: " << mode;
  auto channel = Channel(mac);
  if (channel == nullptr) return -1;
  return AskCamera(
      id, "set_night_mode",
      [id, mac](const cloudrequest::Answer& answer) {
        if (answer.result != 1) {
          TLOG(LOG_DEBUG) << "Camera " << mac << " refused night mode, request " << id;
          return;
        }
        std::string reply = cmdargs::OkReply(id);
        TLOG(LOG_DEBUG) << "Set night mode Ack: " << reply;
        MqttCommandAck(reply.c_str());
      },
      [&channel, mode](uint32_t ack_id) { return channel->SetCameraNightMode(ack_id, mode); });
}

int ProcMsgDeleteCamera(const char* msg) {
  int id = 0;
  std::string mac;
  if (!cmdargs::GetIdAndCameraMac(msg, &id, &mac) || !cmdargs::IsKnownCamera(mac)) return -1;
  {
    std::lock_guard<std::mutex> lock(g_deleting_mutex);
    if (!g_deleting.insert(mac).second) {
      TLOG(LOG_DEBUG) << "Camera " << mac << " is being deleted already";
      return -1;
    }
  }
  TLOG(LOG_DEBUG) << "Delete camera: " << mac;
  try {
    std::thread(UnbindCamera, id, mac).detach();
  } catch (const std::system_error& e) {
    TLOG(LOG_DEBUG) << "create unbind thread error: " << e.what();
    std::lock_guard<std::mutex> lock(g_deleting_mutex);
    g_deleting.erase(mac);
    return -1;
  }
  return 0;
}

int ProcMsgOpenAuth(const char* msg) {
  int id = 0;
  if (!cmdargs::GetId(msg, &id)) return -1;
  server::MediaServer* server = server::MediaServer::Current();
  if (server == nullptr) {
    TLOG(LOG_DEBUG) << "No media server, no pairing mode";
    return -1;
  }
  // Pairing mode is on afterwards whether it starts now or already ran.
  if (StartAuthServer(server) < 0 && !IsAuthServerRunning()) return -1;
  return cmdargs::SendReply("Open auth Ack: ", cmdargs::OkReply(id));
}
