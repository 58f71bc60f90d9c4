#include "startup/main.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

int main(int argc, char** argv) {
#ifdef __GLIBC__
  // glibc raises its mmap threshold each time a large block is freed (up to 32 MiB), after which
  // the decoder's picture buffers and the event clips' packets come from the heap and stay
  // resident after an event, scattered between small blocks the heap cannot return. A fixed
  // threshold keeps blocks of 128 KiB and more in mappings of their own, given back when freed:
  // what the router's musl does anyway. See docs/live-view.md.
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
  return RunHub(argc, argv);
}
