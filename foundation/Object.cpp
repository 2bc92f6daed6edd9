#include "foundation/Object.h"

namespace parlova {

std::string Object::description() const { return "<" + className() + ">"; }

} // namespace parlova
