#include "foundation/PropertyListValue.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <limits>
#include <unordered_set>

namespace parlova {

namespace {

// libplist keeps dates as whole seconds and microseconds since 2001.
Date dateFromNode(plist_t node) {
  int32_t seconds = 0;
  int32_t microseconds = 0;
  plist_get_date_val(node, &seconds, &microseconds);
  return Date(static_cast<double>(seconds) + static_cast<double>(microseconds) / 1e6);
}

struct LibraryDate {
  int32_t seconds;
  int32_t microseconds;
};

LibraryDate asLibraryDate(Date date) {
  double seconds = std::floor(date.timeIntervalSinceReferenceDate());
  double fraction = date.timeIntervalSinceReferenceDate() - seconds;
  if (!std::isfinite(seconds))
    seconds = 0, fraction = 0;
  seconds = std::clamp(seconds, double(std::numeric_limits<int32_t>::min()),
                       double(std::numeric_limits<int32_t>::max()));
  return {static_cast<int32_t>(seconds), static_cast<int32_t>(fraction * 1e6)};
}

PlistPtr dateNode(Date date) {
  const LibraryDate kept = asLibraryDate(date);
  return PlistPtr(plist_new_date(kept.seconds, kept.microseconds));
}

struct NodeMaker {
  PlistPtr operator()(const std::string &text) const { return PlistPtr(plist_new_string(text.c_str())); }
  PlistPtr operator()(int64_t number) const { return PlistPtr(plist_new_uint(static_cast<uint64_t>(number))); }
  PlistPtr operator()(double number) const { return PlistPtr(plist_new_real(number)); }
  PlistPtr operator()(bool flag) const { return PlistPtr(plist_new_bool(flag)); }
  PlistPtr operator()(Date date) const { return dateNode(date); }
  PlistPtr operator()(const PlistValue::Data &bytes) const {
    return PlistPtr(plist_new_data(reinterpret_cast<const char *>(bytes.data()), bytes.size()));
  }
  PlistPtr operator()(const PlistValue::Array &items) const {
    PlistPtr array(plist_new_array());
    for (const PlistValue &item : items)
      plist_array_append_item(array.get(), item.toNode().release());
    return array;
  }
  PlistPtr operator()(const PlistValue::Dictionary &entries) const {
    PlistPtr dictionary(plist_new_dict());
    for (const auto &[key, value] : entries)
      plist_dict_set_item(dictionary.get(), key.c_str(), value.toNode().release());
    return dictionary;
  }
  PlistPtr operator()(PlistValue::Uid uid) const { return PlistPtr(plist_new_uid(uid.value)); }
};

// The XML the library writes for a tree of strings, integers, booleans,
// dates, arrays and dictionaries, written straight from the values: a link
// archive of a few hundred thousand links would otherwise become a library
// tree three times its size and then a second copy as text. A tree holding
// anything else (reals, data, keyed-archive references), a key given twice
// or a key XML cannot hold is left to the library, which decides those.
class DirectXml {
public:
  static bool covers(const PlistValue &value, int depth = 0) {
    if (depth > PlistValue::kMostNesting)
      return false;
    if (value.get<double>() || value.get<PlistValue::Data>() || value.get<PlistValue::Uid>())
      return false;
    if (const auto *items = value.get<PlistValue::Array>())
      return std::all_of(items->begin(), items->end(),
                         [depth](const PlistValue &item) { return covers(item, depth + 1); });
    if (const auto *entries = value.get<PlistValue::Dictionary>()) {
      for (const auto &[key, item] : *entries)
        if (!fitsXml(asStored(key)) || !covers(item, depth + 1))
          return false;
      return !repeatsAKey(*entries);
    }
    return true;
  }

  // The whole document, at its exact size: counted first, then made.
  static std::vector<uint8_t> document(const PlistValue &root) {
    DirectXml counter(nullptr);
    counter.write(root);
    std::vector<uint8_t> bytes;
    bytes.reserve(counter.size_);
    document(root, [&bytes](std::string_view piece) { bytes.insert(bytes.end(), piece.begin(), piece.end()); });
    return bytes;
  }

  // The same handed out in pieces of up to 64 KiB as it is made.
  static void document(const PlistValue &root, const std::function<void(std::string_view)> &piece,
                       const PlistValue::ArrayStandIn *standIn = nullptr) {
    DirectXml writer(&piece);
    writer.standIn_ = standIn;
    writer.pending_.reserve(kPieceSize);
    writer.write(root);
    writer.handOn();
  }

private:
  static constexpr size_t kPieceSize = 64 * 1024;

  // Without a taker, the bytes are only counted.
  explicit DirectXml(const std::function<void(std::string_view)> *piece) : piece_(piece) {}

