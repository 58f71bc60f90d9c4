// Pairing mode: a short-lived server on the pairing port that accepts one new camera, records
// it, hands it the camera network's credentials and gives it a live channel.
//
// Pairing mode turns on with StartAuthServer (the cloud's pairing command "let_connect_gateway")
// and off after one camera, after ten bad receives on a connection,
// after twelve accept time-outs of five seconds, or when StopTcpServer is called. The camera
// network interface "ra1" is up only while pairing mode is on.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "camera/frame.h"

namespace server {
class MediaServer;
}

// Enters pairing mode and starts the pairing thread. 0, or -1 when a pairing server runs.
int StartAuthServer(server::MediaServer* server);
// Pairing mode on and off; whether it is on.
void StartTcpServer();
void StopTcpServer();
bool IsTcpServerStart();
// Whether a pairing thread runs (from StartAuthServer until the thread has left).
bool IsAuthServerRunning();
// Body of the pairing thread.
void tcp_server_thread_function(server::MediaServer* server);
// Receives and answers one pairing request on the connection: 1 when the camera was accepted
// (its MAC written to *mac), 0 otherwise.
int RecvTcpData(int sockfd, std::string* mac);

namespace pairing {

constexpr size_t kRequestBufferSize = 1024;

// The pairing thread's accept time-out, five seconds unless set (a zero or negative value sets
// it back); read when a pairing thread starts. Tests shorten it to see pairing give up.
void SetAcceptTimeout(std::chrono::milliseconds timeout);

// Validates bytes received in one piece as a pairing request (a whole frame, type 0x8B, length
// 34) and decodes its payload. 1 when valid, 0 otherwise.
int ParsePairingRequest(const uint8_t* buf, size_t n, _net_cmd_get_info_type* info);
// Whether a MAC can be a camera's: not all zeros, not a group (multicast or broadcast) address.
bool IsCameraAddress(const uint8_t mac[6]);
// Builds the reply to a request: header echoing the request, payload 1, SSID and passphrase.
// Returns the frame size (99) or -1 when cap is too small.
int BuildPairingReply(const _net_cmd_type* request, const std::string& ssid, const std::string& key,
                      uint8_t* out, size_t cap);

}  // namespace pairing
