#include "generator/ICLPLogGenerator.h"

#include <array>

#include "context/ParlovaFolder.h"
#include "foundation/Unicode.h"

namespace parlova {

namespace {

PlistValue::Array *listOfFirstEntryNamed(std::string_view speaker, PlistValue::Array *data, std::string_view listKey) {
  if (!data)
    return nullptr;
  for (PlistValue &entry : *data) {
    const std::string *name = entry.stringForKey("speaker");
    if (!name || *name != speaker)
      continue;
    // An entry damaged by hand (its list missing or of another type) is
    // passed over rather than trusted.
    if (PlistValue *list = entry.objectForKey(listKey))
      if (auto *items = list->get<PlistValue::Array>())
        return items;
  }
  return nullptr;
}

char16_t hexDigit(unsigned value) {
  const unsigned digit = u'0' + value;
  return static_cast<char16_t>(digit > u'9' ? u'A' + (value - 10) : digit);
}

} // namespace

std::span<const std::string_view> ICLPLogGenerator::ownFileNames() {
  static constexpr std::array<std::string_view, 18> kNames = {
      "Links.html",    "Images.html",       "stats.html",         "linktemplate.html", "imagetemplate.html",
      "statstemplate.html", "Images",       "gatheredURLs.plist", "gatheredImages.plist", "chatgeist.plist",
      "curses.plist",  "netspeak.plist",    "topimages",          "pdf.png",           "Parlova.png",
      "chattemplate.html", "Chats",         "history.sqlite"};
  return kNames;
}

std::span<const std::string_view> ICLPLogGenerator::archiveFileNames() {
  static constexpr std::array<std::string_view, 3> kNames = {"gatheredURLs.plist", "gatheredImages.plist",
                                                             "chatgeist.plist"};
  return kNames;
}

std::filesystem::path ICLPLogGenerator::parlovaFolder() { return parlova::parlovaFolder(); }

PlistValue::Array *ICLPLogGenerator::FindSpeakerArray(std::string_view speaker, PlistValue::Array *data) {
  return listOfFirstEntryNamed(speaker, data, "urls");
}

PlistValue::Array *ICLPLogGenerator::FindImagesArray(std::string_view speaker, PlistValue::Array *data) {
  return listOfFirstEntryNamed(speaker, data, "filenames");
}

std::string ICLPLogGenerator::CompressedLinkForList(std::string_view link) {
  const std::u16string units = utf8ToUtf16(link);
  if (units.size() <= 40)
    return std::string(link);
  return utf16ToUtf8(units.substr(0, 20)) + " . . . " + utf16ToUtf8(units.substr(units.size() - 20));
}

std::string ICLPLogGenerator::stringWithFunkyURLStuffInserted(std::string_view text) {
  const std::u16string units = utf8ToUtf16(text);
  std::u16string escaped;
  escaped.reserve(units.size() * 3);
  for (const char16_t unit : units) {
    const bool plain =
        (unit >= u'a' && unit <= u'z') || (unit >= u'A' && unit <= u'Z') || (unit >= u'0' && unit <= u'9');
    if (plain) {
      escaped += unit;
      continue;
    }
    escaped += u'%';
    escaped += hexDigit(unit >> 4);
    escaped += hexDigit(unit & 0xF);
  }
  return utf16ToUtf8(escaped);
}

} // namespace parlova
