// Calendar formats as the Mac rendered them, and colours turned to RGB:
// both print what others typed or stored, so their edges are checked
// directly.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>

#include "foundation/CalendarFormat.h"
#include "foundation/TextAttributes.h"

namespace parlova {
namespace {

class Calendar : public ::testing::Test {
protected:
  void SetUp() override {
    const char *zone = std::getenv("TZ");
    saved_ = zone ? std::optional<std::string>(zone) : std::nullopt;
    setenv("TZ", "UTC", 1);
    tzset();
  }
  void TearDown() override {
    saved_ ? setenv("TZ", saved_->c_str(), 1) : unsetenv("TZ");
    tzset();
  }
  std::optional<std::string> saved_;
};

TEST_F(Calendar, CalendarFormatsPadWhereTheMacPaddedAndBoundWhatTheCalendarCannotHold) {
  const Date monday = Date::fromUnixTime(1110794527);  // 2005-03-14 10:02:07 UTC
  const Date morning = Date::fromUnixTime(1109998800); // 2005-03-05 05:00:00 UTC
  const struct {
    Date date;
    const char *format;
    const char *text;
  } cases[] = {
      {monday, "%B %Y", "March 2005"},
      {monday, "%a %B %e, %I:%M%p", "Mon March 14, 10:02AM"},
      {morning, "%a %B %e, %I:%M%p", "Sat March 5, 05:00AM"},
      {morning, "%B %e, %Y", "March 5, 2005"},
      {monday, "%d/%m %H:%M:%S %z %%", "14/03 10:02:07 +0000 %"},
      {Date(1e300), "%B %Y", "(invalid date)"},
      {Date(-1e300), "%B %e, %Y", "(invalid date)"},
  };
  for (const auto &c : cases)
    EXPECT_EQ(formatCalendarDate(c.date, c.format), c.text) << c.format;

  EXPECT_EQ(localMonthOfYear(monday), 3);
  const auto march = parseMonthTitle("March 2005");
  ASSERT_TRUE(march);
  EXPECT_EQ(march->timeIntervalSince1970(), 1109635200); // 2005-03-01 00:00 UTC
  for (const char *title : {"Marsch 2005", "March", "March 2005x", ""})
    EXPECT_FALSE(parseMonthTitle(title)) << title;

  EXPECT_EQ(wholeDaysBetween(monday, Date(monday.timeIntervalSinceReferenceDate() + 86399)), 0);
  EXPECT_EQ(wholeDaysBetween(monday, Date(monday.timeIntervalSinceReferenceDate() + 86400)), 1);
  EXPECT_EQ(wholeDaysBetween(Date(monday.timeIntervalSinceReferenceDate() + 3 * 86400), monday), -3);
}

TEST(Colors, EverySpaceTurnsToRgbOrToNothingWhenItCannot) {
  const struct {
    ColorSpace space;
    std::vector<double> components;
    std::optional<RGBA> rgb;
  } cases[] = {
      {ColorSpace::CalibratedRGB, {1, 0, 0}, RGBA{1, 0, 0, 1}},
      {ColorSpace::DeviceRGB, {0.2, 0.4, 0.6, 0.5}, RGBA{0.2, 0.4, 0.6, 0.5}},
      {ColorSpace::DeviceRGB, {1, 0}, std::nullopt},
      {ColorSpace::CalibratedWhite, {0.25}, RGBA{0.25, 0.25, 0.25, 1}},
      {ColorSpace::DeviceWhite, {}, std::nullopt},
      {ColorSpace::DeviceCMYK, {0, 1, 1, 0}, RGBA{1, 0, 0, 1}},
      {ColorSpace::DeviceCMYK, {0.5, 0, 0, 0.75, 0.5}, RGBA{0, 0.25, 0.25, 0.5}},
      {ColorSpace::DeviceCMYK, {0.5, 0, 0}, std::nullopt},
      {ColorSpace::Named, {1, 1, 1}, std::nullopt},
      {ColorSpace::Pattern, {}, std::nullopt},
  };
  for (const auto &c : cases) {
    const auto rgb = Color(c.space, c.components).usingDeviceRGB();
    ASSERT_EQ(rgb.has_value(), c.rgb.has_value()) << static_cast<int>(c.space);
    if (rgb) {
      EXPECT_EQ(std::vector({rgb->red, rgb->green, rgb->blue, rgb->alpha}),
                std::vector({c.rgb->red, c.rgb->green, c.rgb->blue, c.rgb->alpha}))
          << static_cast<int>(c.space);
    }
  }
  // Components as the archive spells them: at most eight, up to the first
  // thing that is not a number.
  EXPECT_EQ(parseColorComponents("1 0.5 0.25 1"), (std::vector<double>{1, 0.5, 0.25, 1}));
  EXPECT_EQ(parseColorComponents("  0.2\t0.4 junk 3"), (std::vector<double>{0.2, 0.4}));
  EXPECT_EQ(parseColorComponents(""), std::vector<double>{});
  EXPECT_EQ(parseColorComponents("1 2 3 4 5 6 7 8 9 10").size(), 8u);
}

} // namespace
} // namespace parlova
