// The nvram library: the hub's identity store. The nvram shim on the board acts on the same store.
// Values are short texts addressed by section and key ("p2p" "uid").
//
// On a development machine the store lives in the board: <root>/etc/nvram/store holds the
// committed values, <root>/tmp/.nvram.pending the values set but not yet committed (lost, like
// the hub's RAM copy, when the board's tmp/ is cleared). Both are lines "section.key=value".
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

// Bounds of the store: section and key names of [A-Za-z0-9_], values without line breaks.
constexpr size_t kNvramNameMax = 63;
constexpr size_t kNvramValueMax = 255;

extern "C" {
// Writes the store's contents to /tmp/.nvramcache. 0 or -1.
int nvram_filecache(void);
// Parses /tmp/.nvramcache into the library's view read by nvram_get. 0 or -1.
int nvram_parse(void);
// Copies the value into out (at most outlen - 1 bytes, always terminated). 0, or -1 when the
// key is absent (out is then an empty string).
int nvram_get(const char* section, const char* key, char* out, size_t outlen);
// Sets a value in the store. 0 or -1 (invalid section, key or value).
int nvram_set(const char* section, const char* key, const char* value);
// Makes the set values permanent. 0 or -1.
int nvram_commit(void);
}

namespace platform {
// The current value (committed or pending) straight from the store, bypassing the parsed view.
// 0, or -1 when absent or unreadable.
int NvramLookup(const std::string& section, const std::string& key, std::string* value);
// Every current entry as ("section.key", value), sorted. False when the store is unreadable.
bool NvramEntries(std::vector<std::pair<std::string, std::string>>* entries);
bool NvramValidName(const std::string& name);
bool NvramValidValue(const std::string& value);
}  // namespace platform
