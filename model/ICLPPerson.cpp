#include "model/ICLPPerson.h"

namespace parlova {

std::shared_ptr<const ICLPPerson> ICLPPerson::initWithCoder(Coder &) { return std::make_shared<ICLPPerson>(); }

} // namespace parlova
