#include "viewer/credentials.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

namespace viewer {

namespace {

bool OneLine(const std::string& value) {
  return value.find_first_of("\r\n") == std::string::npos;
}

}  // namespace

int WriteCredentialsFile(const std::string& path, const Credentials& c) {
  const std::vector<std::pair<const char*, const std::string*>> fields = {
      {"uid", &c.uid},
      {"password", &c.password},
      {"public_key", &c.public_key},
      {"checktoken", &c.checktoken},
      {"device_key", &c.device_key},
      {"device_token", &c.device_token},
  };
  std::string text;
  for (const auto& field : fields) {
    if (!OneLine(*field.second)) return -1;
    text += std::string(field.first) + "=" + *field.second + "\n";
  }
  const std::string tmp = path + ".tmp";
  FILE* out = std::fopen(tmp.c_str(), "w");
  if (out == nullptr) return -1;
  chmod(tmp.c_str(), 0600);
  bool ok = std::fwrite(text.data(), 1, text.size(), out) == text.size();
  ok = std::fclose(out) == 0 && ok;
  if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
    unlink(tmp.c_str());
    return -1;
  }
  return 0;
}

int ReadCredentialsFile(const std::string& path, Credentials* c) {
  std::ifstream in(path);
  if (!in) return -1;
  *c = Credentials();
  std::string line;
  while (std::getline(in, line)) {
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    const std::string name = line.substr(0, eq);
    const std::string value = line.substr(eq + 1);
    if (name == "uid") c->uid = value;
    if (name == "password") c->password = value;
    if (name == "public_key") c->public_key = value;
    if (name == "checktoken") c->checktoken = value;
    if (name == "device_key") c->device_key = value;
    if (name == "device_token") c->device_token = value;
  }
  return c->uid.empty() || c->password.empty() || c->public_key.empty() ? -1 : 0;
}

}  // namespace viewer
