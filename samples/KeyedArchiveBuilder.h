// The object table of a keyed archive, built the way NSKeyedArchiver builds
// it (strings, classes and equal objects written once and referred to by
// number), and the archive around it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <plist/plist.h>

namespace parlova::samples {

class KeyedArchiveBuilder {
public:
  KeyedArchiveBuilder();
  ~KeyedArchiveBuilder();
  KeyedArchiveBuilder(const KeyedArchiveBuilder &) = delete;
  KeyedArchiveBuilder &operator=(const KeyedArchiveBuilder &) = delete;

  // Appends `node`, which the table then owns; its number.
  uint64_t add(plist_t node);
  uint64_t string(const std::string &value);
  // The class description of `chain` (the class first, NSObject last).
  uint64_t classFor(const std::vector<std::string> &chain);
  // A new object of that class, not yet added.
  plist_t instance(const std::vector<std::string> &chain);
  static plist_t uidList(const std::vector<uint64_t> &uids);

  // Objects with equal keys are written once and referenced from every use.
  std::optional<uint64_t> shared(const std::string &key) const;
  uint64_t share(const std::string &key, uint64_t uid);

  // The archive of the table so far, with `top` (which it takes) as its
  // $top, as a binary or an XML property list.
  std::vector<uint8_t> archive(plist_t top, bool xml = false) const;

private:
  plist_t objects_;
  std::map<std::string, uint64_t> strings_;
  std::map<std::vector<std::string>, uint64_t> classes_;
  std::map<std::string, uint64_t> shared_;
};

} // namespace parlova::samples
