// uci packages in OpenWrt's text format, as uci itself reads and writes them:
//
//   config TYPE ['NAME']
//   	option KEY 'VALUE'
//   	list KEY 'VALUE'
//
// Words may be bare, in single quotes (taken literally), in double quotes (backslash escapes
// the next character) or joined from such pieces ('it'\''s'); "#" starts a comment; blank lines
// and a "package NAME" line are tolerated. Serialize writes what uci commit writes: each
// section after a blank line, values in single quotes with ' as '\''.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace platform {
namespace uci {

constexpr size_t kNameMax = 63;     // package, section, type and option names
constexpr size_t kValueMax = 1023;  // option and list values

struct Option {
  std::string name;
  bool is_list = false;
  std::vector<std::string> values;  // one value unless is_list
};

struct Section {
  std::string type;
  std::string name;  // empty for an anonymous section
  std::vector<Option> options;

  Option* FindOption(const std::string& option);
};

struct Package {
  std::vector<Section> sections;

  Section* FindNamed(const std::string& name);
  // The index-th section of this type (negative: from the end), or nullptr.
  Section* FindByType(const std::string& type, int index);
};

// Parses a package. On failure returns false with error "line N: reason".
bool Parse(const std::string& text, Package* package, std::string* error);
std::string Serialize(const Package& package);
// A value in single quotes as uci writes it.
std::string Quote(const std::string& value);

bool ValidName(const std::string& name);         // section and option names: [A-Za-z0-9_]
bool ValidType(const std::string& type);         // section types: [A-Za-z0-9_-]
bool ValidPackageName(const std::string& name);  // [A-Za-z0-9_-]
bool ValidValue(const std::string& value);       // bounded, no line breaks or NUL

}  // namespace uci
}  // namespace platform
