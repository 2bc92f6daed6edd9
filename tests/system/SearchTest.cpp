// parlova-search over the message index the runs keep: planted messages
// found with their chat and nothing else, a count against the texts the
// backlog generator wrote, and every way a query or an option can be wrong.
// Its JSON is read back with Python's json module.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>

#include "samples/Backlog.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;
using namespace samples;

const Account kMe{"AIM", "parlovauser"};

class Search : public ::testing::Test {
protected:
  void SetUp() override {
    installShippedFiles(home_);
    home_.setSetting("keepHistory", "-bool", "YES");
  }
  // "account|time|text" of each hit, as Python's json module reads the
  // JSON lines; the exit status last.
  std::string found(const std::vector<std::string> &arguments) const {
    std::vector<std::string> withJson = {"--json"};
    withJson.insert(withJson.end(), arguments.begin(), arguments.end());
    const auto result = home_.run("parlova-search", withJson, {{"TZ", "UTC"}});
    const fs::path output = home_.path() / "hits.json";
    writeText(output, result.out);
    return pythonReading("import json, sys\n"
                         "for line in open(sys.argv[1], encoding='utf-8'):\n"
                         "    hit = json.loads(line)\n"
                         "    assert sorted(hit) == ['account', 'page', 'snippet', 'speaker', 'text', 'time',\n"
                         "                           'transcript', 'with'] and hit['page'] is None\n"
                         "    print(hit['account'], hit['time'], hit['text'], sep='|')\n",
                         output) +
           (result.out.empty() ? "" : "\n") + "exit " + std::to_string(result.exitCode);
  }
  ScratchHome home_;
};

TEST_F(Search, PlantedMessagesAreFoundWithTheirChatAndNothingElse) {
  const Account alice{"AIM", "alice1979"}, bob{"AIM", "bobbytables"};
  TranscriptSpec keyed;
  keyed.others = {alice};
  keyed.messages = {says(alice, 157629600, "my frequent flyer number is 4242-1717"),   // 2005-12-30 10:00
                    says(kMe, 157629660, "Jos\xC3\xA9 says the quick brown fox jumps"),
                    says(alice, 157629720, "antidisestablishmentarianism and pancakes"),
                    withLink(kMe, 157629780, "http://example.com/recipe")};
  home_.addTranscript("Alice on 2005-12-30 at 10.00.ichat", keyed);
  TranscriptSpec typed;
  typed.others = {bob};
  typed.messages = {says(bob, 100000000, "pancakes for breakfast?"), // 2004-03-03 09:46
                    says(kMe, 100000060, "sure")};
  writeFile(home_.chats() / "Bob on 2004-03-03 at 00.53.chat", typedStreamTranscript(typed));
  ASSERT_EQ(home_.run("parlova", {"--catch-up", "--quiet"}).exitCode, 0);

  EXPECT_EQ(found({"4242"}), "alice1979|2005-12-30T10:00:00+00:00|my frequent flyer number is 4242-1717\nexit 0");
  EXPECT_EQ(found({"jose"}), "parlovauser|2005-12-30T10:01:00+00:00|Jos\xC3\xA9 says the quick brown fox jumps\nexit 0");
  EXPECT_EQ(found({"\"brown fox\""}).substr(0, 12), "parlovauser|");
  EXPECT_EQ(found({"\"fox brown\""}), "exit 1");
  EXPECT_EQ(found({"antidis*"}).substr(0, 10), "alice1979|");
  EXPECT_EQ(found({"http://example.com/recipe"}).substr(0, 12), "parlovauser|");
  EXPECT_EQ(found({"pancakes", "--sort", "date"}),
            "bobbytables|2004-03-03T09:46:40+00:00|pancakes for breakfast?\n"
            "alice1979|2005-12-30T10:02:00+00:00|antidisestablishmentarianism and pancakes\nexit 0");
  EXPECT_EQ(found({"pancakes", "--with", "BOBBYTABLES"}).substr(0, 12), "bobbytables|");
  EXPECT_EQ(found({"pancakes", "--with", "alice"}).substr(0, 10), "alice1979|");
  EXPECT_EQ(found({"pancakes", "--since", "2005-12-30"}).substr(0, 10), "alice1979|");
  EXPECT_EQ(found({"pancakes", "--until", "2005-12-29"}).substr(0, 12), "bobbytables|");
  EXPECT_EQ(found({"pancakes", "--until", "2004-03-02"}), "exit 1");
  const std::string all = found({"pancakes", "OR", "4242"}), first = found({"pancakes", "OR", "4242", "--limit", "1"});
  EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 3) << all;
  EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 1) << first;

  // For people: the chat, its transcript, the hit among its neighbours.
  const auto shown = home_.run("parlova-search", {"--context", "1", "flyer"}, {{"TZ", "UTC"}});
  EXPECT_EQ(shown.out, "2005-12-30 10:00  Alice\n  " + (home_.archive() / "Alice on 2005-12-30 at 10.00.ichat").string() +
                           "\n  > 10:00  alice1979: my frequent flyer number is 4242-1717\n"
                           "    10:01  parlovauser: Jos\xC3\xA9 says the quick brown fox jumps\n")
      << shown.err;

  // Rebuilt after the history was lost, and again: the same hits, once.
  const std::string before = found({"pancakes"});
  fs::remove(home_.path() / "Library" / "Parlova" / "history.sqlite");
  home_.run("parlova", {"--rebuild-history", "--quiet"});
  home_.run("parlova", {"--rebuild-history", "--quiet"});
  EXPECT_EQ(found({"pancakes"}), before);
}

