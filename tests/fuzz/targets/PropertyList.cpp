// The settings and the archives, XML or binary, read through our wrapper and
// written back as the archives are; what the program writes as XML itself
// must be the library's bytes, whole or handed out in pieces.
#include <cstdlib>
#include <string>

#include "foundation/PropertyListValue.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const auto value = parlova::PlistValue::parse({data, size});
  if (!value)
    return 0;
  const auto written = value->serialized(parlova::PlistFormat::XML);
  if (value->writesXmlItself() &&
      written != parlova::serializePropertyList(value->toNode().get(), parlova::PlistFormat::XML))
    std::abort();
  std::string pieced;
  const bool made = value->writeXml([&pieced](std::string_view piece) { pieced += piece; });
  if (made == written.empty() || pieced != std::string(written.begin(), written.end()))
    std::abort();
  return 0;
}
