// The configuration store: OpenWrt uci packages in /etc/config, in uci's own text format.
// Keys are "package.section.option"; a section may be named or addressed as "@type[index]"
// (negative indexes count from the end). Setting "package.section" to a value creates the
// section with that type. Every write replaces the package file atomically.
#pragma once

#include <cstddef>

// Length of one entry of a section list: a camera MAC text of twelve characters and a terminator.
constexpr size_t kUciSectionNameLen = 13;

extern "C" {
// Copies the value into out (at most outlen - 1 bytes, always terminated). 0, or -1 when absent.
int zcfg_uci_get(const char* key, char* out, size_t outlen);
// Sets an option ("pkg.sec.opt") or creates/retypes a section ("pkg.sec" = type). 0 or -1.
int zcfg_uci_set(const char* key, const char* value);
// Deletes an option or a whole section. 0, or -1 when absent or invalid.
int zcfg_uci_delete(const char* key);
// Fills list with the names of the named sections of a package, in file order, at most max
// entries of kUciSectionNameLen bytes (longer names are skipped with a log line). Returns the
// count, or -1 when the package cannot be read.
int zcfg_uci_get_section_list(const char* package, char (*list)[kUciSectionNameLen], int max);
}
