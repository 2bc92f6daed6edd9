// A file's bytes mapped instead of read, so that the pages of a long
// transcript can be let go once decoded: they stay readable (they come back
// from the file when something reads them again) but stop counting against
// the run. A file cut short while it is mapped reads as zeros past the cut
// and says so, where reading there would otherwise end the process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <vector>

namespace parlova {

class MappedFile {
public:
  // Nothing when the file cannot be opened or is not a regular file. A file
  // that cannot be mapped (an empty one, a file system without mappings) is
  // read instead.
  static std::optional<MappedFile> open(const std::filesystem::path &path);

  MappedFile(MappedFile &&other) noexcept;
  MappedFile &operator=(MappedFile &&other) = delete;
  MappedFile(const MappedFile &) = delete;
  MappedFile &operator=(const MappedFile &) = delete;
  ~MappedFile();

  std::span<const uint8_t> bytes() const { return {data_, size_}; }
  // Lets go of the pages that lie wholly before `offset`, also those read
  // again since the last time.
  void release(size_t offset);
  // Whether the file was cut short while mapped, so that what was read past
  // the cut was zeros, not the file.
  bool cutShort() const;

private:
  MappedFile() = default;

  const uint8_t *data_ = nullptr;
  size_t size_ = 0;
  int guard_ = -1; // the mapping's slot in the guard against a cut; -1 when read
  std::vector<uint8_t> read_;
};

} // namespace parlova
