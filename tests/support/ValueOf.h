// The value of a "value, or why not" answer, or nothing; for tests that
// look at the value alone.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace parlova {

template <class T> std::optional<T> valueOf(std::variant<T, std::string> answer) {
  if (auto *value = std::get_if<T>(&answer))
    return std::move(*value);
  return std::nullopt;
}

} // namespace parlova
