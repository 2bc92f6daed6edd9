// The chat history (history.sqlite) through the tool: each row against the
// totals file, which counts the same transcript; kept once however often a
// transcript comes by; rebuilt from the processed folder; set aside when
// damaged; and the charts it draws on the statistics page, read back by
// Python's XML parser and shown in headless Chromium.
#include <algorithm>
#include <gtest/gtest.h>

#include "samples/Backlog.h"
#include "samples/ImageWriter.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;
using namespace samples;

const Account kMe{"AIM", "parlovauser"};

class History : public ::testing::Test {
protected:
  void SetUp() override {
    installShippedFiles(home_);
    home_.setSetting("handleURLs", "-bool", "YES");
    home_.setSetting("handleImages", "-bool", "YES");
    home_.setSetting("keepHistory", "-bool", "YES");
  }
  fs::path folder() const { return home_.path() / "Library" / "Parlova"; }
  // What Python's sqlite3 reads: every row of the history, sorted, but
  // for where the transcript is kept (of two copies, either may be named).
  std::string rows() const {
    return pythonReading("import sqlite3, sys\n"
                         "db = sqlite3.connect(sys.argv[1] + '/history.sqlite')\n"
                         "# Where a chat's messages begin in the index depends on the order of the runs.\n"
                         "for row in db.execute('SELECT * FROM chats ORDER BY key'): print(row[1:2] + row[3:-1])\n"
                         "for row in db.execute('SELECT c.key, s.weekday, s.hour, s.messages FROM slots s '\n"
                         "                      'JOIN chats c ON c.id = s.chat ORDER BY 1, 2, 3'): print(row)\n"
                         "# A single run's texts are made as they are written, a rebuild's held: the same rows.\n"
                         "for row in db.execute('SELECT c.key, t.time, p.account, p.name, t.text FROM texts t '\n"
                         "                      'JOIN chats c ON c.id = t.chat JOIN speakers p ON p.id = t.speaker '\n"
                         "                      'ORDER BY c.key, t.rowid'): print(row)\n",
                         folder());
  }
  // The page in headless Chromium: its console messages and whether its
  // picture holds more than a blank page.
  std::string shownInBrowser(const fs::path &page) const {
    const auto dom = inBrowser(home_, page);
    std::string console;
    std::istringstream lines(dom.err);
    for (std::string line; std::getline(lines, line);)
      if (line.find("INFO:CONSOLE") != std::string::npos)
        console += line + "\n";
    const fs::path picture = home_.path() / "page.png";
    home_.run("/usr/bin/chromium", {"--headless", "--no-sandbox", "--disable-gpu", "--window-size=1000,2400",
                                    "--user-data-dir=" + (home_.path() / "browser").string(),
                                    "--screenshot=" + picture.string(), "file://" + page.string()});
    // Decompressed, a blank page's picture holds a handful of byte values.
    const std::string colours = pythonReading("import struct, sys, zlib\n"
                                              "data = open(sys.argv[1], 'rb').read()\n"
                                              "at, idat = 8, b''\n"
                                              "while at < len(data):\n"
                                              "    size, kind = struct.unpack('>I4s', data[at:at + 8])\n"
                                              "    if kind == b'IDAT': idat += data[at + 8:at + 8 + size]\n"
                                              "    at += 12 + size\n"
                                              "print(len(set(zlib.decompress(idat))) > 64)\n",
                                              picture);
    return console + "not blank: " + colours;
  }
  ScratchHome home_;
};

