// A chat's links joined to the link archive for one run without an item
// made for each: the archive gains only the entries of new speakers, the
// links stay the chat's own objects, and the archive and its pages are
// written from the two together. Each list comes out as merging the links
// and sorting every list would make it: the stable sort by date of the list
// followed by its new links.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

#include "foundation/Date.h"
#include "foundation/Object.h"
#include "foundation/PropertyListValue.h"

namespace parlova {

class ICLPChatLog;

class JoinedLinks {
public:
  // `archive` gains the entries of speakers it lacks and has its other lists
  // sorted; it must not change while this is used.
  JoinedLinks(const ICLPChatLog &log, PlistValue::Array &archive);

  // Writes the lists that gained links with them.
  PlistValue::ArrayStandIn standIn() const;
  // Whether entry `entry`'s list gained links; if so, its items in order,
  // each either stored in the archive or a link of the chat.
  bool joins(size_t entry) const { return listOfEntry_.count(entry) > 0; }
  void forEachItem(size_t entry,
                   const std::function<void(const PlistValue *stored, Date date, const Object *link)> &visit) const;

private:
  struct Added {
    Date date;
    ObjectRef link;
  };
  struct List {
    const PlistValue::Array *stored = nullptr;
    std::vector<Added> added;
    // Places below the stored items' count are stored items, the rest the
    // added links after them.
    std::vector<uint32_t> order;
  };
  size_t entryOf(const std::string &speaker);
  void visit(const List &list, const std::function<void(const PlistValue *, Date, const Object *)> &each) const;

  PlistValue::Array &archive_;
  std::unordered_map<std::string, size_t> speakerEntries_;
  std::vector<List> lists_;
  std::unordered_map<size_t, size_t> listOfEntry_;
  std::unordered_map<const PlistValue::Array *, size_t> listOfArray_;
};

} // namespace parlova
