// tarvo-viewer: a viewer of the hub over the open P2P transport, as the phone app is one.
#include <signal.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "p2p/iotc.h"
#include "server/iotypes.h"
#include "viewer/viewerdownload.h"
#include "viewer/viewerframe.h"
#include "viewer/viewerlive.h"
#include "viewer/viewerplay.h"
#include "viewer/viewersession.h"
#include "viewer/viewertalk.h"

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
    "Live view (frames are decrypted with the session's stream key):\n"
    "  --live MAC           watch camera MAC (twelve hexadecimal digits): live start with\n"
    "                       {\"mac\":MAC,\"videoquality\":Q} after the login, live stop at the "
    "end\n"
    "  --quality Q          videoquality of the live start (default 2: 1920x1080; 1: 1280x720)\n"
    "  --set-quality Q      change the quality once the first video frame has come\n"
    "  --h264 FILE          write the decrypted H.264 elementary stream (Annex B)\n"
    "  --mp4 FILE           write the same frames into an MP4 file (FFmpeg remux, no "
    "re-encoding),\n"
    "                       from the first key frame with its parameter sets on\n"
    "  --alaw FILE          write the decrypted audio (raw 8 kHz G.711 A-law)\n"
    "  --frame-log FILE     one CSV line per frame: kind, number, index, key, bytes, encrypted,\n"
    "                       seconds, milliseconds, first_byte_ns, last_byte_ns (CLOCK_MONOTONIC\n"
    "                       arrival of the frame's first and last byte)\n"
    "  --no-stop            end without the live stop request\n"
    "\n"
    "Stored events (frames are decrypted with the session's stream key):\n"
    "  --events MAC         list the events camera MAC (or \"all\": every camera) has on the\n"
    "                       card: one line \"event MAC START LENGTH\" each, then \"events N\"\n"
    "  --play MAC START     play the event of camera MAC that started at START (epoch seconds);\n"
    "                       --h264, --mp4, --alaw and --frame-log write what comes, as live view\n"
    "                       does; ends when the hub signals the end of the clip\n"
    "  --seek S             start the play at the key frame at or before S seconds (default 0)\n"
    "\n"
    "Talkback (with --live):\n"
    "  --talk FILE          send raw 8 kHz A-law from FILE to the camera's speaker, paced as it\n"
    "                       plays; the hub leaves out every tenth frame (numbers 0, 10, 20, ...).\n"
    "                       The session is held at least until the file has been sent\n"
    "  --talk-channel N     the talkback channel the viewer serves, 1..31 (default 1)\n"
    "  --talk-frame BYTES   bytes a frame, 1..2048 (default 320: 40 ms)\n"
    "\n"
    "Download of a stored event (over the session's reliable transfer, RDT):\n"
    "  --download MAC START DIR\n"
    "                       fetch the clip and the snapshot of camera MAC's event that started\n"
    "                       at START (epoch seconds) into the existing folder DIR, under their\n"
    "                       card names, byte for byte; prints \"download mp4 NAME bytes N\" and\n"
    "                       \"download jpg NAME bytes N\", then closes the session\n"
    "  --rdt-channel N      the IOTC channel of the RDT end, 1..31 (default 2)\n"
    "\n"
    "Output:\n"
    "  -q, --quiet          print nothing on standard output\n"
    "  -h, --help           this text\n"
    "\n"
    "Standard output, one line per step: \"session SID open on HOST:PORT\", \"login ok\",\n"
    "\"live MAC quality Q\", \"frames video N audio M\" when the hub sent any; with --live the\n"
    "statistics \"video frames N key K bytes B gaps G missing M\" (gaps in the camera's frame\n"
    "index), \"audio frames N bytes B gaps G missing M\" (gaps in the transport's numbers), then\n"
    "\"h264 FILE\", \"mp4 FILE frames N\", \"alaw FILE\" for the files written and \"talk frames "
    "N\n"
    "bytes B\"; with --play \"play MAC START from S\", \"play state STATE frames N\" (STATE:\n"
    "end, stopped, replaced, error, deleted, refused) and the statistics; then \"closed\" or "
    "\"aborted\". A refusal or a lost session prints \"refused\n"
    "STEP CODE_NAME (CODE)\" or \"lost CODE_NAME (CODE)\" on standard error. The device token\n"
    "and the keys are never printed.\n"
    "Exit status: 0 when the session was opened, logged in, held and ended as asked; 1 when the\n"
    "hub refused it or it was lost, or a file or the talkback failed (\"error ...\" on standard\n"
    "error); 2 on a usage error or an unreadable credentials file.\n"
    "\n"
    "Example: tarvo-cloudsim --status cloud_connected --credentials /tmp/creds --stay &\n"
    "         tarvo-viewer --credentials /tmp/creds --host 192.168.1.20 --hold 30\n"
    "         tarvo-viewer --credentials /tmp/creds --live 0A1B2C3D4E5F --hold 10 \\\n"
    "             --h264 cam.h264 --mp4 cam.mp4 --talk hello.alaw\n";

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

