// The recording tree as the hub names it, for tests that put events on a board's card.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace testsupport {

// <root>/MAC/YYYYMMDDHH/mmMssS_T.EXT, the hour, minute and second of t in local time; root is
// the record root (.../mnt/mmcblk0p1/KELDA_RECORD_VIDEO).
std::string EventPath(const std::string& root, const std::string& mac, long t,
                      const std::string& ext);
// The local hour folder's name of t, "YYYYMMDDHH".
std::string HourFolder(long t);
// A recorded event: a clip of clip_bytes (sparse, so it takes no disk), a snapshot and the
// record appended to the camera's index.
void StoreEvent(const std::string& root, const std::string& mac, long t, uint64_t clip_bytes = 4);
// The start times of an index file's whole records, in order.
std::vector<uint32_t> IndexTimes(const std::string& index);

}  // namespace testsupport
