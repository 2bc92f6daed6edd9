// The one script, the one style sheet and the icon, built into the program so that
// nothing is looked for on the disk or fetched from anywhere.
#pragma once

#include <string_view>

namespace parlova {

std::string_view appScript();
std::string_view appStyle();
std::string_view appIcon(); // SVG

} // namespace parlova
