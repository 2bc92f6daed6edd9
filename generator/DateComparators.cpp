#include "generator/DateComparators.h"

#include "foundation/CalendarFormat.h"

namespace parlova {

std::weak_ordering compareOptionalDates(const std::optional<Date> &a, const std::optional<Date> &b) {
  // Hand-edited archives may lack a date; such entries order before all
  // others, which keeps the ordering consistent for sorting.
  if (!a || !b)
    return a ? std::weak_ordering::greater : b ? std::weak_ordering::less : std::weak_ordering::equivalent;
  const double x = a->timeIntervalSinceReferenceDate();
  const double y = b->timeIntervalSinceReferenceDate();
  if (x < y)
    return std::weak_ordering::less;
  if (x > y)
    return std::weak_ordering::greater;
  return std::weak_ordering::equivalent;
}

std::weak_ordering compareLinkDictionaries(const PlistValue &first, const PlistValue &second, void *) {
  return compareOptionalDates(first.dateForKey("date"), second.dateForKey("date"));
}

std::weak_ordering compareImageDictionaries(const PlistValue &first, const PlistValue &second, void *) {
  return compareOptionalDates(second.dateForKey("date"), first.dateForKey("date"));
}

std::weak_ordering compareLinkDateString(std::string_view receiver, std::string_view other) {
  return compareOptionalDates(parseMonthTitle(receiver), parseMonthTitle(other));
}

std::weak_ordering compareImageDateString(std::string_view receiver, std::string_view other) {
  return compareLinkDateString(receiver, other);
}

} // namespace parlova
