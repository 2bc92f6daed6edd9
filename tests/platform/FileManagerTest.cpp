// The file operations every archive and move goes through: a move never
// replaces anything nor leaves a file in two places, a walk goes deep but not through links, a private
// write is private from its first byte, and leftovers are found again.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "platform/FileManager.h"
#include "platform/GatheredWriter.h"
#include "platform/MappedFile.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;

TEST(FileManager, MovesNeverReplaceAndCopiesAcrossFileSystemsKeepTheOriginalUntilDone) {
  ScratchHome home;
  const fs::path from = home.path() / "a.ichat", taken = home.path() / "b.ichat";
  writeText(from, "transcript");
  writeText(taken, "an earlier copy");
  EXPECT_FALSE(moveItem(from, taken));
  EXPECT_EQ(readText(from), "transcript");
  EXPECT_EQ(readText(taken), "an earlier copy");
  for (const Durability durability : {Durability::Now, Durability::ByNextSync}) {
    const fs::path to = home.path() / "moved" / "a.ichat";
    fs::create_directories(to.parent_path());
    EXPECT_TRUE(moveItem(from, to, durability));
    EXPECT_FALSE(fs::exists(from));
    EXPECT_EQ(readText(to), "transcript");
    fs::rename(to, from);
  }
  // Another file system, full: the copy fails and the original stays whole.
  const fs::path small = home.path() / "small";
  fs::create_directories(small);
  if (std::system(("mount -t tmpfs -o size=16k tmpfs '" + small.string() + "' 2>/dev/null").c_str()) != 0)
    GTEST_SKIP() << "needs root to mount a small file system";
  writeText(from, std::string(64 * 1024, 'x'));
  const bool moved = moveItem(from, small / "a.ichat");
  const auto left = filesBelow(small);
  std::system(("umount '" + small.string() + "'").c_str());
  EXPECT_FALSE(moved);
  EXPECT_EQ(left, std::vector<std::string>{}) << "no part of the copy is left";
  EXPECT_EQ(readText(from).size(), 64u * 1024);

  // The mirror: the copy lands but the original cannot go (a read-only
  // disk from an old Mac): the copy goes too, so it is in one place only.
  const fs::path oldDisk = home.path() / "old-disk";
  writeText(oldDisk / "c.ichat", "transcript");
  const std::string disk = "'" + oldDisk.string() + "'";
  std::system(("mount -t tmpfs -o size=1m tmpfs '" + small.string() + "' && mount --bind " + disk + " " + disk +
               " && mount -o remount,bind,ro " + disk).c_str());
  const bool movedOff = moveItem(oldDisk / "c.ichat", small / "c.ichat");
  const auto copied = filesBelow(small);
  std::system(("umount " + disk + "; umount '" + small.string() + "'").c_str());
  EXPECT_FALSE(movedOff);
  EXPECT_EQ(copied, std::vector<std::string>{});
  EXPECT_EQ(readText(oldDisk / "c.ichat"), "transcript");
}

TEST(FileManager, TheWalkGoesDeepButNotThroughLinksAndNamesAreSplitAsFoundationSplitsThem) {
  ScratchHome home;
  const fs::path root = home.path() / "iChats";
  writeText(root / "2005-03-14" / "Bob on 2005-03-14.ichat", "");
  writeText(root / "top.chat", "");
  fs::create_directory_symlink(home.path(), root / "elsewhere");
  std::vector<std::string> walked;
  for (DirectoryEnumerator walk(root); const auto entry = walk.nextObject();)
    walked.push_back(*entry);
  std::sort(walked.begin(), walked.end());
  EXPECT_EQ(walked, (std::vector<std::string>{"2005-03-14", "2005-03-14/Bob on 2005-03-14.ichat", "elsewhere",
                                              "top.chat"}));
  EXPECT_FALSE(DirectoryEnumerator(home.path() / "missing").nextObject());

  const struct {
    const char *name, *extension, *stem;
  } names[] = {{"Bob on 2006.ichat", "ichat", "Bob on 2006"}, {"a.tar.gz", "gz", "a.tar"}, {"noext", "", "noext"}};
  for (const auto &name : names) {
    EXPECT_EQ(pathExtension(name.name), name.extension) << name.name;
    EXPECT_EQ(deletingPathExtension(name.name), name.stem) << name.name;
  }
}

