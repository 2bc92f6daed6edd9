// The lines `make bench` ends with: each figure Parlova is judged by, with
// the yardstick and the ratio it is judged on.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace parlova::bench {

void printStartUp(const std::filesystem::path &binaryDir, const std::filesystem::path &smallTranscript);
void printDecoding(const std::filesystem::path &keyed, const std::filesystem::path &typedStream);
void printRendering(double thousandSeconds, double tenThousandSeconds);
void printMerge(double mergeSeconds, const std::vector<uint8_t> &archive);
// A decade of transcripts in one catch-up, and its yardsticks.
void printCatchUp(const std::filesystem::path &binaryDir);
// Mail for a backlog: into a Maildir, a loopback IMAP server and one 40 ms
// away, a loopback SMTP server; one session each against single runs.
void printMail(const std::filesystem::path &binaryDir);
// A catch-up with every feature on, and a transcript of 65 MB.
void printEveryFeature(const std::filesystem::path &binaryDir);
// Finding a chat: queries, indexing and size on the 10,000-transcript backlog.
void printSearch(const std::filesystem::path &binaryDir);
// The statistics page drawn from a history of 100,000 chats.
void printHistoryPage();

// The middle one of timings (the upper middle of an even number): steadier
// than the mean on a shared machine.
double median(std::vector<double> values);

// One judged figure: what, the figure, the yardstick, the ratio and its goal.
void line(const char *what, double figure, const char *unit, const std::string &against, double ratio,
          const char *goal);

// A tool run to its end with this home, its output thrown away.
struct ChildRun {
  double seconds = 0;
  double cpuSeconds = 0; // user and system, the child's alone
  double peakMiB = 0;
};
ChildRun runIn(const std::filesystem::path &home, const std::vector<std::string> &command);
// A home with the shipped files, links and pictures on, mail off, and the
// given transcripts of the backlog (linked, not copied).
std::filesystem::path makeHome(const std::filesystem::path &root, const std::string &name,
                               const std::filesystem::path &backlog,
                               const std::vector<std::filesystem::path> &transcripts,
                               const std::filesystem::path &binaryDir);
// Removes `folder` once every figure is timed. ext4 without a journal, as
// on some virtual machines, passes over the inodes freed in the last
// minutes each time it makes a file: a home removed just before a figure
// would slow that figure's every file, and not its yardstick's.
void removeWhenDone(const std::filesystem::path &folder);
void removeFoldersMade();
// Transcripts still waiting in the home's transcript folder.
size_t transcriptsWaiting(const std::filesystem::path &home);
// Decoding every transcript once, in this process.
double decodeAll(const std::filesystem::path &backlog, const std::vector<std::filesystem::path> &transcripts);
// Writing the home's final archives and pages once: what a catch-up cannot
// avoid.
double writeFinalArchivesAndPages(const std::filesystem::path &home);
// A helper process (a test server) started with the given words and
// stopped with SIGTERM when the object goes.
class Helper {
public:
  explicit Helper(std::vector<std::string> words);
  ~Helper();
  Helper(const Helper &) = delete;
  Helper &operator=(const Helper &) = delete;

private:
  int pid_ = -1;
};

// The web view on the backlog and a chat of 200,000 messages.
void printWeb(const std::filesystem::path &binaryDir);

// Merging 50 links into an archive of 100,000, pages included: the median
// time, and the archive it started from.
double linkMergeSeconds(std::vector<uint8_t> &archive);

} // namespace parlova::bench
