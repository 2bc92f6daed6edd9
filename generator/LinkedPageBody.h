// A chat's page body for the library: the chat's HTML between its first
// "<body>" and its last "</body>" (where both stand in that order), with the
// labels of its attached files made links. Each label in turn is looked for
// from just past the one found before; the first place it stands is made
// its link where it has one, and a label not found moves nothing on. A long
// chat's body is made twice, first only to find where the body and the
// labels stand, and handed out in pieces: it is never held.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/GatheredWriter.h"

namespace parlova {

class LinkedPageBody {
public:
  struct Label {
    std::string text;
    std::optional<std::string> link; // what the label becomes, where it does
  };

  explicit LinkedPageBody(std::vector<Label> labels) : labels_(std::move(labels)) {}

  // From the whole page.
  std::string linked(std::string html) const;
  // From a page `make` hands out the same each time it is called.
  void write(const PieceMaker &make, const PieceSink &piece) const;

private:
  std::vector<Label> labels_;
};

} // namespace parlova
