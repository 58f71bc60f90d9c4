#include "storage/sdcard.h"

#include <pthread.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/log.h"
#include "core/utils.h"
#include "media/playback.h"
#include "platform/board.h"
#include "platform/hwlib.h"

namespace {

pthread_mutex_t sd_mutex = PTHREAD_MUTEX_INITIALIZER;
sdcard_status_e g_sdcard_status = SDCARD_STATUS_OFF;

// The write test compares access()'s result with this number (EROFS on the hub).
constexpr int kReadOnlyErrno = 30;
constexpr int kShellAttempts = 3;
// Longest output line looked at: the mount-table test, and mount, unmount and format.
constexpr int kMountLineMax = 64;
constexpr int kResultLineMax = 128;
constexpr char kDriverLoad[] = "insmod mtk_sd.ko";
constexpr char kDriverUnload[] = "rmmod mtk_sd";
// Card-detect events: the edges, and the level's meaning.
constexpr int kRemovalEdge = 1;
constexpr int kInsertionEdge = 2;
constexpr unsigned kEdgeSettleSeconds = 1;

std::atomic<SdStatusReport> g_report{nullptr};

void Report(int status) {
  const SdStatusReport report = g_report.load();
  if (report != nullptr) report(status);
}

std::string Mount() {
  return platform::BoardPath(kSdCardMountPoint);
}
std::string Device() {
  return platform::BoardPath(kSdCardDevice);
}

std::string MountedTest() {
  return "cat " + platform::BoardPath("/proc/mounts") + " | grep 'dev/mmcblk0p1'";
}

sdcard_status_e StoredStatus() {
  pthread_mutex_lock(&sd_mutex);
  const sdcard_status_e status = g_sdcard_status;
  pthread_mutex_unlock(&sd_mutex);
  return status;
}

// Runs the command and reads the first line of its output (at most max bytes, newline
// dropped) into *line. False when the command could not be started.
bool FirstLine(const std::string& command, int max, std::string* line) {
  line->clear();
  FILE* out = platform::Popen(command, "r");
  if (out == nullptr) return false;
  std::string buf(static_cast<size_t>(max) + 1, '\0');
  if (std::fgets(&buf[0], max + 1, out) != nullptr) {
    buf.resize(std::strcspn(buf.c_str(), "\n"));
    *line = buf;
  }
  platform::Pclose(out);
  return true;
}

// The card-detect level: 1 no card, 0 a card in the slot.
int DetectLevel() {
  return static_cast<int>((reg_read(kRegGpioData) >> kSdCardDetectLine) & 1u);
}

}  // namespace

void SetSdStatusReport(SdStatusReport report) {
  g_report.store(report);
}

int SetSdCardStatus(sdcard_status_e status) {
  pthread_mutex_lock(&sd_mutex);
  g_sdcard_status = status;
  pthread_mutex_unlock(&sd_mutex);
  if (status != SDCARD_STATUS_NORMAL) playback_card_gone();
  return 0;
}

int SdCardIsFormat() {
  return StoredStatus() == SDCARD_STATUS_FORMAT ? 1 : 0;
}

int SdCardIsMount() {
  std::string line;
  if (!FirstLine(MountedTest(), kMountLineMax, &line)) {
    TLOG(LOG_DEBUG) << "popen failed, errno: " << errno;
    return -1;
  }
  if (line.empty()) {
    TLOG(LOG_DEBUG) << "sdcard don't mount";
    return -1;
  }
  return 0;
}

int CheckSdCardRW() {
  // access() gives 0 or -1, never 30: this test passes on every card, as the hub's does.
  const int ret = access(Mount().c_str(), W_OK);
  if (ret == kReadOnlyErrno) {
    TLOG(LOG_DEBUG) << "sdcard is readonly";
    return -1;
  }
  return 0;
}

