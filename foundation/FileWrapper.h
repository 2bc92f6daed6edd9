// A file carried inside a transcript: a regular file (name and bytes) or a
// folder of further wrappers, read from the 'rtfd' serialized form.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "foundation/Object.h"

namespace parlova {

class FileWrapper final : public Object {
public:
  enum class Kind { RegularFile, Directory };

  FileWrapper(Kind kind, std::optional<std::string> preferredFilename, std::vector<uint8_t> contents,
              std::vector<std::shared_ptr<const FileWrapper>> children)
      : kind_(kind), preferredFilename_(std::move(preferredFilename)),
        contents_(std::move(contents)), children_(std::move(children)) {}

  // Nothing when the bytes are not a well-formed serialized wrapper.
  static std::shared_ptr<const FileWrapper> fromSerializedRepresentation(std::span<const uint8_t> bytes);

  std::string className() const override { return "NSFileWrapper"; }
  bool isRegularFile() const { return kind_ == Kind::RegularFile; }
  bool isDirectory() const { return kind_ == Kind::Directory; }
  const std::optional<std::string> &preferredFilename() const { return preferredFilename_; }
  const std::vector<uint8_t> &regularFileContents() const { return contents_; }
  const std::vector<std::shared_ptr<const FileWrapper>> &fileWrappers() const { return children_; }

private:
  Kind kind_;
  std::optional<std::string> preferredFilename_;
  std::vector<uint8_t> contents_;
  std::vector<std::shared_ptr<const FileWrapper>> children_;
};

} // namespace parlova
