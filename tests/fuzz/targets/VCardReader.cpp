// The contacts file's vCards.
#include <string_view>

#include "platform/VCard.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  parlova::parseVCards(std::string_view(reinterpret_cast<const char *>(data), size));
  return 0;
}
