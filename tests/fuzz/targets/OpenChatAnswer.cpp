// What the AppleScript command printed, read as its answer.
#include <string>

#include "platform/AppleScript.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (const auto answer = parlova::descriptorForAnswer(std::string(reinterpret_cast<const char *>(data), size)))
    answer->fourCharCodeInBigEndian();
  return 0;
}
