// Reads and edits a preferences domain the way macOS `defaults` does:
//   parlova-defaults read [DOMAIN [KEY]]
//   parlova-defaults write DOMAIN KEY [-string|-int|-integer|-float|-bool|-boolean] VALUE
//   parlova-defaults delete DOMAIN [KEY]
#include <algorithm>
#include <cerrno>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "context/MailSettings.h"
#include "foundation/FoundationValues.h"
#include "foundation/PropertyList.h"
#include "platform/Home.h"
#include "platform/Preferences.h"

using namespace parlova;

namespace {

constexpr const char *kDefaultDomain = "com.hollowmere.parlova";

std::string describe(plist_t node, const std::string &indent, bool topLevel) {
  switch (plist_get_node_type(node)) {
  case PLIST_STRING:
    return topLevel ? *plistString(node) : quotedForDescription(*plistString(node));
  case PLIST_BOOLEAN:
  case PLIST_UINT:
    return std::to_string(*plistInteger(node));
  case PLIST_REAL: {
    char text[64];
    std::snprintf(text, sizeof text, "%.15g", *plistReal(node));
    return text;
  }
  case PLIST_DATA: {
    const auto bytes = *plistData(node);
    std::string out = "{length = " + std::to_string(bytes.size()) + "}";
    return out;
  }
  case PLIST_DATE: {
    int32_t seconds = 0, micro = 0;
    plist_get_date_val(node, &seconds, &micro);
    return "(date " + std::to_string(seconds) + ")";
  }
  case PLIST_ARRAY: {
    std::string out = "(\n";
    const auto items = plistArrayItems(node);
    for (size_t i = 0; i < items.size(); ++i)
      out += indent + "    " + describe(items[i], indent + "    ", false) + (i + 1 < items.size() ? ",\n" : "\n");
    return out + indent + ")";
  }
  case PLIST_DICT: {
    std::string out = "{\n";
    for (const auto &[key, value] : plistDictionaryEntries(node))
      out += indent + "    " + quotedForDescription(key) + " = " + describe(value, indent + "    ", false) + ";\n";
    return out + indent + "}";
  }
  default:
    return "?";
  }
}

// Every key Parlova reads or writes.
constexpr std::string_view kKnownKeys[] = {
    "sendEmails", "handleURLs", "handleImages", "debugMode", "forceUniqueSubjects", "emailServer", "emailPort",
    "emailAddress", "emailOutgoing", "emailSecurity", "emailCAFile", "emailAllowUnverifiedCertificate",
    "emailNeedsUsername", "emailUsername", "emailPassword", "emailPasswordCommand", "emailDelivery", "emailFolder",
    "emailMaildir", "emailDateFromChat", "emailMessagesPerMinute", "escapeHTML", "keepHistory", "keepChatPages", "errorStatus", "emailFails",
    "reportThis", "subjectNumber"};

// Edits from one text to the other, letters compared without case.
size_t editDistance(std::string_view from, std::string_view to) {
  std::vector<size_t> row(to.size() + 1);
  for (size_t j = 0; j <= to.size(); ++j)
    row[j] = j;
  for (size_t i = 1; i <= from.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= to.size(); ++j) {
      const size_t above = row[j];
      const bool same = std::tolower(static_cast<unsigned char>(from[i - 1])) ==
                        std::tolower(static_cast<unsigned char>(to[j - 1]));
      row[j] = std::min({row[j - 1] + 1, above + 1, diagonal + (same ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[to.size()];
}

// What to say before writing where Parlova will never look: a domain that
// is not Parlova's, or a key it does not know (with the nearest it knows).
std::optional<std::string> unreadWrite(const std::string &domain, const std::string &key) {
  if (domain != kDefaultDomain) {
    const bool typo = editDistance(domain, kDefaultDomain) <= 3;
    return "warning: " + domain + " is not Parlova's domain" +
           (typo ? " (did you mean " + std::string(kDefaultDomain) + "?)" : " (" + std::string(kDefaultDomain) + ")") +
           "; Parlova does not read it";
  }
  if (std::find(std::begin(kKnownKeys), std::end(kKnownKeys), key) != std::end(kKnownKeys))
    return std::nullopt;
  std::string_view nearest;
  size_t best = key.size() / 2 + 2;
  for (const std::string_view known : kKnownKeys)
    if (const size_t distance = editDistance(key, known); distance < best) {
      best = distance;
      nearest = known;
    }
  return "warning: Parlova has no setting " + key +
         (nearest.empty() ? std::string(" (parlova-defaults with no arguments lists them)")
                          : " (did you mean " + std::string(nearest) + "?)") +
         "; it is written, and Parlova does not read it";
}

int usage() {
  std::cerr << "usage: parlova-defaults read [DOMAIN [KEY]]\n"
               "       parlova-defaults write DOMAIN KEY [-string|-int|-integer|-float|-bool|-boolean] VALUE\n"
               "       parlova-defaults delete DOMAIN [KEY]\n"
               "Parlova's settings (domain com.hollowmere.parlova):\n"
               "  sendEmails handleURLs handleImages debugMode forceUniqueSubjects\n"
               "  emailServer emailPort emailAddress emailOutgoing\n"
               "  emailSecurity (none, starttls, tls) emailCAFile emailAllowUnverifiedCertificate\n"
               "  emailNeedsUsername emailUsername emailPassword emailPasswordCommand\n"
               "  emailDelivery ("
            << deliveryNamesText(", ")
            << ") emailFolder emailMaildir emailDateFromChat\n"
               "  emailMessagesPerMinute\n"
               "  escapeHTML keepHistory keepChatPages\n"
               "  errorStatus emailFails reportThis subjectNumber (written by Parlova)\n";
  return 2;
}

// What Parlova's own numbers may hold: a port is a port, a count is not
// negative.
std::optional<std::string> outOfRange(const std::string &key, const PreferenceValue &value) {
  const auto number = plistInteger(value.node());
  if (!number)
    return std::nullopt;
  if (key == "emailPort" && (*number < 0 || *number > 65535))
    return "emailPort must be a port number from 0 to 65535";
  if ((key == "emailFails" || key == "subjectNumber" || key == "errorStatus") && *number < 0)
    return key + " cannot be negative";
  return std::nullopt;
}

std::optional<PreferenceValue> parseValue(const std::string &type, const std::string &text) {
  if (type == "-string")
    return PreferenceValue::string(text);
  if (type == "-int" || type == "-integer") {
    char *end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    // Beyond 64 bits is refused, never stored as the nearest it can be.
    if (text.empty() || *end != '\0' || errno == ERANGE)
      return std::nullopt;
    return PreferenceValue::integer(value);
  }
  if (type == "-float") {
    char *end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0')
      return std::nullopt;
    return PreferenceValue::real(value);
  }
  if (type == "-bool" || type == "-boolean") {
    std::string lower;
    for (const char c : text)
      lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (lower == "yes" || lower == "true" || lower == "1")
      return PreferenceValue::boolean(true);
    if (lower == "no" || lower == "false" || lower == "0")
      return PreferenceValue::boolean(false);
    return std::nullopt;
  }
  return std::nullopt;
}

} // namespace

int main(int argc, char **argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty())
    return usage();
  const std::string &verb = args[0];
  const std::string domain = args.size() > 1 ? args[1] : kDefaultDomain;
  Preferences preferences(domain, Preferences::fileForDomain(domain));

  if (verb == "read") {
    if (args.size() > 3)
      return usage();
    if (const auto damage = preferences.damage()) {
      std::cerr << "parlova-defaults: the settings file " << preferences.file().string()
                << (Preferences::isNotDamage(*damage) ? " cannot be read: " : " is damaged: ") << *damage << "\n";
      return 1;
    }
    if (args.size() == 3) {
      const auto value = preferences.copyAppValue(args[2]);
      if (!value) {
        std::cerr << "The domain/default pair of (" << domain << ", " << args[2] << ") does not exist\n";
        return 1;
      }
      std::cout << describe(value->node(), "", true) << "\n";
      return 0;
    }
    if (!std::filesystem::exists(preferences.file())) {
      std::cerr << "Domain " << domain << " does not exist\n";
      return 1;
    }
    const PlistPtr all = preferences.copyAllValues();
    std::cout << describe(all.get(), "", true) << "\n";
    return 0;
  }

  // Settings written by another user (root, through sudo) would be theirs,
  // and the user's own runs could not read them.
  if (const auto foreign = verb == "write" || verb == "delete" ? homeOfAnotherUser() : std::nullopt) {
    std::cerr << "parlova-defaults: " << foreign->why << "; nothing is written (run parlova-defaults as "
              << foreign->owner << ")\n";
    return 1;
  }

  if (verb == "write") {
    if (args.size() == 4 || args.size() == 5)
      if (const auto warning = unreadWrite(domain, args[2]))
        std::cerr << "parlova-defaults: " << *warning << "\n";
    if (args.size() == 4) {
      preferences.setAppValue(args[2], PreferenceValue::string(args[3]));
    } else if (args.size() == 5) {
      const auto value = parseValue(args[3], args[4]);
      if (!value) {
        std::cerr << "parlova-defaults: cannot read '" << args[4] << "' as " << args[3] << "\n";
        return 1;
      }
      if (const auto why = domain == kDefaultDomain ? outOfRange(args[2], *value) : std::nullopt) {
        std::cerr << "parlova-defaults: " << *why << "\n";
        return 1;
      }
      preferences.setAppValue(args[2], *value);
    } else {
      return usage();
    }
    return preferences.appSynchronize() ? 0 : 1;
  }

  if (verb == "delete") {
    if (args.size() == 2) {
      std::error_code error;
      if (!std::filesystem::remove(preferences.file(), error)) {
        std::cerr << "Domain (" << domain << ") not found.\n";
        return 1;
      }
      return 0;
    }
    if (args.size() != 3)
      return usage();
    if (!preferences.copyAppValue(args[2])) {
      std::cerr << "Domain (" << domain << ") key (" << args[2] << ") not found.\n";
      return 1;
    }
    preferences.setAppValue(args[2], std::nullopt);
    return preferences.appSynchronize() ? 0 : 1;
  }
  return usage();
}