int UpdateSdCardStatus() {
  sdcard_status_e status;
  if (access(Device().c_str(), R_OK) != 0) {
    status = SDCARD_STATUS_OFF;
  } else if (StoredStatus() == SDCARD_STATUS_FORMAT) {
    status = SDCARD_STATUS_FORMAT;
  } else if (SdCardIsMount() != 0) {
    status = SDCARD_STATUS_UNMOUNT;
  } else if (CheckSdCardRW() != 0) {
    status = SDCARD_STATUS_ABNORMAL;
  } else {
    status = SDCARD_STATUS_NORMAL;
  }
  pthread_mutex_lock(&sd_mutex);
  // A format that started while the shell test ran keeps its mark: only the format thread ends
  // it (or a card that is gone).
  if (g_sdcard_status == SDCARD_STATUS_FORMAT && status != SDCARD_STATUS_OFF) {
    status = SDCARD_STATUS_FORMAT;
  }
  g_sdcard_status = status;
  pthread_mutex_unlock(&sd_mutex);
  return status;
}

int GetSdCardStatus() {
  const int status = UpdateSdCardStatus();
  if (status == SDCARD_STATUS_ABNORMAL) {
    TLOG(LOG_DEBUG) << "(0:off;1:on;2:abnormal;3:format) sdcard_status: " << status;
  }
  return status;
}

int CheckSdcardMount() {
  TLOG(LOG_DEBUG) << "Check sdcard rw permission";
  if (GetSdCardStatus() != SDCARD_STATUS_NORMAL) return -1;
  std::string line;
  if (!FirstLine(MountedTest() + " | grep 'ro,relatime'", kMountLineMax, &line)) {
    TLOG(LOG_DEBUG) << "popen failed, errno: " << errno;
    return -1;
  }
  if (!line.empty()) {
    TLOG(LOG_DEBUG) << "sdcard is readonly, try remount rw";
    // The hub's command names "mmcblkc0p1"; the mount point decides which mount is meant.
    platform::System("mount -o remount,rw " + platform::BoardPath("/dev/mmcblkc0p1") + " " +
                     Mount());
  }
  return 0;
}

namespace {

// Runs a card command up to kShellAttempts times until it prints nothing (success). Records name
// the calling function, as the hub's log readers expect.
int RunUntilQuiet(const char* function, const std::string& command, const char* done,
                  const char* result, const char* failed) {
  for (int attempt = 0; attempt < kShellAttempts; attempt++) {
    std::string line;
    if (!FirstLine(command, kResultLineMax, &line)) {
      TLOG_AS(LOG_DEBUG, function) << "popen failed, errno: " << errno;
      continue;
    }
    if (line.empty()) {
      TLOG_AS(LOG_DEBUG, function) << done;
      return 0;
    }
    TLOG_AS(LOG_DEBUG, function) << result << line;
  }
  TLOG_AS(LOG_DEBUG, function) << failed;
  return -1;
}

}  // namespace

int MountSdCard() {
  const std::string command =
      "mkdir -p " + Mount() + " & mount -t auto " + Device() + " " + Mount() + " 2>&1";
  return RunUntilQuiet(__func__, command, "mount SD done", "mount sdcard result is ",
                       "mount fail!!!!!!!!!!!!!!!!!!!!");
}

int UmountSdCard() {
  const std::string command = "umount " + Mount() + " 2>&1 && rm -rf " + Mount() + "/*";
  TLOG(LOG_DEBUG) << "umount: cmd is " << command;
  playback_card_gone();  // no clip stays open on a card being unmounted
  return RunUntilQuiet(__func__, command, "umount SD done", "umount sdcard result is ",
                       "umount dacard failed");
}

int FormatSdCard() {
  std::string line;
  if (!FirstLine("mkfs.vfat " + Device() + " 2>&1", kResultLineMax, &line)) {
    TLOG(LOG_DEBUG) << "popen failed, errno: " << errno;
  } else if (line.empty()) {
    TLOG(LOG_DEBUG) << "mkfs.vfat: format SD done";
  } else {
    TLOG(LOG_DEBUG) << "mkfs.vfat: format sdcard result is " << line;
  }
  return 0;
}

void* format_sdcard_thread_function(void*) {
  TLOG(LOG_DEBUG) << "format sdcard thread start";
  if (UmountSdCard() == 0 && FormatSdCard() == 0 && MountSdCard() == 0) {
    TLOG(LOG_DEBUG) << "format sdcard success";
    SetSdCardStatus(SDCARD_STATUS_NORMAL);
  } else {
    SetSdCardStatus(SDCARD_STATUS_OFF);
  }
  return nullptr;
}

