#include "camera/channel.h"

#include <mutex>
#include <utility>

namespace channel {
namespace {

std::mutex g_factory_mutex;
SinkFactory g_factory;

}  // namespace

void SetSinkFactory(SinkFactory factory) {
  std::lock_guard<std::mutex> lock(g_factory_mutex);
  g_factory = std::move(factory);
}

void Channel::MakeSinks(LiveChannel& self) {
  SinkFactory factory;
  {
    std::lock_guard<std::mutex> lock(g_factory_mutex);
    factory = g_factory;
  }
  if (factory) sinks_ = factory(self);
}

bool Channel::HasLiveClient() const {
  return sinks_.frames != nullptr && sinks_.frames->HasLiveClient();
}

int Channel::TranVideoData(const _net_cmd_type* frame) {
  return sinks_.frames != nullptr ? sinks_.frames->TranVideoData(frame) : 0;
}

int Channel::TranAudioData(const _net_cmd_type* frame) {
  return sinks_.frames != nullptr ? sinks_.frames->TranAudioData(frame) : 0;
}

}  // namespace channel
