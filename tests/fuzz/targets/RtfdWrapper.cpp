// A serialized file wrapper (an rtfd attachment), and every file in it.
#include "foundation/FileWrapper.h"

namespace {
size_t walk(const parlova::FileWrapper &wrapper) {
  size_t seen = wrapper.regularFileContents().size();
  for (const auto &child : wrapper.fileWrappers())
    seen += walk(*child);
  return seen;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (const auto wrapper = parlova::FileWrapper::fromSerializedRepresentation({data, size}))
    walk(*wrapper);
  return 0;
}