// A camera MAC: twelve hexadecimal digits, kept in upper case.
bool ParseMac(const char* text, std::string* out) {
  std::string mac = text;
  if (mac.size() != 12) return false;
  for (char& c : mac) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  *out = mac;
  return true;
}

struct Args {
  std::string credentials;
  std::string live;    // camera MAC, upper case
  std::string events;  // camera MAC, upper case, or "all"
  std::string play;    // camera MAC, upper case
  long long play_start = -1;
  long long seek = 0;
  long long quality = server::kDefaultVideoQuality;
  bool set_quality = false;
  long long new_quality = 0;
  bool no_stop = false;
  viewer::RecordOptions record;
  std::string talk;
  long long talk_channel = 1;
  long long talk_frame = 320;
  viewer::SessionOptions session;
  long long hold_s = 0;
  bool abort = false;
  bool quiet = false;
  bool download = false;
  viewer::DownloadOptions fetch;
  std::optional<std::string> uid, password, token, hub_key, text;
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
    } else if (arg == "--no-stop") {
      a->no_stop = true;
    } else if (arg == "--download") {
      if (i + 3 >= argc) return Usage("--download needs MAC START DIR");
      a->download = true;
      if (!ParseMac(argv[++i], &a->fetch.camera_mac)) {
        return Usage("--download needs twelve hexadecimal digits");
      }
      if (!ParseNumber(argv[++i], 1, 4294967295LL, &number)) return Usage("bad --download START");
      a->fetch.start = number;
      a->fetch.dir = argv[++i];
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
    } else if (arg == "--live") {
      if (!ParseMac(argv[++i], &a->live)) return Usage("--live needs twelve hexadecimal digits");
    } else if (arg == "--events") {
      a->events = argv[++i];
      if (a->events != "all" && !ParseMac(argv[i], &a->events)) {
        return Usage("--events needs twelve hexadecimal digits or all");
      }
    } else if (arg == "--play") {
      if (!ParseMac(argv[++i], &a->play)) return Usage("--play needs twelve hexadecimal digits");
      if (i + 1 >= argc || !ParseNumber(argv[++i], 0, 4294967295LL, &number)) {
        return Usage("--play needs MAC START");
      }
      a->play_start = number;
    } else if (arg == "--seek") {
      if (!ParseNumber(argv[++i], 0, 86400, &number)) return Usage("bad --seek");
      a->seek = number;
    } else if (arg == "--quality") {
      if (!ParseNumber(argv[++i], 0, 255, &number)) return Usage("bad --quality");
      a->quality = number;
    } else if (arg == "--set-quality") {
      if (!ParseNumber(argv[++i], 0, 255, &number)) return Usage("bad --set-quality");
      a->new_quality = number;
      a->set_quality = true;
    } else if (arg == "--h264") {
      a->record.h264_path = argv[++i];
    } else if (arg == "--mp4") {
      a->record.mp4_path = argv[++i];
    } else if (arg == "--alaw") {
      a->record.alaw_path = argv[++i];
    } else if (arg == "--frame-log") {
      a->record.frame_log_path = argv[++i];
    } else if (arg == "--talk") {
      a->talk = argv[++i];
    } else if (arg == "--talk-channel") {
      if (!ParseNumber(argv[++i], 1, 31, &number)) return Usage("bad --talk-channel");
      a->talk_channel = number;
    } else if (arg == "--talk-frame") {
      if (!ParseNumber(argv[++i], 1, static_cast<long long>(viewer::kMaxTalkFrameBytes), &number)) {
        return Usage("bad --talk-frame");
      }
      a->talk_frame = number;
    } else if (arg == "--rdt-channel") {
      if (!ParseNumber(argv[++i], 1, 31, &number)) return Usage("bad --rdt-channel");
      a->fetch.channel = static_cast<uint8_t>(number);
    } else if (arg == "--uid") {
      a->uid = argv[++i];
    } else if (arg == "--password") {
      a->password = argv[++i];
    } else if (arg == "--sign-token") {
      a->token = argv[++i];
    } else if (arg == "--sign-hub-key") {
      a->hub_key = argv[++i];
    } else if (arg == "--login-text") {
      a->text = argv[++i];
    } else {
      return Usage("unknown option: " + arg);
    }
  }
  if (a->credentials.empty()) return Usage("--credentials FILE is required");
  const bool records = !a->record.h264_path.empty() || !a->record.mp4_path.empty() ||
                       !a->record.alaw_path.empty() || !a->record.frame_log_path.empty();
  const int modes = (a->live.empty() ? 0 : 1) + (a->events.empty() ? 0 : 1) +
                    (a->play.empty() ? 0 : 1) + (a->download ? 1 : 0);
  if (modes > 1) return Usage("--live, --events, --play and --download exclude each other");
  if (a->live.empty() && (!a->talk.empty() || a->set_quality)) {
    return Usage("--set-quality and --talk need --live MAC");
  }
  if (a->live.empty() && a->play.empty() && records) {
    return Usage("--h264, --mp4, --alaw and --frame-log need --live MAC or --play MAC START");
  }
  return 0;
}

