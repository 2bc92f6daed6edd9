// How fast transcripts load (about 5 MB in each format, decoded into the
// model as the tool does it) and how fast they render to HTML.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <unistd.h>

#include "bench/JudgedFigures.h"
#include "model/ICLPChatLog.h"
#include "samples/Backlog.h"
#include "samples/TranscriptWriter.h"

using namespace parlova;
using namespace parlova::samples;

namespace {

TranscriptSpec largeTranscript(TranscriptSpec::Root root, int messages) {
  TranscriptSpec spec = longStyledChat(static_cast<size_t>(messages));
  spec.root = root;
  return spec;
}

enum class Format { Keyed, TypedStream };

void loadTranscript(benchmark::State &state, Format format, TranscriptSpec::Root root) {
  const auto folder = std::filesystem::temp_directory_path() / ("parlova-bench-" + std::to_string(getpid()));
  // About 5 MB in either format; typed streams are the more compact.
  const auto spec = largeTranscript(root, format == Format::Keyed ? 13000 : 28500);
  const auto path = folder / (format == Format::Keyed ? "somebuddy on 2006-01-01.ichat" : "somebuddy on 2004-01-01.chat");
  const auto bytes = format == Format::Keyed ? keyedTranscript(spec) : typedStreamTranscript(spec);
  writeFile(path, bytes);
  size_t messages = 0;
  for (auto _ : state) {
    const auto log = ICLPChatLog::initWithFilePath(path);
    messages = log ? log->messages().size() : 0;
    benchmark::DoNotOptimize(messages);
  }
  std::filesystem::remove_all(folder);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
  state.counters["MB"] = static_cast<double>(bytes.size()) / 1e6;
  state.counters["messages"] = static_cast<double>(messages);
}

} // namespace

BENCHMARK_CAPTURE(loadTranscript, ichat_keyed_archive, Format::Keyed, TranscriptSpec::Root::IChat)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(loadTranscript, ichat_keyed_messages_root, Format::Keyed, TranscriptSpec::Root::Messages)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(loadTranscript, chat_typed_stream, Format::TypedStream, TranscriptSpec::Root::IChat)
    ->Unit(benchmark::kMillisecond);

// The HTML conversion of a transcript with styled runs in every message.
ICLPChatLog renderedTranscript(int messages) {
  const auto folder = std::filesystem::temp_directory_path() / ("parlova-render-" + std::to_string(getpid()));
  const auto path = folder / ("somebuddy on " + std::to_string(messages) + ".ichat");
  writeFile(path, keyedTranscript(largeTranscript(TranscriptSpec::Root::IChat, messages)));
  auto log = ICLPChatLog::initWithFilePath(path);
  std::filesystem::remove_all(folder);
  return std::move(*log);
}

void renderHtml(benchmark::State &state) {
  const ICLPChatLog log = renderedTranscript(static_cast<int>(state.range(0)));
  for (auto _ : state)
    benchmark::DoNotOptimize(log.HTMLChatLog());
}
BENCHMARK(renderHtml)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

namespace {

double bestRenderSeconds(const ICLPChatLog &log) {
  double best = 1e9;
  for (int i = 0; i < 5; ++i) {
    const auto start = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(log.HTMLChatLog());
    best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  return best;
}

} // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  // `parlova_bench search catch-up` measures only those figures; no names,
  // every figure after the micro-benchmarks.
  std::set<std::string> only(argv + 1, argv + argc);
  const auto wanted = [&](const char *figure) { return only.empty() || only.count(figure) > 0; };
  if (only.empty())
    benchmark::RunSpecifiedBenchmarks();

  const auto folder = std::filesystem::temp_directory_path() / ("parlova-figures-" + std::to_string(getpid()));
  const auto keyed = folder / "somebuddy on 2006-01-01.ichat";
  const auto typedStream = folder / "somebuddy on 2004-01-01.chat";
  const auto small = folder / "somebuddy on 2006-01-02.ichat";
  writeFile(keyed, keyedTranscript(largeTranscript(TranscriptSpec::Root::IChat, 13000)));
  writeFile(typedStream, typedStreamTranscript(largeTranscript(TranscriptSpec::Root::IChat, 28500)));
  writeFile(small, keyedTranscript(largeTranscript(TranscriptSpec::Root::IChat, 40)));

  std::printf("\nThe figures Parlova is judged by, each in the same run as its yardstick:\n");
  if (wanted("start-up"))
    parlova::bench::printStartUp(PARLOVA_BINARY_DIR, small);
  if (wanted("decoding"))
    parlova::bench::printDecoding(keyed, typedStream);
  if (wanted("rendering"))
    parlova::bench::printRendering(bestRenderSeconds(renderedTranscript(1000)),
                                   bestRenderSeconds(renderedTranscript(10000)));
  if (wanted("merge")) {
    std::vector<uint8_t> archive;
    const double merge = parlova::bench::linkMergeSeconds(archive);
    parlova::bench::printMerge(merge, archive);
  }
  if (wanted("catch-up"))
    parlova::bench::printCatchUp(PARLOVA_BINARY_DIR);
  if (wanted("mail"))
    parlova::bench::printMail(PARLOVA_BINARY_DIR);
  if (wanted("every-feature"))
    parlova::bench::printEveryFeature(PARLOVA_BINARY_DIR);
  if (wanted("history"))
    parlova::bench::printHistoryPage();
  if (wanted("search"))
    parlova::bench::printSearch(PARLOVA_BINARY_DIR);
  if (wanted("web"))
    parlova::bench::printWeb(PARLOVA_BINARY_DIR);
  parlova::bench::removeFoldersMade();
  std::filesystem::remove_all(folder);
  return 0;
}
