// parlova-inspect --archive: any keyed archive or typed stream as its graph.
#include "tools/ArchiveDump.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  parlova::dumpArchive({data, size});
  return 0;
}
