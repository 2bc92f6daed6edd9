// The lines `make bench` ends with: each figure Parlova is judged by, with
// the yardstick and the ratio it is judged on.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

namespace parlova::bench {

void printStartUp(const std::filesystem::path &binaryDir, const std::filesystem::path &smallTranscript);
void printDecoding(const std::filesystem::path &keyed, const std::filesystem::path &typedStream);
void printRendering(double thousandSeconds, double tenThousandSeconds);
void printMerge(double mergeSeconds, const std::vector<uint8_t> &archive);
// A decade of transcripts in one catch-up, and its yardsticks.
void printCatchUp(const std::filesystem::path &binaryDir);
void printDelivery(const std::filesystem::path &binaryDir);

// Merging 50 links into an archive of 100,000, pages included: the median
// time, and the archive it started from.
double linkMergeSeconds(std::vector<uint8_t> &archive);

} // namespace parlova::bench
