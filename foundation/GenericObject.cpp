#include "foundation/GenericObject.h"

namespace parlova {

std::string ArchivedClass::description() const {
  std::string out;
  for (const ArchivedClass *c = this; c; c = c->superclass_.get()) {
    if (!out.empty())
      out += " : ";
    out += c->name_;
    if (c->version_)
      out += " v" + std::to_string(*c->version_);
  }
  return out;
}

} // namespace parlova
