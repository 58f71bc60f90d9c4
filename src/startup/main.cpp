#include "startup/main.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "base/log.h"
#include "cloud/mqttclient.h"
#include "core/configuration.h"
#include "core/eventloop.h"
#include "crypto/hubauth.h"
#include "housekeeping/systemctrl.h"
#include "led/hubled.h"
#include "media/filetransfer.h"
#include "media/mp4mux.h"
#include "media/orump4playlist.h"
#include "media/playback.h"
#include "platform/board.h"
#include "server/mediaserver.h"
#include "server/playbacksend.h"
#include "storage/pirevent.h"
#include "storage/pirupload.h"
#include "storage/recordindex.h"
#include "storage/recordstore.h"
#include "storage/recordsweep.h"
#include "storage/sdcard.h"

namespace {

bool Is(const char* word, const char* option) {
  return word != nullptr && std::strcmp(word, option) == 0;
}

// Fatal signals. A signal may interrupt any thread anywhere, also inside syslog or malloc, so the
// signal handler itself only writes the number into a pipe; the reporter thread reads it, logs
// the record through the normal log path (`handler`) and ends the process. A fault raised by the
// interrupted thread's own instruction (a real SIGSEGV, SIGBUS, SIGFPE or SIGSYS) cannot return
// to it, so that thread waits for the reporter and, should the reporter be blocked by a lock the
// faulting thread holds, ends the process itself after two seconds, without the record.
int signal_pipe[2] = {-1, -1};
std::atomic<bool> reporter_running{false};

bool RaisedByTheInstruction(int sig, const siginfo_t* info) {
  return (sig == SIGSEGV || sig == SIGBUS || sig == SIGFPE || sig == SIGSYS) && info != nullptr &&
         info->si_code > 0 && info->si_code != SI_KERNEL;
}

extern "C" void OnFatalSignal(int sig, siginfo_t* info, void*) {
  const int saved_errno = errno;
  if (!reporter_running.load()) _exit(1);  // before the logger is open: nothing to record with
  ssize_t ignored = write(signal_pipe[1], &sig, sizeof sig);  // non-blocking; one number is enough
  (void)ignored;
  if (RaisedByTheInstruction(sig, info)) {
    struct timespec tick = {0, 10 * 1000 * 1000};
    for (int i = 0; i < 200; i++) nanosleep(&tick, nullptr);
    _exit(1);
  }
  errno = saved_errno;
}

void InstallFatalSignals() {
  if (pipe2(signal_pipe, O_CLOEXEC) == 0) {
    fcntl(signal_pipe[1], F_SETFL, O_NONBLOCK);
  }
  struct sigaction action = {};
  action.sa_sigaction = OnFatalSignal;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (int sig : {SIGSEGV, SIGFPE, SIGBUS, SIGSYS, SIGURG, SIGCONT})
    sigaction(sig, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

// Started once the logger is open (after daemonising, which keeps only the forking thread).
void StartSignalReporter() {
  if (signal_pipe[0] < 0) return;
  std::thread([] {
    for (;;) {
      int sig = 0;
      ssize_t n = read(signal_pipe[0], &sig, sizeof sig);
      if (n == static_cast<ssize_t>(sizeof sig)) handler(sig);
      if (n < 0 && errno != EINTR) return;
    }
  }).detach();
  reporter_running.store(true);
}

}  // namespace

void ParseOptions(Option* option, Configuration* config, int argc, char** argv) {
  // Each word is checked against every option in turn; after "-v" and "-s" the value word is
  // compared with the remaining options in the same pass, as the hub always did.
  for (int i = 0; i < argc; i++) {
    if (Is(argv[i], "-h")) {
      std::printf("Usage: tarvo-p2p [-dsv]\n");
      std::printf("\t-d\tRun in background\n");
      std::printf("\t-s\tSN\n");
      std::printf("\t-m\tMAC\n");
      std::printf("\t-v\tLog level\n");
      std::fflush(stdout);
      std::exit(0);
    }
    if (Is(argv[i], "-d")) option->daemon = 1;
    if (Is(argv[i], "-v")) {
      if (i + 1 >= argc) break;  // no value: keep the default level
      i++;
      option->log_level = static_cast<uint8_t>(std::strtol(argv[i], nullptr, 10));
    }
    if (Is(argv[i], "-s")) {
      if (i + 1 >= argc) break;
      i++;  // the serial number is not stored
    }
    if (Is(argv[i], "-m")) {
      if (i + 1 >= argc) break;
      i++;
      if (config != nullptr) config->SetMac(argv[i]);
    }
  }
}

void Daemonize() {
  pid_t pid = fork();
  if (pid < 0) std::exit(1);
  if (pid > 0) std::exit(0);
  if (setsid() < 0) std::exit(1);
  std::signal(SIGCHLD, SIG_IGN);
  pid = fork();
  if (pid < 0) std::exit(1);
  if (pid > 0) std::exit(0);
  umask(0);
  if (chdir("/") != 0) {
    // nothing depends on the working directory; every path the daemon opens is absolute
  }
  if (!std::freopen("/dev/null", "r", stdin)) std::exit(1);
  if (!std::freopen("/dev/null", "w+", stdout)) std::exit(1);
  if (!std::freopen("/dev/null", "w+", stderr)) std::exit(1);
}

void InitLogger(Option* option) {
  tlog::OpenSyslog();
  TLOG(LOG_INFO) << "Logger init " << static_cast<int>(option->log_level) << ".";
  tlog::SetLevel(option->log_level);
}

void handler(int sig) {
  TLOG(LOG_DEBUG) << "Error: signal " << sig;
  // The other threads keep running: destructors and exit handlers are not run under them.
  _exit(1);
}

int RunHub(int argc, char** argv) {
  // 1. The default loop first: without it there is no daemon.
  eventloop::Loop();

  // 2. Fatal signals to one handler; SIGINT, SIGTERM and SIGHUP keep their default actions.
  InstallFatalSignals();

  // 3. The board root is read before daemonising changes the working directory.
  platform::Root();
  Option option;
  Configuration& config = Configuration::getInstance();

  ParseOptions(&option, &config, argc, argv);  // 4.
  if (option.daemon) Daemonize();              // 5.
  InitLogger(&option);                         // 6.
  StartSignalReporter();

  // A development machine's daemon runs only on a complete board: never the machine's own tools.
  if (platform::CheckBoard() < 0) {
    TLOG_AS(LOG_ERR, "main") << "Board root incomplete, refusing to start";
    std::exit(1);
  }

  if (InitWifiConf() < 0) {  // 7.
    TLOG_AS(LOG_DEBUG, "main") << "InitWifiConf failed, exit";
    std::exit(0);
  }
  DisConnectCameraList();       // 8.
  orump4_init_ffmpeg();         // 9.
  pirevent::InstallRecorder();  // every camera channel made from here on records its events
  libsodium_init();             // 10.
  alarm_upload_init();          // 11.
  alarm_upload_lock_init();
  SetSdStatusReport(MqttReportPropSdStatus);
  InitSdCard();             // 12.
  SweepUnindexedRecords();  // files a power cut left on the card without an index record
  InitLed();                // 13.
  config.Init();            // 14.

  // 15. The one media server: camera listener and P2P side. Lives as long as the process.
  auto* media_server = new server::MediaServer();
  media_server->Init();
  media_server->StartTutk();

  InitMqtt();                            // 16.
  playlist_mgr_init(MakeRecordStore());  // 17.
  server::InitPlaybackSenders();
  filetransfer_set_locator(&IsFileExist);
  InitSyncAndReset();  // 18.
  InitSystemCtrl();    // 19.
  SetAlarmReportPublisher(MqttReport);
  InitPirUpload();  // 20.

  return eventloop::Run();  // 21.
}
