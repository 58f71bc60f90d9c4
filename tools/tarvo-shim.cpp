// tarvo-shim: the hub's system tools on a board root. One program for all of them: a board's
// bin/ holds a copy of it and links named nvram, mount, umount, mkfs.vfat, insmod, rmmod,
// ifconfig, sysupgrade and reboot. It finds its board from its own place (<root>/bin) and its
// tool from the name it was started by; "tarvo-shim TOOL ARGS..." works too.
//
// Every tool acts on the board only, refuses paths outside it (exit 1), and appends what it
// was asked and how it ended to <root>/var/log/shims.log. docs/board-root.md lists what each
// one records.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "base/log.h"
#include "platform/board.h"
#include "platform/boardcard.h"
#include "platform/boardfs.h"
#include "platform/nvram.h"

namespace fs = std::filesystem;
namespace boardcard = platform::boardcard;
namespace boardfs = platform::boardfs;

namespace {

constexpr char kVfatOptions[] =
    "relatime,fmask=0022,dmask=0022,codepage=437,iocharset=iso8859-1,shortname=mixed,"
    "errors=remount-ro";

std::string BaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Quoted(const std::string& arg) {
  if (!arg.empty() && arg.find_first_of(" \t'\"\\$`;&|<>") == std::string::npos) return arg;
  std::string out = "'";
  for (char c : arg) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

std::string Joined(const std::vector<std::string>& args) {
  std::string out;
  for (const auto& arg : args) out += " " + Quoted(arg);
  return out;
}

class Shim {
 public:
  Shim(std::string tool, std::vector<std::string> args, std::string root)
      : tool_(std::move(tool)), args_(std::move(args)), root_(std::move(root)) {}

  int Run() {
    for (const auto& arg : args_) {
      if (!arg.empty() && arg[0] == '/' && !Inside(arg)) {
        return Fail(1, arg + " lies outside the board root " + root_);
      }
    }
    if (tool_ == "nvram") return Nvram();
    if (tool_ == "mount") return Mount();
    if (tool_ == "umount") return Umount();
    if (tool_ == "mkfs.vfat") return Mkfs();
    if (tool_ == "insmod") return Insmod();
    if (tool_ == "rmmod") return Rmmod();
    if (tool_ == "ifconfig") return Ifconfig();
    if (tool_ == "sysupgrade" || tool_ == "reboot") return Request();
    return Fail(1, "unknown tool");
  }

  // The line for shims.log.
  std::string Record(int status) const {
    std::string line = std::to_string(platform::NowSeconds()) + " " + tool_ + Joined(args_) +
                       " => " + std::to_string(status);
    if (!note_.empty()) line += " (" + note_ + ")";
    return line;
  }

 private:
  bool Inside(const std::string& path) const {
    return boardfs::PathInside(boardfs::ResolvedPath(path), root_);
  }
  // The board's view of a path inside it: "<root>/dev/x" -> "/dev/x".
  std::string OnBoard(const std::string& path) const {
    const std::string resolved = boardfs::ResolvedPath(path);
    if (resolved == root_) return "/";
    return resolved.substr(root_.size());
  }
  std::string Board(const std::string& rel) const { return root_ + rel; }

  int Fail(int status, const std::string& message) {
    std::fprintf(stderr, "%s: %s\n", tool_.c_str(), message.c_str());
    note_ = message;
    return status;
  }
  int Usage(const char* usage) { return Fail(1, std::string("usage: ") + tool_ + " " + usage); }

  // Serialises changes of the board's state files between shims running at once.
  class StateLock {
   public:
    explicit StateLock(const std::string& root) {
      boardfs::MakeDirs(root + "/var/lock");
      fd_ = open((root + "/var/lock/shims.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
      if (fd_ >= 0) {
        while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
        }
      }
    }
    ~StateLock() {
      if (fd_ >= 0) close(fd_);
    }

   private:
    int fd_ = -1;
  };

  std::vector<std::string> Lines(const std::string& rel) const {
    std::string text;
    boardfs::ReadFile(Board(rel), &text);
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
      if (!line.empty()) lines.push_back(line);
    }
    return lines;
  }
  bool WriteLines(const std::string& rel, const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text += line + "\n";
    return boardfs::MakeDirs(Board(rel.substr(0, rel.rfind('/')))) == 0 &&
           boardfs::WriteFileAtomic(Board(rel), text) == 0;
  }
  void Note(const std::string& rel, const std::string& line) {
    boardfs::MakeDirs(Board("/var/log"));
    boardfs::AppendLine(Board(rel), line);
  }
  std::vector<std::string> Field(const std::string& line) const {
    std::istringstream in(line);
    std::vector<std::string> fields;
    std::string f;
    while (in >> f) fields.push_back(f);
    return fields;
  }

  std::string FirstField(const std::string& line) const {
    const auto f = Field(line);
    return f.empty() ? "" : f[0];
  }

  // nvram set SECTION KEY VALUE | get SECTION KEY | commit | show
  int Nvram() {
    const std::string usage = "set SECTION KEY VALUE | get SECTION KEY | commit | show";
    if (args_.empty()) return Usage(usage.c_str());
    const std::string& cmd = args_[0];
    if (cmd == "set" && args_.size() == 4) {
      if (nvram_set(args_[1].c_str(), args_[2].c_str(), args_[3].c_str()) != 0) {
        return Fail(1, "cannot set " + args_[1] + " " + args_[2]);
      }
      return 0;
    }
    if (cmd == "get" && args_.size() == 3) {
      std::string value;
      if (platform::NvramLookup(args_[1], args_[2], &value) != 0) {
        note_ = "absent";
        return 1;
      }
      std::printf("%s\n", value.c_str());
      return 0;
    }
    if (cmd == "commit" && args_.size() == 1) {
      return nvram_commit() == 0 ? 0 : Fail(1, "commit failed");
    }
    if (cmd == "show" && args_.size() == 1) {
      std::vector<std::pair<std::string, std::string>> entries;
      if (!platform::NvramEntries(&entries)) return Fail(1, "cannot read the store");
      for (const auto& [key, value] : entries) std::printf("%s=%s\n", key.c_str(), value.c_str());
      return 0;
    }
    return Usage(usage.c_str());
  }

  // mount [-t TYPE] [-o OPTIONS] [-r|-w] [DEVICE] DIR; without arguments prints the table.
  int Mount() {
    std::string type = "auto";
    std::vector<std::string> options, positional;
    for (size_t i = 0; i < args_.size(); i++) {
      const std::string& a = args_[i];
      if ((a == "-t" || a == "-o") && i + 1 < args_.size()) {
        if (a == "-t") {
          type = args_[++i];
        } else {
          std::istringstream in(args_[++i]);
          std::string o;
          while (std::getline(in, o, ',')) options.push_back(o);
        }
      } else if (a == "-r") {
        options.push_back("ro");
      } else if (a == "-w") {
        options.push_back("rw");
      } else if (!a.empty() && a[0] == '-') {
        return Usage("[-t TYPE] [-o OPTIONS] [-r|-w] DEVICE DIR");
      } else {
        positional.push_back(a);
      }
    }
    StateLock lock(root_);
    std::vector<std::string> table = Lines("/proc/mounts");
    if (positional.empty() && options.empty()) {
      for (const auto& line : table) std::printf("%s\n", line.c_str());
      return 0;
    }
    bool remount = false;
    std::string mode;
    for (const auto& o : options) {
      if (o == "remount") remount = true;
      if (o == "ro" || o == "rw") mode = o;
    }
    if (remount) {
      if (positional.empty()) return Usage("-o remount,rw|ro DIR");
      const std::string target = OnBoard(positional.back());
      for (auto& line : table) {
        auto f = Field(line);
        if (f.size() >= 4 && f[1] == target) {
          if (mode == "rw" && f[0] == boardcard::kDevice && boardcard::Locked(root_)) {
            return Fail(32, "cannot remount " + f[0] + " read-write, is write-protected");
          }
          if (!mode.empty()) {
            const size_t comma = f[3].find(',');
            f[3] = mode + (comma == std::string::npos ? "" : f[3].substr(comma));
          }
          std::string updated;
          for (const auto& piece : f) updated += (updated.empty() ? "" : " ") + piece;
          line = updated;
          return WriteLines("/proc/mounts", table) ? 0 : Fail(1, "cannot write the mount table");
        }
      }
      return Fail(32, positional.back() + ": mount point not mounted or bad option");
    }
    if (positional.size() != 2) return Usage("[-t TYPE] [-o OPTIONS] DEVICE DIR");
    const std::string& device = positional[0];
    const std::string& dir = positional[1];
    struct stat st;
    if (device[0] != '/' || stat(device.c_str(), &st) != 0 || S_ISDIR(st.st_mode)) {
      return Fail(255, "mounting " + device + " on " + dir + " failed: No such file or directory");
    }
    if (dir[0] != '/' || stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      return Fail(255, "mounting " + device + " on " + dir + " failed: No such file or directory");
    }
    return MountLocked(&table, device, dir, type, mode);
  }

  // Adds DEVICE on DIR to the table (with the board's state lock held); the board's card brings
  // its files onto DIR. A write-protected card is mounted read-only.
  int MountLocked(std::vector<std::string>* table, const std::string& device,
                  const std::string& dir, std::string type, std::string mode) {
    const std::string dev_rel = OnBoard(device), dir_rel = OnBoard(dir);
    for (const auto& line : *table) {
      const auto f = Field(line);
      if (f.size() >= 2 && (f[0] == dev_rel || f[1] == dir_rel)) {
        return Fail(255, "mounting " + device + " on " + dir + " failed: Device or resource busy");
      }
    }
    const bool card = dev_rel == boardcard::kDevice;
    if (card && boardcard::Locked(root_)) mode = "ro";
    if (type == "auto") type = "vfat";
    const std::string flags =
        (mode.empty() ? "rw" : mode) + "," + (type == "vfat" ? kVfatOptions : "relatime");
    std::string why;
    if (card && boardcard::Attach(root_, Board(dir_rel), &why) != 0) return Fail(255, why);
    table->push_back(dev_rel + " " + dir_rel + " " + type + " " + flags + " 0 0");
    if (WriteLines("/proc/mounts", *table)) return 0;
    if (card) boardcard::Detach(root_, Board(dir_rel), &why);
    return Fail(1, "cannot write the mount table");
  }

  // umount DIR|DEVICE
  int Umount() {
    std::vector<std::string> positional;
    for (const auto& a : args_) {
      if (a.empty() || a[0] != '-') positional.push_back(a);
    }
    if (positional.size() != 1) return Usage("DIR|DEVICE");
    const std::string& target = positional[0];
    if (target[0] != '/') return Fail(1, "can't unmount " + target + ": Invalid argument");
    const std::string rel = OnBoard(target);
    StateLock lock(root_);
    std::vector<std::string> table = Lines("/proc/mounts");
    for (size_t i = table.size(); i-- > 0;) {
      const auto f = Field(table[i]);
      if (f.size() >= 2 && (f[1] == rel || f[0] == rel)) {
        std::string why;
        const bool card = f[0] == boardcard::kDevice;
        if (card && boardcard::Detach(root_, Board(f[1]), &why) != 0) return Fail(1, why);
        table.erase(table.begin() + static_cast<long>(i));
        if (WriteLines("/proc/mounts", table)) return 0;
        if (card) boardcard::Attach(root_, Board(f[1]), &why);
        return Fail(1, "cannot write the mount table");
      }
    }
    return Fail(1, "can't unmount " + target + ": Invalid argument");
  }

  // mkfs.vfat [-F N] [-n LABEL] DEVICE: empties the board's card; another device's folder
  // /mnt/<device name>.
  int Mkfs() {
    std::vector<std::string> positional;
    for (size_t i = 0; i < args_.size(); i++) {
      const std::string& a = args_[i];
      if (a == "-F" || a == "-n" || a == "-s" || a == "-S" || a == "-i") {
        i++;
      } else if (a.empty() || a[0] != '-') {
        positional.push_back(a);
      }
    }
    if (positional.size() != 1) return Usage("[-F BITS] [-n LABEL] DEVICE");
    const std::string& device = positional[0];
    struct stat st;
    if (device[0] != '/' || stat(device.c_str(), &st) != 0 || S_ISDIR(st.st_mode)) {
      return Fail(1, "can't open '" + device + "': No such file or directory");
    }
    const std::string rel = OnBoard(device);
    if (rel.compare(0, 5, "/dev/") != 0) return Fail(1, device + " is not a card device");
    StateLock lock(root_);
    for (const auto& line : Lines("/proc/mounts")) {
      const auto f = Field(line);
      if (!f.empty() && f[0] == rel) return Fail(1, device + " is mounted");
    }
    if (rel == boardcard::kDevice) {
      if (boardcard::Locked(root_)) {
        return Fail(1, "unable to open " + device + ": Read-only file system");
      }
      std::string why;
      if (boardcard::Erase(root_, &why) != 0) return Fail(1, why);
      Note("/var/log/mkfs.vfat.log", "mkfs.vfat " + rel);
      return 0;
    }
    const std::string folder = Board("/mnt/" + rel.substr(5));
    std::error_code ec;
    if (fs::is_directory(folder, ec)) {
      for (const auto& entry : fs::directory_iterator(folder, ec)) fs::remove_all(entry.path(), ec);
      if (ec) return Fail(1, "cannot empty " + folder);
    } else if (boardfs::MakeDirs(folder) != 0) {
      return Fail(1, "cannot create " + folder);
    }
    Note("/var/log/mkfs.vfat.log", "mkfs.vfat " + rel);
    return 0;
  }

  static std::string ModuleName(std::string name) {
    name = BaseName(name);
    if (name.size() > 3 && name.compare(name.size() - 3, 3, ".ko") == 0)
      name.resize(name.size() - 3);
    for (char& c : name) c = c == '-' ? '_' : c;
    return name;
  }
  static bool ValidModule(const std::string& name) {
    if (name.empty() || name.size() > 55) return false;
    for (char c : name) {
      if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_') return false;
    }
    return true;
  }

  // insmod MODULE[.ko] [PARAMS...]
  int Insmod() {
    if (args_.empty()) return Usage("MODULE [PARAMS...]");
    const std::string name = ModuleName(args_[0]);
    if (!ValidModule(name)) return Fail(1, "invalid module name " + args_[0]);
    StateLock lock(root_);
    std::vector<std::string> modules = Lines("/proc/modules");
    for (const auto& line : modules) {
      if (FirstField(line) == name) {
        return Fail(1, "can't insert '" + args_[0] + "': File exists");
      }
    }
    modules.push_back(name + " 40960 0 - Live 0x00000000");
    if (!WriteLines("/proc/modules", modules)) return Fail(1, "cannot write the module list");
    if (name == boardcard::kDriver) CardDriverLoaded();
    return 0;
  }

  // The card driver finds the card in the slot and makes its device node; the hub's hot-plug
  // then mounts it. The mount's outcome is noted in the log; insmod itself has succeeded.
  void CardDriverLoaded() {
    if (!boardcard::InSlot(root_)) return;
    const std::string device = Board(boardcard::kDevice);
    boardfs::MakeDirs(Board("/dev"));
    struct stat st;
    if (stat(device.c_str(), &st) != 0) boardfs::WriteFileAtomic(device, "", 0644, false);
    std::vector<std::string> table = Lines("/proc/mounts");
    if (!boardcard::MountDir(root_).empty()) return;
    boardfs::MakeDirs(Board(boardcard::kMountPoint));
    if (MountLocked(&table, device, Board(boardcard::kMountPoint), "auto", "") == 0) {
      note_ =
          std::string("hot-plug mounted ") + boardcard::kDevice + " on " + boardcard::kMountPoint;
    } else {
      note_ = "hot-plug mount failed: " + note_;
    }
  }

  // rmmod MODULE
  int Rmmod() {
    if (args_.size() != 1) return Usage("MODULE");
    const std::string name = ModuleName(args_[0]);
    StateLock lock(root_);
    std::vector<std::string> modules = Lines("/proc/modules");
    for (size_t i = 0; i < modules.size(); i++) {
      if (FirstField(modules[i]) == name) {
        const bool card = name == boardcard::kDriver;
        if (card && !boardcard::MountDir(root_).empty()) {
          return Fail(1, "can't unload module '" + name + "': Resource temporarily unavailable");
        }
        modules.erase(modules.begin() + static_cast<long>(i));
        if (!WriteLines("/proc/modules", modules)) return Fail(1, "cannot write the module list");
        if (card) unlink(Board(boardcard::kDevice).c_str());
        return 0;
      }
    }
    return Fail(1, "can't unload module '" + name + "': No such file or directory");
  }

  static bool ValidInterface(const std::string& name) {
    if (name.empty() || name.size() > 15 || name[0] == '.') return false;
    for (char c : name) {
      if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-' && c != '.') {
        return false;
      }
    }
    return true;
  }

  void PrintInterface(const std::string& name) {
    std::string mac, state;
    boardfs::ReadFile(Board("/sys/class/net/" + name + "/address"), &mac, 64);
    boardfs::ReadFile(Board("/sys/class/net/" + name + "/operstate"), &state, 64);
    while (!mac.empty() && mac.back() == '\n') mac.pop_back();
    for (char& c : mac) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    std::printf("%-10sLink encap:Ethernet%s%s\n", name.c_str(), mac.empty() ? "" : "  HWaddr ",
                mac.c_str());
    std::printf("          %s  MTU:1500  Metric:1\n\n", state.compare(0, 2, "up") == 0
                                                            ? "UP BROADCAST RUNNING MULTICAST"
                                                            : "BROADCAST MULTICAST");
  }

  // ifconfig [IF [ADDRESS] [netmask MASK] [up|down]]
  int Ifconfig() {
    const std::string net = Board("/sys/class/net");
    if (args_.empty()) {
      std::error_code ec;
      std::vector<std::string> names;
      for (const auto& entry : fs::directory_iterator(net, ec)) {
        names.push_back(entry.path().filename().string());
      }
      std::sort(names.begin(), names.end());
      for (const auto& name : names) {
        std::string state;
        boardfs::ReadFile(net + "/" + name + "/operstate", &state, 64);
        if (state.compare(0, 2, "up") == 0) PrintInterface(name);
      }
      return 0;
    }
    const std::string& name = args_[0];
    if (!ValidInterface(name)) return Fail(1, "invalid interface name");
    struct stat st;
    if (stat((net + "/" + name).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      return Fail(1, name + ": error fetching interface information: Device not found");
    }
    if (args_.size() == 1) {
      PrintInterface(name);
      return 0;
    }
    std::string state;
    for (size_t i = 1; i < args_.size(); i++) {
      if (args_[i] == "up" || args_[i] == "down") state = args_[i];
    }
    StateLock lock(root_);
    if (!state.empty() &&
        boardfs::WriteFileAtomic(net + "/" + name + "/operstate", state + "\n") != 0) {
      return Fail(1, "cannot record the state of " + name);
    }
    return 0;
  }

  // sysupgrade and reboot: only recorded, with the arguments as the hub would see them.
  int Request() {
    std::vector<std::string> args;
    for (const auto& a : args_) args.push_back(!a.empty() && a[0] == '/' ? OnBoard(a) : a);
    Note("/var/log/" + tool_ + ".log", tool_ + Joined(args));
    return 0;
  }

  std::string tool_;
  std::vector<std::string> args_;
  std::string root_;
  std::string note_;
};

// <root> of the board whose bin/ holds this program.
bool FindRoot(std::string* root) {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0) return false;
  const fs::path exe(std::string(buf, static_cast<size_t>(n)));
  const fs::path bin = exe.parent_path();
  if (bin.filename() != "bin") return false;
  *root = bin.parent_path().string();
  return !root->empty() && *root != "/";
}

}  // namespace