// What a stranger typed (a name, a file name, a message) cannot set the
// window's title, clear the screen or make text blink: shown, not sent.
TEST_F(Search, EscapeSequencesTypedByOthersAreShownNotSent) {
  const Account eve{"AIM", "eve\x1B[5m"};
  TranscriptSpec spec;
  spec.others = {eve};
  spec.messages = {says(eve, 157629600, "title \x1B]0;owned\x07 then \x1B[2J and \xC2\x9B" "31m")};
  const fs::path transcript = home_.addTranscript("Eve\x1B[2J on 2005-12-30 at 10.00.ichat", spec);
  ASSERT_EQ(home_.run("parlova", {"--catch-up", "--quiet"}).exitCode, 0);
  const auto shown = home_.run("parlova-search", {"owned"}, {{"TZ", "UTC"}});
  EXPECT_EQ(shown.out, "2005-12-30 10:00  Eve^[[2J\n  " + home_.archive().string() +
                           "/Eve^[[2J on 2005-12-30 at 10.00.ichat\n"
                           "  10:00  eve^[[5m: title ^[]0;owned^G then ^[[2J and ^[[31m\n")
      << shown.err;
}

// Every message that holds the word, as the generator wrote it, is one hit.
TEST_F(Search, EachMessageHoldingTheWordIsOneHit) {
  std::vector<std::string> texts;
  writeBacklog(home_.chats(), {.transcripts = 60, .seed = 9, .people = 10, .longestChat = 30, .texts = &texts});
  ASSERT_EQ(home_.run("parlova", {"--catch-up", "--quiet"}).exitCode, 0);
  for (const std::string word : {"movie", "tonight"}) {
    const size_t holding = static_cast<size_t>(std::count_if(texts.begin(), texts.end(), [&](std::string text) {
      // A sent file is a word of its own, whatever stands before it.
      for (size_t at = text.find("\xEF\xBF\xBC"); at != std::string::npos; at = text.find("\xEF\xBF\xBC", at))
        text.replace(at, 3, " ");
      std::istringstream words(text);
      return std::any_of(std::istream_iterator<std::string>(words), std::istream_iterator<std::string>(),
                         [&](const std::string &each) { return each == word; });
    }));
    ASSERT_GT(holding, 1u);
    const auto result = home_.run("parlova-search", {"--json", "--limit", "0", word});
    EXPECT_EQ(static_cast<size_t>(std::count(result.out.begin(), result.out.end(), '\n')), holding) << word;

    // Best first, ties by row, whether every hit fits the limit or not:
    // the same order as SQLite ranks them for another reader.
    writeText(home_.path() / "all.json", result.out);
    EXPECT_EQ(pythonReading("import json, sqlite3, sys\n"
                            "db = sqlite3.connect(sys.argv[1] + '/Library/Parlova/history.sqlite')\n"
                            "ranked = [t for (t,) in db.execute(\"SELECT text FROM texts WHERE texts MATCH ? \"\n"
                            "                                   \"ORDER BY rank, rowid\", ('" + word + "',))]\n"
                            "hits = [json.loads(line)['text'] for line in open(sys.argv[1] + '/all.json')]\n"
                            "print(hits == ranked)\n",
                            home_.path()),
              "True")
        << word;
    const std::string every = home_.run("parlova-search", {"--json", "--limit", std::to_string(holding), word}).out;
    const std::string allButOne =
        home_.run("parlova-search", {"--json", "--limit", std::to_string(holding - 1), word}).out;
    EXPECT_EQ(every, result.out) << word;
    EXPECT_EQ(allButOne, result.out.substr(0, result.out.rfind('\n', result.out.size() - 2) + 1)) << word;
  }
}

