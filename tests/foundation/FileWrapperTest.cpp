// Serialized file wrappers as Foundation writes them. The golden bytes come
// from outside this project, so the reader and the fixture writer are held
// to the Mac's layout rather than to each other:
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

using fixtures::AttachmentSpec;
using fixtures::serializedFileWrapper;

// The article's folder "Test1", as printed there.
const std::vector<uint8_t> kEmptyFolder = fromHex(
    "72 74 66 64 00 00 00 00 03 00 00 00 02 00 00 00 13 00 00 00 5F 5F 40 50 72 65 66 65 72 72 65 64 4E 61 6D 65 "
    "40 5F 5F 17 00 00 00 5F 5F 40 55 54 46 38 50 72 65 66 65 72 72 65 64 4E 61 6D 65 40 5F 5F 0D 00 00 00 0D 00 "
    "00 00 01 00 00 00 05 00 00 00 54 65 73 74 31 01 00 00 00 05 00 00 00 54 65 73 74 31");

// "hello.txt" holding "Hello, world", permissions 0644.
const std::vector<uint8_t> kRegularFile = fromHex(
    "72746664 00000000"                                       // "rtfd", zero
    "03000000 04000000"                                       // a table of four entries
    "02000000 2E2E"                                           // ".."
    "13000000 5F5F40507265666572726564 4E616D65405F5F"        // "__@PreferredName@__"
    "17000000 5F5F405554463850726566 65727265644E616D65405F5F" // "__@UTF8PreferredName@__"
    "01000000 2E"                                             // "."
    "14000000 11000000 11000000 26000000"                     // record sizes
    "01000000 0C000000 48656C6C6F2C20776F726C64"              // data: the contents
    "01000000 09000000 68656C6C6F2E747874"                    // data: "hello.txt"
    "01000000 09000000 68656C6C6F2E747874"                    // data: "hello.txt"
    "01000000 1E000000"                                       // data: 30 bytes of attributes,
    "01000000 02000000 2E2E 10000000 00000000 A4010000 02000000 01000000"); // 0644 for ".."

// Folder "Test3" holding "a.txt" ("A") and folder "Sub" holding "b.txt" ("B").
const std::vector<uint8_t> kNestedFolder = fromHex(
    "72746664 00000000 03000000 04000000"
    "13000000 5F5F40507265666572726564 4E616D65405F5F"
    "17000000 5F5F405554463850726566 65727265644E616D65405F5F"
    "05000000 612E747874"          // "a.txt"
    "03000000 537562"              // "Sub"
    "0D000000 0D000000 09000000 6E000000"
    "01000000 05000000 5465737433" // "Test3"
    "01000000 05000000 5465737433"
    "01000000 01000000 41"         // a.txt: a bare data record
    "03000000 03000000"            // Sub: a table without a header of its own
    "13000000 5F5F40507265666572726564 4E616D65405F5F"
    "17000000 5F5F405554463850726566 65727265644E616D65405F5F"
    "05000000 622E747874"
    "0B000000 0B000000 09000000"
    "01000000 03000000 537562"
    "01000000 03000000 537562"
    "01000000 01000000 42");

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
