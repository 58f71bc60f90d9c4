#include "support/testsupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

extern char** environ;

namespace testsupport {

std::string BinPath(const std::string& program) {
  return std::string(TARVO_BIN_DIR) + "/" + program;
}
std::string SourcePath(const std::string& relative) {
  return std::string(TARVO_SOURCE_DIR) + "/" + relative;
}

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "tarvo-test-XXXXXX").string();
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) std::abort();
  path_ = buf.data();
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

void MakeBoard(const std::string& dir, const std::vector<std::string>& options) {
  std::vector<std::string> argv{BinPath("tarvo-mkboard")};
  argv.insert(argv.end(), options.begin(), options.end());
  argv.push_back(dir);
  Process mk(argv, {});
  int status = mk.Wait(std::chrono::seconds(30));
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "tarvo-mkboard failed:\n"
      << ::testing::PrintToString(mk.Lines());
  RunShimsUnderEmulator(dir);
}

namespace {

// The emulator's command words in a cross build; none in a native one.
std::vector<std::string> EmulatorWords() {
  std::vector<std::string> words;
#ifdef TARVO_PROGRAM_EMULATOR
  std::istringstream in(TARVO_PROGRAM_EMULATOR);
  for (std::string word; std::getline(in, word, '|');) words.push_back(word);
#endif
  return words;
}

}  // namespace

std::string ProgramForShell(const std::string& program) {
  std::string command;
  for (const auto& word : EmulatorWords()) command += "'" + word + "' ";
  return command + program;
}

void RunShimsUnderEmulator(const std::string& board) {
  if (EmulatorWords().empty()) return;
  const std::string shim = board + "/bin/tarvo-shim";
  const std::string program = shim + ".elf";
  if (!FileExists(shim) || ReadFile(shim).compare(0, 4,
                                                  "\x7f"
                                                  "ELF") != 0)
    return;
  ASSERT_EQ(std::rename(shim.c_str(), program.c_str()), 0);
  // The shim finds its board from its own path and its tool from argv[0]: both are kept.
  WriteFile(shim, "#!/bin/sh\nexec " +
                      ProgramForShell("-0 \"$0\" \"$(dirname \"$0\")/tarvo-shim.elf\" \"$@\"\n"));
  ASSERT_EQ(chmod(shim.c_str(), 0755), 0);
}

const char* FreshChildDeathTestStyle() {
#ifdef TARVO_PROGRAM_EMULATOR
  return "fast";
#else
  return "threadsafe";
#endif
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void WriteFile(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

bool FileExists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

bool WaitFor(const std::function<bool()>& cond, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    if (cond()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return cond();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

long WaitUntilSettled(const std::function<long()>& count, std::chrono::milliseconds quiet,
                      std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  long value = count();
  auto since = std::chrono::steady_clock::now();
  for (;;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const auto now = std::chrono::steady_clock::now();
    const long next = count();
    if (next != value) {
      value = next;
      since = now;
    } else if (now - since >= quiet) {
      return value;
    }
    if (now >= deadline) return -1;
  }
}

namespace {

// Whether a TCP and a UDP socket can bind the port on every address right now (the hub's
// transport listens on every address, the simulators on 127.0.0.N).
bool Bindable(uint16_t port) {
  for (int type : {SOCK_STREAM, SOCK_DGRAM}) {
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(port);
    const bool ok = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    close(fd);
    if (!ok) return false;
  }
  return true;
}

// Claims the port for this process among every test program on the machine (of any work tree
// or build): a lock on a file named after the port, held until the process ends. Between the
// check that a port is free and the bind by the code under test, another test program could
// otherwise be handed the same port.
bool Claim(uint16_t port) {
  static const std::string dir = "/tmp/tarvo-port-claims";
  mkdir(dir.c_str(), 0777);
  const std::string path = dir + "/" + std::to_string(port);
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return true;  // no lock to be had: the bind check alone decides
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    close(fd);
    return false;
  }
  return true;  // the descriptor stays open: the claim lasts as long as the process
}

}  // namespace

uint16_t FreePort() {
  // Ports are handed out from 10000-19999, below the kernel's ephemeral range (where every
  // outgoing connection takes its local port, so a port found free there can be taken by a
  // client a moment later) and below the web servers' 20000-31999. Each program starts at a
  // place of its own, never hands out a port twice and never one that another test program
  // has claimed.
  constexpr unsigned kFirst = 10000, kCount = 10000;
  static std::mutex mutex;
  static unsigned next = static_cast<unsigned>(getpid()) * 7919u % kCount;
  std::lock_guard<std::mutex> lock(mutex);
  for (unsigned tries = 0; tries < kCount; tries++) {
    const uint16_t port = static_cast<uint16_t>(kFirst + next);
    next = (next + 1) % kCount;
    if (Claim(port) && Bindable(port)) return port;
  }
  std::abort();
}

Process::Process(const std::vector<std::string>& argv,
                 const std::map<std::string, std::string>& env) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) std::abort();

  // The environment: ours, with the given names replaced.
  std::map<std::string, std::string> merged;
  for (char** e = environ; *e; ++e) {
    std::string kv(*e);
    auto eq = kv.find('=');
    if (eq != std::string::npos) merged[kv.substr(0, eq)] = kv.substr(eq + 1);
  }
  for (const auto& [k, v] : env) merged[k] = v;
  std::vector<std::string> env_strings;
  for (const auto& [k, v] : merged) env_strings.push_back(k + "=" + v);
  std::vector<char*> envp, args;
  for (auto& s : env_strings) envp.push_back(s.data());
  envp.push_back(nullptr);
  std::vector<std::string> argv_copy = argv;
  // A cross-built program of this build runs under the same emulator as the test itself.
  const std::string bin_dir = std::string(TARVO_BIN_DIR) + "/";
  if (!argv_copy.empty() && argv_copy[0].compare(0, bin_dir.size(), bin_dir) == 0) {
    const std::vector<std::string> emulator = EmulatorWords();
    argv_copy.insert(argv_copy.begin(), emulator.begin(), emulator.end());
  }
  for (auto& s : argv_copy) args.push_back(s.data());
  args.push_back(nullptr);

  pid_ = fork();
  if (pid_ == 0) {
    dup2(fds[1], STDOUT_FILENO);
    dup2(fds[1], STDERR_FILENO);
    int devnull = open("/dev/null", O_RDONLY);
    if (devnull >= 0) dup2(devnull, STDIN_FILENO);
    setpgid(0, 0);
    execve(args[0], args.data(), envp.data());
    _exit(127);
  }
  close(fds[1]);
  reader_ = std::thread(&Process::Reader, this, fds[0]);
}

Process::~Process() {
  if (Running()) {
    kill(-pid_, SIGKILL);
    kill(pid_, SIGKILL);
    Wait(std::chrono::seconds(10));
  }
  if (reader_.joinable()) reader_.join();
}

void Process::Reader(int fd) {
  std::string partial;
  char buf[4096];
  while (true) {
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n <= 0) break;
    partial.append(buf, static_cast<size_t>(n));
    size_t pos;
    std::lock_guard<std::mutex> lock(mutex_);
    while ((pos = partial.find('\n')) != std::string::npos) {
      lines_.push_back(partial.substr(0, pos));
      partial.erase(0, pos + 1);
    }
    changed_.notify_all();
  }
  close(fd);
  std::lock_guard<std::mutex> lock(mutex_);
  if (!partial.empty()) lines_.push_back(partial);
  eof_ = true;
  changed_.notify_all();
}

