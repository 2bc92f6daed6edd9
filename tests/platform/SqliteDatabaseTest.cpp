// A reader's statements are kept for their next use: one comes back as if
// newly prepared, whatever its last use left (a row half read, values
// bound), and one may outlive its connection.
#include <gtest/gtest.h>

#include <optional>

#include "platform/SqliteDatabase.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;

TEST(SqliteDatabase, AReadersStatementComesBackAsNewAndMayOutliveItsConnection) {
  ScratchHome home;
  const fs::path file = home.path() / "kept.sqlite";
  auto writer = std::get<SqliteDatabase>(SqliteDatabase::open(file));
  ASSERT_FALSE(writer.execute("PRAGMA journal_mode = WAL; CREATE TABLE t(a); INSERT INTO t VALUES (1), (2), (3)"));
  auto reader = std::get<SqliteDatabase>(SqliteDatabase::openForReading(file));
  const std::string counting = "SELECT count(*) FROM t WHERE ?1 IS NULL OR a = ?1";
  const auto countOf = [&](std::optional<int64_t> only) {
    auto statement = std::get<SqliteStatement>(reader.prepare(counting));
    if (only)
      statement.bind(1, *only);
    const auto row = statement.step();
    EXPECT_TRUE(std::holds_alternative<bool>(row) && std::get<bool>(row));
    return statement.integer(0);
  };
  // Each let go with its row read, its value bound and its read of the
  // file open; the next one sees the row written meanwhile.
  EXPECT_EQ(countOf(2), 1);
  EXPECT_EQ(countOf(std::nullopt), 3);
  ASSERT_FALSE(writer.execute("INSERT INTO t VALUES (4)"));
  EXPECT_EQ(countOf(std::nullopt), 4);
  EXPECT_EQ(countOf(4), 1);

  std::optional<SqliteStatement> outliving;
  {
    auto brief = std::get<SqliteDatabase>(SqliteDatabase::openForReading(file));
    outliving = std::get<SqliteStatement>(brief.prepare(counting));
  }
  outliving.reset();
}

} // namespace
} // namespace parlova::testing
