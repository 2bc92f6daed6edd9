#include "platform/FileManager.h"

#include "platform/FileDescriptor.h"
#include "platform/SafeFileName.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
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

std::optional<std::vector<uint8_t>> readFileContents(const fs::path &path) {
  std::error_code error;
  if (!fs::is_regular_file(path, error))
    return std::nullopt;
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file)
    return std::nullopt;
  const int fd = file.get();
  struct stat status{};
  std::vector<uint8_t> bytes(fstat(fd, &status) == 0 && status.st_size > 0 ? static_cast<size_t>(status.st_size) : 0);
  size_t have = 0;
  // The size is a hint: a file that grows meanwhile is read to its end.
  uint8_t probe[4096];
  while (true) {
    const bool full = have == bytes.size();
    const ssize_t got = full ? read(fd, probe, sizeof probe) : read(fd, bytes.data() + have, bytes.size() - have);
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0)
      return std::nullopt;
    if (got == 0)
      break;
    if (full)
      bytes.insert(bytes.end(), probe, probe + got);
    have += static_cast<size_t>(got);
  }
  bytes.resize(have);
  return bytes;
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
  std::string owner = "uid " + std::to_string(status.st_uid);
  if (const passwd *entry = getpwuid(status.st_uid); entry && entry->pw_name)
    owner = entry->pw_name;
  char mode[8];
  std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
  return std::string(kind) + " owned by " + owner + ", mode " + mode;
}

fs::path temporaryPathBeside(const fs::path &path) {
  // Seeded once per process: asking the system for randomness on every
  // write costs more than the write of a small file.
  static std::mt19937 random{std::random_device{}()};
  return path.parent_path() / (std::string(kTemporaryPrefix) + std::to_string(random()));
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

bool writeFileAtomically(const fs::path &path, std::span<const uint8_t> bytes, Durability durability) {
  const fs::path temporary = temporaryPathBeside(path);
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0)
    return false;
  size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      break;
    written += static_cast<size_t>(n);
  }
  // A short write leaves errno as it was (ENOSPC from the failing write).
  const bool complete = written == bytes.size() && (durability == Durability::ByNextSync || fsync(fd) == 0);
  int reason = errno;
  close(fd);
  if (complete && std::rename(temporary.c_str(), path.c_str()) == 0)
    return true;
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

bool moveItem(const fs::path &from, const fs::path &to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
    return true;
  if (errno == EINVAL && !fileExistsAtPath(to)) {
    // File systems without the no-replace flag: a hard link fails on an
    // existing target just as well.
    if (link(from.c_str(), to.c_str()) == 0)
      return unlink(from.c_str()) == 0;
  }
  if (errno != EXDEV || fileExistsAtPath(to))
    return false;
  // Across file systems: copy beside the target and rename it into place,
  // so the target is never a part; remove the original only then.
  const fs::path temporary = temporaryPathBeside(to);
  std::error_code error;
  fs::copy(from, temporary, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
  if (error || renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) != 0) {
    fs::remove_all(temporary, error);
    return false;
  }
  fs::remove_all(from, error);
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

} // namespace parlova
