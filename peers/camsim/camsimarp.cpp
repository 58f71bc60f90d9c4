#include "camsim/camsimarp.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include "camsim/camsimwire.h"

namespace camsim {
namespace {

constexpr char kTable[] = "/proc/net/arp";
constexpr char kLock[] = "/proc/net/.arp.lock";
constexpr char kHeading[] =
    "IP address       HW type     Flags       HW address            Mask     Device\n";

std::string ColonMac(const std::string& digits) {
  std::string out;
  for (size_t i = 0; i < 12; i += 2) {
    if (i > 0) out += ':';
    out += static_cast<char>(std::tolower(static_cast<unsigned char>(digits[i])));
    out += static_cast<char>(std::tolower(static_cast<unsigned char>(digits[i + 1])));
  }
  return out;
}

bool ValidIp(const std::string& ip) {
  struct in_addr addr;
  return inet_pton(AF_INET, ip.c_str(), &addr) == 1;
}

int Fail(std::string* error, const std::string& text) {
  if (error != nullptr) *error = text;
  return -1;
}

// Holds the board's ARP lock while alive.
class TableLock {
 public:
  explicit TableLock(const std::string& board) {
    fd_ = open((board + kLock).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ >= 0 && flock(fd_, LOCK_EX) != 0) {
      close(fd_);
      fd_ = -1;
    }
  }
  ~TableLock() {
    if (fd_ >= 0) close(fd_);  // releases the lock
  }
  TableLock(const TableLock&) = delete;
  TableLock& operator=(const TableLock&) = delete;
  bool held() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// Rewrites the table keeping the lines for which keep(ip, mac digits) holds, then appends extra.
template <typename Keep>
int Rewrite(const std::string& board, Keep keep, const std::string& extra, std::string* error) {
  const std::string dir = board + "/proc/net";
  struct stat st;
  if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    return Fail(error, dir + " is not a folder of a board");
  }
  TableLock lock(board);
  if (!lock.held()) return Fail(error, "cannot lock the ARP table of " + board);

  std::string text = kHeading;
  std::ifstream in(board + kTable);
  std::string line;
  bool first = true;
  while (std::getline(in, line)) {
    if (first) {
      first = false;
      if (line.compare(0, 10, "IP address") == 0) continue;  // the heading, written above
    }
    std::istringstream fields(line);
    std::string ip, type, flags, hw;
    fields >> ip >> type >> flags >> hw;
    std::string digits;
    if (!NormalizeMac(hw, &digits)) digits.clear();
    if (!ip.empty() && !keep(ip, digits)) continue;
    text += line + "\n";
  }
  text += extra;

  // mkstemp's template: six X that it replaces
  std::string tmp = dir + "/.arp." + std::string(6, 'X');
  std::vector<char> name(tmp.begin(), tmp.end());
  name.push_back('\0');
  const int fd = mkstemp(name.data());
  if (fd < 0) return Fail(error, "cannot create a file in " + dir + ": " + std::strerror(errno));
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t w = write(fd, text.data() + done, text.size() - done);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) break;
    done += static_cast<size_t>(w);
  }
  fchmod(fd, 0644);
  close(fd);
  if (done != text.size() || rename(name.data(), (board + kTable).c_str()) != 0) {
    unlink(name.data());
    return Fail(error, "cannot write " + board + kTable);
  }
  return 0;
}

}  // namespace

std::string ArpLine(const std::string& ip, const std::string& mac) {
  std::string digits;
  if (!NormalizeMac(mac, &digits)) digits = "000000000000";
  char line[160];
  std::snprintf(line, sizeof(line), "%-16s 0x%-10x0x%-10x%-17s     %-8s %s\n", ip.c_str(), 1, 2,
                ColonMac(digits).c_str(), "*", "ra1");
  return line;
}

int SetArpEntry(const std::string& board, const std::string& ip, const std::string& mac,
                std::string* error) {
  std::string digits;
  if (!NormalizeMac(mac, &digits)) return Fail(error, "not a MAC: " + mac);
  if (!ValidIp(ip)) return Fail(error, "not an IPv4 address: " + ip);
  if (board.empty()) return Fail(error, "no board root");
  return Rewrite(
      board,
      [&](const std::string& line_ip, const std::string& line_mac) {
        return line_ip != ip && line_mac != digits;
      },
      ArpLine(ip, digits), error);
}

int RemoveArpEntry(const std::string& board, const std::string& ip, std::string* error) {
  if (!ValidIp(ip)) return Fail(error, "not an IPv4 address: " + ip);
  if (board.empty()) return Fail(error, "no board root");
  return Rewrite(
      board, [&](const std::string& line_ip, const std::string&) { return line_ip != ip; }, "",
      error);
}

}  // namespace camsim
