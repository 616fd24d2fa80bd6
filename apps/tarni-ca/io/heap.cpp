#include "io/heap.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace tarni::host {

void KeepFreedMemoryForReuse() {
#if defined(__GLIBC__)
  // Blocks up to 32 MiB (the largest threshold the library accepts) come from the heap rather than
  // from mappings of their own, which would be unmapped when freed; and the heap's free top is
  // trimmed only beyond 512 MiB. Larger blocks are still mapped and unmapped one by one.
  mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024);
  mallopt(M_TRIM_THRESHOLD, 512 * 1024 * 1024);
#endif
}

}  // namespace tarni::host