// Ranking a word in many thousands of messages costs more than grep does;
// above 10,000 the first page is the newest messages kept instead.
TEST_F(Search, AWordInMoreThanTenThousandMessagesListsTheNewestFirst) {
  writeBacklog(home_.chats(), {.transcripts = 3000, .seed = 4});
  ASSERT_EQ(home_.run("parlova", {"--catch-up", "--quiet"}).exitCode, 0);
  const fs::path output = home_.path() / "hits.json";
  writeText(output, home_.run("parlova-search", {"--json", "movie"}).out);
  EXPECT_EQ(pythonReading("import json, sqlite3, sys\n"
                          "db = sqlite3.connect(sys.argv[1] + '/Library/Parlova/history.sqlite')\n"
                          "match = \"FROM texts WHERE texts MATCH 'movie'\"\n"
                          "count = db.execute('SELECT count(*) ' + match).fetchone()[0]\n"
                          "newest = [t for (t,) in db.execute('SELECT text ' + match + ' ORDER BY rowid DESC LIMIT 50')]\n"
                          "hits = [json.loads(line)['text'] for line in open(sys.argv[1] + '/hits.json')]\n"
                          "print(count > 10000, hits == newest)\n",
                          home_.path()),
            "True True");
}

TEST_F(Search, BadQueriesAndOptionsSayWhatIsWrongInOneLine) {
  const std::vector<std::vector<std::string>> wrong = {
      {"--json"}, {"\"unclosed"}, {"OR"}, {"AND", "pancakes"}, {"pancakes", "NOT"},
      {"--since", "2005-13-01", "x"}, {"--until", "yesterday", "x"}, {"--limit", "many", "x"},
      {"--sort", "best", "x"}, {"--context"}, {"--colour", "x"}};
  const auto noIndex = home_.run("parlova-search", {"pancakes"});
  EXPECT_EQ(noIndex.exitCode, 2);
  EXPECT_NE(noIndex.err.find("make it with: parlova --rebuild-history"), std::string::npos) << noIndex.err;
  home_.addTranscript("Carol on 2006-01-01 at 10.00.ichat", simpleChat("carol"));
  ASSERT_EQ(home_.run("parlova").exitCode, 0);
  for (const auto &arguments : wrong) {
    const auto result = home_.run("parlova-search", arguments);
    std::string said;
    for (const auto &argument : arguments)
      said += argument + " ";
    EXPECT_EQ(result.exitCode, 2) << said;
    EXPECT_EQ(result.out, "") << said;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << said << result.err;
    EXPECT_EQ(result.err.rfind("parlova-search: ", 0), 0u) << said << result.err;
    for (const char *sqlite : {"fts5", "SQL", "sqlite", "no such"})
      EXPECT_EQ(result.err.find(sqlite), std::string::npos) << said << result.err;
  }
  EXPECT_EQ(home_.run("parlova-search", {"nowhere"}).exitCode, 1);
}

