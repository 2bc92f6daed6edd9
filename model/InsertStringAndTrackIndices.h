// The position-table insertion the HTML conversion is defined by.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace parlova {

// Inserts `text` into `target` at the position held in table entry `from`,
// then adds the text's length to every entry from `from` to `count` - 1.
void InsertStringAndTrackIndices(std::u16string &target, std::vector<int32_t> &table, const std::u16string &text,
                                 int32_t from, int32_t count);

} // namespace parlova
