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
    "left without reply. The exit status is 1 when a reply did not come, 2 on a usage or\n"
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

  cloudsim::CloudAgent agent(options);
  if (!quiet) {
    agent.SetObserver([&](const cloudsim::Message& m) {
      if (m.topic == "zelo/report") print("report", m.payload);
      if (m.topic == "local/zelo_client_in") print("local", m.payload);
    });
  }
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
