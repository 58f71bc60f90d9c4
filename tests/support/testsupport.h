// What integration and end-to-end tests share: temporary board roots, child processes whose
// output is watched line by line, free loopback ports, and waiting on conditions (never on
// fixed sleeps).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

// Paths of the build's programs.
std::string BinPath(const std::string& program);  // e.g. BinPath("tarvo-p2p")
std::string SourcePath(const std::string& relative);

// A folder removed with its contents when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// In a cross build whose tests run under an emulator, the board's shims (a program of the
// build, run by the host's shell) are wrapped so that the shell starts them under the same
// emulator. Does nothing in a native build.
void RunShimsUnderEmulator(const std::string& board);

// A program of this build as a shell command starts it: its path, behind the emulator's words
// in a cross build.
std::string ProgramForShell(const std::string& program);

// The death-test style for a child that must start afresh: "threadsafe" re-executes the test
// program, which an emulated program cannot do; there it is "fast" (a plain fork), and the
// test must not have touched what the child checks.
const char* FreshChildDeathTestStyle();

// Runs tarvo-mkboard into dir with extra options ("--uid", "X", ...). Fails the test on error.
void MakeBoard(const std::string& dir, const std::vector<std::string>& options = {});

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);
bool FileExists(const std::string& path);

// Polls cond every 10 ms until it holds or the timeout passes. Returns cond's last value.
bool WaitFor(const std::function<bool()>& cond,
             std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Polls count every 10 ms until it has kept one value for `quiet`, and gives that value; -1 when
// it still changed after `timeout`. For "nothing more arrives": a late arrival on a slow machine
// only makes the wait longer, while a stream that goes on never settles.
long WaitUntilSettled(const std::function<long()>& count, std::chrono::milliseconds quiet,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10));

// A port that TCP and UDP could bind on every address a moment ago, outside the kernel's
// ephemeral range, never handed out twice by this program and claimed against every other test
// program on the machine until this one ends (a lock under /tmp/tarvo-port-claims).
uint16_t FreePort();

// A child process with its own environment; standard output and standard error are collected
// line by line (both into one list) so tests can wait for a line.
class Process {
 public:
  Process(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env);
  ~Process();  // kills the process (SIGKILL) if still running
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  // Waits until a line matches the regular expression; returns the matching line or "".
  std::string WaitForLine(const std::string& pattern,
                          std::chrono::milliseconds timeout = std::chrono::seconds(10));
  bool HasLine(const std::string& pattern);
  // How many lines so far match; waiting until at least count do.
  int CountLines(const std::string& pattern);
  bool WaitForLines(const std::string& pattern, int count,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // The first group of the last line that matches, or "".
  std::string LastMatch(const std::string& pattern);
  // Every line so far to standard error, each after prefix (for a failed test's log).
  void PrintLines(const std::string& prefix);
  std::vector<std::string> Lines();
  // Waits for the process to end; returns its wait status, or -1 on time-out.
  int Wait(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  bool Running();
  void Signal(int sig);

 private:
  void Reader(int fd);
  pid_t pid_ = -1;
  int status_ = -1;
  bool exited_ = false;
  std::thread reader_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  bool eof_ = false;
};

// The exit code in a wait status (Process::Wait), or -1 when the process did not exit by itself.
int ExitCode(int status);

// The environment that points a daemon or tool at a board root and logs to standard error.
std::map<std::string, std::string> BoardEnv(const std::string& root);

// The daemon's environment: BoardEnv, the hub on 127.0.0.1 with free camera, pairing, wake and
// P2P ports (TARVO_HUB_IP, TARVO_CAMERA_PORT, TARVO_PAIRING_PORT, TARVO_WAKE_PORT,
// TARVO_P2P_PORT), then the names of extra (a broker's Env()) on top.
std::map<std::string, std::string> HubEnv(const std::string& root,
                                          const std::map<std::string, std::string>& extra = {});
// A port of such an environment, e.g. EnvPort(env, "TARVO_CAMERA_PORT").
uint16_t EnvPort(const std::map<std::string, std::string>& env, const std::string& name);

// Starts the daemon tarvo-p2p with env; true once it has made its three MQTT subscriptions
// (false with its output in the test log otherwise).
bool StartHub(const std::map<std::string, std::string>& env, std::unique_ptr<Process>* hub);

}  // namespace testsupport
