// The settings and the archives, XML or binary, read through our wrapper and
// written back as the archives are; what the program writes as XML itself
// must be the library's bytes.
#include <cstdlib>

#include "foundation/PropertyListValue.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const auto value = parlova::PlistValue::parse({data, size});
  if (!value)
    return 0;
  const auto written = value->serialized(parlova::PlistFormat::XML);
  if (value->writesXmlItself() &&
      written != parlova::serializePropertyList(value->toNode().get(), parlova::PlistFormat::XML))
    std::abort();
  return 0;
}