  void handOn() {
    if (!pending_.empty())
      (*piece_)(pending_);
    pending_.clear();
  }

  // An archive holds hundreds of thousands of dictionaries of two or three
  // keys each: the keys of a small one are compared in place.
  static bool repeatsAKey(const PlistValue::Dictionary &entries) {
    constexpr size_t kComparedInPlace = 16;
    if (entries.size() <= kComparedInPlace) {
      for (size_t i = 1; i < entries.size(); ++i)
        for (size_t j = 0; j < i; ++j)
          if (asStored(entries[i].first) == asStored(entries[j].first))
            return true;
      return false;
    }
    std::unordered_set<std::string_view> keys;
    for (const auto &entry : entries)
      if (!keys.insert(asStored(entry.first)).second)
        return true;
    return false;
  }

  // The library keeps a text up to its first NUL.
  static std::string_view asStored(const std::string &text) { return std::string_view(text.c_str()); }

  void put(std::string_view text) {
    size_ += text.size();
    if (piece_) {
      pending_ += text;
      if (pending_.size() >= kPieceSize)
        handOn();
    }
  }
  void indent(int depth) {
    for (int i = 0; i < depth; ++i)
      put("\t");
  }
  // A carriage return as a character reference, as serializePropertyList
  // turns the library's raw one.
  void escaped(std::string_view text) {
    size_t start = 0;
    for (size_t i = 0; i < text.size(); ++i) {
      const char c = text[i];
      const char *entity = c == '<' ? "&lt;" : c == '>' ? "&gt;" : c == '&' ? "&amp;" : c == '\r' ? "&#13;" : nullptr;
      if (!entity)
        continue;
      put(text.substr(start, i - start));
      put(entity);
      start = i + 1;
    }
    put(text.substr(start));
  }
  void text(std::string_view tag, std::string_view value, int depth) {
    indent(depth);
    put("<"), put(tag), put(">");
    if (fitsXml(value))
      escaped(value);
    else
      escaped(fittedToXml(value));
    put("</"), put(tag), put(">\n");
  }
  void leaf(std::string_view tag, std::string_view value, int depth) {
    indent(depth);
    put("<"), put(tag), put(">"), put(value), put("</"), put(tag), put(">\n");
  }

  void write(const PlistValue &root) {
    put("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n");
    write(root, 0);
    put("</plist>\n");
  }

  void write(const PlistValue &value, int depth) {
    char number[64];
    if (const auto *string = value.get<std::string>()) {
      text("string", asStored(*string), depth);
    } else if (const auto *integer = value.get<int64_t>()) {
      leaf("integer", std::string_view(number, std::snprintf(number, sizeof number, "%" PRIi64, *integer)), depth);
    } else if (const auto *flag = value.get<bool>()) {
      indent(depth);
      put(*flag ? "<true/>\n" : "<false/>\n");
    } else if (const auto *date = value.get<Date>()) {
      // The library writes the seconds of the sum of what it keeps, cut
      // toward zero.
      const LibraryDate kept = asLibraryDate(*date);
      const auto seconds = static_cast<time_t>(static_cast<double>(kept.seconds) +
                                               static_cast<double>(kept.microseconds) / 1000000);
      const time_t unixTime = seconds + static_cast<time_t>(Date::kReferenceDateUnixTime);
      struct tm parts {};
      gmtime_r(&unixTime, &parts);
      leaf("date", std::string_view(number, std::strftime(number, sizeof number, "%Y-%m-%dT%H:%M:%SZ", &parts)),
           depth);
    } else if (const auto *items = value.get<PlistValue::Array>()) {
      if (const auto size = standIn_ ? standIn_->size(*items) : std::nullopt) {
        container("array", *size == 0, depth, [&] {
          standIn_->items(*items, [&](const PlistValue &item) { write(item, depth + 1); });
        });
        return;
      }
      container("array", items->empty(), depth, [&] {
        for (const PlistValue &item : *items)
          write(item, depth + 1);
      });
    } else if (const auto *entries = value.get<PlistValue::Dictionary>()) {
      container("dict", entries->empty(), depth, [&] {
        for (const auto &[key, item] : *entries) {
          text("key", asStored(key), depth + 1);
          write(item, depth + 1);
        }
      });
    }
  }

  template <class Children> void container(std::string_view tag, bool empty, int depth, Children children) {
    indent(depth);
    if (empty) {
      put("<"), put(tag), put("/>\n");
      return;
    }
    put("<"), put(tag), put(">\n");
    children();
    indent(depth);
    put("</"), put(tag), put(">\n");
  }

