#include "foundation/FileWrapper.h"

#include <cstring>
#include <string_view>


namespace parlova {
namespace {

// Layout, every integer 32-bit little-endian: "rtfd", a zero word, then one
// record. A record starts with its type. Type 1 is data: its length (or
// 0x80000000, then the length and a count of padding bytes that come first),
// then the bytes. Type 3 is a table: an entry count, every entry's
// length-prefixed name, every entry's size, then every entry's record.
//
// A regular file is a table whose entry ".." holds the contents and whose
// entry "." holds the file's attributes (permissions and the like, not
// contents). A folder is a table whose other entries are its children: data
// records are files named by their entry, tables are nested wrappers. Both
// carry their preferred name in "__@UTF8PreferredName@__" and
// "__@PreferredName@__".
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
  std::span<const uint8_t> rest() const { return bytes_.subspan(pos_); }

private:
  std::span<const uint8_t> bytes_;
  size_t pos_ = 0;
};

constexpr std::string_view kMagic = "rtfd";
constexpr uint32_t kDataRecord = 1;
constexpr uint32_t kTableRecord = 3;
constexpr uint32_t kLongForm = 0x80000000u;
constexpr int kMaxDepth = 32;

std::optional<std::span<const uint8_t>> dataContents(Reader &reader) {
  auto length = reader.u32();
  if (!length)
    return std::nullopt;
  if (*length == kLongForm) {
    length = reader.u32();
    const auto padding = reader.u32();
    if (!length || !padding || !reader.take(*padding))
      return std::nullopt;
  }
  return reader.take(*length);
}

std::string text(std::span<const uint8_t> bytes) {
  return std::string(reinterpret_cast<const char *>(bytes.data()), bytes.size());
}

// The wrapper's own entries rather than children: its attributes ("."), its
// contents (".."), its icon ("..tiff") and its preferred names.
bool isReservedName(std::string_view name) {
  return name == "." || name.starts_with("..") || name.starts_with("__@");
}

using WrapperRef = std::shared_ptr<const FileWrapper>;
using Children = std::vector<WrapperRef>;

WrapperRef regularFile(std::optional<std::string> name, std::span<const uint8_t> contents) {
  return std::make_shared<FileWrapper>(FileWrapper::Kind::RegularFile, std::move(name),
                                       std::vector<uint8_t>(contents.begin(), contents.end()), Children{});
}

// `reader` stands after the table's type word. Nothing when damaged.
std::optional<WrapperRef> parseTable(Reader &reader, int depth, const std::optional<std::string> &nameFromParent) {
  if (depth > kMaxDepth)
    return std::nullopt;
  const auto count = reader.u32();
  // Every entry needs at least eight bytes (name length, size), which bounds
  // the count by the data actually present.
  if (!count || *count > reader.rest().size() / 8)
    return std::nullopt;
  std::vector<std::string> names;
  names.reserve(*count);
  for (uint32_t i = 0; i < *count; ++i) {
    const auto length = reader.u32();
    const auto name = length ? reader.take(*length) : std::nullopt;
    if (!name)
      return std::nullopt;
    names.push_back(text(*name));
  }
  std::vector<uint32_t> sizes;
  sizes.reserve(*count);
  for (uint32_t i = 0; i < *count; ++i) {
    const auto size = reader.u32();
    if (!size)
      return std::nullopt;
    sizes.push_back(*size);
  }

  std::optional<std::string> preferred, utf8Preferred;
  std::optional<std::span<const uint8_t>> contents;
  Children children;
  for (uint32_t i = 0; i < *count; ++i) {
    const auto record = reader.take(sizes[i]);
    if (!record)
      return std::nullopt;
    Reader entry(*record);
    const auto type = entry.u32();
    if (!type)
      return std::nullopt;
    const std::string &name = names[i];
    if (*type == kTableRecord) {
      auto child = parseTable(entry, depth + 1, name);
      if (!child)
        return std::nullopt;
      if (!isReservedName(name))
        children.push_back(std::move(*child));
      continue;
    }
    if (*type != kDataRecord)
      continue; // a kind of entry this program has no use for, such as a link
    const auto data = dataContents(entry);
    if (!data)
      return std::nullopt;
    if (name == "__@UTF8PreferredName@__")
      utf8Preferred = text(*data);
    else if (name == "__@PreferredName@__")
      preferred = text(*data);
    else if (name == "..")
      contents = *data;
    else if (!isReservedName(name))
      children.push_back(regularFile(name, *data));
  }
  auto filename = utf8Preferred ? utf8Preferred : preferred ? preferred : nameFromParent;
  if (contents)
    return regularFile(std::move(filename), *contents);
  return std::make_shared<FileWrapper>(FileWrapper::Kind::Directory, std::move(filename), std::vector<uint8_t>{},
                                       std::move(children));
}

} // namespace

std::shared_ptr<const FileWrapper> FileWrapper::fromSerializedRepresentation(std::span<const uint8_t> bytes) {
  if (bytes.size() < 8 || std::memcmp(bytes.data(), kMagic.data(), kMagic.size()) != 0)
    return nullptr;
  Reader reader(bytes.subspan(8));
  if (reader.u32() != kTableRecord)
    return nullptr;
  return parseTable(reader, 0, std::nullopt).value_or(nullptr);
}

} // namespace parlova
