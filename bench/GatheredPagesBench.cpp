// How long merging one transcript into large archives takes, pages
// included: links into 100,000 links from 200 speakers, pictures into
// 20,000 entries from 100 speakers.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <unistd.h>

#include "bench/JudgedFigures.h"
#include "foundation/PropertyListValue.h"
#include "generator/ICLPLogGenerator.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "samples/ImageWriter.h"
#include "samples/TranscriptWriter.h"

using namespace parlova;
using namespace parlova::samples;
namespace fs = std::filesystem;

namespace {

// A scratch home with the shipped templates, for the length of a benchmark.
class BenchHome {
public:
  BenchHome() : path_(fs::temp_directory_path() / ("parlova-bench-home-" + std::to_string(getpid()))) {
    fs::create_directories(folder() / "Images");
    for (const auto &shipped : fs::directory_iterator(fs::path(PARLOVA_SOURCE_DIR) / "resources"))
      fs::copy_file(shipped.path(), folder() / shipped.path().filename(), fs::copy_options::overwrite_existing);
    setenv("HOME", path_.c_str(), 1);
  }
  ~BenchHome() { fs::remove_all(path_); }
  fs::path folder() const { return path_ / "Library" / "Parlova"; }

private:
  fs::path path_;
};

std::string speakerName(int i) { return "buddy" + std::to_string(i); }

// Entries spread over ten years, each speaker's list in the order the
// archive keeps it.
std::vector<uint8_t> archiveOf(int speakers, int entriesEach, bool images) {
  PlistValue::Array archive;
  for (int s = 0; s < speakers; ++s) {
    PlistValue::Array entries;
    for (int e = 0; e < entriesEach; ++e) {
      const int order = images ? entriesEach - e : e;
      const Date when(100000000.0 + order * (315360000.0 / entriesEach) + s);
      if (images)
        entries.emplace_back(PlistValue::Dictionary{{"date", when},
                                                    {"filename", "Images/p" + std::to_string(s) + "-" +
                                                                     std::to_string(e) + ".jpg"},
                                                    {"width", int64_t{640}},
                                                    {"height", int64_t{480}}});
      else
        entries.emplace_back(PlistValue::Dictionary{
            {"date", when}, {"linkurl", "http://example.com/" + std::to_string(s) + "/" + std::to_string(e)}});
    }
    archive.emplace_back(
        PlistValue::Dictionary{{"speaker", speakerName(s)}, {images ? "filenames" : "urls", std::move(entries)}});
  }
  return PlistValue(std::move(archive)).serialized(PlistFormat::XML);
}

ICLPChatLog transcriptWithLinks(int links) {
  TranscriptSpec spec;
  const Account other{"AIM", speakerName(7)};
  spec.others = {other};
  for (int i = 0; i < links; ++i) {
    RunSpec link = text("a link");
    link.link = LinkSpec{"http://example.org/new/" + std::to_string(i), false, std::nullopt};
    spec.messages.push_back(MessageSpec{i % 2 ? other : Account{"AIM", "newcomer"}, 400000000.0 + i, {link}});
  }
  return *ICLPChatLog::initWithArchiveData(keyedTranscript(spec), ICLPChatLog::Format::iChat3, speakerName(7));
}

// Each round starts again from the same archive, put back untimed.
void timeMerges(benchmark::State &state, const std::string &archiveName, const std::vector<uint8_t> &archive,
                const ICLPChatLog &log, void (*merge)(const ICLPChatLog *)) {
  BenchHome home;
  for (auto _ : state) {
    state.PauseTiming();
    writeFileAtomically(home.folder() / archiveName, archive);
    state.ResumeTiming();
    merge(&log);
  }
  state.counters["archive_MB"] = static_cast<double>(archive.size()) / 1e6;
}

void mergeLinks(benchmark::State &state) {
  timeMerges(state, "gatheredURLs.plist", archiveOf(200, static_cast<int>(state.range(0)) / 200, false),
             transcriptWithLinks(50), ICLPLogGenerator::GenerateLinkFiles);
}

ICLPChatLog transcriptWithPictures(int pictures) {
  TranscriptSpec spec;
  const Account other{"AIM", speakerName(3)};
  spec.others = {other};
  const ImageFormat formats[] = {ImageFormat::PNG, ImageFormat::JPEG, ImageFormat::GIF, ImageFormat::TIFF};
  for (int i = 0; i < pictures; ++i) {
    RunSpec picture = text("\uFFFC");
    picture.attachment = AttachmentSpec{.fileName = "picture" + std::to_string(i) + ".img",
                                        .bytes = pictureBytes(formats[i % 4], 640, 480)};
    spec.messages.push_back(MessageSpec{other, 400000000.0 + i, {picture}});
  }
  return *ICLPChatLog::initWithArchiveData(keyedTranscript(spec), ICLPChatLog::Format::iChat3, speakerName(3));
}

void mergePictures(benchmark::State &state) {
  timeMerges(state, "gatheredImages.plist", archiveOf(100, 200, true), transcriptWithPictures(10),
             ICLPLogGenerator::GenerateImageFiles);
}

} // namespace

BENCHMARK(mergePictures)->Unit(benchmark::kMillisecond);

// 10,000 and 100,000 links: ten times the archive should take little more
// than ten times as long.
BENCHMARK(mergeLinks)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

double parlova::bench::linkMergeSeconds(std::vector<uint8_t> &archive) {
  archive = archiveOf(200, 500, false);
  const ICLPChatLog log = transcriptWithLinks(50);
  BenchHome home;
  std::vector<double> times;
  for (int i = 0; i < 5; ++i) {
    writeFileAtomically(home.folder() / "gatheredURLs.plist", archive);
    const auto start = std::chrono::steady_clock::now();
    ICLPLogGenerator::GenerateLinkFiles(&log);
    times.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  return median(std::move(times));
}
