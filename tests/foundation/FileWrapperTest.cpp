// Serialized file wrappers as Foundation writes them. The golden bytes (in
// tests/data/filewrapper) come from outside this project, so the reader and
// the sample writer are held to the Mac's layout rather than to each other:
// - the empty folder is the hex dump in Simon Rodriguez, "NSFileWrapper
//   serializedRepresentation" (2015);
// - the regular file follows the field order, record types and 30-byte
//   attribute record that independent readers of Foundation's output pin
//   down (contents under "..", attributes under ".");
// - the nested folder follows the same article's extractor: nested tables
//   without a header of their own, files inside a folder as bare data.
#include <gtest/gtest.h>

#include "foundation/FileWrapper.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

using samples::AttachmentSpec;
using samples::serializedFileWrapper;

const std::vector<uint8_t> kEmptyFolder = hexData("filewrapper/empty-folder.hex");
const std::vector<uint8_t> kRegularFile = hexData("filewrapper/regular-file.hex");
const std::vector<uint8_t> kNestedFolder = hexData("filewrapper/nested-folder.hex");

std::vector<uint8_t> bytes(std::string_view text) { return {text.begin(), text.end()}; }

TEST(FileWrapperFormat, ReadsFoundationsLayouts) {
  const auto file = FileWrapper::fromSerializedRepresentation(kRegularFile);
  ASSERT_TRUE(file);
  EXPECT_TRUE(file->isRegularFile());
  EXPECT_EQ(file->preferredFilename(), "hello.txt");
  EXPECT_EQ(file->regularFileContents(), bytes("Hello, world")) << "the contents are '..', never the attributes";

  const auto empty = FileWrapper::fromSerializedRepresentation(kEmptyFolder);
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->isDirectory());
  EXPECT_EQ(empty->preferredFilename(), "Test1");
  EXPECT_TRUE(empty->fileWrappers().empty());

  const auto nested = FileWrapper::fromSerializedRepresentation(kNestedFolder);
  ASSERT_TRUE(nested);
  ASSERT_TRUE(nested->isDirectory());
  EXPECT_EQ(nested->preferredFilename(), "Test3");
  ASSERT_EQ(nested->fileWrappers().size(), 2u);
  const auto &a = nested->fileWrappers()[0];
  EXPECT_TRUE(a->isRegularFile());
  EXPECT_EQ(a->preferredFilename(), "a.txt");
  EXPECT_EQ(a->regularFileContents(), bytes("A"));
  const auto &sub = nested->fileWrappers()[1];
  ASSERT_TRUE(sub->isDirectory());
  EXPECT_EQ(sub->preferredFilename(), "Sub");
  ASSERT_EQ(sub->fileWrappers().size(), 1u);
  EXPECT_EQ(sub->fileWrappers()[0]->preferredFilename(), "b.txt");
  EXPECT_EQ(sub->fileWrappers()[0]->regularFileContents(), bytes("B"));
}

TEST(FileWrapperFormat, FixtureWriterWritesFoundationsBytes) {
  EXPECT_EQ(serializedFileWrapper({.fileName = "hello.txt", .bytes = bytes("Hello, world")}), kRegularFile);
  EXPECT_EQ(serializedFileWrapper({.fileName = "Test1", .isFolder = true}), kEmptyFolder);
  const AttachmentSpec sub{.fileName = "Sub", .isFolder = true, .children = {{.fileName = "b.txt", .bytes = bytes("B")}}};
  EXPECT_EQ(serializedFileWrapper(
                {.fileName = "Test3", .isFolder = true, .children = {{.fileName = "a.txt", .bytes = bytes("A")}, sub}}),
            kNestedFolder);
}

TEST(FileWrapperFormat, ReadsTheLongFormAndRejectsDamage) {
  // The contents in the long form: 0x80000000, the size, a padding count,
  // the padding, then the bytes.
  const auto padded = fromHex("72746664 00000000 03000000 01000000 02000000 2E2E 15000000"
                              "01000000 00000080 03000000 02000000 0000 616263");
  const auto wrapper = FileWrapper::fromSerializedRepresentation(padded);
  ASSERT_TRUE(wrapper);
  EXPECT_TRUE(wrapper->isRegularFile());
  EXPECT_EQ(wrapper->regularFileContents(), bytes("abc"));

  for (const auto &golden : {padded, kRegularFile, kNestedFolder})
    for (size_t cut = 0; cut < golden.size(); ++cut)
      EXPECT_FALSE(FileWrapper::fromSerializedRepresentation(std::span(golden).first(cut))) << cut;
  auto hugeCount = padded;
  hugeCount[12] = 0xFF, hugeCount[13] = 0xFF, hugeCount[14] = 0xFF, hugeCount[15] = 0x7F;
  EXPECT_FALSE(FileWrapper::fromSerializedRepresentation(hugeCount));
}

} // namespace
} // namespace parlova::testing