// Each run carries one transcript; the row it adds must hold what the
// totals file grew by. Then: the same bytes again add no row, a rebuild
// gives the same rows and a second one adds nothing, and a damaged file is
// set aside.
TEST_F(History, EachRowHoldsWhatTheTotalsGrewByAndIsKeptOnce) {
  const Account alice{"AIM", "alice1979"}, bob{"AIM", "bobbytables"};
  TranscriptSpec keyed;
  keyed.others = {alice};
  keyed.messages = {says(alice, 157629600, "damn it, lol"), withLink(kMe, 157629660, "http://example.com/recipe"),
                    withPicture(alice, 157629720, "cake.png", pictureBytes(ImageFormat::PNG, 8, 8))};
  home_.addTranscript("Alice on 2005-12-30 at 10.00.ichat", keyed);
  TranscriptSpec typed;
  typed.others = {bob};
  typed.messages = {says(bob, 100000000, "brb omg"), says(kMe, 100003600, "ok then, see you")};
  writeFile(home_.chats() / "Bob on 2004-03-03 at 09.46.chat", typedStreamTranscript(typed));
  TranscriptSpec group;
  group.others = {alice, bob};
  group.messages = {says(alice, 130000000, "hello both"), says(bob, 130000060, "hi"), says(kMe, 130000120, "hey")};
  home_.addTranscript("Chat with Alice, Bob on 2005-02-12 at 16.53.ichat", group);
  TranscriptSpec wordless;
  wordless.others = {bob};
  wordless.messages = {withPicture(bob, 140000000, "only.png", pictureBytes(ImageFormat::PNG, 4, 4))};
  home_.addTranscript("Bob on 2005-06-07 at 08.53.ichat", wordless);

  // Prints how many rows are new and whether the one new row holds what
  // the totals grew by since the last call.
  const std::string compare =
      "import json, os, plistlib, sqlite3, sys\n"
      "state_file = sys.argv[1] + '/../history-test-state.json'\n"
      "state = json.load(open(state_file)) if os.path.exists(state_file) else {'totals': {}, 'keys': []}\n"
      "totals = plistlib.load(open(sys.argv[1] + '/chatgeist.plist', 'rb'))\n"
      "db = sqlite3.connect(sys.argv[1] + '/history.sqlite')\n"
      "rows = {r[0]: list(r[1:]) for r in db.execute('SELECT key, user_words, other_words, user_curses, "
      "other_curses, user_netspeak, other_netspeak, links, pictures FROM chats')}\n"
      "names = ['usertextcount', 'othertextcount', 'cursecount', 'othercursecount', 'netspeakcount',\n"
      "         'othernetspeakcount', 'linkcount', 'imagecount']\n"
      "grown = [totals.get(n, 0) - state['totals'].get(n, 0) for n in names]\n"
      "new = [k for k in rows if k not in state['keys']]\n"
      "print(len(new), [rows[k] == grown or (rows[k], grown) for k in new])\n"
      "json.dump({'totals': {n: totals.get(n, 0) for n in names}, 'keys': list(rows)}, open(state_file, 'w'))\n";
  for (int run = 0; run < 4; ++run) {
    const auto result = home_.run("parlova");
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(pythonReading(compare, folder()), "1 [True]") << "run " << run << "\n" << result.err;
  }
  ASSERT_TRUE(filesBelow(home_.chats()).empty());
  const std::string kept = rows();
  EXPECT_NE(kept.find("'alice1979', 'Alice', 0,"), std::string::npos) << kept;
  EXPECT_EQ(pythonReading("import sqlite3, sys\n"
                          "print(*sqlite3.connect(sys.argv[1] + '/history.sqlite').execute(\n"
                          "    \"SELECT transcript FROM chats WHERE account = 'alice1979'\").fetchone())\n",
                          folder()),
            (home_.archive() / "Alice on 2005-12-30 at 10.00.ichat").string());
  EXPECT_NE(kept.find("'Chat with Alice, Bob', 'Chat with Alice, Bob', 1,"), std::string::npos) << kept;

  // The same bytes again (a run that died before the move brings them back).
  fs::copy_file(home_.archive() / "Bob on 2004-03-03 at 09.46.chat", home_.chats() / "Bob on 2004-03-03 at 09.46.chat");
  home_.run("parlova");
  EXPECT_EQ(pythonReading(compare, folder()), "0 []");
  EXPECT_EQ(rows(), kept);

  fs::remove(folder() / "history.sqlite");
  auto result = home_.run("parlova", {"--rebuild-history", "--quiet"});
  EXPECT_NE(result.err.find("] History rebuilt: 5 transcripts read, 4 added, 1 there already, 0 did not load, "),
            std::string::npos)
      << result.err;
  EXPECT_EQ(rows(), kept);
  result = home_.run("parlova", {"--rebuild-history", "--quiet"});
  EXPECT_NE(result.err.find("5 transcripts read, 0 added, 5 there already"), std::string::npos) << result.err;
  EXPECT_EQ(rows(), kept);

  writeText(folder() / "history.sqlite", std::string(4096, 'x'));
  home_.addTranscript("Carol on 2006-01-01 at 10.00.ichat", simpleChat("carol"));
  result = home_.run("parlova");
  EXPECT_NE(result.err.find("history.sqlite was damaged; it is kept as "), std::string::npos) << result.err;
  EXPECT_EQ(readText(folder() / "history.sqlite.damaged"), std::string(4096, 'x'));
  // Damaged again: kept under a new name, the first copy untouched.
  writeText(folder() / "history.sqlite", std::string(4096, 'y'));
  home_.addTranscript("Dave on 2006-01-02 at 10.00.ichat", simpleChat("dave"));
  result = home_.run("parlova");
  EXPECT_NE(result.err.find("it is kept as " + (folder() / "history.sqlite.damaged-2").string()), std::string::npos)
      << result.err;
  EXPECT_EQ(readText(folder() / "history.sqlite.damaged"), std::string(4096, 'x'));
  EXPECT_EQ(readText(folder() / "history.sqlite.damaged-2"), std::string(4096, 'y'));
  EXPECT_EQ(pythonReading("import sqlite3, sys\n"
                          "print(*sqlite3.connect(sys.argv[1] + '/history.sqlite').execute("
                          "'SELECT account FROM chats').fetchone())\n",
                          folder()),
            "dave");
  EXPECT_TRUE(filesBelow(home_.chats()).empty());
}

