// The recording tree on the SD card and its per-camera index ".timestamp".
//
// Tree, below the record root (GetSdCardRecordPath):
//   MAC/                         the camera's folder, twelve upper-case hexadecimal digits
//   MAC/.timestamp               the index
//   MAC/YYYYMMDDHH/              one folder per local hour of the event start
//   MAC/YYYYMMDDHH/mmMssS_T.mp4  the clip: local minute, "M", second, "S", "_", the start time T
//                                in decimal epoch seconds; the snapshot has ".jpeg" instead
// The start time T is the event's identity everywhere (index, delete command, playback).
//
// Index: a flat run of 5-byte records in append (= recording) order, oldest first: the start
// time as unsigned 32-bit little-endian, then the event length in seconds (8 bits). Readers
// ignore a trailing partial record (a torn append); the next append first trims it away.
//
// Threads. Appends come from the live channels, removals from the MQTT thread (the cloud's
// "deleteVideo", src/cloud/storagecmd) and the capability thread, reads from playback and
// retention. timestamp_mutex serialises every open, read, write and close of any index file;
// clip and folder removals run outside it.
//
// Paths are the paths the daemon opens (board root in front on a development machine). A MAC
// must be twelve hexadecimal digits, an extension a short plain word: nothing else ever forms
// a path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

// Serialises all index file access of the process.
extern std::mutex timestamp_mutex;

constexpr size_t kTimestampRecordSize = 5;
// Size of the path buffers of GetTimestampPath and IsFileExist.
constexpr size_t kRecordPathMax = 256;

// The index path of a camera into path (kRecordPathMax bytes, zeroed by the caller). 0; -1 for
// a null buffer, a malformed MAC, a card that is not normal, or a path that does not fit.
int GetTimestampPath(char* path, const char* mac);

// Appends the record (*timestamp, the camera's "pir_duration" setting truncated to 8 bits, 10
// when that is 0 or absent). The middle argument is ignored. 0 or -1.
int FwriteTimestamp(long* timestamp, int unused, const char* mac);

// Reads the camera's whole index into buffer. *size: on entry the buffer's capacity in bytes,
// on return the bytes read, always whole records. 0; -1 when there is no index, it holds no
// whole record, or it cannot be read.
int FreadTimestamp(unsigned char* buffer, int* size, char* mac);

// The clip or snapshot of an event: path (kRecordPathMax bytes) gets
// <root>/MAC/YYYYMMDDHH/mmMssS_T.EXT. 0 found, -2 not on the card, -1 other error.
int IsFileExist(char* path, long* timestamp, char* ext, char* mac);

// Runs "rm PATH 2>&1" (PATH may end in a wildcard). 0 when the command could be started,
// whatever rm said; -1 otherwise.
int RemoveFile(char* path);

// Removes the first record with this start time: the file is rewritten in place, then
// truncated. 0, or -1 (no index, no such record, I/O error).
int RomoveTimestamp(long timestamp, const char* mac);

// Removes an event: its index record, then clip and snapshot in one wildcard removal. A clip
// that is not on the card loses just its record. The result is the index removal's.
int RomoveTimestampAndFile(long timestamp, const char* mac);

// A start time the index can hold: 0 to 2^32 - 1 (and within long).
bool IsEventStartTime(long long t);

// The index as a file, without the card status check: what the functions above do once the
// path is known. Tests, benchmarks and fuzz targets use them on any file. Each takes
// timestamp_mutex itself.
namespace recordindex {

struct Record {
  uint32_t start;
  uint8_t length;
};

// Whole records of an index image; a trailing partial record is left out.
std::vector<Record> ParseRecords(const unsigned char* data, size_t size);

// Appends one record after trimming a torn tail. 0 or -1.
int AppendRecord(const std::string& path, uint32_t start, uint8_t length);
// Reads the whole records of the file into buffer (at most capacity bytes, whole records).
// The bytes read, or -1 (missing, empty, unreadable).
int ReadRecords(const std::string& path, unsigned char* buffer, size_t capacity);
// Size in bytes of the file, or -1 when it does not exist.
long FileSize(const std::string& path);
// Removes the first record with this start time. 0, or -1.
int RemoveRecord(const std::string& path, uint32_t start);

}  // namespace recordindex
