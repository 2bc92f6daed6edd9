// File names made from text nobody here controls (speaker names, the names
// attachments were sent under), kept inside the folder they are meant for.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace parlova {

// The stem to put in front of `suffix` (".html", "-images.html", ".jpg"):
// every "/" and control character becomes "_", a leading "." becomes "_"
// (so "." and ".." and hidden names cannot arise), an empty name becomes
// "_", a name that would land on one of `reserved` gets a "_" in front, and
// a name too long for the file system is cut at a character boundary and
// ends in "~" and eight hex digits made from the whole original name, so
// that two long names stay apart. Any other name is returned unchanged.
std::string safeFileStem(std::string_view name, std::string_view suffix,
                         std::span<const std::string_view> reserved = {});

// The same, for names that must never share a file: every name it had to
// change ends in the tag, and so does a name that merely looks as if it
// had one, so "a/b" and "a_b" get two stems.
std::string distinctFileStem(std::string_view name, std::string_view suffix,
                             std::span<const std::string_view> reserved = {});

} // namespace parlova
