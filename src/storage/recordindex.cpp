#include "storage/recordindex.h"

std::mutex timestamp_mutex;

// Interim bodies: the index code lands on this branch next.
int FwriteTimestamp(long*, int, const char*) {
  return -1;
}
int IsFileExist(char*, long*, char*, char*) {
  return -1;
}
