// The Foundation and AppKit classes transcripts are made of, by the names
// archives give them. Both archive decoders go by this one list.
#pragma once

#include <string_view>

namespace parlova {

enum class FoundationClass {
  None,
  String,
  Array,
  OrderedSet,
  Dictionary,
  Number,
  Data,
  Date,
  URL,
  AttributedString,
  Font,
  Color,
  TextAttachment,
  FileWrapper,
};

// The class an archived name stands for (mutable kinds with their
// immutable ones), or None.
FoundationClass foundationClassNamed(std::string_view name);

} // namespace parlova
