#include "model/ICLPChatLog.h"

#include "model/ICLPPerson.h"
#include "platform/FileManager.h"
#include "platform/FoundationValues.h"
#include "platform/KeyedUnarchiver.h"

namespace parlova {
namespace {

template <class T> std::vector<std::shared_ptr<const T>> elementsOfClass(const ObjectRef &object) {
  std::vector<std::shared_ptr<const T>> result;
  if (const auto array = objectAs<ArrayObject>(object)) {
    for (const ObjectRef &item : array->items())
      if (auto element = objectAs<T>(item))
        result.push_back(std::move(element));
  }
  return result;
}

// Text after the last dot of the last path component, or empty.
std::string extensionOf(const std::string &fileName) {
  const auto dot = fileName.rfind('.');
  return dot == std::string::npos ? std::string() : fileName.substr(dot + 1);
}

} // namespace

std::optional<ICLPChatLog> ICLPChatLog::initWithFilePath(const std::filesystem::path &path) {
  ICLPChatLog log;
  const std::string fileName = path.filename().string();
  const std::string extension = extensionOf(fileName);
  // An unreadable file decodes as no data at all.
  const auto contents = [&] { return readFileContents(path).value_or(std::vector<uint8_t>{}); };
  if (extension == "chat") {
    log.format_ = Format::iChat2;
    log.LoadiChat2Data(contents());
  } else if (extension == "ichat") {
    log.format_ = Format::iChat3;
    log.LoadiChat3Data(contents());
  } else {
    return std::nullopt;
  }

  const auto on = fileName.rfind(" on ");
  if (on == std::string::npos)
    return std::nullopt;
  // A file that did not decode to an array is no transcript; one whose
  // array is merely short or odd inside still loads, and the accessors above
  // guard every use of it.
  if (!log.loadedArray_)
    return std::nullopt;
  log.primaryOtherParty_ = fileName.substr(0, on);
  return log;
}

void ICLPChatLog::LoadiChat2Data(std::span<const uint8_t>) {
  // iChat 2 typed streams are not read yet: such a file loads as nothing.
}

void ICLPChatLog::LoadiChat3Data(std::span<const uint8_t> data) {
  auto archive = KeyedUnarchiver::forData(data);
  if (!archive)
    return;
  archive->setClass("InstantMessage", [](Coder &coder) { return ICLPInstantMessage::initWithCoder(coder); });
  archive->setClass("Presentity", [](Coder &coder) { return ICLPPresentity::initWithCoder(coder); });
  archive->setClass("Person", [](Coder &coder) { return ICLPPerson::initWithCoder(coder); });
  if (const auto root = archive->decodeTopLevelObjectForKey("root"))
    loadedArray_ = objectAs<ArrayObject>(*root);
}

std::vector<std::shared_ptr<const ICLPInstantMessage>> ICLPChatLog::messages() const {
  return elementsOfClass<ICLPInstantMessage>(loadedArray_ ? loadedArray_->objectAtIndex(2) : nullptr);
}

std::vector<std::shared_ptr<const ICLPPresentity>> ICLPChatLog::participants() const {
  return elementsOfClass<ICLPPresentity>(loadedArray_ ? loadedArray_->objectAtIndex(3) : nullptr);
}

std::string ICLPChatLog::description() const { return loadedArray_ ? loadedArray_->description() : "(null)"; }

} // namespace parlova
