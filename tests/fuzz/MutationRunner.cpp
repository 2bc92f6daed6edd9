// Our own mutation loop over transcripts of both formats from the sample
// writer: every mutated file must load or be refused, without crashing and
// quickly. Built with AddressSanitizer for `make check` and `make fuzz`.
//   parlova_fuzz_mutations [CASES] [SEED]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "samples/TranscriptWriter.h"
#include "tests/fuzz/TranscriptFuzzTarget.h"

using namespace parlova::samples;

namespace {

std::vector<std::vector<uint8_t>> corpus() {
  const Account me{"AIM", "me"};
  const Account bob{"AIM", "bob"};
  TranscriptSpec rich;
  rich.others = {bob};
  MessageSpec styled = says(bob, 1000, "");
  RunSpec colored = text("red \xF0\x9F\x98\x80 ");
  colored.color = ColorSpec{ColorSpec::Space::CalibratedRGB, {1, 0, 0}};
  colored.font = FontSpec{"Helvetica", 12};
  colored.paragraphStyle = true;
  RunSpec link = text("link");
  link.link = LinkSpec{"page.html", true, "http://example.com/dir/"};
  RunSpec file = text("\xEF\xBF\xBC");
  file.attachment = AttachmentSpec{.fileName = "a.png", .bytes = {1, 2, 3, 4, 5}};
  RunSpec folder = text("\xEF\xBF\xBC");
  folder.attachment =
      AttachmentSpec{.fileName = "dir", .isFolder = true, .children = {{.fileName = "b.txt", .bytes = {9}}}};
  styled.runs = {colored, link, file, folder, colored};
  rich.messages = {styled, says(me, 1010, "plain"), styled};
  MessageSpec status;
  status.runs = {text("status")};
  rich.messages.push_back(status);

  TranscriptSpec messagesRoot = rich;
  messagesRoot.root = TranscriptSpec::Root::Messages;

  return {keyedTranscript(rich), keyedTranscript(messagesRoot), typedStreamTranscript(rich),
          typedStreamTranscript(rich, ByteOrder::Big)};
}

std::vector<uint8_t> mutate(std::vector<uint8_t> bytes, std::mt19937 &random) {
  static const uint8_t interesting[] = {0x00, 0x01, 0x7F, 0x80, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x92, 0xFF};
  const int edits = 1 + static_cast<int>(random() % 6);
  for (int e = 0; e < edits && !bytes.empty(); ++e) {
    const size_t at = random() % bytes.size();
    switch (random() % 7) {
    case 0:
      bytes[at] = static_cast<uint8_t>(random());
      break;
    case 1:
      bytes[at] ^= static_cast<uint8_t>(1u << (random() % 8));
      break;
    case 2:
      bytes[at] = interesting[random() % sizeof interesting];
      break;
    case 3:
      bytes.insert(bytes.begin() + static_cast<long>(at), interesting[random() % sizeof interesting]);
      break;
    case 4:
      bytes.erase(bytes.begin() + static_cast<long>(at),
                  bytes.begin() + static_cast<long>(std::min(bytes.size(), at + 1 + random() % 16)));
      break;
    case 5: {
      const size_t length = std::min<size_t>(bytes.size() - at, 1 + random() % 64);
      const std::vector<uint8_t> piece(bytes.begin() + static_cast<long>(at),
                                       bytes.begin() + static_cast<long>(at + length));
      bytes.insert(bytes.begin() + static_cast<long>(random() % bytes.size()), piece.begin(), piece.end());
      break;
    }
    default:
      bytes.resize(at);
    }
  }
  return bytes;
}

} // namespace

int main(int argc, char **argv) {
  const long cases = argc > 1 ? std::atol(argv[1]) : 20000;
  const unsigned seed = argc > 2 ? static_cast<unsigned>(std::atol(argv[2])) : 20061101u;
  std::mt19937 random(seed);
  const auto seeds = corpus();
  for (const auto &bytes : seeds) {
    if (decodeTranscriptBytes(bytes.data(), bytes.size()) != 1) {
      std::fprintf(stderr, "an unmutated corpus transcript did not load\n");
      return 1;
    }
  }
  long loaded = 0;
  double slowest = 0;
  for (long n = 0; n < cases; ++n) {
    const auto bytes = mutate(seeds[static_cast<size_t>(n) % seeds.size()], random);
    const auto start = std::chrono::steady_clock::now();
    loaded += decodeTranscriptBytes(bytes.data(), bytes.size()) > 0;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    slowest = std::max(slowest, seconds);
    // A hang shows up as a case far slower than any real decode.
    if (seconds > 2.0) {
      std::fprintf(stderr, "case %ld (seed %u) took %.1f s\n", n, seed, seconds);
      return 1;
    }
  }
  std::printf("fuzz: %ld mutated transcripts, %ld loaded, %ld refused, slowest %.1f ms\n", cases, loaded,
              cases - loaded, slowest * 1000);
  return 0;
}
