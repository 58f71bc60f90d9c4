#include "platform/boardmaker.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <utility>

#include "platform/board.h"
#include "platform/boardcard.h"
#include "platform/boardfs.h"
#include "platform/ucifile.h"

namespace fs = std::filesystem;

namespace platform {
namespace {

constexpr char kCameraName[] = "Tarvo Camera";
constexpr char kHomeSsid[] = "tarvo-home";
constexpr char kHomeKey[] = "tarvo-home-pass";
constexpr char kCardMountLine[] =
    "/dev/mmcblk0p1 /mnt/mmcblk0p1 vfat "
    "rw,relatime,fmask=0022,dmask=0022,codepage=437,iocharset=iso8859-1,shortname=mixed,"
    "errors=remount-ro 0 0\n";
constexpr char kArpHeader[] =
    "IP address       HW type     Flags       HW address            Mask     Device\n";
constexpr char kWifiStartScript[] =
    "#!/bin/sh\n"
    "# Starts the hub's Wi-Fi set-up access point. On a board root it only records that it was\n"
    "# asked, in var/log/wifi_start.log.\n"
    "root=$(cd \"$(dirname \"$0\")/../..\" && pwd)\n"
    "echo \"wifi_start.sh $*\" >> \"$root/var/log/wifi_start.log\"\n";

bool IsHexText(const std::string& text, size_t len) {
  if (text.size() != len) return false;
  for (char c : text) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

std::string Upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// "AABBCCDDEEFF" -> "aa:bb:cc:dd:ee:ff"
std::string ColonMac(const std::string& mac) {
  std::string out;
  for (size_t i = 0; i < 12; i += 2) {
    if (i > 0) out.push_back(':');
    out += Lower(mac.substr(i, 2));
  }
  return out;
}

// Printable ASCII without quotes, backslashes or blanks at either end.
bool ValidText(const std::string& what, const std::string& value, size_t min, size_t max,
               std::string* error) {
  if (value.size() < min || value.size() > max) {
    *error =
        what + " must be " + std::to_string(min) + " to " + std::to_string(max) + " characters";
    return false;
  }
  for (char c : value) {
    if (c < 0x20 || c > 0x7e || c == '\'' || c == '"' || c == '\\' || c == '`' || c == '$') {
      *error = what + " holds a character that is not allowed (quotes, backslash, $, `, controls)";
      return false;
    }
  }
  if (!value.empty() && (value.front() == ' ' || value.back() == ' ')) {
    *error = what + " must not start or end with a blank";
    return false;
  }
  return true;
}

uci::Section MakeSection(const std::string& type, const std::string& name,
                         const std::vector<std::pair<std::string, std::string>>& options) {
  uci::Section section{type, name, {}};
  for (const auto& [key, value] : options)
    section.options.push_back(uci::Option{key, false, {value}});
  return section;
}

std::string CameraEvent(size_t index) {
  return index == 0 ? "motion" : "motion" + std::to_string(index);
}

class Writer {
 public:
  Writer(std::string root, std::string* error) : root_(std::move(root)), error_(error) {}

  bool Dir(const std::string& rel) {
    if (boardfs::MakeDirs(root_ + rel) < 0) return Fail("cannot create " + root_ + rel);
    return true;
  }
  bool File(const std::string& rel, const std::string& content, mode_t mode = 0644) {
    const std::string path = root_ + rel;
    if (!Dir(rel.substr(0, rel.rfind('/')))) return false;
    if (boardfs::WriteFileAtomic(path, content, mode, false) < 0) {
      return Fail("cannot write " + path);
    }
    return true;
  }
  bool Package(const std::string& name, const uci::Package& package) {
    return File("/etc/config/" + name, uci::Serialize(package));
  }
  bool Fifo(const std::string& rel) {
    const std::string path = root_ + rel;
    struct stat st;
    if (lstat(path.c_str(), &st) == 0) {
      if (S_ISFIFO(st.st_mode)) return true;
      if (unlink(path.c_str()) != 0) return Fail("cannot replace " + path);
    }
    if (mkfifo(path.c_str(), 0660) != 0) return Fail("cannot create fifo " + path);
    return true;
  }
  bool Remove(const std::string& rel) {
    const std::string path = root_ + rel;
    if (unlink(path.c_str()) != 0 && errno != ENOENT) return Fail("cannot remove " + path);
    return true;
  }
  bool Fail(const std::string& why) {
    *error_ = why;
    return false;
  }

 private:
  std::string root_;
  std::string* error_;
};

bool InstallShims(Writer& w, const std::string& root, const std::string& shim, std::string* error) {
  const std::string target = root + "/bin/tarvo-shim";
  std::error_code ec;
  if (fs::equivalent(shim, target, ec)) {
    // already in place
  } else {
    std::string content;
    if (!boardfs::ReadFile(shim, &content, 256u << 20)) {
      *error = "cannot read the shim program " + shim;
      return false;
    }
    if (!w.File("/bin/tarvo-shim", content, 0755)) return false;
  }
  for (const auto& name : ShimNames()) {
    const std::string link = root + "/bin/" + name;
    unlink(link.c_str());
    if (symlink("tarvo-shim", link.c_str()) != 0) {
      *error = "cannot create " + link;
      return false;
    }
  }
  return true;
}

}  // namespace

bool ValidateBoardOptions(const BoardOptions& options, std::string* error) {
  if (!IsHexText(options.mac, 12)) {
    *error = "the hub MAC must be twelve hexadecimal digits";
    return false;
  }
  if (!ValidText("did", options.did, 1, 31, error) ||
      !ValidText("key", options.key, 1, 31, error) ||
      !ValidText("uid", options.uid, 1, 31, error) ||
      !ValidText("token", options.token, 1, 64, error) ||
      !ValidText("ssid", options.ssid, 1, 32, error) ||
      !ValidText("wifi key", options.wifi_key, 8, 63, error)) {
    return false;
  }
  if (options.set_clock && (options.clock < 0 || options.clock > 4102444799LL)) {
    *error = "the clock must be an epoch second from 0 to 4102444799";
    return false;
  }
  if (options.card_size_mib < 1 || options.card_size_mib > boardcard::kMaxSizeMiB) {
    *error = "the card size must be 1 to " + std::to_string(boardcard::kMaxSizeMiB) + " MiB";
    return false;
  }
  if (options.cameras.size() > 4) {
    *error = "a hub keeps at most four cameras";
    return false;
  }
  for (size_t i = 0; i < options.cameras.size(); i++) {
    const auto& cam = options.cameras[i];
    if (!IsHexText(cam.mac, 12)) {
      *error = "camera MAC " + cam.mac + " is not twelve hexadecimal digits";
      return false;
    }
    in_addr addr;
    if (!cam.ip.empty() && inet_pton(AF_INET, cam.ip.c_str(), &addr) != 1) {
      *error = "camera address " + cam.ip + " is not an IPv4 address";
      return false;
    }
    for (size_t j = 0; j < i; j++) {
      if (Upper(options.cameras[j].mac) == Upper(cam.mac)) {
        *error = "camera " + cam.mac + " given twice";
        return false;
      }
    }
  }
  return true;
}

int MakeBoardRoot(const std::string& dir, const BoardOptions& options, std::string* error) {
  if (!ValidateBoardOptions(options, error)) return -1;
  if (dir.empty()) {
    *error = "no board folder given";
    return -1;
  }
  std::error_code ec;
  const std::string root = fs::absolute(dir, ec).lexically_normal().string();
  if (ec || root == "/" || boardfs::ResolvedPath(root) == "/") {
    *error = "refusing to make a board in " + dir;
    return -1;
  }
  if (fs::exists(root, ec)) {
    if (!fs::is_directory(root, ec)) {
      *error = dir + " exists and is not a folder";
      return -1;
    }
    if (!fs::is_empty(root, ec) && !options.force) {
      *error = dir + " is not empty (use --force to write over it)";
      return -1;
    }
  }
  const std::string base = root.back() == '/' ? root.substr(0, root.size() - 1) : root;
  Writer w(base, error);
  for (const char* rel :
       {"/bin", "/dev", "/etc/config", "/etc/zelo", "/etc/nvram", "/etc/ssl/certs", "/tmp",
        "/mnt/mmcblk0p1", "/proc/net", "/sys/class/net/eth0", "/sys/class/net/ra0",
        "/sys/class/net/ra1", "/sys/hub/reg", "/var/log", "/var/lock"}) {
    if (!w.Dir(rel)) return -1;
  }

  // uci packages
  const std::string mac = Upper(options.mac);
  uci::Package p2p;
  for (size_t i = 0; i < options.cameras.size(); i++) {
    p2p.sections.push_back(MakeSection("p2p", Upper(options.cameras[i].mac),
                                       {{"name", kCameraName},
                                        {"battery", "100"},
                                        {"wifi", "1"},
                                        {"pir", "1"},
                                        {"hardver", "V1.0"},
                                        {"version", "1.0.0"},
                                        {"night", "0"},
                                        {"power", "1"},
                                        {"event", CameraEvent(i)},
                                        {"starthour", "0"},
                                        {"startmin", "0"},
                                        {"stophour", "24"},
                                        {"stopmin", "0"},
                                        {"pushalarm", "1"},
                                        {"interval", "0"},
                                        {"new_interval", "60"},
                                        {"pir_duration", "10"}}));
  }
  uci::Package hub_config;
  hub_config.sections.push_back(MakeSection("power", "power", {{"threshold", "20"}}));
  uci::Package wireless;
  wireless.sections.push_back(
      MakeSection("wifi-device", "radio0", {{"type", "ralink"}, {"channel", "auto"}}));
  wireless.sections.push_back(MakeSection("wifi-iface", "",
                                          {{"device", "radio0"},
                                           {"ifname", "ra0"},
                                           {"network", "lan"},
                                           {"mode", "ap"},
                                           {"ssid", "tarvo-setup"},
                                           {"encryption", "none"}}));
  wireless.sections.push_back(MakeSection("wifi-iface", "",
                                          {{"device", "radio0"},
                                           {"ifname", "apcli0"},
                                           {"network", "wwan"},
                                           {"mode", "sta"},
                                           {"ssid", kHomeSsid},
                                           {"encryption", "psk2"},
                                           {"key", kHomeKey}}));
  wireless.sections.push_back(MakeSection("wifi-iface", "",
                                          {{"device", "radio0"},
                                           {"ifname", "ra1"},
                                           {"network", "cam"},
                                           {"mode", "ap"},
                                           {"ssid", options.ssid},
                                           {"encryption", "psk2"},
                                           {"key", options.wifi_key},
                                           {"hidden", "1"}}));
  uci::Package network;
  network.sections.push_back(MakeSection(
      "interface", "loopback",
      {{"ifname", "lo"}, {"proto", "static"}, {"ipaddr", "127.0.0.1"}, {"netmask", "255.0.0.0"}}));
  network.sections.push_back(MakeSection("interface", "lan",
                                         {{"ifname", "ra0"},
                                          {"proto", "static"},
                                          {"ipaddr", "192.168.10.1"},
                                          {"netmask", "255.255.255.0"}}));
  network.sections.push_back(
      MakeSection("interface", "wan", {{"ifname", "eth0"}, {"proto", "dhcp"}}));
  network.sections.push_back(
      MakeSection("interface", "wwan", {{"ifname", "apcli0"}, {"proto", "dhcp"}}));
  network.sections.push_back(MakeSection("interface", "cam",
                                         {{"ifname", "ra1"},
                                          {"proto", "static"},
                                          {"ipaddr", "10.17.1.1"},
                                          {"netmask", "255.255.255.0"}}));
  if (!w.Package("p2p", p2p) || !w.Package("hub_config", hub_config) ||
      !w.Package("wireless", wireless) || !w.Package("network", network)) {
    return -1;
  }

  // provisioning files, moved into etc/zelo by the daemon at its first start
  if (options.wifi_conf) {
    if (!w.File("/etc/config/wifi.conf",
                std::string("ssid=") + kHomeSsid + "\npsk=" + kHomeKey + "\n")) {
      return -1;
    }
  } else if (!w.Remove("/etc/config/wifi.conf")) {
    return -1;
  }
  if (!w.File("/etc/config/device.token", options.token + "\n")) return -1;
  if (!w.File("/etc/zelo/wifi_start.sh", kWifiStartScript, 0755)) return -1;

  // nvram
  std::string store;
  if (options.identity) {
    store += "p2p.did=" + options.did + "\np2p.key=" + options.key + "\np2p.mac=" + mac + "\n";
  }
  store += "p2p.uid=" + options.uid + "\n";
  if (!w.File("/etc/nvram/store", store, 0600) || !w.Remove("/tmp/.nvram.pending") ||
      !w.Remove("/tmp/.nvramcache")) {
    return -1;
  }

  // the card, the mount table, the driver list and the ARP table
  std::string mounts = "rootfs / rootfs rw 0 0\ntmpfs /tmp tmpfs rw,nosuid,nodev,noatime 0 0\n";
  std::string modules;
  if (options.card) {
    mounts += kCardMountLine;
    modules = "mtk_sd 40960 0 - Live 0x00000000\n";
    if (!w.File("/dev/mmcblk0p1", "")) return -1;
  } else if (!w.Remove("/dev/mmcblk0p1")) {
    return -1;
  }
  std::string arp = kArpHeader;
  for (const auto& cam : options.cameras) {
    if (cam.ip.empty()) continue;
    char line[128];
    std::snprintf(line, sizeof(line), "%-16s 0x%-10x0x%-10x%-17s     %-8s %s\n", cam.ip.c_str(), 1,
                  2, ColonMac(cam.mac).c_str(), "*", "ra1");
    arp += line;
  }
  if (!w.File("/proc/mounts", mounts) || !w.File("/proc/modules", modules) ||
      !w.File("/proc/net/arp", arp)) {
    return -1;
  }

  // hardware
  if (!w.File("/sys/class/net/eth0/address", ColonMac(mac) + "\n") ||
      !w.File("/sys/class/net/eth0/operstate", "up\n") ||
      !w.File("/sys/class/net/ra0/operstate", "up\n") ||
      !w.File("/sys/class/net/ra1/operstate", "down\n") ||
      !w.File("/sys/hub/reg/1568", options.card ? "0x00000000\n" : "0x00200000\n") ||
      !w.File("/sys/hub/reg/1572", "0x00000000\n") || !w.File("/sys/hub/led", "0\n") ||
      !w.File(boardcard::kSizeFile, std::to_string(options.card_size_mib) + "\n") ||
      !w.Fifo("/sys/hub/events")) {
    return -1;
  }

  // the clock
  if (options.set_clock) {
    const int64_t offset = options.clock - static_cast<int64_t>(std::time(nullptr));
    if (!w.File("/etc/clock_offset", std::to_string(offset) + "\n")) return -1;
  } else if (!w.Remove("/etc/clock_offset")) {
    return -1;
  }

  if (!options.shim.empty() && !InstallShims(w, base, options.shim, error)) return -1;
  return 0;
}

}  // namespace platform