// Another program with the history open: a reader in the middle of a
// read holds no run back; a writer holding it makes the runs (a single run
// and a catch-up alike) note their chats, which the first run after it
// lets go writes; nothing is lost meanwhile.
TEST_F(History, AHistoryHeldByAnotherProgramHoldsNoRunBackAndLosesNoRow) {
  for (const char *account : {"alice", "bob", "carol", "dave"})
    home_.addTranscript(std::string(account) + " on 2007-05-04 at 19.33.ichat", simpleChat(account));
  const auto held = home_.run(
      "/usr/bin/python3",
      {"-c",
       "import os, sqlite3, subprocess, sys\n"
       "db, run = os.environ['HOME'] + '/Library/Parlova/history.sqlite', lambda *options: subprocess.run(\n"
       "    [sys.argv[1] + '/parlova', *options], capture_output=True, text=True).stderr\n"
       "state = lambda: (sqlite3.connect(db).execute('SELECT count(*) FROM chats').fetchone()[0],\n"
       "                 os.path.exists(db.replace('history.sqlite', '.history-pending.plist')))\n"
       "run(); other = sqlite3.connect(db, isolation_level=None)\n"
       "other.execute('BEGIN'); other.execute('SELECT count(*) FROM chats').fetchone()\n"
       "said = run().count('cannot take'); print('beside a reader', *state(), said)\n"
       "other.execute('COMMIT'); other.execute('BEGIN IMMEDIATE')\n"
       "print('held', run().count('The chat history cannot take '), run('--catch-up', '--quiet').count(\n"
       "    'The chat history cannot take '))\n"
       "other.execute('ROLLBACK')\n"
       "print('after', run().count('now holds the 2 chats it could not take before'), *state())\n",
       PARLOVA_BINARY_DIR});
  EXPECT_EQ(held.out, "beside a reader 2 False 0\nheld 1 1\nafter 1 4 False\n") << held.err;
  EXPECT_TRUE(filesBelow(home_.chats()).empty());
}