int main(int argc, char** argv) {
  std::string tool = BaseName(argc > 0 ? argv[0] : "");
  std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
  if (tool == "tarvo-shim" && !args.empty()) {
    tool = args[0];
    args.erase(args.begin());
  }
  bool known = false;
  for (const auto& name : platform::ShimNames()) known = known || name == tool;
  if (!known) {
    std::fprintf(
        stderr,
        "usage: TOOL ARGS... (run through a board's bin/ link) or tarvo-shim TOOL ARGS...\n"
        "tools: nvram mount umount mkfs.vfat insmod rmmod ifconfig sysupgrade reboot\n");
    return 1;
  }
  std::string root;
  if (!FindRoot(&root)) {
    std::fprintf(stderr, "%s: tarvo-shim runs only from a board root's bin/ folder\n",
                 tool.c_str());
    return 1;
  }
  // The platform library works on this board; its records go to the shim log, not to the
  // output that the hub's code reads.
  unsetenv("TARVO_LOG_STDERR");
  setenv("TARVO_ROOT", root.c_str(), 1);
  const std::string log = root + "/var/log/shims.log";
  boardfs::MakeDirs(root + "/var/log");
  tlog::SetCaptureSink([&log, &tool](int, const std::string& text) {
    boardfs::AppendLine(log, "  " + tool + ": " + text);
  });

  Shim shim(tool, args, root);
  const int status = shim.Run();
  std::fflush(stdout);
  boardfs::AppendLine(log, shim.Record(status));
  tlog::SetCaptureSink(nullptr);
  return status;
}
