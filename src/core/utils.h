// Helpers shared by every subsystem: configuration access, conversions, time, files, processes.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace utils {

// uci integers: a missing key reads as 0. SetIntConfig returns zcfg_uci_set's result.
int GetIntConfig(const char* key);
int SetIntConfig(const char* key, int value);

// A value "key=..." of /etc/zelo/device.conf into out (at most 64 and outlen - 1 bytes, first
// line, no newline). The key must be a plain word of [A-Za-z0-9_] (at most 31 characters).
// 0, or -1 when the key is refused, the file is unreadable or the key is absent.
int GetDeviceConfig(const char* key, char* out, size_t outlen);

// The device token of /etc/zelo/device.token into out (at most 64 bytes, cut at the first
// newline). 0, or -1 when unreadable. The token is never logged.
int get_device_token(char* out, size_t outlen);

// Battery voltage in mV to percent; RSSI in dBm to signal class 1 (strong) .. 3 (weak).
int GetBatteryPercent(int millivolts);
int GetWifiStrength(int rssi);

// Copies a file (temporary file and rename at the destination). 0 or -1.
int CopyFile(const char* from, const char* to);
// Creates the folder (and its parents) when missing. 0 or -1.
int CheckDirExist(const char* dir);
// 1 when the folder holds nothing but "." and "..", 0 when it holds entries, -1 when unreadable.
int IsDirectoryEmpty(const char* dir);

// A hexadecimal digit (0-9, A-F, a-f) to its value, or -1.
int HexToInt8(char c);
// Twelve hexadecimal digits to six bytes. 0, or -1 when the text is not twelve hex digits.
int ConverToUint8(const char* mac_text, uint8_t out[6]);
// Upper-cases in place; returns its argument.
char* ConvertToUppercase(char* text);
std::string ConvertToUppercase(std::string text);

// Hub wall-clock time (platform clock): seconds, microseconds since the epoch, and the
// milliseconds within the current second (0..999). A receive time in milliseconds, wrapping
// at 32 bits, is static_cast<uint32_t>(GetTimestampUS() / 1000).
uint32_t GetTimestamp();
int64_t GetTimestampUS();
uint32_t GetTimestampUS1();
// Local time offset in seconds: the zone's standard-time offset west of UTC (the C library's
// `timezone` after tzset(), read once), so now minus this offset is the hub's local time
// (east of UTC the offset is negative). Daylight saving time is not applied.
double GetTimeOffset();

// A fresh message id, 1..10,000,000.
int generate_random_id();
// Bytes to lower-case hexadecimal text.
std::string str2hex(const std::string& bytes);
// MD5 of a file as 32 lower-case hexadecimal digits into out (33 bytes). 0 or -1.
int ComputeFileMd5(const char* path, char out[33]);

// Pid of the named process, or -1 (only processes of the board on a development machine).
pid_t GetProcessPid(const char* name);
// The MAC (twelve upper-case hex digits) of a dotted IPv4 address in the ARP table; outlen at
// least 13. 0, or -1 when the address is malformed, absent or unresolved.
int GetConnectMacFromArp(const char* ip, char* mac_out, size_t outlen);
// The event name used by the camera with this MAC (twelve hex digits; uci p2p.MAC.event) into
// out. 0, or -1 when the MAC is malformed or the camera has no event.
int GetCameraEventByMac(const char* mac, char* out, size_t outlen);

}  // namespace utils
