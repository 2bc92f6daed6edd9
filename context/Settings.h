// The settings domain shared with the settings pane.
#pragma once

#include <string_view>

#include "platform/Preferences.h"

namespace parlova {

inline constexpr std::string_view kSettingsDomain = "com.hollowmere.parlova";

// The one instance through which the whole run reads and writes settings.
Preferences &appSettings();

} // namespace parlova
