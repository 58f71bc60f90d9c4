// File helpers of the host platform: whole-file reads with a size bound, atomic replacement
// (temporary file beside the target, fsync, rename, fsync of the folder), appends of whole
// lines, and the test whether a path lies inside a folder.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace platform {
namespace boardfs {

// Reads a whole file of at most max bytes. False when it cannot be read or is larger.
bool ReadFile(const std::string& path, std::string* out, size_t max = 1 << 20);

// Replaces path with content: a temporary ".<name>.<6 random characters>" beside it is written,
// synced and renamed over the target, then the folder is synced. A crash at any point leaves either
// the old or the new file. Without sync the data and the rename are not forced to the disk (for
// scratch files such as a new board's, where a crash loses nothing of value). 0 or -1.
int WriteFileAtomic(const std::string& path, const std::string& content, mode_t mode = 0644,
                    bool sync = true);

// Appends one line (a newline is added) with a single write. 0 or -1.
int AppendLine(const std::string& path, const std::string& line);

// Creates the folder and its parents. 0 or -1.
int MakeDirs(const std::string& dir);

// True when path (absolute, normalised) is folder itself or lies below it. Lexical only.
bool PathInside(const std::string& path, const std::string& folder);

// The path with symbolic links resolved as far as it exists (the rest kept lexically).
std::string ResolvedPath(const std::string& path);

// Test hook: called with the temporary file's path after it is written and synced, just before
// the rename. nullptr (the default) does nothing. Set only while no other thread writes.
using BeforeRenameHook = void (*)(const char* temporary_path);
void SetBeforeRenameHookForTest(BeforeRenameHook hook);

}  // namespace boardfs
}  // namespace platform
