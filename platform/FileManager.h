// File operations as the program uses them: a deep walk, whole-file reads,
// atomic writes and moves that never replace an existing file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Date.h"
#include "foundation/FileWrapper.h"
#include "platform/GatheredWriter.h"

namespace parlova {

// Yields the path of every file and folder below a folder, relative to it,
// descending into sub-folders (not through links to folders), in the order
// the file system lists them. A missing folder yields nothing.
class DirectoryEnumerator {
public:
  explicit DirectoryEnumerator(const std::filesystem::path &root);
  std::optional<std::string> nextObject();

private:
  std::filesystem::path root_;
  std::filesystem::recursive_directory_iterator it_;
};

// A file name's extension (the text after its last dot, or empty) and the
// name without it, as Foundation's path methods give them.
std::string pathExtension(const std::string &fileName);
std::string deletingPathExtension(const std::string &fileName);

bool fileExistsAtPath(const std::filesystem::path &path);

// What is at `path`, for a message to the person who must put it right:
// "nothing there", "a folder owned by root, mode 0755", "a file owned by
// alice, mode 0600".
std::string describeItem(const std::filesystem::path &path);

// When a file or folder was made, not following a link at the path: its
// birth time where the file system keeps one, else the oldest of its change,
// modification and access times. Nothing when it cannot be looked at.
std::optional<Date> creationDateOfItem(const std::filesystem::path &path);

// Nothing when the file cannot be read (missing, a folder, no permission).
std::optional<std::vector<uint8_t>> readFileContents(const std::filesystem::path &path);
// The same bytes handed to `piece` a stretch at a time, never held whole;
// false when the file cannot be read (then some pieces may have been seen).
bool readFileInPieces(const std::filesystem::path &path,
                      const std::function<void(std::span<const uint8_t>)> &piece);

// A name for a temporary file or folder beside `path`, kept short so that a
// target name near the file system's limit still has room for it.
std::filesystem::path temporaryPathBeside(const std::filesystem::path &path);

// Removes what writes through temporaryPathBeside left in `folder` when the
// process died half-way. Only for when no other run can be writing there.
void removeLeftoverTemporaries(const std::filesystem::path &folder);
// The same, for a folder other programs write to as well: only what a
// process that no longer runs left.
void removeOrphanedTemporaries(const std::filesystem::path &folder);

// How soon a write must be on the disk itself: before the call returns, or
// by the caller's next syncFileSystemOf or DeferredSyncs::flushAll (many
// files, one flush).
enum class Durability { Now, ByNextSync };

// Writes beside the target and renames over it, so that readers see the old
// file or the new one, never a part. On failure errno tells why.
// Private: readable by the owner only (settings with a password,
// archives of private conversations), the temporary included.
enum class Visibility { Shared, Private };
bool writeFileAtomically(const std::filesystem::path &path, std::span<const uint8_t> bytes,
                         Durability durability = Durability::Now, Visibility visibility = Visibility::Shared);
// The same for a file made of pieces, written one after another, so that a
// long page is never put together in memory.
bool writeFileAtomically(const std::filesystem::path &path, std::span<const std::string_view> pieces,
                         Durability durability = Durability::Now, Visibility visibility = Visibility::Shared);
// The same for a file whose pieces are made as it is written: `make` hands
// them one after another to the function it is given.
bool writeFileAtomically(const std::filesystem::path &path, const PieceMaker &make,
                         Durability durability = Durability::Now, Visibility visibility = Visibility::Shared);

// Flushes everything written on the file system that holds `path`.
bool syncFileSystemOf(const std::filesystem::path &path);
// A rename is on the disk once the folder that holds the name is: flushes
// the folder that holds `path`.
void syncFolderOf(const std::filesystem::path &path);

// Appends `bytes` in one write, making the file when it is missing. False
// when not all of them were written; errno tells why.
bool appendToFile(const std::filesystem::path &path, std::span<const uint8_t> bytes);
// Puts what was written to the file on the disk. False when it could not;
// errno tells why.
bool syncFileData(const std::filesystem::path &path);

// Writes a carried file, or the folder with everything in it, to `path`
// through a temporary beside it, replacing what is there. The contents'
// names are made safe, so nothing lands outside the new folder.
bool writeFileWrapperAtomically(const FileWrapper &wrapper, const std::filesystem::path &path,
                                Durability durability = Durability::Now);

// Moves a file or folder; fails rather than replace anything at `to`. By
// the next sync: a rename within one file system is left for the caller's
// syncfs to make lasting (a catch-up does so at each commit); a copy
// across file systems is always on the disk before the original goes.
bool moveItem(const std::filesystem::path &from, const std::filesystem::path &to,
              Durability durability = Durability::Now);

// Moves a damaged file out of the way, to `file` + `suffix` or, where a copy
// kept before has that name, + `suffix` + "-2", "-3" and on: a copy kept
// once is never replaced. The name it got, or nothing when it could not be
// moved.
std::optional<std::filesystem::path> keepAside(const std::filesystem::path &file, const std::string &suffix);

} // namespace parlova
