#include "platform/hwlib.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "base/log.h"
#include "platform/board.h"
#include "platform/boardcard.h"
#include "platform/boardfs.h"
#include "platform/internal.h"

namespace {

constexpr uint32_t kCardBit = 1u << kGpioCardDetect;
constexpr uint32_t kButtonBit = 1u << 6;
constexpr int kCardInserted = 2;  // mmc event of an insertion edge
constexpr int kCardRemoved = 1;   // mmc event of a removal edge
constexpr int kKeyPressed = 2;
constexpr int kKeyReleased = 1;
constexpr int kGpioLines = 64;
constexpr int kRegisterMax = 0xffff;
constexpr size_t kEventLineMax = 128;

constexpr char kEventsFifo[] = "/sys/hub/events";
constexpr char kHubDir[] = "/sys/hub";
constexpr char kRegisterDir[] = "/sys/hub/reg/";
constexpr char kLedFile[] = "/sys/hub/led";
constexpr char kDisconnectFile[] = "/sys/hub/ap_disconnect";
constexpr char kCardDevice[] = "/dev/mmcblk0p1";

// What a card event does to the slot: a card goes in or out (the level changes, the handler
// gets the edge), the contacts bounce (the handler gets an edge, the level stays), or the
// card's write-protect switch moves (no handler call).
enum class CardChange { kInsert, kRemove, kBounceInsert, kBounceRemove, kLock, kUnlock };

struct Event {
  bool card = false;  // a card event, else a key event
  CardChange change = CardChange::kInsert;
  int code = 0;
  int type = 0;
};

// The handler's edge of a card event, or 0 for none.
int CardEdge(CardChange change) {
  switch (change) {
    case CardChange::kInsert:
    case CardChange::kBounceInsert:
      return kCardInserted;
    case CardChange::kRemove:
    case CardChange::kBounceRemove:
      return kCardRemoved;
    default:
      return 0;
  }
}

// The key service: handlers, armed lines and the queue of in-process events, drained by one
// event thread that also reads the board's event FIFO.
struct KeyService {
  std::mutex mutex;
  key_callback_t key_callback = nullptr;
  mmc_callback_t mmc_callback = nullptr;
  std::set<int> hooked;
  std::deque<Event> queue;
  std::thread thread;
  bool running = false;
  bool stopping = false;
  int wake[2] = {-1, -1};
};

KeyService& Service() {
  static auto* service = new KeyService();
  return *service;
}

std::mutex g_register_mutex;
std::mutex g_led_mutex;
std::atomic<int> g_led_pattern{0};

bool HaveRoot(const char* what) {
  if (!platform::Root().empty()) return true;
  TLOG(LOG_ERR) << what << ": no board root";
  return false;
}

std::string RegisterPath(int offset) {
  return platform::BoardPath(std::string(kRegisterDir) + std::to_string(offset));
}

bool ReadRegister(int offset, uint32_t* value) {
  std::string text;
  if (!platform::boardfs::ReadFile(RegisterPath(offset), &text, 64)) return false;
  char* end = nullptr;
  errno = 0;
  unsigned long v = std::strtoul(text.c_str(), &end, 0);
  while (end != nullptr && (*end == '\n' || *end == ' ')) end++;
  if (errno != 0 || end == text.c_str() || *end != '\0' || v > 0xffffffffUL) {
    TLOG(LOG_ERR) << "Register file " << RegisterPath(offset) << " does not hold a number";
    return false;
  }
  *value = static_cast<uint32_t>(v);
  return true;
}

void UpdateRegister(int offset, uint32_t bits, bool set) {
  std::lock_guard<std::mutex> lock(g_register_mutex);
  uint32_t value = 0;
  ReadRegister(offset, &value);
  value = set ? (value | bits) : (value & ~bits);
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08x\n", value);
  platform::boardfs::MakeDirs(platform::BoardPath(kRegisterDir));
  platform::boardfs::WriteFileAtomic(RegisterPath(offset), text);
}

// The board's hardware follows the event: register bits and the card's device node.
void ApplyEvent(const Event& event) {
  if (platform::Root().empty()) return;
  if (event.card) {
    const std::string& root = platform::Root();
    switch (event.change) {
      case CardChange::kInsert:
        UpdateRegister(kRegGpioData, kCardBit, false);
        // A loaded driver finds the new card at once; otherwise the node comes with insmod.
        if (platform::boardcard::DriverLoaded(root)) {
          platform::boardfs::MakeDirs(platform::BoardPath("/dev"));
          int fd =
              open(platform::BoardPath(kCardDevice).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
          if (fd >= 0) close(fd);
        }
        break;
      case CardChange::kRemove:
        // The device node stays until the driver is unloaded, as on the hub.
        UpdateRegister(kRegGpioData, kCardBit, true);
        break;
      case CardChange::kLock:
        platform::boardfs::MakeDirs(root + platform::boardcard::kCardDir);
        platform::boardfs::WriteFileAtomic(root + platform::boardcard::kLockFile, "", 0644, false);
        break;
      case CardChange::kUnlock:
        unlink((root + platform::boardcard::kLockFile).c_str());
        break;
      default:
        break;
    }
  } else if (event.type == kKeyPressed || event.type == kKeyReleased) {
    UpdateRegister(kRegKeys, kButtonBit, event.type == kKeyPressed);
  }
}

void Dispatch(const Event& event) {
  KeyService& service = Service();
  if (event.card) {
    const int edge = CardEdge(event.change);
    if (edge == 0) return;
    mmc_callback_t callback;
    bool hooked;
    {
      std::lock_guard<std::mutex> lock(service.mutex);
      callback = service.mmc_callback;
      hooked = service.hooked.count(kGpioCardDetect) != 0;
    }
    if (!hooked) {
      TLOG(LOG_DEBUG) << "Card event dropped: gpio line " << kGpioCardDetect << " is not hooked";
    } else if (callback == nullptr) {
      TLOG(LOG_DEBUG) << "Card event dropped: no mmc key processor";
    } else {
      callback(kGpioCardDetect, edge);
    }
  } else {
    key_callback_t callback;
    {
      std::lock_guard<std::mutex> lock(service.mutex);
      callback = service.key_callback;
    }
    if (callback == nullptr) {
      TLOG(LOG_DEBUG) << "Key event dropped: no key processor";
    } else {
      callback(event.code, event.type);
    }
  }
}

bool ParseNumber(const std::string& text, int low, int high, int* out) {
  if (text.empty() || text.size() > 6) return false;
  char* end = nullptr;
  long v = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || v < low || v > high) return false;
  *out = static_cast<int>(v);
  return true;
}

// "key CODE TYPE", "card insert", "card remove"; blank lines and "#" comments are skipped.
bool ParseEventLine(const std::string& line, Event* event, bool* skip) {
  std::istringstream in(line);
  std::string word, a, b, extra;
  *skip = false;
  if (!(in >> word) || word[0] == '#') {
    *skip = true;
    return true;
  }
  in >> a >> b >> extra;
  if (!extra.empty()) return false;
  if (word == "key" && !b.empty()) {
    event->card = false;
    return ParseNumber(a, 0, 65535, &event->code) && ParseNumber(b, 0, 255, &event->type);
  }
  if (word != "card") return false;
  event->card = true;
  if (b.empty() && a == "insert") {
    event->change = CardChange::kInsert;
  } else if (b.empty() && a == "remove") {
    event->change = CardChange::kRemove;
  } else if (b.empty() && a == "lock") {
    event->change = CardChange::kLock;
  } else if (b.empty() && a == "unlock") {
    event->change = CardChange::kUnlock;
  } else if (a == "bounce" && (b == "insert" || b == "remove")) {
    event->change = b == "insert" ? CardChange::kBounceInsert : CardChange::kBounceRemove;
  } else {
    return false;
  }
  return true;
}

int OpenEventFifo() {
  const std::string path = platform::BoardPath(kEventsFifo);
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    platform::boardfs::MakeDirs(platform::BoardPath(kHubDir));
    if (mkfifo(path.c_str(), 0660) != 0 && errno != EEXIST) {
      TLOG(LOG_ERR) << "Create event fifo " << path << " failed: " << std::strerror(errno);
      return -1;
    }
  } else if (!S_ISFIFO(st.st_mode)) {
    TLOG(LOG_ERR) << path << " is not a fifo: no events from outside the process";
    return -1;
  }
  // Read and write: the fifo never reports end of file when a writer goes away.
  int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) TLOG(LOG_ERR) << "Open event fifo " << path << " failed: " << std::strerror(errno);
  return fd;
}

