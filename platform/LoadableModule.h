// Parts of the program that live in shared modules of their own, opened the
// first time they are needed and kept open for the rest of the run (the
// Objective-C runtime a module brings cannot be unloaded cleanly).
#pragma once

#include <string>
#include <variant>

namespace parlova {

// The address of `symbol` in the module named `fileName` (such as
// "libparlova-mail.so"), looked for beside the running program, then in
// the library folder of an installation (<prefix>/lib/parlova), then in
// the build folder; or why it could not be had.
std::variant<void *, std::string> moduleSymbol(const std::string &fileName, const std::string &symbol);

} // namespace parlova
