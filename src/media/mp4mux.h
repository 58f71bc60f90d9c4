// The MP4 writer over FFmpeg.
#pragma once

// Prepares FFmpeg for the MP4 code. FFmpeg registers its formats itself, so nothing is left
// to do but say so.
void orump4_init_ffmpeg();
