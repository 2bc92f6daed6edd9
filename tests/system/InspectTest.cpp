// parlova-inspect as a user runs it: every mode on a transcript of each
// format, the names the user's contact cards give, and for a file that does
// not load, the decoder's own reason.
#include <gtest/gtest.h>

#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;
using namespace samples;

TEST(Inspect, EveryModeShowsWhatEitherFormatHolds) {
  ScratchHome home;
  const auto keyed = home.addTranscript("alice on 1.ichat", simpleChat("alice"));
  TranscriptSpec spec = simpleChat("bob");
  RunSpec photo = text("\xEF\xBF\xBC");
  photo.attachment = AttachmentSpec{"photo.jpg", {0xFF, 0xD8, 0, 1, 2}, false, {}, false};
  spec.messages.push_back({spec.others.front(), 200000060, {photo}});
  spec.messages.push_back({spec.others.front(), 200000090, {text("photo again")}});
  const fs::path typed = home.chats() / "Bob on 2004-01-01.chat";
  writeFile(typed, typedStreamTranscript(spec, ByteOrder::Big));

  struct Case {
    std::vector<std::string> arguments;
    std::vector<std::string> shown;
  };
  const Case cases[] = {
      {{"--plain", keyed.string()},
       {"Sent by Parlova ( http://www.hollowmere.com/parlova/ )alice: hi there\nparlovauser: hello!\n"}},
      {{"--html", keyed.string()}, {"<html><head><title>Parlova log</title></head><body>"}},
      {{typed.string()}, {"format: iChat 2 typed stream", "attachment photo.jpg (5 bytes)"}},
      // Shared objects are shown once.
      {{"--archive", typed.string()}, {"typed stream\nroot: ", "InstantMessage v1 : NSObject v0", "(shown above)"}},
      {{"--archive", keyed.string()}, {"keyed archive\nroot: "}},
  };
  for (const Case &c : cases) {
    const auto result = home.run("parlova-inspect", c.arguments);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    for (const std::string &shown : c.shown)
      EXPECT_NE(result.out.find(shown), std::string::npos) << c.arguments.front() << " lacks " << shown << "\n"
                                                           << result.out;
  }

  // A keyed archive of 3.5 KB whose dictionaries hold one another several
  // times over printed 38 MB before shared containers were shown once too.
  const auto shared = home.run(
      "parlova-inspect",
      {"--archive", (fs::path(PARLOVA_SOURCE_DIR) / "tests/fuzz/regressions/ArchiveGraph/containers-sharing-containers.plist")
                        .string()});
  EXPECT_EQ(shared.exitCode, 0) << shared.err;
  EXPECT_LT(shared.out.size(), 1u << 20);
  EXPECT_NE(shared.out.find("NSDictionary (shown above)"), std::string::npos);
}

// What the transcript holds reaches the terminal shown, never acted on:
// no ESC, DEL or C1 control in the model view or the archive's graph.
TEST(Inspect, ControlCharactersTypedByOthersAreShownNotSent) {
  ScratchHome home;
  const Account eve{"AIM", "eve\x1B[2J"};
  TranscriptSpec spec;
  spec.others = {eve};
  RunSpec link = text("look");
  link.link = LinkSpec{"http://example.com/\x1B]0;title\x07", false, std::nullopt};
  RunSpec file = text("\xEF\xBF\xBC");
  file.attachment = AttachmentSpec{"a\x1B[5m.png", {1, 2}, false, {}, false};
  spec.messages = {says(eve, 200000000, "title \x1B]0;owned\x07 \xC2\x9B" "5m \x7F"),
                   MessageSpec{eve, 200000060, {link, file}}};
  const fs::path transcript = home.addTranscript("Eve on 2005-12-30.ichat", spec);
  for (const auto &[mode, shown] : std::vector<std::pair<std::string, std::string>>{
           {"", "AIM eve^[[2J shown as eve^[[2J"}, {"--archive", "ID: \"eve\\x1b[2J\""}}) {
    std::vector<std::string> arguments = {transcript.string()};
    if (!mode.empty())
      arguments.insert(arguments.begin(), mode);
    const std::string out = home.run("parlova-inspect", arguments).out;
    EXPECT_NE(out.find(shown), std::string::npos) << out;
    for (const std::string sent : {"\x1B", "\x7F", "\xC2\x9B"})
      EXPECT_EQ(out.find(sent), std::string::npos) << mode << "\n" << out;
  }
}

