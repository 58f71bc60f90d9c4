// The board: where the hub's file system, shell tools and clock are.
//
// On the hub the board root is empty and every path, tool and clock is the hub's own. On a
// development machine TARVO_ROOT names a folder made by tarvo-mkboard; every absolute path the
// daemon opens, lists or hands to a shell command is prefixed with it, shell commands find the
// board's shims in <root>/bin first, and the clock is the machine's clock plus an offset kept in
// the board root. The host platform refuses to run without a board root.
#pragma once

#include <sys/statfs.h>
#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace platform {

// The board root ("" on the hub). Read from TARVO_ROOT once and made absolute, so a later
// change of the working folder does not move it.
const std::string& Root();

// Tests only: replaces the board root (and forgets the clock offset, the nvram view and the
// hardware state of the old board) while no other thread uses the platform.
void SetRootForTest(const std::string& path);

// Root() + absolute path. A path that is not absolute is returned unchanged.
std::string BoardPath(const std::string& absolute);

// Environment settings with their hub defaults (design table in the README).
std::string HubIp();              // TARVO_HUB_IP, 10.17.1.1
uint16_t CameraPort();            // TARVO_CAMERA_PORT, 8000
uint16_t PairingPort();           // TARVO_PAIRING_PORT, 6788
uint16_t WakePort();              // TARVO_WAKE_PORT, 8000
std::string MqttHost();           // TARVO_MQTT_HOST, localhost
uint16_t MqttPort();              // TARVO_MQTT_PORT, 1883
uint16_t P2pPort(uint16_t dflt);  // TARVO_P2P_PORT, the transport's default

// The system tools the hub runs, each of which must exist as a shim in <root>/bin.
const std::vector<std::string>& ShimNames();

// Checks that the board is usable: a board root is set and every shim is present and
// executable. Logs what is missing and returns -1; 0 when the board is complete.
int CheckBoard();

// Runs a shell command (/bin/sh -c) with the board's bin/ first on PATH. The command must
// already carry board paths (use BoardPath). Returns the wait status as system() does, or -1
// when the command could not be started or names a system tool whose shim is missing.
int System(const std::string& command);

// popen-like: runs the command and returns a stream of its standard output ("r") or input
// ("w"); nullptr on failure. Close with Pclose, which returns the wait status.
FILE* Popen(const std::string& command, const char* mode);
int Pclose(FILE* stream);

// Wall-clock time of the hub: the machine's clock plus the board's offset.
int64_t NowSeconds();
int64_t NowMicros();
// Sets the hub's clock. On a development machine only the board's offset changes.
int SetClock(int64_t epoch_seconds);

// statfs(2) of a path. On a development machine the folder the board's SD card is mounted on
// reports the card (src/platform/boardcard.h): its size in 4096-byte blocks and, as free, what
// the files and folders below it leave (each takes whole blocks). Other paths are the machine's.
int Statfs(const std::string& path, struct statfs* out);

// Pid of a running process with this name, or -1. On a development machine only processes
// whose program lies under the board root are considered.
pid_t FindProcess(const std::string& name);

}  // namespace platform
