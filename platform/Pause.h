#pragma once

#include <optional>

namespace parlova {

// The pause taken after every entry of the walk: five seconds, or
// $PARLOVA_PAUSE_SECONDS (a non-negative number, fractions allowed).
double pauseSeconds();
void pauseBetweenEntries();
void pauseFor(double seconds);

// A pause as a person writes it: a non-negative number, fractions allowed.
std::optional<double> parseSeconds(const char *text);

} // namespace parlova
