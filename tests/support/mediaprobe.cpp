#include "support/mediaprobe.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "support/testsupport.h"

namespace testsupport {
namespace {

std::string Quote(const std::string& s) {
  std::string out = "'";
  for (char c : s) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  return out + "'";
}

// Standard output and standard error of a shell command, and its exit status.
std::string Run(const std::string& command, int* status) {
  std::string out;
  FILE* p = popen((command + " 2>&1").c_str(), "r");
  if (p == nullptr) {
    *status = -1;
    return out;
  }
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
  *status = pclose(p);
  return out;
}

int64_t Number(const std::string& v) {
  return v.empty() || v == "N/A" ? 0 : std::strtoll(v.c_str(), nullptr, 10);
}

}  // namespace

std::string TestMedia(const std::string& name) {
  static const std::string dir = std::string(TARVO_BIN_DIR) + "/test-media";
  static const int made =
      std::system((SourcePath("scripts/make-test-media.sh") + " " + dir + " >/dev/null").c_str());
  return made == 0 ? dir + "/" + name : "";
}

const ProbedStream* Probe::Find(const std::string& codec) const {
  for (const ProbedStream& s : streams) {
    if (s.codec == codec) return &s;
  }
  return nullptr;
}

Probe ProbeFile(const std::string& path) {
  Probe probe;
  int status = 0;
  const std::string out =
      Run("ffprobe -v error -count_packets -show_entries "
          "stream=codec_name,codec_tag_string,width,height,sample_aspect_ratio,sample_rate,"
          "nb_read_packets,duration_ts "
          "-of default " +
              Quote(path),
          &status);
  ProbedStream* current = nullptr;
  size_t at = 0;
  while (at < out.size()) {
    size_t end = out.find('\n', at);
    if (end == std::string::npos) end = out.size();
    const std::string line = out.substr(at, end - at);
    at = end + 1;
    if (line == "[STREAM]") {
      probe.streams.emplace_back();
      current = &probe.streams.back();
      continue;
    }
    if (line == "[/STREAM]") {
      current = nullptr;
      continue;
    }
    const size_t eq = line.find('=');
    if (current == nullptr || eq == std::string::npos) {
      if (!line.empty()) probe.errors += line + "\n";
      continue;
    }
    const std::string key = line.substr(0, eq);
    const std::string value = line.substr(eq + 1);
    if (key == "codec_name") current->codec = value;
    if (key == "codec_tag_string") current->tag = value;
    if (key == "width") current->width = static_cast<int>(Number(value));
    if (key == "height") current->height = static_cast<int>(Number(value));
    if (key == "sample_aspect_ratio") current->sample_aspect_ratio = value;
    if (key == "sample_rate") current->sample_rate = static_cast<int>(Number(value));
    if (key == "nb_read_packets") current->packets = Number(value);
    if (key == "duration_ts") current->duration = Number(value);
  }
  probe.ok = status == 0 && probe.errors.empty() && !probe.streams.empty();
  return probe;
}

bool DecodesCleanly(const std::string& path, std::string* errors) {
  int status = 0;
  const std::string out =
      Run("ffmpeg -nostdin -hide_banner -v error -i " + Quote(path) + " -f null -", &status);
  if (errors != nullptr) *errors = out;
  return status == 0 && out.empty();
}

std::vector<std::string> TopLevelBoxes(const std::string& path) {
  std::vector<std::string> boxes;
  std::ifstream in(path, std::ios::binary);
  uint64_t pos = 0;
  while (in) {
    unsigned char head[16];
    in.seekg(static_cast<std::streamoff>(pos));
    if (!in.read(reinterpret_cast<char*>(head), 8)) break;
    uint64_t size =
        (uint64_t{head[0]} << 24) | (uint64_t{head[1]} << 16) | (uint64_t{head[2]} << 8) | head[3];
    if (size == 1) {
      if (!in.read(reinterpret_cast<char*>(head + 8), 8)) break;
      size = 0;
      for (int i = 8; i < 16; i++) size = (size << 8) | head[i];
    }
    boxes.emplace_back(reinterpret_cast<char*>(head + 4), 4);
    if (size < 8) break;  // to the end of the file, or malformed
    pos += size;
  }
  return boxes;
}

}  // namespace testsupport
