// The yardstick of a search as a whole process: nothing but libsqlite3
// opening the history and running the statements it is given, as a C
// program would, without this program's own start-up or output.
//
//   sqlite-alone DATABASE QUERY LIMIT STATEMENT...
//
// Each statement gets the query as ?1 and the limit as ?5; its rows are
// read and dropped.
#include <cstdio>
#include <cstdlib>
#include <sqlite3.h>

int main(int argc, char **argv) {
  if (argc < 5) {
    std::fputs("usage: sqlite-alone DATABASE QUERY LIMIT STATEMENT...\n", stderr);
    return 2;
  }
  sqlite3 *database = nullptr;
  if (sqlite3_open_v2(argv[1], &database, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK)
    return 1;
  int rows = 0;
  for (int i = 4; i < argc; ++i) {
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(database, argv[i], -1, &statement, nullptr) != SQLITE_OK)
      return 1;
    sqlite3_bind_text(statement, 1, argv[2], -1, SQLITE_STATIC);
    if (sqlite3_bind_parameter_count(statement) >= 5)
      sqlite3_bind_int(statement, 5, std::atoi(argv[3]));
    while (sqlite3_step(statement) == SQLITE_ROW)
      ++rows;
    sqlite3_finalize(statement);
  }
  sqlite3_close(database);
  return rows > 0 ? 0 : 1;
}
