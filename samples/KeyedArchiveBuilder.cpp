#include "samples/KeyedArchiveBuilder.h"

#include <cstdlib>

namespace parlova::samples {

KeyedArchiveBuilder::KeyedArchiveBuilder() : objects_(plist_new_array()) {
  plist_array_append_item(objects_, plist_new_string("$null"));
}

KeyedArchiveBuilder::~KeyedArchiveBuilder() { plist_free(objects_); }

uint64_t KeyedArchiveBuilder::add(plist_t node) {
  plist_array_append_item(objects_, node);
  return plist_array_get_size(objects_) - 1;
}

uint64_t KeyedArchiveBuilder::string(const std::string &value) {
  if (const auto it = strings_.find(value); it != strings_.end())
    return it->second;
  return strings_[value] = add(plist_new_string(value.c_str()));
}

uint64_t KeyedArchiveBuilder::classFor(const std::vector<std::string> &chain) {
  if (const auto it = classes_.find(chain); it != classes_.end())
    return it->second;
  plist_t info = plist_new_dict();
  plist_dict_set_item(info, "$classname", plist_new_string(chain.front().c_str()));
  plist_t classes = plist_new_array();
  for (const auto &name : chain)
    plist_array_append_item(classes, plist_new_string(name.c_str()));
  plist_dict_set_item(info, "$classes", classes);
  return classes_[chain] = add(info);
}

plist_t KeyedArchiveBuilder::instance(const std::vector<std::string> &chain) {
  plist_t object = plist_new_dict();
  plist_dict_set_item(object, "$class", plist_new_uid(classFor(chain)));
  return object;
}

plist_t KeyedArchiveBuilder::uidList(const std::vector<uint64_t> &uids) {
  plist_t list = plist_new_array();
  for (const uint64_t uid : uids)
    plist_array_append_item(list, plist_new_uid(uid));
  return list;
}

std::optional<uint64_t> KeyedArchiveBuilder::shared(const std::string &key) const {
  const auto it = shared_.find(key);
  return it == shared_.end() ? std::nullopt : std::optional(it->second);
}

uint64_t KeyedArchiveBuilder::share(const std::string &key, uint64_t uid) { return shared_[key] = uid; }

std::vector<uint8_t> KeyedArchiveBuilder::archive(plist_t top, bool xml) const {
  plist_t archive = plist_new_dict();
  plist_dict_set_item(archive, "$archiver", plist_new_string("NSKeyedArchiver"));
  plist_dict_set_item(archive, "$version", plist_new_uint(100000));
  plist_dict_set_item(archive, "$top", top);
  plist_dict_set_item(archive, "$objects", plist_copy(objects_));
  char *out = nullptr;
  uint32_t length = 0;
  if (xml)
    plist_to_xml(archive, &out, &length);
  else
    plist_to_bin(archive, &out, &length);
  plist_free(archive);
  std::vector<uint8_t> bytes(out, out + length);
  std::free(out);
  return bytes;
}

} // namespace parlova::samples
