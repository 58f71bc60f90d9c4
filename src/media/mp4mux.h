// The event clip writer over FFmpeg's libavformat: one H.264 video track taken as the camera
// sends it (no re-encoding) and one 8000 Hz G.711 A-law track, written in arrival order.
//
// Container. FFmpeg's "mp4" muxer refuses A-law, so clips are written by its QuickTime muxer
// (brand "qt  "), whose 'alaw' sample entry keeps the camera's audio as it is; the files keep the
// .mp4 names the recording tree uses. See docs/motion-events.md.
//
// Crash tolerance. While an event is recorded the clip is fragmented: a fragment is cut at every
// key frame and after at most one second, and every fragment goes to the file as soon as it is
// cut, so a clip cut short by a crash of the daemon plays up to its last whole fragment. Closing
// the clip remuxes it (packets copied, nothing decoded) into an ordinary, unfragmented file with
// its index at the front, written beside it and renamed over it.
//
// The writer starts the file at the first key frame that carries the sequence and picture
// parameter sets (they become the track's decoder configuration); video and audio before it are
// dropped. Video timestamps follow the frame rate, audio timestamps the sample count.
//
// Threads: a handle is used by one thread at a time; different handles are independent.
#pragma once

#include <cstddef>
#include <cstdint>

struct OruMp4Writer;
using ORU_MP4_HANDLE = OruMp4Writer*;

// Codec values of orump4_create_file; the only ones accepted.
constexpr int kOruMp4VideoH264 = 0;
constexpr int kOruMp4AudioG711A = 0;

// Prepares FFmpeg for the MP4 code (FFmpeg registers its formats itself) and logs its version.
void orump4_init_ffmpeg();

// Opens path for writing a clip: video_codec kOruMp4VideoH264, audio_codec kOruMp4AudioG711A,
// video_tracks 1, frame rate fps (1..120), width x height (1..8192 each), audio_channels 1 and
// sample_rate 8000. *handle is set on success and left null on failure. 0, or a negative value
// (bad arguments, the file cannot be created).
int orump4_create_file(const char* path, int video_codec, int audio_codec, int video_tracks,
                       int fps, int width, int height, int audio_channels, int sample_rate,
                       ORU_MP4_HANDLE* handle);

// Appends one H.264 access unit (Annex B). timestamp_ms 0 puts the frame one frame time after
// the last; a non-zero value is the camera's time of the frame in milliseconds, and the frame
// goes at its distance from the first frame's time. A null handle is ignored (0). 0 when written
// or dropped before the first key frame, negative on a write error.
int orump4_write_video_frame(ORU_MP4_HANDLE handle, const uint8_t* data, uint32_t size,
                             int64_t timestamp_ms);

// Appends length bytes of A-law (one byte a sample). A null handle is ignored (0). 0, or
// negative on a write error.
int orump4_write_audio_frame(ORU_MP4_HANDLE handle, const uint8_t* data, int length);

// Finishes the clip (last fragment, then the remux into an ordinary file) and frees the handle.
// A clip that never received a key frame is removed. A null handle is ignored (0). 0, or
// negative when the clip could not be finished (the fragmented file then stays as it is).
int orump4_close_file_for_create(ORU_MP4_HANDLE handle);

// Frames written so far (for logs and tests).
int64_t orump4_video_frames(ORU_MP4_HANDLE handle);
int64_t orump4_audio_samples(ORU_MP4_HANDLE handle);
