#include "media/mp4mux.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include "base/log.h"

void orump4_init_ffmpeg() {
  TLOG(LOG_DEBUG) << "FFmpeg " << av_version_info() << " ready, formats self-registered";
}
