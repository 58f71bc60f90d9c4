// The SD card: its status, the card-detect line, the card driver, mounting, unmounting and
// formatting by shell commands, and capacity. The cloud's card commands (src/cloud/storagecmd)
// are built on these functions.
//
// The card is one partition, /dev/mmcblk0p1, mounted at /mnt/mmcblk0p1. Every user of the card
// (recorder, index, retention, playback) asks GetSdCardStatus() first and goes on only when it
// is SDCARD_STATUS_NORMAL. The status is recomputed on every query from the device node, the
// mount table and the format flag; each query therefore runs one shell command.
//
// Threads. Callers come from the live channels (recorder), the MQTT thread (cloud commands), the
// supervision threads, the format thread and the hardware library's event thread
// (SdcardCallback). sd_mutex guards only the stored status; shell commands run outside it. The
// format thread is detached and owns nothing but the sequence it runs.
//
// Paths handed out (GetSdCardRecordPath) are the paths the daemon opens: on a development
// machine the board root is in front (platform::BoardPath).
#pragma once

enum sdcard_status_e {
  SDCARD_STATUS_OFF = 0,       // no card: the device node is not readable
  SDCARD_STATUS_NORMAL = 1,    // mounted and writable
  SDCARD_STATUS_ABNORMAL = 2,  // mounted, the write test failed
  SDCARD_STATUS_FORMAT = 3,    // a format is running
  SDCARD_STATUS_UNMOUNT = 4,   // present, not mounted
};

// The card's device node and mount point, and the record root below the mount point.
constexpr char kSdCardDevice[] = "/dev/mmcblk0p1";
constexpr char kSdCardMountPoint[] = "/mnt/mmcblk0p1";
constexpr char kSdCardRecordDir[] = "/KELDA_RECORD_VIDEO";
// The card-detect GPIO line and the card driver.
constexpr int kSdCardDetectLine = 21;

// Start-up: status off, card-detect hook and handler, first status, driver load when a card is
// present without its driver; then the start mark "echo start done > /dev/ttyS1", whose
// result it returns.
int InitSdCard();

// Recomputes the status (first match: no device node 0; format running 3; not mounted 4; write
// test failed 2; else 1), stores it and returns it.
int UpdateSdCardStatus();
// Recomputes and returns the status.
int GetSdCardStatus();
// Stores a status. 0.
int SetSdCardStatus(sdcard_status_e status);
// 1 when the stored status is SDCARD_STATUS_FORMAT, else 0.
int SdCardIsFormat();
// 0 when the card is in the mount table, -1 when not or the shell could not be started.
int SdCardIsMount();
// 0 writable, -1 read-only. Compares access()'s return value with EROFS, so it always passes;
// CheckSdcardMount does the real read-only handling.
int CheckSdCardRW();
// When the status is normal and the card is mounted read-only, remounts it writable. 0 when the
// card is usable, -1 when the status is not normal or the shell failed.
int CheckSdcardMount();

// Shell sequences, three attempts each for mount and unmount. 0 or -1; FormatSdCard always 0
// (a failed mkfs is logged only).
int MountSdCard();
int UmountSdCard();
int FormatSdCard();
// When the status is normal: status FORMAT and a detached thread that unmounts, formats and
// mounts; it ends with status NORMAL when all three succeeded, OFF otherwise.
int StartFormatSdCard();
void* format_sdcard_thread_function(void* arg);

// The record root (mount point + "/KELDA_RECORD_VIDEO"), created when missing, into path
// (len bytes). 0; -1 when the status is below normal, the folder cannot be created or the path
// does not fit.
int GetSdCardRecordPath(char* path, int len);
// Total and free size of the mounted card in MiB (statfs of the mount point; free counts every
// free block). 0, or -1 when statfs fails (both set to 0).
int GetSdCardCapability(unsigned long long* total, unsigned long long* free);

// Card-detect handler given to the hardware library: line 21, event 1 removal edge, 2
// insertion edge. Waits 1 s and reads the level back before acting; reports 1 after a removal
// and 0 after an insertion through the status report. 0.
int SdcardCallback(int line, int event);

// Where the card-detect handler's reports go: the cloud's "props" report with "sdcard_status"
// (MqttReportPropSdStatus), set at start-up before InitSdCard. None: no report.
using SdStatusReport = int (*)(int status);
void SetSdStatusReport(SdStatusReport report);
