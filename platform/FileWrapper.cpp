#include "platform/FileWrapper.h"

#include <cstring>
#include <string_view>

#include "platform/FileManager.h"
#include "platform/SafeFileName.h"

namespace parlova {
namespace {

// Layout: "rtfd", 4 zero bytes, version, entry count; then every entry's
// length-prefixed name, then every entry's block size, then the blocks. A
// block starts with a flag word and its content size; a size of 0x80000000
// marks the long form, where the real size and a padding count follow.
// All integers are 32-bit little-endian.
class Reader {
public:
  explicit Reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}
  std::optional<uint32_t> u32() {
    if (bytes_.size() - pos_ < 4)
      return std::nullopt;
    const uint32_t v = static_cast<uint32_t>(bytes_[pos_]) | static_cast<uint32_t>(bytes_[pos_ + 1]) << 8 |
                       static_cast<uint32_t>(bytes_[pos_ + 2]) << 16 |
                       static_cast<uint32_t>(bytes_[pos_ + 3]) << 24;
    pos_ += 4;
    return v;
  }
  std::optional<std::span<const uint8_t>> take(size_t n) {
    if (bytes_.size() - pos_ < n)
      return std::nullopt;
    auto out = bytes_.subspan(pos_, n);
    pos_ += n;
    return out;
  }

private:
  std::span<const uint8_t> bytes_;
  size_t pos_ = 0;
};

constexpr std::string_view kMagic = "rtfd";
constexpr int kMaxDepth = 32;

std::optional<std::span<const uint8_t>> blockContents(std::span<const uint8_t> block) {
  Reader reader(block);
  const auto flag = reader.u32();
  auto size = reader.u32();
  if (!flag || !size)
    return std::nullopt;
  if (*size == 0x80000000u) {
    size = reader.u32();
    const auto padding = reader.u32();
    if (!size || !padding || !reader.take(*padding))
      return std::nullopt;
  }
  return reader.take(*size);
}

bool hasMagic(std::span<const uint8_t> bytes) {
  return bytes.size() >= 8 && std::memcmp(bytes.data(), kMagic.data(), 4) == 0;
}

std::shared_ptr<const FileWrapper> parse(std::span<const uint8_t> bytes, int depth,
                                         std::optional<std::string> nameFromParent) {
  if (depth > kMaxDepth || !hasMagic(bytes))
    return nullptr;
  Reader reader(bytes);
  reader.take(8);
  const auto version = reader.u32();
  const auto count = reader.u32();
  // Every entry needs at least eight bytes (name length, size), which bounds
  // the count by the data actually present.
  if (!version || !count || *count > bytes.size() / 8)
    return nullptr;
  std::vector<std::string> names;
  for (uint32_t i = 0; i < *count; ++i) {
    const auto length = reader.u32();
    const auto name = length ? reader.take(*length) : std::nullopt;
    if (!name)
      return nullptr;
    names.emplace_back(reinterpret_cast<const char *>(name->data()), name->size());
  }
  std::vector<uint32_t> sizes;
  for (uint32_t i = 0; i < *count; ++i) {
    const auto size = reader.u32();
    if (!size)
      return nullptr;
    sizes.push_back(*size);
  }

  std::optional<std::string> preferred, utf8Preferred;
  std::optional<std::vector<uint8_t>> fileContents, parentLinkContents;
  std::vector<std::shared_ptr<const FileWrapper>> children;
  for (uint32_t i = 0; i < *count; ++i) {
    const auto block = reader.take(sizes[i]);
    if (!block)
      return nullptr;
    const auto contents = blockContents(*block);
    if (!contents)
      return nullptr;
    const std::string &name = names[i];
    if (name == "__@UTF8PreferredName@__") {
      utf8Preferred.emplace(reinterpret_cast<const char *>(contents->data()), contents->size());
    } else if (name == "__@PreferredName@__") {
      preferred.emplace(reinterpret_cast<const char *>(contents->data()), contents->size());
    } else if (name == ".") {
      fileContents.emplace(contents->begin(), contents->end());
    } else if (name == "..") {
      parentLinkContents.emplace(contents->begin(), contents->end());
    } else if (hasMagic(*contents)) {
      if (auto child = parse(*contents, depth + 1, name))
        children.push_back(std::move(child));
    } else {
      children.push_back(std::make_shared<FileWrapper>(FileWrapper::Kind::RegularFile, name,
                                                       std::vector<uint8_t>(contents->begin(), contents->end()),
                                                       std::vector<std::shared_ptr<const FileWrapper>>{}));
    }
  }
  auto filename = utf8Preferred ? utf8Preferred : preferred ? preferred : nameFromParent;
  if (!fileContents)
    fileContents = std::move(parentLinkContents);
  if (fileContents)
    return std::make_shared<FileWrapper>(FileWrapper::Kind::RegularFile, std::move(filename),
                                         std::move(*fileContents), std::vector<std::shared_ptr<const FileWrapper>>{});
  return std::make_shared<FileWrapper>(FileWrapper::Kind::Directory, std::move(filename), std::vector<uint8_t>{},
                                       std::move(children));
}

} // namespace

std::shared_ptr<const FileWrapper> FileWrapper::fromSerializedRepresentation(std::span<const uint8_t> bytes) {
  return parse(bytes, 0, std::nullopt);
}

namespace {

bool writeFolderContents(const FileWrapper &folder, const std::filesystem::path &path, int depth) {
  std::error_code error;
  if (!std::filesystem::create_directory(path, error) || depth > 64)
    return false;
  bool complete = true;
  for (const auto &child : folder.fileWrappers()) {
    if (!child)
      continue;
    const auto target = path / safeFileStem(child->preferredFilename().value_or(""), "");
    complete &= child->isDirectory() ? writeFolderContents(*child, target, depth + 1)
                                     : writeFileAtomically(target, child->regularFileContents());
  }
  return complete;
}

} // namespace

bool FileWrapper::writeAtomically(const std::filesystem::path &path) const {
  namespace fs = std::filesystem;
  if (isRegularFile())
    return writeFileAtomically(path, contents_);
  const fs::path temporary = temporaryPathBeside(path);
  std::error_code error;
  if (!writeFolderContents(*this, temporary, 0)) {
    fs::remove_all(temporary, error);
    return false;
  }
  // A folder cannot be renamed over a non-empty one: the old one goes first.
  if (fs::exists(fs::symlink_status(path, error)))
    fs::remove_all(path, error);
  fs::rename(temporary, path, error);
  if (error) {
    fs::remove_all(temporary, error);
    return false;
  }
  return true;
}

} // namespace parlova
