#include "tools/ArchiveDump.h"

#include <cstdio>
#include <map>
#include <set>

#include "archiving/ArchiveOpening.h"
#include "foundation/FoundationValues.h"
#include "foundation/GenericObject.h"

namespace parlova {
namespace {

class Printer {
public:
  // Arrays and dictionaries that more than one place refers to are shown
  // once, as generic objects always are: arrays that each hold another one
  // twice over would otherwise print twice as much at every level.
  explicit Printer(const ObjectRef &top) { countReferences(top); }

  std::string print(const ObjectRef &object, const std::string &indent) {
    if (!object)
      return "nil";
    if (const auto string = objectAs<StringObject>(object))
      return quotedForDisplay(string->value());
    if (const auto data = objectAs<DataObject>(object))
      return describeBytes(data->bytes());
    const bool container = objectAs<ArrayObject>(object) || objectAs<DictionaryObject>(object);
    if (container && references_[object.get()] > 1) {
      const auto [label, first] = numbered(object.get());
      if (!first)
        return label + object->className() + " (shown above)";
      return label + printContainer(object, indent);
    }
    if (container)
      return printContainer(object, indent);
    return printOther(object, indent);
  }

private:
  // Shared objects are shown once and referred to by number after: the
  // label "#N " and whether this is the first time.
  std::pair<std::string, bool> numbered(const Object *object) {
    const auto [it, first] = numbers_.try_emplace(object, numbers_.size() + 1);
    std::string label(1, '#');
    label += std::to_string(it->second);
    label += ' ';
    return {label, first};
  }

  void countReferences(const ObjectRef &object) {
    const bool container = objectAs<ArrayObject>(object) || objectAs<DictionaryObject>(object);
    if (!object || (container && ++references_[object.get()] > 1))
      return;
    if (const auto array = objectAs<ArrayObject>(object)) {
      for (const ObjectRef &item : array->items())
        countReferences(item);
    } else if (const auto dictionary = objectAs<DictionaryObject>(object)) {
      for (const auto &[key, value] : dictionary->entries()) {
        countReferences(key);
        countReferences(value);
      }
    } else if (const auto generic = objectAs<GenericObject>(object)) {
      // Looked into once: they are shown once.
      if (!lookedInto_.insert(generic.get()).second)
        return;
      for (const auto &field : generic->fields())
        for (const ObjectRef &value : field.values)
          countReferences(value);
    }
  }

  std::string printContainer(const ObjectRef &object, const std::string &indent) {
    if (const auto array = objectAs<ArrayObject>(object)) {
      if (array->items().empty())
        return "()";
      std::string out = "(\n";
      for (const ObjectRef &item : array->items())
        out += indent + "    " + print(item, indent + "    ") + "\n";
      return out + indent + ")";
    }
    const auto dictionary = objectAs<DictionaryObject>(object);
    std::string out = "{\n";
    for (const auto &[key, value] : dictionary->entries())
      out += indent + "    " + print(key, indent + "    ") + " = " + print(value, indent + "    ") + "\n";
    return out + indent + "}";
  }

  std::string printOther(const ObjectRef &object, const std::string &indent) {
    if (const auto archivedClass = objectAs<ArchivedClass>(object))
      return "class " + archivedClass->description();
    if (const auto generic = objectAs<GenericObject>(object)) {
      const auto [label, first] = numbered(generic.get());
      const std::string classText = generic->archivedClass() ? generic->archivedClass()->description() : "?";
      if (!first)
        return label + generic->className() + " (shown above)";
      std::string out = label + classText + " {\n";
      for (const auto &field : generic->fields()) {
        out += indent + "    " + (field.label.empty() ? std::string("-") : field.label) + ":";
        for (const ObjectRef &value : field.values) {
          out += ' ';
          out += print(value, indent + "    ");
        }
        out += "\n";
      }
      return out + indent + "}";
    }
    return object->className() + " " + object->description();
  }

  static std::string describeBytes(const std::vector<uint8_t> &bytes) {
    std::string out(1, '<');
    out += std::to_string(bytes.size());
    out += " bytes";
    for (size_t i = 0; i < bytes.size() && i < 16; ++i) {
      char hex[4];
      std::snprintf(hex, sizeof hex, " %02x", bytes[i]);
      out += hex;
    }
    return out + (bytes.size() > 16 ? " ...>" : ">");
  }

  std::map<const Object *, size_t> numbers_;
  std::map<const Object *, size_t> references_;
  std::set<const Object *> lookedInto_;
};

} // namespace

std::string quotedForDisplay(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
      out += hex;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::variant<DumpedArchive, std::string> dumpArchive(std::span<const uint8_t> bytes) {
  auto opened = openArchive(bytes);
  if (const auto *why = std::get_if<std::string>(&opened))
    return *why;
  ArchiveDecoder &archive = *std::get<std::unique_ptr<ArchiveDecoder>>(opened);
  archive.setDecodesEverythingGenerically(true);
  const std::string format(archive.formatName());
  DumpedArchive dump{format + "\n"};
  const auto root = archive.decodeRoot();
  const auto metadata = archive.decodeMetadata();
  for (const auto *part : {&root, &metadata})
    if (const auto *why = std::get_if<std::string>(part))
      return "the " + format + " is damaged: " + *why;
  // A typed stream's root is shown even when it is nil.
  if (std::get<ObjectRef>(root) || archive.format() == ArchiveDecoder::Format::TypedStream)
    dump.text += "root: " + Printer(std::get<ObjectRef>(root)).print(std::get<ObjectRef>(root), "") + "\n";
  if (const ObjectRef &object = std::get<ObjectRef>(metadata))
    dump.text += "metadata: " + Printer(object).print(object, "") + "\n";
  return dump;
}

} // namespace parlova