// Chats found without a word from them, people by the start of a name,
// and a sent file by its name: also in an index made when the names were
// glued to the word before them, once a rebuild has read those chats again.
TEST_F(Search, PeopleChatsAndSentFilesAreFoundAsTypedAlsoInAnOlderIndex) {
  const Account alice{"AIM", "alice1979"}, alicia{"AIM", "alicia"}, bob{"AIM", "bobbytables"};
  for (const auto &[who, time] : {std::pair{alice, 157629600.0}, {alicia, 157800000.0}, {bob, 100000000.0}}) {
    TranscriptSpec chat;
    chat.others = {who};
    MessageSpec sent = withPicture(who, time + 60, "pic2916.png", {1, 2, 3});
    sent.runs.insert(sent.runs.begin(), text("number"));
    chat.messages = {says(who, time, "hello"), who.id == "alicia" ? says(who, time + 60, "bye") : sent};
    home_.addTranscript(who.id + " on 2005.ichat", chat);
  }
  ASSERT_EQ(home_.run("parlova", {"--catch-up"}).exitCode, 0);
  const auto search = [&](const std::vector<std::string> &arguments) {
    const auto result = home_.run("parlova-search", arguments, {{"TZ", "UTC"}});
    return result.out + result.err + "exit " + std::to_string(result.exitCode);
  };
  EXPECT_EQ(countOccurrences(search({"pic2916.png"}), "number pic2916.png"), 2u);
  EXPECT_EQ(search({"--people"}), "alice1979  1 chat, the last 2005-12-30\n"
                                  "alicia  1 chat, the last 2006-01-01\n"
                                  "bobbytables  1 chat, the last 2004-03-03\n"
                                  "exit 0");
  const struct {
    std::vector<std::string> arguments;
    std::string shows;
  } cases[] = {
      {{"--with", "ali", "hello"}, "could be any of 2 people: alice1979, alicia; give more of the name\nexit 2"},
      {{"--with", "carol"}, "nobody in the history is called carol (parlova-search --people lists everybody)\nexit 2"},
      {{"--with", "ALICE1", "hello"}, "alice1979 on 2005.ichat\n  10:00  alice1979: hello\nexit 0"},
      {{"--with", "alicia", "--with", "bob"}, "2004-03-03 09:46  bobbytables  2 messages\n"},
      {{"--since", "2006-01-01"}, "2006-01-01 09:20  alicia  2 messages\n"},
  };
  for (const auto &c : cases)
    EXPECT_NE(search(c.arguments).find(c.shows), std::string::npos) << c.arguments.front() << "\n"
                                                                     << search(c.arguments);
  EXPECT_EQ(countOccurrences(search({"--with", "alicia", "--with", "bob"}), " messages\n"), 2u);

  // As an earlier version kept it: the name glued, the version before.
  const fs::path history = home_.path() / "Library/Parlova/history.sqlite";
  pythonReading("import sqlite3, sys\ndb = sqlite3.connect(sys.argv[1])\n"
                "db.execute(\"UPDATE texts SET text = replace(text, ' pic2916', 'pic2916')\")\n"
                "db.executescript('ALTER TABLE chats DROP COLUMN first_row; DROP TABLE reindex; PRAGMA user_version = 1')\n",
                history);
  EXPECT_EQ(search({"pic2916.png"}), "exit 1");
  const auto dry = home_.run("parlova", {"--rebuild-history", "--dry-run"});
  EXPECT_NE(dry.out.find("0 to add to " + history.string() + "\n2 chats there already to index anew"),
            std::string::npos)
      << dry.out;
  const auto rebuilt = home_.run("parlova", {"--rebuild-history"});
  EXPECT_NE(rebuilt.err.find(" 3 there already (2 of them indexed anew), "), std::string::npos) << rebuilt.err;
  EXPECT_EQ(countOccurrences(search({"pic2916.png"}), "number pic2916.png"), 2u);
  EXPECT_NE(home_.run("parlova", {"--rebuild-history"}).err.find(" 3 there already, "), std::string::npos);
}