std::string Process::WaitForLine(const std::string& pattern, std::chrono::milliseconds timeout) {
  std::regex re(pattern);
  std::unique_lock<std::mutex> lock(mutex_);
  size_t checked = 0;
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    for (; checked < lines_.size(); ++checked) {
      if (std::regex_search(lines_[checked], re)) return lines_[checked];
    }
    if (eof_) return "";
    if (changed_.wait_until(lock, deadline) == std::cv_status::timeout) {
      for (; checked < lines_.size(); ++checked)
        if (std::regex_search(lines_[checked], re)) return lines_[checked];
      return "";
    }
  }
}

bool Process::HasLine(const std::string& pattern) {
  std::regex re(pattern);
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& l : lines_)
    if (std::regex_search(l, re)) return true;
  return false;
}

int Process::CountLines(const std::string& pattern) {
  std::regex re(pattern);
  std::lock_guard<std::mutex> lock(mutex_);
  int n = 0;
  for (const auto& l : lines_) n += std::regex_search(l, re) ? 1 : 0;
  return n;
}

bool Process::WaitForLines(const std::string& pattern, int count,
                           std::chrono::milliseconds timeout) {
  return WaitFor([&] { return CountLines(pattern) >= count; }, timeout);
}

std::string Process::LastMatch(const std::string& pattern) {
  std::regex re(pattern);
  std::lock_guard<std::mutex> lock(mutex_);
  std::string value;
  for (const auto& l : lines_) {
    std::smatch m;
    if (std::regex_search(l, m, re) && m.size() > 1) value = m[1];
  }
  return value;
}

void Process::PrintLines(const std::string& prefix) {
  for (const auto& line : Lines()) std::fprintf(stderr, "%s%s\n", prefix.c_str(), line.c_str());
}

std::vector<std::string> Process::Lines() {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

int Process::Wait(std::chrono::milliseconds timeout) {
  if (exited_) return status_;
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    int status;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      exited_ = true;
      status_ = status;
      if (reader_.joinable()) reader_.join();
      return status_;
    }
    if (r < 0 || std::chrono::steady_clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

bool Process::Running() {
  if (exited_) return false;
  int status;
  pid_t r = waitpid(pid_, &status, WNOHANG);
  if (r == pid_) {
    exited_ = true;
    status_ = status;
    return false;
  }
  return r == 0;
}

void Process::Signal(int sig) {
  if (!exited_) kill(pid_, sig);
}

std::map<std::string, std::string> BoardEnv(const std::string& root) {
  return {{"TARVO_ROOT", root}, {"TARVO_LOG_STDERR", "1"}};
}

std::map<std::string, std::string> HubEnv(const std::string& root,
                                          const std::map<std::string, std::string>& extra) {
  std::map<std::string, std::string> env = BoardEnv(root);
  env["TARVO_HUB_IP"] = "127.0.0.1";
  for (const char* name :
       {"TARVO_CAMERA_PORT", "TARVO_PAIRING_PORT", "TARVO_WAKE_PORT", "TARVO_P2P_PORT"}) {
    env[name] = std::to_string(FreePort());
  }
  for (const auto& [name, value] : extra) env[name] = value;
  return env;
}

uint16_t EnvPort(const std::map<std::string, std::string>& env, const std::string& name) {
  return static_cast<uint16_t>(std::stoi(env.at(name)));
}

bool StartHub(const std::map<std::string, std::string>& env, std::unique_ptr<Process>* hub) {
  *hub = std::make_unique<Process>(std::vector<std::string>{BinPath("tarvo-p2p")}, env);
  if ((*hub)->WaitForLine("Subscribed \\(mid: 3\\)", std::chrono::seconds(20)) != "") return true;
  ADD_FAILURE() << "the daemon did not subscribe:\n" << ::testing::PrintToString((*hub)->Lines());
  return false;
}

int ExitCode(int status) {
  return status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace testsupport
