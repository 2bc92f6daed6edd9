// Where the pipeline carries a transcript once it is mailed: its archives,
// its history and its move, written at once in a single run or held in a
// batch in a catch-up. Either way a journal makes it happen once, whatever
// ends the run half-way.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>

namespace parlova {

class ICLPChatLog;

class TranscriptArchives {
public:
  struct Stages {
    bool links = false;
    bool images = false;
    std::optional<std::string> historyKey; // kept in the history under this key
  };
  struct Added {
    size_t links = 0;
    size_t pictures = 0;
  };

  virtual ~TranscriptArchives() = default;

  // Before anything is sent for `transcript`: nothing when its archiving
  // can be made to happen once, else why not (logged).
  virtual std::optional<std::string> begin(const std::filesystem::path &transcript) = 0;
  // After begin(), nothing of the transcript is archived: its mail waits,
  // or an error stands.
  virtual void abandon() = 0;
  // Links, pictures, statistics and the history as `stages` ask, for a
  // transcript going to `target`; or why nothing was archived (logged).
  virtual std::variant<Added, std::string> archive(const ICLPChatLog &log, const std::filesystem::path &transcript,
                                                   const std::filesystem::path &target, const Stages &stages) = 0;
  // Where in the archive folder the transcript will go.
  virtual std::filesystem::path targetFor(const std::filesystem::path &transcript) = 0;
  // The move that ends the transcript's processing. False when it failed.
  virtual bool move(const std::filesystem::path &transcript, const std::filesystem::path &target) = 0;
};

} // namespace parlova
