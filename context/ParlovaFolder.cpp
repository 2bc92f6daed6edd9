#include "context/ParlovaFolder.h"

#include "platform/Home.h"

namespace parlova {

std::filesystem::path parlovaFolder() { return homeDirectory() / "Library" / "Parlova"; }

} // namespace parlova