// A history written before versions were kept (the file in tests/data is
// one, as that program wrote it) is migrated and takes new chats; one with
// a column added at this version too; one of a newer version is searched
// but never written, and archiving goes on without it.
TEST_F(Search, OlderHistoriesAreMigratedAndANewerOneIsReadButNeverWritten) {
  struct Case {
    const char *name;
    const char *change; // SQL run on the old file first
    int64_t version;    // user_version after the catch-up
    const char *chats;  // the rows after it
    bool rebuilds;
  };
  const Case cases[] = {
      {"as written", "", 3, "3", true},
      {"with a column more", "ALTER TABLE chats ADD COLUMN mood TEXT; PRAGMA user_version = 1", 3, "3", true},
      {"newer", "ALTER TABLE chats ADD COLUMN mood TEXT NOT NULL DEFAULT 'calm'; PRAGMA user_version = 7", 7, "2",
       false},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome home;
    installShippedFiles(home);
    home.setSetting("keepHistory", "-bool", "YES");
    const fs::path history = home.path() / "Library" / "Parlova" / "history.sqlite";
    fs::copy_file(fs::path(PARLOVA_SOURCE_DIR) / "tests" / "data" / "history-before-versions.sqlite", history);
    pythonReading(std::string("import sqlite3, sys\nsqlite3.connect(sys.argv[1]).executescript(\"") + c.change +
                      "\")\n",
                  history);
    home.addTranscript("carol on 2006-05-03 at 19.33.ichat", simpleChat("carol"));

    const ToolResult run = home.run("parlova", {"--catch-up", "--quiet"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(fs::exists(home.archive() / "carol on 2006-05-03 at 19.33.ichat"));
    EXPECT_EQ(countOccurrences(run.err, "was written by a newer version of Parlova; this one adds no chats"),
              c.rebuilds ? 0u : 1u)
        << run.err;
    // Where each chat's messages begin, found for the chats of before.
    EXPECT_EQ(pythonReading("import sqlite3, sys\ndb = sqlite3.connect(sys.argv[1])\n"
                            "try: astray = db.execute('SELECT count(*) FROM chats c WHERE c.first_row IS NOT '\n"
                            "    '(SELECT min(rowid) FROM texts WHERE chat = c.id)').fetchone()[0]\n"
                            "except sqlite3.OperationalError: astray = '-'\n"
                            "print(db.execute('PRAGMA user_version').fetchone()[0],\n"
                            "      db.execute('SELECT count(*) FROM chats').fetchone()[0], astray)\n",
                            history),
              std::to_string(c.version) + " " + c.chats + (c.rebuilds ? " 0" : " -"));
    // The old rows are found, by a search that only reads.
    const auto old = home.run("parlova-search", {"tonight"});
    EXPECT_EQ(old.exitCode, 0) << old.err;
    EXPECT_NE(old.out.find("are you coming tonight"), std::string::npos) << old.out;
    EXPECT_EQ(home.run("parlova-search", {"hi"}).exitCode, c.rebuilds ? 0 : 1);
    EXPECT_EQ(home.run("parlova", {"--rebuild-history", "--quiet"}).exitCode, c.rebuilds ? 0 : 1);
  }
}

} // namespace
} // namespace parlova::testing
