#include "platform/FileManager.h"

#include "platform/DeferredSyncs.h"
#include "platform/FileDescriptor.h"
#include "platform/Home.h"
#include "platform/SafeFileName.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <pwd.h>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace parlova {

namespace fs = std::filesystem;

DirectoryEnumerator::DirectoryEnumerator(const fs::path &root) : root_(root) {
  std::error_code error;
  it_ = fs::recursive_directory_iterator(root, fs::directory_options::skip_permission_denied, error);
  if (error)
    it_ = fs::recursive_directory_iterator();
}

std::optional<std::string> DirectoryEnumerator::nextObject() {
  if (it_ == fs::recursive_directory_iterator())
    return std::nullopt;
  const std::string entry = it_->path().lexically_relative(root_).generic_string();
  std::error_code error;
  it_.increment(error);
  if (error)
    it_ = fs::recursive_directory_iterator();
  return entry;
}

std::string pathExtension(const std::string &fileName) {
  const auto dot = fileName.rfind('.');
  return dot == std::string::npos ? std::string() : fileName.substr(dot + 1);
}

std::string deletingPathExtension(const std::string &fileName) {
  const auto dot = fileName.rfind('.');
  return dot == std::string::npos ? fileName : fileName.substr(0, dot);
}

std::optional<Date> creationDateOfItem(const fs::path &path) {
  struct statx status {};
  if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_BASIC_STATS, &status) != 0)
    return std::nullopt;
  const auto toDate = [](const struct statx_timestamp &t) {
    return Date::fromUnixTime(static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9);
  };
  if (status.stx_mask & STATX_BTIME)
    return toDate(status.stx_btime);
  return std::min({toDate(status.stx_ctime), toDate(status.stx_mtime), toDate(status.stx_atime)});
}

bool fileExistsAtPath(const fs::path &path) {
  std::error_code error;
  // A dangling link still occupies the name, so it counts as there.
  return fs::exists(fs::symlink_status(path, error));
}

namespace {

// Reads the file at `path` to its end: the size it has when opened is
// only a hint, and a file that grows meanwhile is read to its end.
// `take` gets each stretch as it is read, `sized` the size first.
bool readToEnd(const fs::path &path, const std::function<void(size_t)> &sized,
               const std::function<void(std::span<const uint8_t>)> &take) {
  std::error_code error;
  if (!fs::is_regular_file(path, error))
    return false;
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file)
    return false;
  const int fd = file.get();
  struct stat status{};
  sized(fstat(fd, &status) == 0 && status.st_size > 0 ? static_cast<size_t>(status.st_size) : 0);
  std::vector<uint8_t> stretch(64 * 1024);
  while (true) {
    const ssize_t got = read(fd, stretch.data(), stretch.size());
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0)
      return false;
    if (got == 0)
      return true;
    take(std::span<const uint8_t>(stretch.data(), static_cast<size_t>(got)));
  }
}

} // namespace

std::optional<std::vector<uint8_t>> readFileContents(const fs::path &path) {
  std::vector<uint8_t> bytes;
  if (!readToEnd(
          path, [&bytes](size_t size) { bytes.reserve(size); },
          [&bytes](std::span<const uint8_t> stretch) { bytes.insert(bytes.end(), stretch.begin(), stretch.end()); }))
    return std::nullopt;
  return bytes;
}

bool readFileInPieces(const fs::path &path, const std::function<void(std::span<const uint8_t>)> &piece) {
  return readToEnd(path, [](size_t) {}, piece);
}

namespace {
constexpr std::string_view kTemporaryPrefix = ".parlova-tmp-";
}

std::string describeItem(const fs::path &path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0)
    return "nothing there";
  const char *kind = S_ISDIR(status.st_mode)   ? "a folder"
                     : S_ISLNK(status.st_mode) ? "a symbolic link"
                     : S_ISREG(status.st_mode) ? "a file"
                                               : "something other than a file";
  const std::string owner = userName(status.st_uid);
  char mode[8];
  std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
  return std::string(kind) + " owned by " + owner + ", mode " + mode;
}

fs::path temporaryPathBeside(const fs::path &path) {
  // Seeded once per process: asking the system for randomness on every
  // write costs more than the write of a small file.
  static std::mt19937 random{std::random_device{}()};
  // The writer's process id first, so that what a dead writer left can be
  // told from what a live one is writing.
  return path.parent_path() /
         (std::string(kTemporaryPrefix) + std::to_string(getpid()) + "-" + std::to_string(random()));
}

