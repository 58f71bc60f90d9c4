// tarvo-viewer: a viewer of the hub over the open P2P transport, as the phone app is one.
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "p2p/iotc.h"
#include "viewer/viewerframe.h"
#include "viewer/viewersession.h"

namespace {

const char kUsage[] =
    "Usage: tarvo-viewer --credentials FILE [OPTION]...\n"
    "Opens a P2P session on the hub as the phone app does, logs in on AV channel 0 with a new\n"
    "app key pair whose public key is signed as the cloud signs it for the app (device key,\n"
    "device token and the hub's public key), holds the session and closes it.\n"
    "\n"
    "What the app gets from the cloud:\n"
    "  --credentials FILE   uid, P2P password, the hub's public key, device key and device\n"
    "                       token, as tarvo-cloudsim --credentials FILE writes them from the\n"
    "                       hub's last acknowledged credential report (required)\n"
    "\n"
    "Hub:\n"
    "  --host HOST          hub address (default 127.0.0.1)\n"
    "  --port PORT          the hub's P2P port (TARVO_P2P_PORT, else 32761)\n"
    "\n"
    "Session:\n"
    "  --account NAME       account named in the login text (default viewer; the hub keeps 15\n"
    "                       characters)\n"
    "  --timeout SECONDS    time for the session request and for the login, each (default 10)\n"
    "  --hold SECONDS       hold the session this long, then close it (default 0: until\n"
    "                       SIGINT or SIGTERM)\n"
    "  --abort              end by dropping the connection without goodbye, as a viewer that\n"
    "                       vanishes\n"
    "\n"
    "Trying the hub's refusals (each replaces one value of the credentials file):\n"
    "  --uid UID            ask for this uid\n"
    "  --password PASSWORD  give this P2P password\n"
    "  --sign-token TOKEN   sign with this device token\n"
    "  --sign-hub-key HEX   sign for this hub public key (64 hexadecimal digits)\n"
    "  --login-text TEXT    send this login text as it stands instead of a signed one\n"
    "\n"
    "Output:\n"
    "  -q, --quiet          print nothing on standard output\n"
    "  -h, --help           this text\n"
    "\n"
    "Standard output, one line per step: \"session SID open on HOST:PORT\", \"login ok\",\n"
    "\"frames video N audio M\" when the hub sent any, then \"closed\" or \"aborted\". A refusal\n"
    "or a lost session prints \"refused STEP CODE_NAME (CODE)\" or \"lost CODE_NAME (CODE)\" on\n"
    "standard error. The device token and the keys are never printed.\n"
    "Exit status: 0 when the session was opened, logged in, held and ended as asked; 1 when the\n"
    "hub refused it or it was lost; 2 on a usage error or an unreadable credentials file.\n"
    "\n"
    "Example: tarvo-cloudsim --status cloud_connected --credentials /tmp/creds --stay &\n"
    "         tarvo-viewer --credentials /tmp/creds --host 192.168.1.20 --hold 30\n";

std::atomic<bool> g_stop{false};

void OnSignal(int) {
  g_stop.store(true);
}

int Usage(const std::string& error) {
  std::fprintf(stderr, "tarvo-viewer: %s\nTry 'tarvo-viewer --help'.\n", error.c_str());
  return 2;
}

bool ParseNumber(const char* text, long long low, long long high, long long* out) {
  char* end = nullptr;
  errno = 0;
  const long long v = std::strtoll(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || v < low || v > high) return false;
  *out = v;
  return true;
}

struct Args {
  std::string credentials;
  viewer::SessionOptions session;
  long long hold_s = 0;
  bool abort = false;
  bool quiet = false;
  bool has_uid = false, has_password = false, has_token = false, has_hub_key = false;
  bool has_text = false;
  std::string uid, password, token, hub_key, text;
};

// 0 to go on, 1 after --help, 2 on a usage error (printed).
int ParseArgs(int argc, char** argv, Args* a) {
  for (int i = 1; i < argc; i++) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    long long number = 0;
    if (arg == "-h" || arg == "--help") {
      std::fputs(kUsage, stdout);
      return 1;
    } else if (arg == "-q" || arg == "--quiet") {
      a->quiet = true;
    } else if (arg == "--abort") {
      a->abort = true;
    } else if (!has_value) {
      return Usage("unknown option or missing value: " + arg);
    } else if (arg == "--credentials") {
      a->credentials = argv[++i];
    } else if (arg == "--host") {
      a->session.host = argv[++i];
    } else if (arg == "--port") {
      if (!ParseNumber(argv[++i], 1, 65535, &number)) return Usage("bad --port");
      a->session.port = static_cast<uint16_t>(number);
    } else if (arg == "--account") {
      a->session.account = argv[++i];
    } else if (arg == "--timeout") {
      if (!ParseNumber(argv[++i], 1, 3600, &number)) return Usage("bad --timeout");
      a->session.timeout_ms = static_cast<int>(number * 1000);
    } else if (arg == "--hold") {
      if (!ParseNumber(argv[++i], 0, 24LL * 3600 * 365, &number)) return Usage("bad --hold");
      a->hold_s = number;
    } else if (arg == "--uid") {
      a->uid = argv[++i];
      a->has_uid = true;
    } else if (arg == "--password") {
      a->password = argv[++i];
      a->has_password = true;
    } else if (arg == "--sign-token") {
      a->token = argv[++i];
      a->has_token = true;
    } else if (arg == "--sign-hub-key") {
      a->hub_key = argv[++i];
      a->has_hub_key = true;
    } else if (arg == "--login-text") {
      a->text = argv[++i];
      a->has_text = true;
    } else {
      return Usage("unknown option: " + arg);
    }
  }
  if (a->credentials.empty()) return Usage("--credentials FILE is required");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Args args;
  const int parsed = ParseArgs(argc, argv, &args);
  if (parsed == 1) return 0;
  if (parsed != 0) return parsed;

