// The image archive (gatheredImages.plist with the files in Images/), the
// image pages built from it and the folder of the three newest pictures.
#include <algorithm>
#include <array>
#include <cmath>
#include <map>

#include "foundation/CalendarFormat.h"
#include "generator/DateComparators.h"
#include "generator/GatheredArchive.h"
#include "generator/ICLPLogGenerator.h"
#include "generator/PageText.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "platform/ImageSize.h"
#include "platform/SafeFileName.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kMonthHeading = "\n<h3>%@</h3>\n<table class=\"images\" cellpadding=0 cellspacing=10>\n";
constexpr std::string_view kLandscapeCell = R"(<td><a href="%@" target="_blank"><img src="%@" width="90"/></a></td>)";
constexpr std::string_view kPortraitCell = R"(<td><a href="%@" target="_blank"><img src="%@" height="90"/></a></td>)";
constexpr std::string_view kPdfCell = R"(<td><a href="%@" target="_blank"><img src="%@"/></a></td>)";
constexpr std::string_view kRowBreak = "</tr><tr>";
constexpr std::string_view kSectionEnd = "</tr></table></ul>";

// Names in the image folder that stored files must not take.
constexpr std::array<std::string_view, 2> kImageFolderOwnNames = {"topimages", "pdf.png"};

// The extension of a path's last component, as the Mac's path methods
// give it.
std::string lastExtension(const std::string &path) {
  return pathExtension(fs::path(path).filename().string());
}

} // namespace

// "photo-alice-2005-03-14 15:22:07 -0800.jpg" for an attachment sent as
// photo.jpg, "alice-2005-03-14 15:22:07 -0800.image" for one without a
// name; made safe to use as a file name in the image folder.
std::string ICLPLogGenerator::StoredImageName(const FileWrapper &attachment, const std::string &speaker, Date time) {
  const std::string when = describeDate(time);
  std::string stem;
  std::string extension;
  if (const auto &preferred = attachment.preferredFilename()) {
    stem = deletingPathExtension(*preferred) + "-" + speaker + "-" + when;
    extension = pathExtension(*preferred);
  } else {
    stem = speaker + "-" + when;
    extension = "image";
  }
  // An extension that is no real extension (long, or holding a folder
  // separator) stays part of the name rather than be trusted.
  const bool usable = extension.size() <= 32 && std::none_of(extension.begin(), extension.end(), [](char c) {
                        return c == '/' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
                      });
  if (!usable)
    return safeFileStem(stem + "." + extension, "", kImageFolderOwnNames);
  const std::string suffix = "." + extension;
  return safeFileStem(stem, suffix, kImageFolderOwnNames) + suffix;
}

namespace {

PlistValue imageEntry(Date date, const std::string &fileName, int64_t width, int64_t height) {
  return PlistValue(PlistValue::Dictionary{
      {"date", date}, {"filename", "Images/" + fileName}, {"width", width}, {"height", height}});
}

// Sizes are cut toward zero; a size beyond any real picture is taken as
// unreadable.
int64_t wholePoints(double value) {
  return std::isfinite(value) && std::fabs(value) < 1e12 ? static_cast<int64_t>(value) : 0;
}

struct Picture {
  Date date;
  const std::string *fileName;
  int64_t width;
  int64_t height;
};

// A speaker entry as the pages see it; entries damaged by hand and pictures
// without a date or file name are left out of the pages.
struct SpeakerPictures {
  const std::string *name;
  std::vector<Picture> pictures;
  std::string pageStem;
};

std::vector<SpeakerPictures> pageView(const PlistValue::Array &archive) {
  std::vector<SpeakerPictures> speakers;
  for (const PlistValue &entry : archive) {
    const std::string *name = entry.stringForKey("speaker");
    const PlistValue *list = entry.objectForKey("filenames");
    const auto *items = list ? list->get<PlistValue::Array>() : nullptr;
    if (!name || !items)
      continue;
    SpeakerPictures speaker{name, {}, safeFileStem(*name, "-images.html", ICLPLogGenerator::ownFileNames())};
    for (const PlistValue &item : *items) {
      const auto date = item.dateForKey("date");
      const std::string *fileName = item.stringForKey("filename");
      if (date && fileName)
        speaker.pictures.push_back(
            {*date, fileName, item.integerForKey("width").value_or(0), item.integerForKey("height").value_or(0)});
    }
    speakers.push_back(std::move(speaker));
  }
  return speakers;
}

std::string pageIndex(const std::vector<SpeakerPictures> &speakers, size_t total, std::optional<size_t> active,
                      const PageEscaping &escaping) {
  std::vector<IndexEntry> people;
  for (const SpeakerPictures &speaker : speakers)
    people.push_back({ICLPLogGenerator::stringWithFunkyURLStuffInserted(speaker.pageStem) + "-images.html",
                      escaping.text(*speaker.name), speaker.pictures.size()});
  return indexList({"Images.html", "All", total}, people, active);
}

std::string cellFor(const Picture &picture) {
  const std::string escaped = ICLPLogGenerator::stringWithFunkyURLStuffInserted(*picture.fileName);
  if (lastExtension(*picture.fileName) == "pdf")
    return fillFormat(kPdfCell, {escaped, "Images/pdf.png"});
  return fillFormat(picture.width > picture.height ? kLandscapeCell : kPortraitCell, {escaped, escaped});
}

std::string monthHeading(const std::string &label) { return fillFormat(kMonthHeading, {label}); }

// What the pages share while they are built: the month sections of
// Images.html with their cell counts, and the newest picture per date.
struct SharedTables {
  std::map<std::string, std::string> sections;
  std::map<std::string, int> cellCounts;
  std::map<Date, const std::string *> topImages;