// One bar per month of the span, one row per person (at most 15), one cell
// per weekday and hour, each sized by its number; Python's XML parser
// reads every chart, and the page shows in a browser without a console
// message. Without the history the page is what the template without the
// new placeholders gives.
TEST_F(History, ChartsAreWellFormedSizedByTheirNumbersAndShowInABrowser) {
  writeBacklog(home_.chats(), {.transcripts = 150, .seed = 3, .people = 40, .longestChat = 20});
  ASSERT_EQ(home_.run("parlova", {"--catch-up", "--quiet"}).exitCode, 0);
  const std::string checked = pythonReading(
      "import re, sqlite3, sys, xml.etree.ElementTree as ET\n"
      "page = open(sys.argv[1] + '/stats.html', encoding='utf-8').read()\n"
      "charts = [ET.fromstring(s) for s in re.findall(r'<svg.*?</svg>', page, re.S)]\n"
      "db = sqlite3.connect(sys.argv[1] + '/history.sqlite')\n"
      "ns = '{http://www.w3.org/2000/svg}'\n"
      "def bars(chart, kind, size, base=0.0):\n"
      "    rects = [r for r in chart.iter(ns + 'rect') if r.get('class') == kind]\n"
      "    values = [int(r.get('data-value')) for r in rects]\n"
      "    top = max(max(values), 1)\n"
      "    full = float(rects[values.index(max(values))].get(size))\n"
      "    assert all(v == 0 or abs(float(r.get(size)) - (base + (full - base) * v / top)) < 0.02\n"
      "               for r, v in zip(rects, values)), kind\n"
      "    return values\n"
      "low, high, chats, words = db.execute('SELECT min(month), max(month), count(*), "
      "sum(user_words + other_words) FROM chats').fetchone()\n"
      "months = bars(charts[0], 'month', 'height')\n"
      "assert len(months) == high - low + 1 and sum(months) == chats, (len(months), high - low + 1)\n"
      "assert sum(bars(charts[1], 'month', 'height')) == words\n"
      "people = db.execute('SELECT sum(user_words), sum(other_words) FROM chats GROUP BY account "
      "ORDER BY sum(user_words) + sum(other_words) DESC, account LIMIT 15').fetchall()\n"
      "assert list(zip(bars(charts[2], 'yours', 'width'), bars(charts[2], 'theirs', 'width'))) == people\n"
      "cells = bars(charts[3], 'cell', 'fill-opacity', 0.1)\n"
      "assert len(cells) == 168 and sum(cells) == db.execute('SELECT sum(messages) FROM slots').fetchone()[0]\n"
      "span = re.search(r'<p>(\\w+ \\d{4}) \\u2013 (\\w+ \\d{4}) \\u00b7 150 chats \\u00b7 [0-9.]+ a day</p>', page)\n"
      "print(len(charts), len(people), bool(span))\n",
      folder());
  EXPECT_EQ(checked, "4 15 True");
  EXPECT_EQ(shownInBrowser(folder() / "stats.html"), "not blank: True");

  // The same transcripts without the history, under the template as it was
  // before the charts: the same page.
  ScratchHome plain;
  installShippedFiles(plain);
  std::string before = readText(fs::path(PARLOVA_SOURCE_DIR) / "resources" / "statstemplate.html");
  for (const char *placeholder : {"____SPAN", "____CHARTMONTHS", "____CHARTPEOPLE", "____CHARTHOURS"})
    before.erase(before.find(placeholder), std::string_view(placeholder).size());
  ScratchHome old;
  installShippedFiles(old);
  writeText(old.path() / "Library" / "Parlova" / "statstemplate.html", before);
  for (const ScratchHome *home : {&plain, &old}) {
    writeBacklog(home->chats(), {.transcripts = 20, .seed = 3, .people = 40, .longestChat = 20});
    home->run("parlova", {"--catch-up", "--quiet"});
  }
  EXPECT_EQ(readText(plain.path() / "Library" / "Parlova" / "stats.html"),
            readText(old.path() / "Library" / "Parlova" / "stats.html"));
}

// A decade and more of chats: 100,000 rows, written by Python beside one
// real one, drawn into a page that shows in a browser.
TEST_F(History, AHundredThousandChatsMakeAPageABrowserShows) {
  home_.addTranscript("Carol on 2006-01-01 at 10.00.ichat", simpleChat("carol"));
  ASSERT_EQ(home_.run("parlova").exitCode, 0);
  pythonReading("import random, sqlite3, sys\n"
                "db = sqlite3.connect(sys.argv[1] + '/history.sqlite')\n"
                "r = random.Random(5)\n"
                "rows = []\n"
                "for i in range(100000):\n"
                "    first = 978307200 + r.randrange(0, 20 * 365 * 86400)\n"
                "    rows.append((None, 'k%d' % i, '/nowhere', '', 'p%d' % r.randrange(500), 'P', 0, first, first + 600,\n"
                "                 None, r.randrange(1, 50), r.randrange(300), r.randrange(300), 0, 0, 0, 0, 0, 0, '', None, None))\n"
                "db.executemany('INSERT INTO chats VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)', rows)\n"
                "db.execute(\"UPDATE chats SET month = (CAST(strftime('%Y', first_time, 'unixepoch', 'localtime') AS \"\n"
                "           \"INTEGER) * 12 + CAST(strftime('%m', first_time, 'unixepoch', 'localtime') AS INTEGER) - 1) \"\n"
                "           \"WHERE month IS NULL\")\n"
                "db.executemany('INSERT INTO slots VALUES (?,?,?,?)',\n"
                "               [(i + 2, r.randrange(7), r.randrange(24), 3) for i in range(100000)])\n"
                "db.commit()\n",
                folder());
  ASSERT_EQ(home_.run("parlova", {"--rebuild-history", "--quiet"}).exitCode, 0);
  EXPECT_EQ(pythonReading("import re, sqlite3, sys\n"
                          "page = open(sys.argv[1] + '/stats.html', encoding='utf-8').read()\n"
                          "low, high, chats = sqlite3.connect(sys.argv[1] + '/history.sqlite').execute(\n"
                          "    'SELECT min(month), max(month), count(*) FROM chats').fetchone()\n"
                          "months = re.search(r'<svg.*?</svg>', page, re.S).group(0).count('class=\"month\"')\n"
                          "print(months == high - low + 1, chats, '100,001 chats' in page)\n",
                          folder()),
            "True 100001 True");
  EXPECT_EQ(shownInBrowser(folder() / "stats.html"), "not blank: True");
}