TEST(Inspect, AFileThatDoesNotLoadSaysWhyInTheDecodersWords) {
  ScratchHome home;
  const std::vector<uint8_t> stream = typedStreamTranscript(simpleChat("carol"));
  const std::vector<uint8_t> cut(stream.begin(), stream.begin() + 60);
  const std::vector<uint8_t> good = keyedTranscript(simpleChat("dave"));
  const std::string dictionary = readText(fs::path(PARLOVA_SOURCE_DIR) / "tests/data/foundation-complex-archive.plist");
  struct Case {
    const char *name;
    std::vector<uint8_t> bytes; // empty: the file in tests/data of that name
    const char *reason;
  };
  const Case cases[] = {
      {"notes.txt", {'h', 'i'}, "not a transcript: the extension must be exactly \"chat\" or \"ichat\""},
      {"Broken on 2005-01-01.chat", {'n', 'o', 't'},
       "not a typed stream: it does not start with a typed stream's header"},
      {"Cut on 2005-01-01.chat", cut, "the iChat 2 typed stream is damaged: typed stream ends too soon"},
      {"Garbage on 2005-01-01.ichat", {'b', 'p', 'l', 'i', 's', 't'}, "not a property list, binary or XML"},
      {"reference-past-the-table on 2005-01-01.ichat", {},
       "the keyed archive is damaged: a reference to object 812, past the end of the table of 3 objects"},
      {"Dictionary on 2005-01-01.ichat", {dictionary.begin(), dictionary.end()},
       "the keyed archive's root is not an array"},
      {"Nameless.ichat", good, "not a transcript: the file name has no \" on \" before the date"},
  };
  for (const Case &c : cases) {
    const fs::path file = home.path() / c.name;
    if (c.bytes.empty())
      fs::copy_file(fs::path(PARLOVA_SOURCE_DIR) / "tests/data/reference-past-the-table.ichat", file);
    else
      writeFile(file, c.bytes);
    const auto result = home.run("parlova-inspect", {file.string()});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "parlova-inspect: " + file.string() + ": " + c.reason + "\n");
  }
  // The dry run and a catch-up give the same reasons.
  fs::create_directories(home.chats());
  fs::copy_file(fs::path(PARLOVA_SOURCE_DIR) / "tests/data/reference-past-the-table.ichat",
                home.chats() / "Far on 2005-01-01.ichat");
  const std::string reason = "the keyed archive is damaged: a reference to object 812, past the end of the table";
  EXPECT_NE(home.run("parlova", {"--dry-run"}).out.find("Far on 2005-01-01.ichat: does not load: " + reason),
            std::string::npos);
  EXPECT_NE(home.run("parlova", {"--catch-up", "--quiet"})
                .err.find("Far on 2005-01-01.ichat does not load and stays where it is: " + reason),
            std::string::npos);
  const auto dump = home.run("parlova-inspect", {"--archive", (home.chats() / "Far on 2005-01-01.ichat").string()});
  EXPECT_EQ(dump.exitCode, 1);
  EXPECT_NE(dump.err.find(": " + reason), std::string::npos) << dump.err;

  const auto bogus = home.run("parlova-inspect", {"--bogus", "x"});
  EXPECT_EQ(bogus.exitCode, 2);
  EXPECT_EQ(bogus.err.rfind("parlova-inspect: unknown option '--bogus'\nusage: parlova-inspect", 0), 0u) << bogus.err;
}

// Display names from the user's contact cards.
class Names : public ::testing::Test {
protected:
  void SetUp() override {
    writeText(home_.path() / ".local/share/contacts/me.vcf",
              "BEGIN:VCARD\nVERSION:3.0\nN:Appleseed;Johnny;;;\nX-AIM:johnnyold\nX-AIM;type=pref:johnny\n"
              "X-PARLOVA-ME:TRUE\nEND:VCARD\n");
    writeText(home_.path() / ".local/share/contacts/friends/a.vcf",
              "BEGIN:VCARD\nVERSION:4.0\nN:Liddell;Alice;;;\nIMPP:aim:alice1979\nEND:VCARD\n"
              "BEGIN:VCARD\nVERSION:3.0\nN:Other;Alicia;;;\nX-AIM:alice1979\nEND:VCARD\n"
              "BEGIN:VCARD\nVERSION:3.0\nN:;Cher;;;\nX-AIM:cher\nEND:VCARD\n");
  }

  std::string inspect(const samples::TranscriptSpec &spec, const std::map<std::string, std::string> &env = {}) {
    const auto path = home_.addTranscript("Somebody on 2006-01-01.ichat", spec);
    const auto result = home_.run("parlova-inspect", {path.string()}, env);
    fs::remove(path);
    return result.out + result.err;
  }

  ScratchHome home_;
};

TEST_F(Names, FollowTheRulesForEachService) {
  samples::TranscriptSpec spec;
  spec.others = {{"AIM", "alice1979"}, {"AIM", "cher"}, {"AIM", "stranger"}, {"SubNet", "bob@bobs-mac.local"},
                 {"SubNet", "plainbob"}, {"Jabber", "x@example.org"}, {"SubNet", " myself "}, {"AIM", " myself "},
                 {"AIM", "johnny"}, {"AIM", "johnnyold"}};
  const std::string out = inspect(spec, {{"USER", "jappleseed"}});
  EXPECT_NE(out.find("(11 speakers)"), std::string::npos) << out;
  for (const std::string expected :
       {"AIM alice1979 shown as Alice Liddell\n", "AIM cher shown as cher\n", "AIM stranger shown as stranger\n",
        "SubNet bob@bobs-mac.local shown as bob\n", "SubNet plainbob shown as plainbob\n",
        "Jabber x@example.org shown as x@example.org\n", "SubNet  myself  shown as jappleseed\n",
        "AIM  myself  shown as  myself \n", "AIM johnny shown as Johnny Appleseed\n",
        "AIM johnnyold shown as Johnny Appleseed\n"})
    EXPECT_NE(out.find(expected), std::string::npos) << expected << "\n" << out;

  const std::string withoutUser = inspect(spec);
  EXPECT_NE(withoutUser.find("SubNet  myself  shown as (no name)\n"), std::string::npos) << withoutUser;
}

TEST_F(Names, MyOwnHandleWithoutAFullNameIsShownAsItIs) {
  writeText(home_.path() / ".local/share/contacts/me.vcf",
            "BEGIN:VCARD\nVERSION:3.0\nN:;Johnny;;;\nX-AIM:johnny\nX-PARLOVA-ME:TRUE\nEND:VCARD\n");
  samples::TranscriptSpec spec;
  spec.others = {{"AIM", "alice1979"}};
  spec.messages = {samples::says({"AIM", "johnny"}, 1, "hi")};
  const std::string out = inspect(spec);
  EXPECT_NE(out.find("[1] johnny shown as johnny at"), std::string::npos) << out;
}

} // namespace
} // namespace parlova::testing
