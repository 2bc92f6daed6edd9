#include "model/ICLPPresentity.h"

#include "platform/FoundationValues.h"

namespace parlova {

std::shared_ptr<const ICLPPresentity> ICLPPresentity::initWithCoder(Coder &coder) {
  if (coder.allowsKeyedCoding()) {
    auto protocol = stringValueOf(coder.decodeObjectForKey("ServiceName"));
    auto name = stringValueOf(coder.decodeObjectForKey("ID"));
    return std::make_shared<ICLPPresentity>(std::move(protocol), std::move(name));
  }
  // A typed stream has positions only: service first, then the account.
  auto protocol = stringValueOf(coder.decodeObject());
  auto name = stringValueOf(coder.decodeObject());
  return std::make_shared<ICLPPresentity>(std::move(protocol), std::move(name));
}

} // namespace parlova
