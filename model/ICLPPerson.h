// Stands in for iChat's record of a person, so that archives holding such
// records decode; its contents are never read.
#pragma once

#include <memory>

#include "archiving/Coder.h"

namespace parlova {

class ICLPPerson final : public Object {
public:
  static std::shared_ptr<const ICLPPerson> initWithCoder(Coder &coder);
  std::string className() const override { return "ICLPPerson"; }
};

} // namespace parlova
