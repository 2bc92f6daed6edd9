// The settings and the archives, XML or binary, read through our wrapper and
// written back as the archives are.
#include "foundation/PropertyListValue.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (const auto value = parlova::PlistValue::parse({data, size}))
    value->serialized(parlova::PlistFormat::XML);
  return 0;
}
