// tarvo-cloudsim: the cloud agent on the hub's MQTT broker, for development and tests.
#include <json-c/json.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cloudsim/cloudsim.h"
#include "cloudsim/uploads.h"

namespace {

const char kUsage[] =
    "Usage: tarvo-cloudsim [OPTION]...\n"
    "Plays the hub's local cloud agent on its MQTT broker: answers the hub's requests and\n"
    "reports, sends it local.status and commands, and prints what the hub publishes.\n"
    "\n"
    "Broker:\n"
    "  --host HOST             broker address (TARVO_MQTT_HOST, else localhost)\n"
    "  --port PORT             broker port (TARVO_MQTT_PORT, else 1883)\n"
    "\n"
    "Answers to the hub:\n"
    "  --uid UID               uid given for \"_sync.get_p2p_id\" (default TARVOSIM00000000000A)\n"
    "  --no-uid                leave uid requests unanswered\n"
    "  --credentials FILE      write the last acknowledged credential report there, with the\n"
    "                          board's device key and token (format in docs/cloud-messages.md)\n"
    "  --board DIR             board root holding etc/zelo/device.conf and device.token\n"
    "                          (TARVO_ROOT when not given)\n"
    "  --ignore-credentials N  leave the first N credential reports unanswered\n"
    "  --no-ack                answer no other report (state, SD, battery, events)\n"
    "  --time SECONDS          time given for \"local.query_time\" (default: this machine's)\n"
    "\n"
    "Alarm uploads:\n"
    "  --upload-url BASE       answer \"_sync.gen_presigned_url\" with URLs under BASE (the\n"
    "                          upload server's PUT folder, e.g. https://127.0.0.1:8443/uploads)\n"
    "                          and a fresh password per file\n"
    "  --ignore-urls N         leave the first N URL requests unanswered\n"
    "  --ignore-events N       leave the first N event reports unanswered\n"
    "  --upload-dir DIR        where the upload server stores what the hub PUTs; with\n"
    "  --decrypt-to DIR        each event report's clip and snapshot are decrypted from there\n"
    "                          into this folder with the report's passwords\n"
    "  --decrypt IN OUT PASSWORD\n"
    "                          only decrypt the uploaded file IN into OUT and exit (AES-256-CBC,\n"
    "                          key = MD5 hex text of PASSWORD, zero IV, zero padding kept)\n"
    "\n"
    "Messages to the hub (in the order given, once connected):\n"
    "  --status TEXT           send local.status TEXT, e.g. cloud_connected\n"
    "  --local-time SECONDS    send local.time SECONDS\n"
    "  --send METHOD PARAMS    send the command and print its reply; PARAMS is JSON text\n"
    "                          (\"-\" sends the command without params)\n"
    "  --timeout SECONDS       how long to wait for each reply (default 10)\n"
    "  --stay                  keep answering after the messages (default: exit after them;\n"
    "                          without any message the agent runs until SIGINT or SIGTERM)\n"
    "  -q, --quiet             print only the replies to --send\n"
    "  -h, --help              this text\n"
    "\n"
    "Output, one line per message: \"report <json>\" (zelo/report), \"reply <json>\"\n"
    "(zelo/command_ack), \"local <json>\" (local/zelo_client_in), \"timeout <id>\" for a command\n"
    "left without reply, \"url <suffix> <object> <password> <url>\" for each presigned URL given,\n"
    "\"event <name> clip <object> <password> snapshot <object> <password> push <n>\" for each\n"
    "event report, \"decrypted <object> <file>\" for each file decrypted. The exit status is 1 "
    "when a reply did not come, 2 on a usage or\n"
    "connection error.\n"
    "\n"
    "Example: tarvo-cloudsim --port 18830 --status cloud_connected \\\n"
    "             --send get_camera_list - --send set_power_threshold '[20]'\n";

struct Action {
  enum Kind { kStatus, kTime, kSend } kind;
  std::string a;
  std::string b;
};

std::atomic<bool> g_stop{false};

void OnSignal(int) {
  g_stop.store(true);
}

bool ValidJson(const std::string& text) {
  json_object* parsed = json_tokener_parse(text.c_str());
  if (parsed == nullptr) return text == "null";
  json_object_put(parsed);
  return true;
}

int Usage(const char* error) {
  std::fprintf(stderr, "tarvo-cloudsim: %s\nTry 'tarvo-cloudsim --help'.\n", error);
  return 2;
}

bool ParseNumber(const char* text, long long* out) {
  char* end = nullptr;
  errno = 0;
  long long v = std::strtoll(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0') return false;
  *out = v;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  cloudsim::Options options;
  if (const char* host = std::getenv("TARVO_MQTT_HOST")) options.host = host;
  if (const char* port = std::getenv("TARVO_MQTT_PORT")) options.port = std::atoi(port);
  if (const char* root = std::getenv("TARVO_ROOT")) options.board = root;
  std::vector<Action> actions;
  long long timeout = 10;
  bool stay = false;
  bool quiet = false;
  std::string upload_dir;
  std::string decrypt_to;

  for (int i = 1; i < argc; i++) {
    std::string arg = argv[i];
    auto value = [&](int n) -> bool { return i + n < argc; };
    long long number = 0;
    if (arg == "-h" || arg == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--host" && value(1)) {
      options.host = argv[++i];
    } else if (arg == "--port" && value(1)) {
      if (!ParseNumber(argv[++i], &number) || number < 1 || number > 65535) {
        return Usage("bad --port");
      }
      options.port = static_cast<uint16_t>(number);
    } else if (arg == "--uid" && value(1)) {
      options.uid = argv[++i];
    } else if (arg == "--no-uid") {
      options.uid.clear();
    } else if (arg == "--credentials" && value(1)) {
      options.credentials_file = argv[++i];
    } else if (arg == "--board" && value(1)) {
      options.board = argv[++i];
    } else if (arg == "--ignore-credentials" && value(1)) {
      if (!ParseNumber(argv[++i], &number) || number < 0) return Usage("bad --ignore-credentials");
      options.ignore_credentials = static_cast<int>(number);
    } else if (arg == "--no-ack") {
      options.answer_reports = false;
    } else if (arg == "--time" && value(1)) {
      if (!ParseNumber(argv[++i], &number)) return Usage("bad --time");
      options.time = number;
    } else if (arg == "--upload-url" && value(1)) {
      options.upload_base = argv[++i];
    } else if (arg == "--ignore-urls" && value(1)) {
      if (!ParseNumber(argv[++i], &number) || number < 0) return Usage("bad --ignore-urls");
      options.ignore_url_requests = static_cast<int>(number);
    } else if (arg == "--ignore-events" && value(1)) {
      if (!ParseNumber(argv[++i], &number) || number < 0) return Usage("bad --ignore-events");
      options.ignore_event_reports = static_cast<int>(number);
    } else if (arg == "--upload-dir" && value(1)) {
      upload_dir = argv[++i];
    } else if (arg == "--decrypt-to" && value(1)) {
      decrypt_to = argv[++i];
    } else if (arg == "--decrypt" && value(3)) {
      std::string error;
      if (cloudsim::DecryptFile(argv[i + 1], argv[i + 2], argv[i + 3], &error) != 0) {
        std::fprintf(stderr, "tarvo-cloudsim: %s\n", error.c_str());
        return 1;
      }
      return 0;
    } else if (arg == "--status" && value(1)) {
      actions.push_back({Action::kStatus, argv[++i], ""});
    } else if (arg == "--local-time" && value(1)) {
      if (!ParseNumber(argv[i + 1], &number)) return Usage("bad --local-time");
      actions.push_back({Action::kTime, argv[++i], ""});
    } else if (arg == "--send" && value(2)) {
      std::string method = argv[++i];
      std::string params = argv[++i];
      if (params == "-") params.clear();
      if (!params.empty() && !ValidJson(params)) return Usage("--send PARAMS is not JSON");
      actions.push_back({Action::kSend, method, params});
    } else if (arg == "--timeout" && value(1)) {
      if (!ParseNumber(argv[++i], &timeout) || timeout < 1) return Usage("bad --timeout");
    } else if (arg == "--stay") {
      stay = true;
    } else if (arg == "-q" || arg == "--quiet") {
      quiet = true;
    } else {
      return Usage(("unknown option or missing value: " + arg).c_str());
    }
  }

  signal(SIGINT, OnSignal);
  signal(SIGTERM, OnSignal);
  signal(SIGPIPE, SIG_IGN);

  std::mutex print_mutex;
  auto print = [&](const char* kind, const std::string& text) {
    std::lock_guard<std::mutex> lock(print_mutex);
    std::printf("%s %s\n", kind, text.c_str());
    std::fflush(stdout);
  };

  if (upload_dir.empty() != decrypt_to.empty()) {
    return Usage("--upload-dir and --decrypt-to go together");
  }

  cloudsim::CloudAgent agent(options);
  size_t urls_printed = 0;
  // An object name is a plain file name of the upload folder, nothing else.
  auto plain_name = [](const std::string& name) {
    return !name.empty() && name.find('/') == std::string::npos && name != "." && name != "..";
  };
  auto decrypt = [&](const std::string& object, const std::string& password) {
    if (!plain_name(object)) return;
    const std::string out = decrypt_to + "/" + object;
    std::string error;
    if (cloudsim::DecryptFile(upload_dir + "/" + object, out, password, &error) == 0) {
      print("decrypted", object + " " + out);
    } else {
      print("undecrypted", object + " " + error);
    }
  };
  agent.SetObserver([&](const cloudsim::Message& m) {
    if (m.topic == "zelo/report") {
      if (!quiet) print("report", m.payload);
      // The URLs given so far (the observer runs after the answer went out).
      const std::vector<cloudsim::IssuedUpload> uploads = agent.Uploads();
      for (; urls_printed < uploads.size(); urls_printed++) {
        const cloudsim::IssuedUpload& u = uploads[urls_printed];
        if (!quiet) print("url", u.suffix + " " + u.object_name + " " + u.password + " " + u.url);
      }
      cloudsim::EventReport event;
      if (cloudsim::ParseEventReport(m.payload, &event)) {
        if (!quiet)
          print("event", event.event + " clip " + event.clip_object + " " + event.clip_password +
                             " snapshot " + event.snapshot_object + " " + event.snapshot_password +
                             " push " + event.push);
        if (!decrypt_to.empty()) {
          decrypt(event.snapshot_object, event.snapshot_password);
          decrypt(event.clip_object, event.clip_password);
        }
      }
    }
    if (m.topic == "local/zelo_client_in" && !quiet) print("local", m.payload);
  });
  std::string error;
  if (agent.Start(std::chrono::seconds(10), &error) != 0) {
    std::fprintf(stderr, "tarvo-cloudsim: %s\n", error.c_str());
    return 2;
  }
  if (!quiet) print("connected", options.host + ":" + std::to_string(options.port));

  int status = 0;
  for (const Action& action : actions) {
    if (action.kind == Action::kStatus) {
      agent.SendLocalStatus(action.a);
      continue;
    }
    if (action.kind == Action::kTime) {
      agent.SendLocalTime(std::atoll(action.a.c_str()));
      continue;
    }
    int id = agent.SendCommand(action.a, action.b);
    std::string reply;
    if (id < 0) {
      std::fprintf(stderr, "tarvo-cloudsim: cannot publish %s\n", action.a.c_str());
      status = 1;
    } else if (agent.WaitReply(id, &reply, std::chrono::seconds(timeout))) {
      print("reply", reply);
    } else {
      print("timeout", std::to_string(id));
      status = 1;
    }
  }

  if (actions.empty() || stay) {
    while (!g_stop.load()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  agent.Stop();
  return status;
}
