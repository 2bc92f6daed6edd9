#pragma once

namespace parlova {

// The pause taken after every entry of the walk: five seconds, or
// $PARLOVA_PAUSE_SECONDS (a non-negative number, fractions allowed).
double pauseSeconds();
void pauseBetweenEntries();

} // namespace parlova