TEST(FileManager, PrivateWritesArePrivateAndLeftoversOfADeadWriterAreRemoved) {
  ScratchHome home;
  const fs::path file = home.path() / "settings.plist";
  const std::vector<uint8_t> bytes = {'x'};
  ASSERT_TRUE(writeFileAtomically(file, bytes, Durability::Now, Visibility::Private));
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  const fs::path leftover = temporaryPathBeside(file);
  writeText(leftover, "half");
  removeLeftoverTemporaries(home.path());
  EXPECT_FALSE(fs::exists(leftover));
  EXPECT_EQ(*readFileContents(file), bytes);
  EXPECT_FALSE(readFileContents(home.path()));
}

// Small pieces are gathered and a large one goes alone, in their order; on a
// full disk the writer stops and keeps the failing write's reason, whatever
// the maker does after it.
TEST(FileManager, PiecesArriveInOrderAndAFullDiskKeepsItsReason) {
  ScratchHome home;
  const std::string large(100 * 1024, 'L');
  const std::vector<std::string> pieces = {"a", std::string(70 * 1024, 's'), "b", large, "c", large, ""};
  std::string expected;
  for (const std::string &piece : pieces)
    expected += piece;
  const PieceMaker make = [&](const PieceSink &piece) {
    for (const std::string &each : pieces) {
      piece(each);
      errno = EINVAL; // what the maker's own work may leave
    }
  };
  const fs::path file = home.path() / "page.html";
  ASSERT_TRUE(writeFileAtomically(file, make));
  EXPECT_EQ(readText(file), expected);

  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  if (full < 0)
    GTEST_SKIP() << "no /dev/full here";
  GatheredWriter out(full);
  make([&out](std::string_view piece) { out.add(piece); });
  EXPECT_FALSE(out.finish());
  EXPECT_EQ(errno, ENOSPC);
  close(full);
}

// A transcript is mapped, not read: its pages let go come back when read
// again, and one cut short under the mapping reads as zeros past the cut
// and says so, where the read would otherwise end the process. A file read
// in pieces is the same bytes as one read whole.
TEST(FileManager, AMappedFileLetsItsPagesGoAndOneCutShortSaysSo) {
  ScratchHome home;
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  std::string written(5 * page + 123, 'x');
  for (size_t i = 0; i < written.size(); i += 7)
    written[i] = static_cast<char>('a' + i % 26);
  const fs::path file = home.path() / "buddy on 2007-05-04 at 10.00.chat";
  ASSERT_TRUE(writeFileAtomically(file, std::span(reinterpret_cast<const uint8_t *>(written.data()), written.size())));
  std::string pieces;
  ASSERT_TRUE(readFileInPieces(file, [&](std::span<const uint8_t> piece) { pieces.append(piece.begin(), piece.end()); }));
  EXPECT_EQ(pieces, written);

  auto mapped = MappedFile::open(file);
  ASSERT_TRUE(mapped);
  const auto text = [&] { return std::string(mapped->bytes().begin(), mapped->bytes().end()); };
  EXPECT_EQ(text(), written);
  mapped->release(3 * page + 1);
  EXPECT_EQ(text(), written) << "pages let go come back from the file";
  EXPECT_FALSE(mapped->cutShort());

  mapped->release(written.size());
  ASSERT_EQ(truncate(file.c_str(), static_cast<off_t>(2 * page)), 0);
  std::string expected = written.substr(0, 2 * page) + std::string(written.size() - 2 * page, '\0');
  EXPECT_EQ(text(), expected);
  EXPECT_TRUE(mapped->cutShort());

  auto again = MappedFile::open(file);
  ASSERT_TRUE(again);
  EXPECT_EQ(again->bytes().size(), 2 * page);
  EXPECT_FALSE(again->cutShort()) << "a new mapping starts without the old one's cut";
  EXPECT_FALSE(MappedFile::open(home.path() / "nothing there.chat"));
  ASSERT_TRUE(writeFileAtomically(file, std::span<const uint8_t>()));
  const auto empty = MappedFile::open(file);
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->bytes().empty());
}

} // namespace
} // namespace parlova::testing