  std::string *section(const std::string &label) {
    auto [it, created] = sections.try_emplace(label);
    if (created) {
      it->second = monthHeading(label);
      cellCounts[label] = 0;
    }
    return &it->second;
  }
};

// One speaker's pictures in month sections, newest first, five to a row.
// Only the month number parts two sections, so the same month of
// consecutive years stays in one section under the first label, and the
// last section is left open: both are how the pages have always looked.
std::string speakerBody(const SpeakerPictures &speaker, SharedTables &tables) {
  std::string body;
  if (speaker.pictures.empty())
    return body;
  const Picture &first = speaker.pictures.front();
  int currentMonth = localMonthOfYear(first.date);
  std::string section = monthHeading(formatCalendarDate(first.date, "%B %Y"));
  std::string *shared = tables.section(formatCalendarDate(first.date, "%B %Y"));
  int speakerCells = 0;
  for (const Picture &picture : speaker.pictures) {
    const std::string label = formatCalendarDate(picture.date, "%B %Y");
    const int month = localMonthOfYear(picture.date);
    if (month == currentMonth) {
      ++speakerCells;
    } else {
      section += kSectionEnd;
      body += section;
      section = monthHeading(label);
      currentMonth = month;
      shared = tables.section(label);
      speakerCells = 1;
    }
    const std::string cell = cellFor(picture);
    section += cell;
    if (speakerCells > 0 && speakerCells % 5 == 0)
      section += kRowBreak;
    // The row count on Images.html goes by the picture's own month, even
    // where the cell went into an earlier year's section.
    *shared += cell;
    const int count = tables.cellCounts[label] + 1;
    if (count % 5 == 0)
      *shared += kRowBreak;
    tables.cellCounts[label] = count;
    tables.topImages[picture.date] = picture.fileName;
  }
  body += section;
  return body;
}

// Images/topimages anew, with copies of the three newest pictures named
// 01, 02, 03 (newest last), each keeping its extension.
void refreshTopImages(const std::map<Date, const std::string *> &topImages, const fs::path &folder) {
  const fs::path topFolder = folder / "Images" / "topimages";
  std::error_code error;
  fs::remove_all(topFolder, error);
  fs::create_directory(topFolder, error);
  auto kept = topImages.begin();
  std::advance(kept, topImages.size() > 3 ? topImages.size() - 3 : 0);
  for (int number = 1; kept != topImages.end(); ++kept, ++number) {
    const fs::path source = folder / *kept->second;
    std::string name = std::to_string(number);
    name.insert(name.begin(), '0');
    const fs::path destination = topFolder / (name + "." + lastExtension(*kept->second));
    fs::remove_all(destination, error);
    fs::copy(source, destination, fs::copy_options::recursive, error);
  }
}

void generateImagePages(const PlistValue::Array &archive, const fs::path &folder) {
  const std::vector<SpeakerPictures> speakers = pageView(archive);
  size_t total = 0;
  for (const SpeakerPictures &speaker : speakers)
    total += speaker.pictures.size();

  const auto pageTemplate = readTemplate(folder / "imagetemplate.html");
  const PageEscaping escaping = PageEscaping::fromSettings();
  SharedTables tables;
  for (size_t i = 0; i < speakers.size(); ++i) {
    const SpeakerPictures &speaker = speakers[i];
    std::string body = speakerBody(speaker, tables);
    if (!pageTemplate)
      continue;
    std::string page = *pageTemplate;
    replaceOccurrences(page, "____NAME", escaping.text(*speaker.name));
    replaceOccurrences(page, "____CONTENTS", pageIndex(speakers, total, i, escaping));
    replaceOccurrences(page, "____IMAGES", body);
    writePage(folder / (speaker.pageStem + "-images.html"), page);
  }
  if (pageTemplate) {
    std::string page = *pageTemplate;
    replaceOccurrences(page, "____NAME", "Images");
    replaceOccurrences(page, "____CONTENTS", pageIndex(speakers, total, std::nullopt, escaping));
    replaceOccurrences(page, "____IMAGES", newestMonthFirst(tables.sections, compareImageDateString, kSectionEnd));
    writePage(folder / "Images.html", page);
  }
  refreshTopImages(tables.topImages, folder);
}

} // namespace

