// A point in time as Foundation keeps it: seconds since 2001-01-01 00:00 UTC.
#pragma once

#include <compare>
#include <string>

namespace parlova {

class Date {
public:
  static constexpr double kReferenceDateUnixTime = 978307200.0;

  constexpr explicit Date(double secondsSinceReferenceDate = 0)
      : sinceReferenceDate_(secondsSinceReferenceDate) {}

  static Date now();
  static Date fromUnixTime(double seconds) { return Date(seconds - kReferenceDateUnixTime); }

  double timeIntervalSinceReferenceDate() const { return sinceReferenceDate_; }
  double timeIntervalSince1970() const { return sinceReferenceDate_ + kReferenceDateUnixTime; }

  // The times a chat can have taken place at: from 1970 up to 2200. One
  // flipped bit of a stored time makes a year in the millions; a time
  // outside is read as no time at all, in every place alike.
  static constexpr double kEarliestChatUnixTime = 0;
  static constexpr double kLatestChatUnixTime = 7258118400.0; // 2200-01-01 UTC
  bool isChatTime() const {
    const double unixTime = timeIntervalSince1970();
    return unixTime >= kEarliestChatUnixTime && unixTime < kLatestChatUnixTime;
  }

  auto operator<=>(const Date &) const = default;

private:
  double sinceReferenceDate_;
};

} // namespace parlova