void removeLeftoverTemporaries(const fs::path &folder) {
  std::error_code error;
  std::vector<fs::path> leftovers;
  for (auto it = fs::directory_iterator(folder, error); !error && it != fs::directory_iterator(); it.increment(error))
    if (it->path().filename().string().starts_with(kTemporaryPrefix))
      leftovers.push_back(it->path());
  for (const auto &leftover : leftovers)
    fs::remove_all(leftover, error);
}

void syncFolderOf(const fs::path &path) {
  const int fd = open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0)
    return;
  fsync(fd);
  close(fd);
}

namespace {

// A regular file's copy for a move across file systems: with the
// original's mode and times (as mv keeps them), and on the disk before the
// original may go.
bool copyFileForMove(const fs::path &from, const fs::path &to) {
  const int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0)
    return false;
  struct stat status {};
  const int out = fstat(in, &status) == 0
                      ? open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, status.st_mode & 07777)
                      : -1;
  bool complete = out >= 0;
  char buffer[1 << 16];
  while (complete) {
    const ssize_t n = read(in, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0) {
      complete = n == 0;
      break;
    }
    for (ssize_t written = 0; complete && written < n;) {
      const ssize_t w = write(out, buffer + written, static_cast<size_t>(n - written));
      if (w < 0 && errno == EINTR)
        continue;
      complete = w > 0;
      written += w > 0 ? w : 0;
    }
  }
  const timespec times[2] = {status.st_atim, status.st_mtim};
  complete = complete && futimens(out, times) == 0 && fsync(out) == 0;
  const int reason = errno;
  close(in);
  if (out >= 0)
    close(out);
  errno = reason;
  return complete;
}

// Puts `temporary` in place as `to` without replacing anything there, on
// file systems that refuse the no-replace flag or hard links too: the name
// is taken first with O_EXCL, then the temporary renamed over what is ours.
bool renameWithoutReplacing(const fs::path &temporary, const fs::path &to) {
  if (renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
    return true;
  if (errno != EINVAL)
    return false;
  if (link(temporary.c_str(), to.c_str()) == 0)
    return unlink(temporary.c_str()) == 0;
  if (errno == EEXIST)
    return false;
  const int placeholder = open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (placeholder < 0)
    return false;
  close(placeholder);
  return std::rename(temporary.c_str(), to.c_str()) == 0;
}

} // namespace

void removeOrphanedTemporaries(const fs::path &folder) {
  std::error_code error;
  for (auto it = fs::directory_iterator(folder, error); !error && it != fs::directory_iterator(); it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (!name.starts_with(kTemporaryPrefix))
      continue;
    const long pid = std::strtol(name.c_str() + kTemporaryPrefix.size(), nullptr, 10);
    if (pid > 0 && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
      std::error_code ignored;
      fs::remove_all(it->path(), ignored);
    }
  }
}

bool writeFileAtomically(const fs::path &path, std::span<const uint8_t> bytes, Durability durability,
                         Visibility visibility) {
  const std::string_view whole(reinterpret_cast<const char *>(bytes.data()), bytes.size());
  return writeFileAtomically(path, std::span(&whole, 1), durability, visibility);
}

bool writeFileAtomically(const fs::path &path, std::span<const std::string_view> pieces, Durability durability,
                         Visibility visibility) {
  return writeFileAtomically(
      path,
      [pieces](const std::function<void(std::string_view)> &piece) {
        for (const std::string_view each : pieces)
          piece(each);
      },
      durability, visibility);
}

bool writeFileAtomically(const fs::path &path, const PieceMaker &make, Durability durability, Visibility visibility) {
  if (DeferredSyncs::deferring())
    durability = Durability::ByNextSync;
  const fs::path temporary = temporaryPathBeside(path);
  mode_t mode = visibility == Visibility::Private ? 0600 : 0644;
  // A stricter mode that the owner gave a private file stays.
  if (struct stat existing{}; visibility == Visibility::Private && stat(path.c_str(), &existing) == 0)
    mode &= existing.st_mode & 0777;
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0)
    return false;
  GatheredWriter out(fd);
  make([&out](std::string_view piece) { out.add(piece); });
  // A short write leaves errno as it was (ENOSPC from the failing write).
  const bool complete = out.finish() && (durability == Durability::ByNextSync || fsync(fd) == 0);
  int reason = errno;
  close(fd);
  if (complete && std::rename(temporary.c_str(), path.c_str()) == 0) {
    if (durability == Durability::Now)
      syncFolderOf(path);
    else
      DeferredSyncs::note(path);
    return true;
  }
  if (complete)
    reason = errno;
  unlink(temporary.c_str());
  errno = reason; // for the caller's message
  return false;
}

bool syncFileSystemOf(const fs::path &path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return false;
  const bool synced = syncfs(fd) == 0;
  close(fd);
  return synced;
}

