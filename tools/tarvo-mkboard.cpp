// tarvo-mkboard: makes a board root, the folder that stands for the hub's file system, tools
// and hardware on a development machine. See docs/board-root.md.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/boardmaker.h"

namespace {

void PrintHelp() {
  const platform::BoardOptions d;
  std::printf(
      "Usage: tarvo-mkboard [options] DIR\n"
      "Makes a board root in DIR (created when missing; must be empty unless --force).\n"
      "\n"
      "Options (a value may also be given as --option=VALUE):\n"
      "  --mac MAC           hub MAC, twelve hex digits (eth0 and nvram p2p mac) [%s]\n"
      "  --did DID           nvram p2p did [%s]\n"
      "  --key KEY           nvram p2p key [%s]\n"
      "  --uid UID           nvram p2p uid, the P2P identity [%s]\n"
      "  --token TOKEN       etc/config/device.token [%s]\n"
      "  --ssid SSID         camera access point name, wireless.@wifi-iface[2].ssid [%s]\n"
      "  --wifi-key KEY      camera access point key, wireless.@wifi-iface[2].key [%s]\n"
      "  --no-wifi-conf      leave etc/config/wifi.conf out (the hub starts unprovisioned)\n"
      "  --no-identity       nvram without p2p did, key and mac (the daemon's exit path)\n"
      "  --clock EPOCH       the board's clock starts at this epoch second (machine clock\n"
      "                      otherwise); e.g. 1400000000 for a hub before 2018\n"
      "  --camera MAC[,IP]   a paired camera: uci section p2p.MAC of type p2p with the\n"
      "                      default settings, and an ARP entry on ra1 when IP is given;\n"
      "                      repeatable, at most 4 [no cameras]\n"
      "  --card [SIZE_MIB]   an SD card inserted, its driver loaded and mounted; SIZE_MIB\n"
      "                      is its capacity, also that of a card inserted later [no card,\n"
      "                      %llu MiB]\n"
      "  --shim-dir DIR      folder holding tarvo-shim [the folder of tarvo-mkboard]\n"
      "  --force             write into DIR even when it is not empty\n"
      "  -h, --help          this text\n"
      "\n"
      "Texts may not hold quotes, backslashes, $, ` or control characters; did, key and uid\n"
      "are at most 31 characters, the token 64, the SSID 32, the Wi-Fi key 8 to 63.\n",
      d.mac.c_str(), d.did.c_str(), d.key.c_str(), d.uid.c_str(), d.token.c_str(), d.ssid.c_str(),
      d.wifi_key.c_str(), static_cast<unsigned long long>(d.card_size_mib));
}

int Usage(const std::string& why) {
  std::fprintf(stderr, "tarvo-mkboard: %s\nTry tarvo-mkboard --help.\n", why.c_str());
  return 2;
}

std::string OwnFolder() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0) return ".";
  return std::filesystem::path(std::string(buf, static_cast<size_t>(n))).parent_path().string();
}

bool ParseDigits(const std::string& text, int64_t* out) {
  if (text.empty() || text.size() > 12) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  if (out != nullptr) *out = std::strtoll(text.c_str(), nullptr, 10);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  platform::BoardOptions options;
  std::string dir, shim_dir = OwnFolder();
  std::vector<std::string> args(argv + 1, argv + argc);
  for (size_t i = 0; i < args.size(); i++) {
    std::string opt = args[i], value;
    bool has_value = false;
    const size_t eq = opt.find('=');
    if (opt.compare(0, 2, "--") == 0 && eq != std::string::npos) {
      value = opt.substr(eq + 1);
      opt = opt.substr(0, eq);
      has_value = true;
    }
    auto take = [&](std::string* out) {
      if (!has_value) {
        if (i + 1 >= args.size()) return false;
        value = args[++i];
      }
      *out = value;
      return true;
    };
    std::string text;
    if (opt == "-h" || opt == "--help") {
      PrintHelp();
      return 0;
    } else if (opt == "--mac") {
      if (!take(&options.mac)) return Usage("--mac needs a value");
    } else if (opt == "--did") {
      if (!take(&options.did)) return Usage("--did needs a value");
    } else if (opt == "--key") {
      if (!take(&options.key)) return Usage("--key needs a value");
    } else if (opt == "--uid") {
      if (!take(&options.uid)) return Usage("--uid needs a value");
    } else if (opt == "--token") {
      if (!take(&options.token)) return Usage("--token needs a value");
    } else if (opt == "--ssid") {
      if (!take(&options.ssid)) return Usage("--ssid needs a value");
    } else if (opt == "--wifi-key") {
      if (!take(&options.wifi_key)) return Usage("--wifi-key needs a value");
    } else if (opt == "--shim-dir") {
      if (!take(&shim_dir)) return Usage("--shim-dir needs a value");
    } else if (opt == "--clock") {
      if (!take(&text) || !ParseDigits(text, &options.clock)) {
        return Usage("--clock needs an epoch second");
      }
      options.set_clock = true;
    } else if (opt == "--camera") {
      if (!take(&text)) return Usage("--camera needs MAC[,IP]");
      const size_t comma = text.find(',');
      platform::BoardCamera camera;
      camera.mac = text.substr(0, comma);
      if (comma != std::string::npos) {
        camera.ip = text.substr(comma + 1);
        if (camera.ip.empty()) return Usage("--camera " + text + ": empty address");
      }
      options.cameras.push_back(camera);
    } else if (opt == "--no-wifi-conf" && !has_value) {
      options.wifi_conf = false;
    } else if (opt == "--no-identity" && !has_value) {
      options.identity = false;
    } else if (opt == "--card") {
      // The size is optional: the next word counts as one only when it is all digits.
      if (!has_value && i + 1 < args.size() && ParseDigits(args[i + 1], nullptr)) {
        value = args[++i];
        has_value = true;
      }
      int64_t size = 0;
      if (has_value && (!ParseDigits(value, &size) || size < 1)) {
        return Usage("--card takes a size in MiB");
      }
      if (has_value) options.card_size_mib = static_cast<uint64_t>(size);
      options.card = true;
    } else if (opt == "--force" && !has_value) {
      options.force = true;
    } else if (!opt.empty() && opt[0] == '-') {
      return Usage("unknown option " + args[i]);
    } else if (dir.empty()) {
      dir = opt;
    } else {
      return Usage("more than one folder given");
    }
  }
  if (dir.empty()) return Usage("no folder given");
  options.shim = shim_dir + "/tarvo-shim";
  if (access(options.shim.c_str(), X_OK) != 0) {
    std::fprintf(stderr, "tarvo-mkboard: no tarvo-shim in %s (use --shim-dir)\n", shim_dir.c_str());
    return 1;
  }
  std::string error;
  if (platform::MakeBoardRoot(dir, options, &error) != 0) {
    std::fprintf(stderr, "tarvo-mkboard: %s\n", error.c_str());
    return 1;
  }
  std::printf("Board root made in %s\n", dir.c_str());
  return 0;
}