int StartFormatSdCard() {
  const int status = GetSdCardStatus();
  if (status != SDCARD_STATUS_NORMAL) {
    TLOG(LOG_DEBUG) << "Format error current sdcard_status: " << status;
    return -1;
  }
  SetSdCardStatus(SDCARD_STATUS_FORMAT);
  pthread_t thread;
  const int ret = pthread_create(&thread, nullptr, format_sdcard_thread_function, nullptr);
  if (ret != 0) {
    TLOG(LOG_DEBUG) << "create format sdcard thread failed, ret: " << ret;
    SetSdCardStatus(SDCARD_STATUS_NORMAL);
    return -1;
  }
  pthread_detach(thread);
  return 0;
}

int GetSdCardRecordPath(char* path, int len) {
  if (path == nullptr || len <= 0) return -1;
  if (GetSdCardStatus() < SDCARD_STATUS_NORMAL) {
    TLOG(LOG_DEBUG) << "sdcard no exist";
    return -1;
  }
  const int n =
      std::snprintf(path, static_cast<size_t>(len), "%s%s", Mount().c_str(), kSdCardRecordDir);
  if (n < 0 || n >= len) {
    TLOG(LOG_DEBUG) << "Record path longer than " << len - 1;
    path[0] = '\0';
    return -1;
  }
  if (utils::CheckDirExist(path) != 0) {
    TLOG(LOG_DEBUG) << "Create " << path << " dir failed";
    return -1;
  }
  return 0;
}

int GetSdCardCapability(unsigned long long* total, unsigned long long* free) {
  if (total == nullptr || free == nullptr) return -1;
  *total = 0;
  *free = 0;
  struct statfs fs;
  if (platform::Statfs(Mount(), &fs) != 0) {
    TLOG(LOG_DEBUG) << "statfs " << Mount() << " failed: " << std::strerror(errno);
    return -1;
  }
  const unsigned long long block = static_cast<unsigned long long>(fs.f_bsize);
  *total = (static_cast<unsigned long long>(fs.f_blocks) * block) >> 20;
  *free = (static_cast<unsigned long long>(fs.f_bfree) * block) >> 20;
  return 0;
}

int SdcardCallback(int line, int event) {
  if (line != kSdCardDetectLine) return 0;
  if (event == kRemovalEdge) {
    sleep(kEdgeSettleSeconds);
    const int level = DetectLevel();
    TLOG(LOG_DEBUG) << "sd card out value: " << level;
    if (level == 0) return 0;  // the contacts bounced: the card is still in
    TLOG(LOG_DEBUG) << "high power, sd card out ok";
    if (GetSdCardStatus() == SDCARD_STATUS_OFF) return 0;
    TLOG(LOG_DEBUG) << "umount sd card and rmmod mtk_sd";
    playback_card_gone();
    if (SdCardIsMount() == 0) platform::System("umount " + Mount());
    platform::System(kDriverUnload);
    Report(1);
  } else if (event == kInsertionEdge) {
    sleep(kEdgeSettleSeconds);
    const int level = DetectLevel();
    TLOG(LOG_DEBUG) << "sd card in value: " << level;
    if (level == 1) return 0;
    TLOG(LOG_DEBUG) << "lower power, sd card in ok";
    if (GetSdCardStatus() != SDCARD_STATUS_OFF) return 0;
    TLOG(LOG_DEBUG) << "insmod mtk_sd";
    platform::System(kDriverLoad);
    Report(0);
  }
  return 0;
}

int InitSdCard() {
  TLOG(LOG_DEBUG) << "Init Sdard";
  SetSdCardStatus(SDCARD_STATUS_OFF);
  gpio_hook(kSdCardDetectLine);
  start_mmc_key_processor(SdcardCallback);
  if (UpdateSdCardStatus() == SDCARD_STATUS_OFF) {
    const int level = DetectLevel();
    TLOG(LOG_DEBUG) << "sdcard don't exist value: " << level;
    if (level == 0) {
      TLOG(LOG_DEBUG) << "should insmod sdcard";
      platform::System(kDriverLoad);
    }
  }
  return platform::System("echo start done > " + platform::BoardPath("/dev/ttyS1"));
}