using Say = std::function<void(const std::string&)>;

// The statistics of a finished recording and the files it wrote.
void SayRecording(const viewer::LiveRecorder& recorder, const Args& args, const Say& say) {
  say(viewer::VideoLine(recorder.video()));
  say(viewer::AudioLine(recorder.audio()));
  if (!args.record.h264_path.empty()) say("h264 " + args.record.h264_path);
  if (!args.record.mp4_path.empty()) {
    say("mp4 " + args.record.mp4_path + " frames " + std::to_string(recorder.mp4_frames()));
  }
  if (!args.record.alaw_path.empty()) say("alaw " + args.record.alaw_path);
}

// Ends the session as asked and gives the exit status.
int EndSession(viewer::Session& session, const Args& args, const Say& say, int rc, bool failed) {
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
  return failed ? 1 : 0;
}

// Holds the session in short turns until done() or a signal; the session's end code, else 0.
int HoldUntil(viewer::Session& session, const Args& args, const viewer::Handlers& handlers,
              const std::function<bool()>& done) {
  const auto until = std::chrono::steady_clock::now() +
                     std::chrono::seconds(args.hold_s > 0 ? args.hold_s : 24LL * 3600);
  int rc = 0;
  while (rc == 0 && !done() && !g_stop.load() && std::chrono::steady_clock::now() < until) {
    rc = session.Hold(std::chrono::steady_clock::now() + std::chrono::milliseconds(50), g_stop,
                      handlers);
  }
  return rc;
}

int RunEvents(viewer::Session& session, const Args& args, const Say& say) {
  const uint32_t id = 1;
  int rc =
      session.SendIoCtrl(server::IOTYPE_USER_IPCAM_SEND_META_START,
                         viewer::EventListRequest(args.events == "all" ? "" : args.events, id));
  if (rc != 0) {
    std::fprintf(stderr, "refused events %s (%d)\n", viewer::CodeName(rc).c_str(), rc);
    return 1;
  }
  viewer::EventList list(id);
  viewer::Handlers handlers;
  handlers.ioctrl = [&](const p2p::ViewerIoCtrl& m) { list.Add(m); };
  rc = HoldUntil(session, args, handlers, [&] { return list.complete() || list.broken(); });
  bool failed = !list.complete() || list.broken();
  if (list.complete()) {
    for (const auto& e : list.events()) say(viewer::EventLine(e));
    say("events " + std::to_string(list.events().size()));
  }
  if ((list.flags() & playbackmsg::kChunkRefused) != 0) {
    std::fprintf(stderr, "error events refused by the hub\n");
    failed = true;
  } else if ((list.flags() & playbackmsg::kChunkNoCard) != 0) {
    std::fprintf(stderr, "error no card or unreadable index\n");
    failed = true;
  } else if (rc == 0 && failed) {
    std::fprintf(stderr, "error the event list did not come whole\n");
  }
  return EndSession(session, args, say, rc, failed);
}