  const std::function<void(std::string_view)> *piece_;
  const PlistValue::ArrayStandIn *standIn_ = nullptr;
  size_t size_ = 0;
  std::string pending_;
};

} // namespace

std::optional<PlistValue> PlistValue::fromNode(plist_t node) { return fromNode(node, 0); }

std::optional<PlistValue> PlistValue::fromNode(plist_t node, int depth) {
  // Nothing the program stores nests deeply; a file that does is damaged or
  // hostile, and reading it on would exhaust the stack.
  if (!node || depth > kMostNesting)
    return std::nullopt;
  switch (plist_get_node_type(node)) {
  case PLIST_STRING:
  case PLIST_KEY:
    return PlistValue(plistString(node).value_or(""));
  case PLIST_UINT:
    return PlistValue(plistInteger(node).value_or(0));
  case PLIST_REAL:
    return PlistValue(plistReal(node).value_or(0));
  case PLIST_BOOLEAN: {
    uint8_t flag = 0;
    plist_get_bool_val(node, &flag);
    return PlistValue(flag != 0);
  }
  case PLIST_DATE:
    return PlistValue(dateFromNode(node));
  case PLIST_DATA:
    return PlistValue(plistData(node).value_or(Data{}));
  case PLIST_UID: {
    uint64_t value = 0;
    plist_get_uid_val(node, &value);
    return PlistValue(Uid{value});
  }
  case PLIST_ARRAY: {
    Array items;
    for (plist_t item : plistArrayItems(node)) {
      auto value = fromNode(item, depth + 1);
      if (!value)
        return std::nullopt;
      items.push_back(std::move(*value));
    }
    return PlistValue(std::move(items));
  }
  case PLIST_DICT: {
    Dictionary entries;
    for (auto &[key, item] : plistDictionaryEntries(node)) {
      auto value = fromNode(item, depth + 1);
      if (!value)
        return std::nullopt;
      entries.emplace_back(std::move(key), std::move(*value));
    }
    return PlistValue(std::move(entries));
  }
  default:
    return std::nullopt;
  }
}

std::optional<PlistValue> PlistValue::parse(std::span<const uint8_t> bytes) {
  const PlistPtr root = parsePropertyList(bytes);
  return fromNode(root.get());
}

PlistPtr PlistValue::toNode() const { return std::visit(NodeMaker{}, storage_); }

std::vector<uint8_t> PlistValue::serialized(PlistFormat format) const {
  if (format == PlistFormat::XML && writesXmlItself())
    return DirectXml::document(*this);
  const PlistPtr node = toNode();
  return serializePropertyList(node.get(), format);
}

bool PlistValue::writesXmlItself() const { return DirectXml::covers(*this); }

bool PlistValue::writeXml(const std::function<void(std::string_view)> &piece, const ArrayStandIn &standIn) const {
  if (!writesXmlItself())
    return false;
  DirectXml::document(*this, piece, &standIn);
  return true;
}

bool PlistValue::writeXml(const std::function<void(std::string_view)> &piece) const {
  if (writesXmlItself()) {
    DirectXml::document(*this, piece);
    return true;
  }
  const std::vector<uint8_t> bytes = serialized(PlistFormat::XML);
  if (bytes.empty())
    return false;
  piece(std::string_view(reinterpret_cast<const char *>(bytes.data()), bytes.size()));
  return true;
}

PlistValue *PlistValue::objectForKey(std::string_view key) {
  auto *entries = get<Dictionary>();
  if (!entries)
    return nullptr;
  for (auto &[name, value] : *entries)
    if (name == key)
      return &value;
  return nullptr;
}

const PlistValue *PlistValue::objectForKey(std::string_view key) const {
  return const_cast<PlistValue *>(this)->objectForKey(key);
}

const std::string *PlistValue::stringForKey(std::string_view key) const {
  const PlistValue *value = objectForKey(key);
  return value ? value->get<std::string>() : nullptr;
}

std::optional<Date> PlistValue::dateForKey(std::string_view key) const {
  const PlistValue *value = objectForKey(key);
  const Date *date = value ? value->get<Date>() : nullptr;
  return date ? std::optional<Date>(*date) : std::nullopt;
}

std::optional<int64_t> PlistValue::integerForKey(std::string_view key) const {
  const PlistValue *value = objectForKey(key);
  if (!value)
    return std::nullopt;
  if (const auto *number = value->get<int64_t>())
    return *number;
  if (const auto *flag = value->get<bool>())
    return *flag ? 1 : 0;
  if (const auto *real = value->get<double>()) {
    if (!std::isfinite(*real))
      return 0;
    return static_cast<int64_t>(std::clamp(*real, -9.2e18, 9.2e18));
  }
  if (const auto *text = value->get<std::string>())
    return std::strtoll(text->c_str(), nullptr, 10);
  return std::nullopt;
}

} // namespace parlova
