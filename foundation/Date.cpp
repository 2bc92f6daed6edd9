#include "foundation/Date.h"

#include <chrono>

namespace parlova {

Date Date::now() {
  using namespace std::chrono;
  const auto since = duration<double>(system_clock::now().time_since_epoch());
  return fromUnixTime(since.count());
}

} // namespace parlova