int RunPlay(viewer::Session& session, const Args& args, const Say& say) {
  viewer::LiveRecorder recorder;
  std::string error;
  if (recorder.Open(args.record, &error) != 0) {
    std::fprintf(stderr, "tarvo-viewer: %s\n", error.c_str());
    return 2;
  }
  const uint32_t start = static_cast<uint32_t>(args.play_start);
  int rc =
      session.SendIoCtrl(server::IOTYPE_USER_IPCAM_RECORD_SEEKTIME,
                         viewer::PlayRequest(args.play, start, static_cast<uint32_t>(args.seek)));
  if (rc != 0) {
    std::fprintf(stderr, "refused play %s (%d)\n", viewer::CodeName(rc).c_str(), rc);
    return 1;
  }
  say("play " + args.play + " " + std::to_string(start) + " from " + std::to_string(args.seek));
  bool over = false;
  playbackmsg::StateMessage last;
  viewer::Handlers handlers;
  handlers.frame = [&](const p2p::ViewerFrame& frame) {
    recorder.Add(frame, session.has_key() ? session.key() : nullptr);
  };
  handlers.ioctrl = [&](const p2p::ViewerIoCtrl& m) {
    playbackmsg::StateMessage state;
    if (!viewer::ReadPlayState(m, &state)) return;
    if (state.mac != args.play || state.start != start) {
      if (state.state != playbackmsg::PlayState::kRefused) return;
    }
    last = state;
    if (viewer::IsFinalState(state.state)) over = true;
  };
  rc = HoldUntil(session, args, handlers, [&] { return over; });
  // The state goes as control and may overtake the last frames: its count says how many come.
  if (rc == 0 && over) {
    const auto grace = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    rc = HoldUntil(session, args, handlers, [&] {
      return recorder.video().frames + recorder.video().undecodable >= last.frames ||
             std::chrono::steady_clock::now() >= grace;
    });
  }
  if (!over && rc == 0)
    session.SendIoCtrl(server::IOTYPE_USER_IPCAM_RECORD_SEEKTIME, viewer::PlayCommand("stop"));
  bool failed = false;
  if (recorder.Finish(&error) != 0) {
    std::fprintf(stderr, "error %s\n", error.c_str());
    failed = true;
  }
  if (over) {
    say(std::string("play state ") + playbackmsg::PlayStateName(last.state) + " frames " +
        std::to_string(last.frames));
    if (last.state != playbackmsg::PlayState::kEnd) failed = true;
  } else {
    failed = true;
  }
  SayRecording(recorder, args, say);
  return EndSession(session, args, say, rc, failed);
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
  credentials.uid = args.uid.value_or(credentials.uid);
  credentials.password = args.password.value_or(credentials.password);
  credentials.device_token = args.token.value_or(credentials.device_token);
  // The hub key the sign is made for; the stream key is derived with the same one.
  credentials.public_key = args.hub_key.value_or(credentials.public_key);

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

  rc = args.text ? session.LoginWithText(args.session.account, *args.text, args.session.timeout_ms)
                 : session.Login(credentials, args.session);
  if (rc != 0) return refused("login", rc);
  say("login ok");

  if (args.download) {
    args.fetch.timeout_ms = args.session.timeout_ms;
    viewer::DownloadResult fetched;
    const int got = viewer::Download(session, args.fetch, &fetched);
    for (const auto& f : fetched.files) {
      say("download " + f.kind + " " + f.name + " bytes " + std::to_string(f.size));
    }
    if (got != 0) {
      std::fprintf(stderr, "error download: %s\n", fetched.error.c_str());
      session.Close();
      return 1;
    }
    session.Close();
    say("closed");
    return 0;
  }

  if (!args.events.empty()) return RunEvents(session, args, say);
  if (!args.play.empty()) return RunPlay(session, args, say);

  // Frames come only after the viewer asks for live view; they are counted and decrypted here so
  // that a broken stream shows.
  viewer::LiveRecorder recorder;
  std::string error_text;
  if (!args.live.empty() && recorder.Open(args.record, &error_text) != 0) {
    std::fprintf(stderr, "tarvo-viewer: %s\n", error_text.c_str());
    return 2;
  }
  if (!args.live.empty()) {
    const std::string start =
        "{\"mac\":\"" + args.live + "\",\"videoquality\":" + std::to_string(args.quality) + "}";
    rc = session.SendIoCtrl(server::IOTYPE_USER_IPCAM_START, start);
    if (rc != 0) return refused("live", rc);
    say("live " + args.live + " quality " + std::to_string(args.quality));
  }

  std::atomic<bool> talk_done{true};
  std::thread talker;
  viewer::TalkResult talk;
  if (!args.talk.empty()) {
    viewer::TalkOptions options;
    options.camera_mac = args.live;
    options.alaw_path = args.talk;
    options.channel = static_cast<uint8_t>(args.talk_channel);
    options.frame_bytes = static_cast<size_t>(args.talk_frame);
    talk_done = false;
    talker = std::thread([&session, options, &talk, &talk_done] {
      viewer::Talk(session, options, g_stop, &talk);
      talk_done = true;
    });
  }

  long long video = 0;
  long long audio = 0;
  long long undecodable = 0;
  bool quality_sent = false;
  viewer::Handlers handlers;
  handlers.frame = [&](const p2p::ViewerFrame& frame) {
    (frame.video ? video : audio)++;
    const unsigned char* key = session.has_key() ? session.key() : nullptr;
    if (!args.live.empty()) {
      recorder.Add(frame, key);
    } else {
      std::vector<uint8_t> plain;
      if (viewer::DecryptFrame(frame, key, &plain) != 0) undecodable++;
    }
    if (frame.video && args.set_quality && !quality_sent) {
      quality_sent = true;
      const std::string change = "{\"mac\":\"" + args.live +
                                 "\",\"videoquality\":" + std::to_string(args.new_quality) + "}";
      if (session.SendIoCtrl(server::IOTYPE_USER_IPCAM_SETSTREAMCTRL_REQ, change) == 0) {
        say("quality " + std::to_string(args.new_quality));
      }
    }
  };
  const auto until = args.hold_s > 0
                         ? std::chrono::steady_clock::now() + std::chrono::seconds(args.hold_s)
                         : std::chrono::steady_clock::time_point::max();
  rc = session.Hold(until, g_stop, handlers);
  // A talkback still running keeps the session until its file has gone out.
  while (rc == 0 && !talk_done.load() && !g_stop.load()) {
    rc = session.Hold(std::chrono::steady_clock::now() + std::chrono::milliseconds(100), g_stop,
                      handlers);
  }
  if (talker.joinable()) {
    if (rc != 0) g_stop = true;
    talker.join();
  }
  if (!args.live.empty() && !args.no_stop && rc == 0) {
    session.SendIoCtrl(server::IOTYPE_USER_IPCAM_STOP, "{\"mac\":\"" + args.live + "\"}");
  }
  bool failed = false;
  if (video + audio > 0) {
    say("frames video " + std::to_string(video) + " audio " + std::to_string(audio) +
        (undecodable > 0 ? " undecodable " + std::to_string(undecodable) : ""));
  }
  if (!args.live.empty()) {
    if (recorder.Finish(&error_text) != 0) {
      std::fprintf(stderr, "error %s\n", error_text.c_str());
      failed = true;
    }
    SayRecording(recorder, args, say);
  }
  if (!args.talk.empty()) {
    say("talk frames " + std::to_string(talk.frames) + " bytes " + std::to_string(talk.bytes));
    if (!talk.error.empty()) {
      std::fprintf(stderr, "error talkback: %s\n", talk.error.c_str());
      failed = true;
    }
  }
  return EndSession(session, args, say, rc, failed);
}
