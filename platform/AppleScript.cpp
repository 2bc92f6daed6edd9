#include "platform/AppleScript.h"

#include "platform/ChildProcess.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace parlova {
namespace {

std::string trimmed(const std::string &text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos)
    return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

template <class T> std::vector<uint8_t> hostOrderBytes(T value) {
  std::vector<uint8_t> bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

} // namespace

std::optional<uint32_t> AppleEventDescriptor::fourCharCodeInBigEndian() const {
  if (data.size() < 4)
    return std::nullopt;
  uint32_t code = 0;
  std::memcpy(&code, data.data(), 4);
  return htonl(code);
}

std::optional<int32_t> AppleEventDescriptor::int32Value() const {
  if (data.size() < 4)
    return std::nullopt;
  int32_t value = 0;
  std::memcpy(&value, data.data(), 4);
  return value;
}

std::optional<AppleEventDescriptor> descriptorForAnswer(const std::string &output) {
  const std::string answer = trimmed(output);
  if (answer.empty())
    return std::nullopt;
  if (answer == "yes")
    return AppleEventDescriptor{fourCharCode("enum"), hostOrderBytes(fourCharCode("yes "))};
  if (answer == "no")
    return AppleEventDescriptor{fourCharCode("enum"), hostOrderBytes(fourCharCode("no  "))};
  errno = 0;
  char *end = nullptr;
  const long long number = std::strtoll(answer.c_str(), &end, 10);
  if (*end == '\0' && errno == 0 && number >= INT32_MIN && number <= INT32_MAX)
    return AppleEventDescriptor{fourCharCode("long"), hostOrderBytes(static_cast<int32_t>(number))};
  return AppleEventDescriptor{fourCharCode("utf8"), std::vector<uint8_t>(answer.begin(), answer.end())};
}

std::optional<AppleEventDescriptor> AppleScript::executeAndReturnError(std::chrono::seconds timeout) const {
  const char *configured = std::getenv("PARLOVA_OSASCRIPT");
  const std::string command = configured && *configured ? configured : "osascript";
  const ChildOutcome outcome = runChildProcess({command}, source_, timeout);
  if (outcome.exitStatus != 0)
    return std::nullopt;
  return descriptorForAnswer(outcome.output);
}

} // namespace parlova