  viewer::AppCredentials credentials;
  std::string error;
  if (viewer::LoadCredentials(args.credentials, &credentials, &error) != 0) {
    std::fprintf(stderr, "tarvo-viewer: %s\n", error.c_str());
    return 2;
  }
  if (args.has_uid) credentials.uid = args.uid;
  if (args.has_password) credentials.password = args.password;
  if (args.has_token) credentials.device_token = args.token;
  // The hub key the sign is made for; the stream key is derived with the same one.
  if (args.has_hub_key) credentials.public_key = args.hub_key;

  signal(SIGINT, OnSignal);
  signal(SIGTERM, OnSignal);
  signal(SIGPIPE, SIG_IGN);

  auto say = [&](const std::string& line) {
    if (args.quiet) return;
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  };
  auto refused = [](const char* step, int code) {
    std::fprintf(stderr, "refused %s %s (%d)\n", step, viewer::CodeName(code).c_str(), code);
    return 1;
  };

  viewer::Session session;
  int rc = session.Connect(credentials, args.session);
  if (rc != 0) return refused("session", rc);
  say("session " + std::to_string(session.sid()) + " open on " + args.session.host + ":" +
      std::to_string(viewer::SessionPort(args.session)));

  rc = args.has_text
           ? session.LoginWithText(args.session.account, args.text, args.session.timeout_ms)
           : session.Login(credentials, args.session);
  if (rc != 0) return refused("login", rc);
  say("login ok");

  // Frames come only after the viewer asks for live view; they are counted and decrypted here so
  // that a broken stream shows.
  long long video = 0;
  long long audio = 0;
  long long undecodable = 0;
  viewer::Handlers handlers;
  handlers.frame = [&](const p2p::ViewerFrame& frame) {
    (frame.video ? video : audio)++;
    std::vector<uint8_t> plain;
    if (viewer::DecryptFrame(frame, session.has_key() ? session.key() : nullptr, &plain) != 0) {
      undecodable++;
    }
  };
  const auto until = args.hold_s > 0
                         ? std::chrono::steady_clock::now() + std::chrono::seconds(args.hold_s)
                         : std::chrono::steady_clock::time_point::max();
  rc = session.Hold(until, g_stop, handlers);
  if (video + audio > 0) {
    say("frames video " + std::to_string(video) + " audio " + std::to_string(audio) +
        (undecodable > 0 ? " undecodable " + std::to_string(undecodable) : ""));
  }
  if (rc != 0) {
    std::fprintf(stderr, "lost %s (%d)\n", viewer::CodeName(rc).c_str(), rc);
    return 1;
  }
  if (args.abort) {
    session.Abort();
    say("aborted");
  } else {
    session.Close();
    say("closed");
  }
  return 0;
}
