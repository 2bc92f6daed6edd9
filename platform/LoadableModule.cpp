#include "platform/LoadableModule.h"

#include <dlfcn.h>
#include <filesystem>
#include <map>
#include <mutex>
#include <vector>

namespace parlova {

namespace fs = std::filesystem;

namespace {

std::vector<fs::path> candidates(const std::string &fileName) {
  std::error_code error;
  const fs::path program = fs::read_symlink("/proc/self/exe", error);
  std::vector<fs::path> paths;
  if (!error) {
    paths.push_back(program.parent_path() / fileName);
    paths.push_back(program.parent_path().parent_path() / "lib" / "parlova" / fileName);
  }
#ifdef PARLOVA_MODULE_DIR
  paths.push_back(fs::path(PARLOVA_MODULE_DIR) / fileName);
#endif
#ifdef PARLOVA_BUILD_MODULE_DIR
  paths.push_back(fs::path(PARLOVA_BUILD_MODULE_DIR) / fileName); // tests and benchmarks in the build tree
#endif
  return paths;
}

} // namespace

std::variant<void *, std::string> moduleSymbol(const std::string &fileName, const std::string &symbol) {
  static std::mutex lock;
  static std::map<std::string, void *> opened; // never closed
  const std::scoped_lock guard(lock);
  void *&module = opened[fileName];
  std::string why = fileName + " was not found";
  // Looked for once: a catch-up asks for a symbol for every message.
  for (const fs::path &path : module ? std::vector<fs::path>() : candidates(fileName)) {
    std::error_code error;
    if (!fs::exists(path, error))
      continue;
    module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module)
      break;
    why = dlerror();
  }
  if (!module)
    return why;
  void *address = dlsym(module, symbol.c_str());
  if (!address)
    return fileName + " has no " + symbol;
  return address;
}

} // namespace parlova
