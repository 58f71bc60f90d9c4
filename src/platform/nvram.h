// The nvram library: the hub's identity store. The nvram shim on the board acts on the same store.
// Values are short texts addressed by section and key ("p2p" "uid").
#pragma once

#include <cstddef>

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
