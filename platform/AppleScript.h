// Runs AppleScript text through an osascript-compatible command and hands
// back its answer the way an Apple event descriptor carries it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace parlova {

constexpr uint32_t fourCharCode(const char (&code)[5]) {
  return static_cast<uint32_t>(static_cast<uint8_t>(code[0])) << 24 |
         static_cast<uint32_t>(static_cast<uint8_t>(code[1])) << 16 |
         static_cast<uint32_t>(static_cast<uint8_t>(code[2])) << 8 | static_cast<uint32_t>(static_cast<uint8_t>(code[3]));
}

struct AppleEventDescriptor {
  // 'enum' for yes / no (the data a four-character code in host order),
  // 'long' for a number (a 32-bit integer in host order), 'utf8' for text.
  uint32_t descriptorType = 0;
  std::vector<uint8_t> data;

  // The first four bytes of the data read as a four-character code in host
  // order and put into big-endian order, as iChat's answers are read.
  std::optional<uint32_t> fourCharCodeInBigEndian() const;
  std::optional<int32_t> int32Value() const;
};

class AppleScript {
public:
  explicit AppleScript(std::string source) : source_(std::move(source)) {}

  const std::string &source() const { return source_; }

  // The script goes to $PARLOVA_OSASCRIPT, or `osascript` on the PATH, on its
  // standard input; the command's output is the answer. No command, a
  // failing command, no output or no answer within `timeout` give nothing.
  std::optional<AppleEventDescriptor> executeAndReturnError(
      std::chrono::seconds timeout = std::chrono::seconds(120)) const;

private:
  std::string source_;
};

// How the command's printed answer becomes a descriptor.
std::optional<AppleEventDescriptor> descriptorForAnswer(const std::string &output);

} // namespace parlova
