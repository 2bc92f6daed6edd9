// ~/Library/Parlova, where the archives, pages, templates, word lists and
// the history live.
#pragma once

#include <filesystem>

namespace parlova {

std::filesystem::path parlovaFolder();

} // namespace parlova