void HandleFifoInput(int fd, std::string* partial, bool* discarding) {
  char buf[512];
  while (true) {
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n <= 0) return;
    for (ssize_t i = 0; i < n; i++) {
      const char c = buf[i];
      if (c != '\n') {
        if (*discarding) continue;
        if (partial->size() >= kEventLineMax) {
          TLOG(LOG_ERR) << "Event line longer than " << kEventLineMax << " bytes ignored";
          partial->clear();
          *discarding = true;
          continue;
        }
        partial->push_back(c);
        continue;
      }
      if (*discarding) {
        *discarding = false;
        continue;
      }
      Event event;
      bool skip = false;
      if (!ParseEventLine(*partial, &event, &skip)) {
        TLOG(LOG_ERR) << "Malformed event line ignored: \"" << *partial << "\"";
      } else if (!skip) {
        ApplyEvent(event);
        Dispatch(event);
      }
      partial->clear();
    }
  }
}

void EventThread(int wake_fd) {
  KeyService& service = Service();
  const int fifo = platform::Root().empty() ? -1 : OpenEventFifo();
  std::string partial;
  bool discarding = false;
  while (true) {
    pollfd fds[2] = {{wake_fd, POLLIN, 0}, {fifo, POLLIN, 0}};
    if (poll(fds, fifo >= 0 ? 2 : 1, -1) < 0) {
      if (errno == EINTR) continue;
      TLOG(LOG_ERR) << "Event thread poll failed: " << std::strerror(errno);
      break;
    }
    if (fds[0].revents != 0) {
      char drain[64];
      while (read(wake_fd, drain, sizeof(drain)) > 0) {
      }
    }
    std::deque<Event> batch;
    {
      std::lock_guard<std::mutex> lock(service.mutex);
      if (service.stopping) break;
      batch.swap(service.queue);
    }
    for (const Event& event : batch) Dispatch(event);
    if (fifo >= 0 && (fds[1].revents & POLLIN) != 0) HandleFifoInput(fifo, &partial, &discarding);
  }
  if (fifo >= 0) close(fifo);
}