// The chat library: a page per chat with its picture linked to the stored
// copy, a page per person, an index; each shows in a browser without a
// console message (no script a chat partner typed runs) and every link on
// it leads to a file that is there. The search names the chat's page.
TEST_F(History, TheChatLibraryShowsEveryChatAndEveryLinkLeadsSomewhere) {
  home_.setSetting("keepHistory", "-bool", "NO");
  home_.setSetting("keepChatPages", "-bool", "YES"); // escapeHTML left off: the library escapes all the same
  const Account alice{"AIM", "alice1979"};
  TranscriptSpec keyed;
  keyed.others = {alice};
  keyed.messages = {says(alice, 157629600, "<b>not bold</b> & cake <img src=x onerror=\"console.log('ran')\">"),
                    withPicture(alice, 157629720, "cake #1?.png", pictureBytes(ImageFormat::PNG, 8, 8))};
  home_.addTranscript("Alice on 2005-12-30 at 10.00.ichat", keyed);
  // Names that only cleaning would bring together, and a second chat of
  // one person begun in the same second, by a later run: pages of their own.
  home_.addTranscript("Carol on 2006-01-01 at 10.00.ichat", simpleChat("carol/ette"));
  home_.addTranscript("Carol on 2006-01-02 at 10.00.ichat", simpleChat("carol_ette"));
  ASSERT_EQ(home_.run("parlova", {"--catch-up", "--quiet"}, {{"TZ", "UTC"}}).exitCode, 0);
  TranscriptSpec again;
  again.others = {alice};
  again.messages = {says(alice, 157629600, "the same second, another chat")};
  home_.addTranscript("Alice on 2005-12-30 at 10.00 (2).ichat", again);
  ASSERT_EQ(home_.run("parlova", {}, {{"TZ", "UTC"}}).exitCode, 0);

  const fs::path chats = folder() / "Chats";
  const fs::path alicePage = chats / "alice1979" / "2005-12-30 at 10.00.00.html";
  const auto files = filesBelow(chats);
  const auto taggedPage = std::find_if(files.begin(), files.end(),
                                       [](const std::string &file) { return file.starts_with("carol_ette~"); });
  ASSERT_NE(taggedPage, files.end());
  const std::string tagged = taggedPage->substr(0, taggedPage->find('/'));
  EXPECT_EQ(tagged.find_first_not_of("0123456789abcdef", 11), std::string::npos) << tagged;
  EXPECT_EQ(tagged.size(), 19u) << tagged;
  EXPECT_EQ(files,
            (std::vector<std::string>{"alice1979/2005-12-30 at 10.00.00 #2.html", "alice1979/2005-12-30 at 10.00.00.html",
                                      "alice1979/index.html", "carol_ette/2007-05-04 at 19.33.20.html",
                                      "carol_ette/index.html", tagged + "/2007-05-04 at 19.33.20.html",
                                      tagged + "/index.html", "index.html"}));
  EXPECT_NE(readText(chats / "alice1979" / "2005-12-30 at 10.00.00 #2.html").find("another chat"), std::string::npos);
  const std::string page = readText(alicePage);
  EXPECT_NE(page.find("&lt;b&gt;not bold&lt;/b&gt; &amp; cake"), std::string::npos) << page;
  EXPECT_NE(page.find("<a href=\"../../Images/cake%20%231%3F-alice1979-2005-12-30%2010%3A02%3A00%20%2B0000.png\">"
                      "[cake #1?.png]</a>"),
            std::string::npos)
      << page;
  for (const fs::path &shown : {chats / "index.html", chats / "alice1979" / "index.html", alicePage}) {
    const auto dom = inBrowser(home_, shown);
    EXPECT_EQ(dom.err.find("INFO:CONSOLE"), std::string::npos) << dom.err;
    const LocalLinks links = localLinks(dom.out, shown.parent_path());
    EXPECT_GT(links.count, 0) << shown;
    EXPECT_EQ(links.missing, std::vector<std::string>{}) << shown;
  }
  const auto hit = home_.run("parlova-search", {"--json", "cake"}, {{"TZ", "UTC"}});
  EXPECT_NE(hit.out.find("\"page\":\"" + alicePage.string() + "\""), std::string::npos) << hit.out;
}

} // namespace
} // namespace parlova::testing
