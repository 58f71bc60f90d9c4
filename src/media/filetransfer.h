// Download of a stored event: a viewer fetches the clip or the snapshot of one event whole,
// byte for byte as it lies on the card, over a reliable transfer (RDT) channel of its session.
//
// Who calls what. The session thread of a viewer hands the download request (I/O control
// IOTYPE_USER_IPCAM_RECORD_DOWNLOAD) to filetransfer_request; it checks the payload without any
// I/O, locates the file (the locator set at start-up, IsFileExist), opens it and answers
// IOTYPE_USER_IPCAM_RECORD_DOWNLOAD_RESP on the session's own AV channel, with the size or a
// refusal. Then the session's transfer thread creates the RDT channel on the IOTC channel the
// viewer named, writes the file in pieces (RDT_Write waits for the viewer's credit) and destroys
// the channel. No camera or viewer lock is ever held; this module's table lock never during I/O.
//
// One transfer per session at a time: a request while one runs is refused ("busy"), so a
// viewer never loses a download it is reading. filetransfer_stop, called on the session thread
// when the session closes, aborts the RDT channel (which ends a waiting RDT_Write) and joins the
// thread; a thread still waiting for the viewer's RDT end is joined later, its wait ends when the
// session is closed right after.
//
// The request and the answer are described in docs/playback.md ("Download").
#pragma once

#include <cstdint>
#include <string>

// Locates the clip or snapshot of an event: path (256 bytes), start time, extension, MAC.
// 0 found, -2 not on the card, -1 other error (the signature of IsFileExist).
using FileLocator = int (*)(char* path, long* timestamp, char* ext, char* mac);

// Where files are looked up; set once at start-up, before sessions run. Without it every
// request is refused with "no card".
void filetransfer_set_locator(FileLocator locator);

// A download request of P2P session sid, received on AV channel avIndex (payload NUL-terminated).
// 0 when a transfer was started; -1 when it was refused (the viewer has been answered).
int filetransfer_request(int sid, int avIndex, const char* payload);

// Ends the transfer of session sid, if any: 0 when there was one (running or just finished),
// -1 when the session had none.
int filetransfer_stop(int sid);

namespace filetransfer {

// Results in the answer's "result".
constexpr int kOk = 0;
constexpr int kBadRequest = -1;      // payload not JSON, field missing or malformed
constexpr int kUnknownCamera = -2;   // the MAC names no camera of the hub
constexpr int kNotFound = -3;        // no such file on the card (unknown time)
constexpr int kNoCard = -4;          // no card, or the card cannot be read
constexpr int kBusy = -5;            // the session already has a transfer running
constexpr int kTransferFailed = -6;  // the RDT channel could not be opened

// A checked request.
struct Request {
  std::string mac;  // twelve upper-case hexadecimal digits
  long start = 0;   // event start, 1..4294967295
  std::string ext;  // "mp4" or "jpeg" (the request may say "jpg")
  int channel = 0;  // IOTC channel 1..31 of the viewer's RDT end
};

// Parses and checks a request text. true, or false with the reason in *why.
bool ParseRequest(const char* payload, Request* out, std::string* why);

// The answer text for a result; size and name only with kOk.
std::string Answer(const Request& r, int result, long long size, const std::string& name);

}  // namespace filetransfer
