// The pictures the image archive keeps, found by who sent them and when:
// the index of the messages holds their names only. Read again when the
// archive changes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace parlova {

class PictureIndex {
public:
  explicit PictureIndex(std::filesystem::path archive) : archive_(std::move(archive)) {}

  // The archive's names ("Images/…") by sender and the second they were sent in.
  using Sent = std::map<std::pair<std::string, int64_t>, std::vector<std::string>>;
  // The archive as it is now; one look at the file for each call.
  std::shared_ptr<const Sent> current();
  // What `speaker` sent in the second `time` falls in.
  static std::vector<std::string> sentBy(const Sent &sent, const std::string &speaker, double time);

private:
  std::filesystem::path archive_;
  std::mutex mutex_;
  std::filesystem::file_time_type readAt_{};
  std::shared_ptr<const Sent> sent_;
};

} // namespace parlova