// With the service's mutex held.
void EnsureEventThread(KeyService& service) {
  if (service.running) return;
  if (pipe2(service.wake, O_CLOEXEC | O_NONBLOCK) != 0) {
    TLOG(LOG_ERR) << "Key service pipe failed: " << std::strerror(errno);
    return;
  }
  service.stopping = false;
  service.running = true;
  service.thread = std::thread(EventThread, service.wake[0]);
}

// Installs one of the service's callbacks and makes sure the event thread runs.
template <typename Callback>
int StartProcessor(Callback KeyService::*slot, Callback callback) {
  if (callback == nullptr) return -1;
  KeyService& service = Service();
  std::lock_guard<std::mutex> lock(service.mutex);
  service.*slot = callback;
  EnsureEventThread(service);
  return service.running ? 0 : -1;
}

void WakeEventThread(KeyService& service) {
  if (service.wake[1] < 0) return;
  const char byte = 1;
  ssize_t n = write(service.wake[1], &byte, 1);
  (void)n;  // a full pipe already wakes the thread
}

void Inject(const Event& event) {
  ApplyEvent(event);
  KeyService& service = Service();
  std::lock_guard<std::mutex> lock(service.mutex);
  EnsureEventThread(service);
  service.queue.push_back(event);
  WakeEventThread(service);
}

bool ValidInterfaceName(const char* name) {
  if (name == nullptr) return false;
  const size_t len = std::strlen(name);
  if (len == 0 || len > 15 || name[0] == '.') return false;
  for (size_t i = 0; i < len; i++) {
    const char c = name[i];
    const bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                    c == '_' || c == '-' || c == '.';
    if (!ok) return false;
  }
  return true;
}

bool IsHex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

}  // namespace

extern "C" int get_hub_mac(const char* ifname, char* out, size_t outlen) {
  if (out == nullptr || outlen < 18) return -1;
  out[0] = '\0';
  if (!ValidInterfaceName(ifname)) {
    TLOG(LOG_ERR) << "get_hub_mac: invalid interface name";
    return -1;
  }
  if (!HaveRoot("get_hub_mac")) return -1;
  const std::string path =
      platform::BoardPath(std::string("/sys/class/net/") + ifname + "/address");
  std::string text;
  if (!platform::boardfs::ReadFile(path, &text, 64)) {
    TLOG(LOG_ERR) << "get_hub_mac: cannot read " << path;
    return -1;
  }
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  bool ok = text.size() == 17;
  for (size_t i = 0; ok && i < text.size(); i++) {
    ok = (i % 3 == 2) ? text[i] == ':' : IsHex(text[i]);
  }
  if (!ok) {
    TLOG(LOG_ERR) << "get_hub_mac: " << path << " does not hold a MAC address";
    return -1;
  }
  std::memcpy(out, text.c_str(), text.size() + 1);
  return 0;
}

