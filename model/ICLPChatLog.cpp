#include "model/ICLPChatLog.h"

#include "archiving/ArchiveOpening.h"
#include "foundation/FoundationValues.h"
#include "model/ICLPPerson.h"
#include "platform/FileManager.h"
#include "platform/MappedFile.h"

namespace parlova {
namespace {

template <class T> std::vector<std::shared_ptr<const T>> elementsOfClass(const std::shared_ptr<const ArrayObject> &array) {
  std::vector<std::shared_ptr<const T>> result;
  if (array) {
    for (const ObjectRef &item : array->items())
      if (auto element = objectAs<T>(item))
        result.push_back(std::move(element));
  }
  return result;
}

// iChat's names are decoded as the program's own classes, in either format.
void substituteProgramClasses(ArchiveDecoder &archive) {
  archive.setClass("InstantMessage", [](Coder &coder) { return ICLPInstantMessage::initWithCoder(coder); });
  archive.setClass("Presentity", [](Coder &coder) { return ICLPPresentity::initWithCoder(coder); });
  archive.setClass("Person", [](Coder &coder) { return ICLPPerson::initWithCoder(coder); });
}

} // namespace

bool ICLPChatLog::hasTranscriptExtension(const std::filesystem::path &path) {
  const std::string extension = pathExtension(path.filename().string());
  return extension == "chat" || extension == "ichat";
}

std::string ICLPChatLog::reasonNotLoaded(const std::filesystem::path &path) {
  if (!hasTranscriptExtension(path))
    return std::get<std::string>(load(path, {}));
  const auto contents = readFileContents(path);
  if (!contents)
    return "cannot read the file";
  auto loaded = load(path, *contents);
  if (const auto *why = std::get_if<std::string>(&loaded))
    return *why;
  return "it loads";
}

std::optional<ICLPChatLog> ICLPChatLog::initWithFilePath(const std::filesystem::path &path) {
  if (!hasTranscriptExtension(path))
    return std::nullopt;
  // An unreadable file decodes as no data at all.
  auto file = MappedFile::open(path);
  return file ? initWithMappedFile(path, *file) : initWithFileContents(path, {});
}

std::optional<ICLPChatLog> ICLPChatLog::initWithMappedFile(const std::filesystem::path &path, MappedFile &file) {
  auto log = initWithFileContents(path, file.bytes(), [&file](size_t behind) { file.release(behind); });
  if (file.cutShort())
    return std::nullopt;
  return log;
}

std::optional<ICLPChatLog> ICLPChatLog::initWithFileContents(const std::filesystem::path &path,
                                                             std::span<const uint8_t> contents,
                                                             const ArchiveDecoder::ReadProgress &progress) {
  auto loaded = load(path, contents, progress);
  if (auto *log = std::get_if<ICLPChatLog>(&loaded))
    return std::move(*log);
  return std::nullopt;
}

std::variant<ICLPChatLog, std::string> ICLPChatLog::load(const std::filesystem::path &path,
                                                         std::span<const uint8_t> contents,
                                                         const ArchiveDecoder::ReadProgress &progress) {
  const std::string fileName = path.filename().string();
  const std::string extension = pathExtension(fileName);
  Format format;
  if (extension == "chat")
    format = Format::iChat2;
  else if (extension == "ichat")
    format = Format::iChat3;
  else
    return std::string("not a transcript: the extension must be exactly \"chat\" or \"ichat\"");

  // The contents are decoded before the file's name is looked at.
  const auto on = fileName.rfind(" on ");
  auto log = decodeArchive(contents, format, on == std::string::npos ? "" : fileName.substr(0, on), progress);
  if (on == std::string::npos)
    return std::string("not a transcript: the file name has no \" on \" before the date");
  return log;
}

std::optional<ICLPChatLog> ICLPChatLog::initWithArchiveData(std::span<const uint8_t> data, Format format,
                                                            std::string primaryOtherParty) {
  auto decoded = decodeArchive(data, format, std::move(primaryOtherParty));
  if (auto *log = std::get_if<ICLPChatLog>(&decoded))
    return std::move(*log);
  return std::nullopt;
}

std::variant<ICLPChatLog, std::string> ICLPChatLog::decodeArchive(std::span<const uint8_t> data, Format format,
                                                                  std::string primaryOtherParty,
                                                                  const ArchiveDecoder::ReadProgress &progress) {
  ICLPChatLog log;
  log.format_ = format;
  const std::optional<std::string> damage = format == Format::iChat2 ? log.LoadiChat2Data(data, progress) : log.LoadiChat3Data(data);
  if (damage)
    return *damage;
  log.primaryOtherParty_ = std::move(primaryOtherParty);
  return log;
}

std::optional<std::string> ICLPChatLog::LoadiChat2Data(std::span<const uint8_t> data,
                                                       const ArchiveDecoder::ReadProgress &progress) {
  return loadArchive(data, ArchiveDecoder::Format::TypedStream, progress);
}

std::optional<std::string> ICLPChatLog::LoadiChat3Data(std::span<const uint8_t> data) {
  return loadArchive(data, ArchiveDecoder::Format::Keyed, {});
}

// A file that did not decode to an array is no transcript; one whose array
// is merely short or odd inside still loads, and the accessors guard every
// use of it.
std::optional<std::string> ICLPChatLog::loadArchive(std::span<const uint8_t> data, ArchiveDecoder::Format format,
                                                    const ArchiveDecoder::ReadProgress &progress) {
  const std::string kind = format == ArchiveDecoder::Format::TypedStream ? "the iChat 2 typed stream" : "the keyed archive";
  auto opened = openArchive(data, format);
  if (const auto *why = std::get_if<std::string>(&opened))
    return *why;
  ArchiveDecoder &archive = *std::get<std::unique_ptr<ArchiveDecoder>>(opened);
  substituteProgramClasses(archive);
  if (progress)
    archive.setReadProgress(progress);
  const auto root = archive.decodeRoot();
  if (const auto *why = std::get_if<std::string>(&root))
    return kind + " is damaged: " + *why;
  const ObjectRef &object = std::get<ObjectRef>(root);
  if (!object)
    return kind + " has no root";
  loadedArray_ = objectAs<ArrayObject>(object);
  // The root's class name is the archive's own text, never shown raw.
  if (!loadedArray_)
    return kind + "'s root is not an array";
  return std::nullopt;
}

std::shared_ptr<const ArrayObject> ICLPChatLog::rootArray(size_t index) const {
  return objectAs<ArrayObject>(loadedArray_ ? loadedArray_->objectAtIndex(index) : nullptr);
}

std::vector<std::shared_ptr<const ICLPInstantMessage>> ICLPChatLog::messages() const {
  return elementsOfClass<ICLPInstantMessage>(rootArray(2));
}

std::vector<std::shared_ptr<const ICLPPresentity>> ICLPChatLog::participants() const {
  return elementsOfClass<ICLPPresentity>(rootArray(3));
}

bool ICLPChatLog::NameInSpeakerList(const std::string &name) const {
  for (const auto &participant : participants())
    if (participant->rawName() == name)
      return true;
  return false;
}

int32_t ICLPChatLog::NumberOfSpeakers() const {
  const auto others = rootArray(3);
  return static_cast<int32_t>(others ? others->count() : 0) + 1;
}

std::optional<Date> ICLPChatLog::LastMessageDate() const {
  const auto list = rootArray(2);
  if (!list || list->count() == 0)
    return std::nullopt;
  const auto last = objectAs<ICLPInstantMessage>(list->items().back());
  return last ? last->TimeStamp() : std::nullopt;
}

std::string ICLPChatLog::description() const { return loadedArray_ ? loadedArray_->description() : "(null)"; }

} // namespace parlova
