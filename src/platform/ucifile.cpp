#include "platform/ucifile.h"

namespace platform {
namespace uci {
namespace {

bool NameChars(const std::string& text, bool dash) {
  if (text.empty() || text.size() > kNameMax) return false;
  for (char c : text) {
    const bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                    c == '_' || (dash && c == '-');
    if (!ok) return false;
  }
  return true;
}

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r';
}

// Splits one line into words. False with a reason on an unterminated quote or escape.
bool Tokenize(const std::string& line, std::vector<std::string>* words, std::string* why) {
  words->clear();
  size_t i = 0;
  const size_t n = line.size();
  while (i < n) {
    if (IsBlank(line[i])) {
      i++;
      continue;
    }
    if (line[i] == '#') break;
    std::string word;
    while (i < n && !IsBlank(line[i])) {
      const char c = line[i];
      if (c == '\'') {
        const size_t close = line.find('\'', i + 1);
        if (close == std::string::npos) {
          *why = "unterminated single quote";
          return false;
        }
        word.append(line, i + 1, close - i - 1);
        i = close + 1;
      } else if (c == '"') {
        i++;
        while (i < n && line[i] != '"') {
          if (line[i] == '\\' && i + 1 < n) i++;
          word.push_back(line[i]);
          i++;
        }
        if (i >= n) {
          *why = "unterminated double quote";
          return false;
        }
        i++;
      } else if (c == '\\') {
        if (i + 1 >= n) {
          *why = "backslash at the end of the line";
          return false;
        }
        word.push_back(line[i + 1]);
        i += 2;
      } else {
        word.push_back(c);
        i++;
      }
    }
    words->push_back(word);
  }
  return true;
}

}  // namespace

Option* Section::FindOption(const std::string& option) {
  for (auto& o : options) {
    if (o.name == option) return &o;
  }
  return nullptr;
}

Section* Package::FindNamed(const std::string& name) {
  if (name.empty()) return nullptr;
  for (auto& s : sections) {
    if (s.name == name) return &s;
  }
  return nullptr;
}

Section* Package::FindByType(const std::string& type, int index) {
  std::vector<Section*> matching;
  for (auto& s : sections) {
    if (s.type == type) matching.push_back(&s);
  }
  const long count = static_cast<long>(matching.size());
  const long at = index < 0 ? count + index : index;
  if (at < 0 || at >= count) return nullptr;
  return matching[static_cast<size_t>(at)];
}

bool ValidName(const std::string& name) {
  return NameChars(name, false);
}
bool ValidType(const std::string& type) {
  return NameChars(type, true);
}
bool ValidPackageName(const std::string& name) {
  return NameChars(name, true);
}
bool ValidValue(const std::string& value) {
  if (value.size() > kValueMax) return false;
  for (char c : value) {
    if (c == '\n' || c == '\r' || c == '\0') return false;
  }
  return true;
}

bool Parse(const std::string& text, Package* package, std::string* error) {
  package->sections.clear();
  Section* current = nullptr;
  size_t start = 0;
  int line_no = 0;
  auto fail = [&](const std::string& why) {
    *error = "line " + std::to_string(line_no) + ": " + why;
    package->sections.clear();
    return false;
  };
  std::vector<std::string> words;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    line_no++;
    std::string why;
    if (line.find('\0') != std::string::npos) return fail("NUL byte");
    if (!Tokenize(line, &words, &why)) return fail(why);
    if (words.empty()) continue;
    const std::string& keyword = words[0];
    if (keyword == "package") {
      if (words.size() != 2 || !ValidPackageName(words[1])) return fail("bad package line");
    } else if (keyword == "config") {
      if (words.size() < 2 || words.size() > 3) return fail("config needs a type and a name");
      if (!ValidType(words[1])) return fail("invalid section type '" + words[1] + "'");
      const std::string name = words.size() == 3 ? words[2] : "";
      if (!name.empty() && !ValidName(name)) return fail("invalid section name '" + name + "'");
      current = package->FindNamed(name);
      if (current != nullptr) {
        current->type = words[1];  // a repeated section continues the first one
      } else {
        package->sections.push_back(Section{words[1], name, {}});
        current = &package->sections.back();
      }
    } else if (keyword == "option" || keyword == "list") {
      if (current == nullptr) return fail(keyword + " outside a section");
      if (words.size() < 2 || words.size() > 3) return fail(keyword + " needs a name and a value");
      if (!ValidName(words[1])) return fail("invalid option name '" + words[1] + "'");
      const std::string value = words.size() == 3 ? words[2] : "";
      if (!ValidValue(value)) return fail("value of " + words[1] + " too long");
      Option* option = current->FindOption(words[1]);
      if (keyword == "option") {
        if (option == nullptr) {
          current->options.push_back(Option{words[1], false, {value}});
        } else {
          option->is_list = false;
          option->values = {value};
        }
      } else if (option == nullptr) {
        current->options.push_back(Option{words[1], true, {value}});
      } else {
        option->is_list = true;  // a list after an option keeps the option's value first
        option->values.push_back(value);
      }
    } else {
      return fail("unknown keyword '" + keyword + "'");
    }
  }
  return true;
}

std::string Quote(const std::string& value) {
  std::string out = "'";
  for (char c : value) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out.push_back(c);
    }
  }
  out.push_back('\'');
  return out;
}

std::string Serialize(const Package& package) {
  std::string out;
  for (const auto& section : package.sections) {
    out += "\nconfig " + section.type;
    if (!section.name.empty()) out += " " + Quote(section.name);
    out += "\n";
    for (const auto& option : section.options) {
      for (const auto& value : option.values) {
        out += option.is_list ? "\tlist " : "\toption ";
        out += option.name + " " + Quote(value) + "\n";
      }
    }
  }
  out += "\n";
  return out;
}

}  // namespace uci
}  // namespace platform