bool appendToFile(const fs::path &path, std::span<const uint8_t> bytes) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0)
    return false;
  ssize_t n;
  do
    n = write(fd, bytes.data(), bytes.size());
  while (n < 0 && errno == EINTR);
  const int reason = errno;
  close(fd);
  errno = reason;
  return n == static_cast<ssize_t>(bytes.size());
}

bool syncFileData(const fs::path &path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return false;
  const bool synced = fdatasync(fd) == 0;
  const int reason = errno;
  close(fd);
  errno = reason;
  return synced;
}

bool moveItem(const fs::path &from, const fs::path &to, Durability durability) {
  const auto syncFolderOfItem = [durability](const fs::path &path) {
    if (durability == Durability::Now)
      syncFolderOf(path);
  };
  // A link whose target is given relative to its folder would point
  // nowhere from another folder: it moves as a link to the same file.
  std::error_code linkError;
  if (fs::is_symlink(fs::symlink_status(from, linkError))) {
    const fs::path target = fs::read_symlink(from, linkError);
    if (!linkError && target.is_relative()) {
      fs::create_symlink((fs::absolute(from.parent_path(), linkError) / target).lexically_normal(), to, linkError);
      if (linkError)
        return errno = linkError.value(), false;
      syncFolderOfItem(to);
      const bool removed = unlink(from.c_str()) == 0;
      syncFolderOfItem(from);
      return removed;
    }
  }
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
    syncFolderOfItem(to);
    if (from.parent_path() != to.parent_path())
      syncFolderOfItem(from);
    return true;
  }
  if (errno == EINVAL && !fileExistsAtPath(to)) {
    // File systems without the no-replace flag: a hard link fails on an
    // existing target just as well.
    if (link(from.c_str(), to.c_str()) == 0) {
      syncFolderOfItem(to);
      const bool removed = unlink(from.c_str()) == 0;
      syncFolderOfItem(from);
      return removed;
    }
  }
  if (errno != EXDEV && errno != EPERM && errno != EINVAL)
    return false;
  if (fileExistsAtPath(to))
    return errno = EEXIST, false;
  // Across file systems: copy beside the target and put it in place, so the
  // target is never a part; remove the original only once the copy is on
  // the disk.
  const fs::path temporary = temporaryPathBeside(to);
  std::error_code error;
  const bool copied = fs::is_regular_file(fs::symlink_status(from, error))
                          ? copyFileForMove(from, temporary)
                          : (fs::copy(from, temporary, fs::copy_options::recursive | fs::copy_options::copy_symlinks,
                                      error),
                             !error);
  if (!copied || !renameWithoutReplacing(temporary, to)) {
    const int reason = errno;
    fs::remove_all(temporary, error);
    errno = reason;
    return false;
  }
  syncFolderOf(to);
  fs::remove_all(from, error);
  if (error && fileExistsAtPath(from)) {
    // The original stays (a read-only disk): so must nothing else, or the
    // transcript would be in both places and taken again.
    std::error_code undone;
    fs::remove_all(to, undone);
    syncFolderOf(to);
    errno = error.value();
    return false;
  }
  syncFolderOf(from);
  return !error;
}

namespace {

bool writeFolderContents(const FileWrapper &folder, const std::filesystem::path &path, int depth,
                         Durability durability) {
  std::error_code error;
  if (!std::filesystem::create_directory(path, error) || depth > 64)
    return false;
  bool complete = true;
  for (const auto &child : folder.fileWrappers()) {
    if (!child)
      continue;
    const auto target = path / safeFileStem(child->preferredFilename().value_or(""), "");
    complete &= child->isDirectory() ? writeFolderContents(*child, target, depth + 1, durability)
                                     : writeFileAtomically(target, child->regularFileContents(), durability);
  }
  return complete;
}

} // namespace

bool writeFileWrapperAtomically(const FileWrapper &wrapper, const std::filesystem::path &path,
                                Durability durability) {
  namespace fs = std::filesystem;
  if (wrapper.isRegularFile())
    return writeFileAtomically(path, wrapper.regularFileContents(), durability);
  const fs::path temporary = temporaryPathBeside(path);
  std::error_code error;
  if (!writeFolderContents(wrapper, temporary, 0, durability)) {
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

std::optional<fs::path> keepAside(const fs::path &file, const std::string &suffix) {
  fs::path aside = file.string() + suffix;
  for (int number = 2; !moveItem(file, aside); ++number) {
    if (errno != EEXIST)
      return std::nullopt;
    aside = file.string() + suffix + "-" + std::to_string(number);
  }
  return aside;
}

} // namespace parlova
