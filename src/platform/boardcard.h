// The SD card of a board: what stands for the card, its slot, its driver and its file system on
// a development machine. The hardware library (card events), the shims (mount, umount,
// mkfs.vfat, insmod, rmmod), the board maker and platform::Statfs share this one description:
//
//   sys/hub/reg/1568 bit 21  card-detect level of the slot: 1 empty, 0 a card in it
//   sys/hub/card/size_mib    the card's capacity in MiB
//   sys/hub/card/data/       the card's files while the card is not mounted
//   sys/hub/card/under/      what the bare mount point held while the card is mounted over it
//   sys/hub/card/locked      present while the card's write-protect switch is on
//   dev/mmcblk0p1            the device node: made when the driver finds a card in the slot,
//                            gone when the driver is unloaded
//   proc/modules             a line "mtk_sd ..." while the driver is loaded
//
// Mounting the card moves its files onto the mount point (and the bare folder's files aside);
// unmounting moves them back, so a card keeps its files across unmount, removal and insertion,
// and what the daemon removes from a bare mount point is never the card's. Every function takes
// the board root explicitly: the shims run without the library's root.
#pragma once

#include <cstdint>
#include <string>

namespace platform {
namespace boardcard {

constexpr char kDevice[] = "/dev/mmcblk0p1";
constexpr char kMountPoint[] = "/mnt/mmcblk0p1";
constexpr char kDriver[] = "mtk_sd";
constexpr char kCardDir[] = "/sys/hub/card";
constexpr char kSizeFile[] = "/sys/hub/card/size_mib";
constexpr char kDataDir[] = "/sys/hub/card/data";
constexpr char kUnderDir[] = "/sys/hub/card/under";
constexpr char kLockFile[] = "/sys/hub/card/locked";
constexpr char kDetectRegister[] = "/sys/hub/reg/1568";
constexpr uint32_t kDetectBit = 1u << 21;

constexpr uint64_t kDefaultSizeMiB = 8192;
constexpr uint64_t kMaxSizeMiB = 1u << 20;  // 1 TiB
// Every file and folder on the card takes whole blocks of this size.
constexpr uint64_t kBlockSize = 4096;

// A register file's number (decimal or 0x hexadecimal). False when unreadable or malformed.
bool ReadRegisterFile(const std::string& path, uint32_t* value);
// A card is in the slot (bit 21 of the detect register is 0).
bool InSlot(const std::string& root);
// The card driver is in proc/modules.
bool DriverLoaded(const std::string& root);
// The write-protect switch is on.
bool Locked(const std::string& root);
// The card's capacity; kDefaultSizeMiB when the size file is missing or malformed.
uint64_t SizeMiB(const std::string& root);
// The folder the card is mounted on, as the hub names it ("/mnt/mmcblk0p1"), or "".
std::string MountDir(const std::string& root);
// Bytes the files and folders below dir take on the card (whole blocks each).
uint64_t UsedBytes(const std::string& dir);

// The card's files onto the mount point dir (a board path) and back. 0, or -1 with a reason
// (nothing moved).
int Attach(const std::string& root, const std::string& dir, std::string* why);
int Detach(const std::string& root, const std::string& dir, std::string* why);
// Empties the card, which must not be mounted. 0, or -1 with a reason.
int Erase(const std::string& root, std::string* why);

}  // namespace boardcard
}  // namespace platform
