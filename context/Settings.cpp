#include "context/Settings.h"

#include <string>

namespace parlova {

Preferences &appSettings() {
  static Preferences settings(std::string(kSettingsDomain), Preferences::fileForDomain(kSettingsDomain));
  return settings;
}

} // namespace parlova
