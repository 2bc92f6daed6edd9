// The yardstick of the index's cost: nothing but libsqlite3 putting texts
// into a bare full-text table in one transaction, as a C program would.
//
//   fts-alone DATABASE TEXTS
//
// TEXTS holds the texts one after the other, each after its length as four
// bytes, least significant first.
#include <cstdint>
#include <cstdio>
#include <sqlite3.h>
#include <vector>

int main(int argc, char **argv) {
  if (argc != 3) {
    std::fputs("usage: fts-alone DATABASE TEXTS\n", stderr);
    return 2;
  }
  FILE *texts = std::fopen(argv[2], "rb");
  sqlite3 *database = nullptr;
  if (!texts || sqlite3_open(argv[1], &database) != SQLITE_OK)
    return 1;
  sqlite3_exec(database, "CREATE VIRTUAL TABLE t USING fts5 (text, tokenize = 'unicode61 remove_diacritics 2')",
               nullptr, nullptr, nullptr);
  sqlite3_exec(database, "BEGIN", nullptr, nullptr, nullptr);
  sqlite3_stmt *insert = nullptr;
  sqlite3_prepare_v2(database, "INSERT INTO t VALUES (?1)", -1, &insert, nullptr);
  std::vector<char> text;
  for (uint8_t length[4]; std::fread(length, 1, 4, texts) == 4;) {
    text.resize(length[0] | length[1] << 8 | length[2] << 16 | static_cast<uint32_t>(length[3]) << 24);
    if (std::fread(text.data(), 1, text.size(), texts) != text.size())
      return 1;
    sqlite3_bind_text(insert, 1, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
    sqlite3_step(insert);
    sqlite3_reset(insert);
  }
  sqlite3_finalize(insert);
  const int committed = sqlite3_exec(database, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(database);
  std::fclose(texts);
  return committed == SQLITE_OK ? 0 : 1;
}