size_t ICLPLogGenerator::StoreImages(const ICLPChatLog &log, PlistValue::Array *archive,
                                     const EntryFilter &asStored, Sorting sorting, Durability durability) {
  size_t count = 0;
  const fs::path imageFolder = parlovaFolder() / "Images";
  // A folder attachment takes the size of the last file attachment before
  // it in this call, in this message or an earlier one.
  int64_t lastWidth = 0;
  int64_t lastHeight = 0;
  std::optional<ListsAddedTo> added;
  if (archive)
    added.emplace(*archive, "filenames");
  // A record at a time: a long chat's records take as much memory again.
  log.forEachImageRecord([&](const ImageRecord &item) {
    if (item.images.empty())
      return;
    PlistValue::Array *list = FindImagesArray(item.speaker, archive);
    if (!list && archive) {
      PlistValue entry(PlistValue::Dictionary{{"speaker", item.speaker}, {"filenames", PlistValue::Array{}}});
      if (asStored)
        asStored(entry);
      archive->push_back(std::move(entry));
      list = archive->back().objectForKey("filenames")->get<PlistValue::Array>();
    }
    if (list && sorting == Sorting::ListsAddedTo)
      added->note(list);
    count += item.images.size();
    for (const auto &attachment : item.images) {
      if (attachment->isRegularFile()) {
        const auto size = imageSizeOfData(attachment->regularFileContents());
        lastWidth = size ? wholePoints(size->width) : 0;
        lastHeight = size ? wholePoints(size->height) : 0;
      }
      const std::string name = StoredImageName(*attachment, item.speaker, item.time);
      writeFileWrapperAtomically(*attachment, imageFolder / name, durability);
      if (!list)
        continue;
      PlistValue entry = imageEntry(item.time, name, lastWidth, lastHeight);
      if (asStored)
        asStored(entry);
      list->push_back(std::move(entry));
    }
  });
  if (!archive)
    return count;
  if (sorting == Sorting::EveryList)
    sortEveryList(*archive, "filenames", compareImageDictionaries);
  else
    added->sort(compareImageDictionaries);
  return count;
}

void ICLPLogGenerator::RebuildImagePages(const PlistValue::Array &archive) {
  generateImagePages(archive, parlovaFolder());
}

void ICLPLogGenerator::GenerateImageFiles(const ICLPChatLog *log) {
  const fs::path folder = parlovaFolder();
  const fs::path archivePath = folder / "gatheredImages.plist";
  std::optional<PlistValue> archive = loadGatheredArchive(archivePath);
  PlistValue::Array *entries = archive ? archive->get<PlistValue::Array>() : nullptr;

  if (log) {
    StoreImages(*log, entries, {}, Sorting::EveryList);
    // A damaged archive is never replaced: what was gathered this time is on
    // disk but not recorded.
    if (archive)
      writeArchive(archivePath, archive->serialized(PlistFormat::XML));
  }

  static const PlistValue::Array kNoImages;
  generateImagePages(entries ? *entries : kNoImages, folder);
}

} // namespace parlova