extern "C" int disconnect_mac(const char* mac) {
  bool ok = mac != nullptr && std::strlen(mac) == 12;
  for (int i = 0; ok && i < 12; i++) ok = IsHex(mac[i]);
  if (!ok) {
    TLOG(LOG_ERR) << "disconnect_mac: not a MAC of twelve hexadecimal digits";
    return -1;
  }
  if (!HaveRoot("disconnect_mac")) return -1;
  std::string text(mac);
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  TLOG(LOG_INFO) << "Camera access point drops station " << text;
  platform::boardfs::MakeDirs(platform::BoardPath(kHubDir));
  return platform::boardfs::AppendLine(platform::BoardPath(kDisconnectFile), text);
}

extern "C" int led_set_pattern(int pattern) {
  if (pattern < 1 || pattern > 5) {
    TLOG(LOG_ERR) << "led_set_pattern: no pattern " << pattern;
    return -1;
  }
  if (!HaveRoot("led_set_pattern")) return -1;
  std::lock_guard<std::mutex> lock(g_led_mutex);
  platform::boardfs::MakeDirs(platform::BoardPath(kHubDir));
  if (platform::boardfs::WriteFileAtomic(platform::BoardPath(kLedFile),
                                         std::to_string(pattern) + "\n") < 0) {
    return -1;
  }
  g_led_pattern.store(pattern);
  return 0;
}

extern "C" uint32_t reg_read(int offset) {
  if (offset < 0 || offset > kRegisterMax) {
    TLOG(LOG_ERR) << "reg_read: no register " << offset;
    return 0;
  }
  if (!HaveRoot("reg_read")) return 0;
  uint32_t value = 0;
  std::lock_guard<std::mutex> lock(g_register_mutex);
  if (!ReadRegister(offset, &value)) {
    TLOG(LOG_ERR) << "reg_read: cannot read register " << offset;
    return 0;
  }
  return value;
}

extern "C" int gpio_hook(int line) {
  if (line < 0 || line >= kGpioLines) {
    TLOG(LOG_ERR) << "gpio_hook: no gpio line " << line;
    return -1;
  }
  KeyService& service = Service();
  std::lock_guard<std::mutex> lock(service.mutex);
  service.hooked.insert(line);
  return 0;
}

extern "C" int start_key_processor(key_callback_t callback) {
  return StartProcessor(&KeyService::key_callback, callback);
}

extern "C" int start_mmc_key_processor(mmc_callback_t callback) {
  return StartProcessor(&KeyService::mmc_callback, callback);
}

namespace platform {

void InjectKeyEvent(int code, int type) {
  Event event;
  event.code = code;
  event.type = type;
  Inject(event);
}

void InjectCardEvent(bool inserted) {
  Event event;
  event.card = true;
  event.change = inserted ? CardChange::kInsert : CardChange::kRemove;
  Inject(event);
}

void InjectCardBounce(bool insertion_edge) {
  Event event;
  event.card = true;
  event.change = insertion_edge ? CardChange::kBounceInsert : CardChange::kBounceRemove;
  Inject(event);
}

void SetCardWriteProtect(bool on) {
  Event event;
  event.card = true;
  event.change = on ? CardChange::kLock : CardChange::kUnlock;
  ApplyEvent(event);
}

int CurrentLedPattern() {
  return g_led_pattern.load();
}

namespace internal {

void ResetHardware() {
  KeyService& service = Service();
  std::thread thread;
  {
    std::lock_guard<std::mutex> lock(service.mutex);
    if (service.running) {
      service.stopping = true;
      WakeEventThread(service);
      thread = std::move(service.thread);
    }
  }
  if (thread.joinable()) thread.join();
  std::lock_guard<std::mutex> lock(service.mutex);
  for (int& fd : service.wake) {
    if (fd >= 0) close(fd);
    fd = -1;
  }
  service.running = false;
  service.stopping = false;
  service.queue.clear();
  service.key_callback = nullptr;
  service.mmc_callback = nullptr;
  service.hooked.clear();
  g_led_pattern.store(0);
}

}  // namespace internal
}  // namespace platform
