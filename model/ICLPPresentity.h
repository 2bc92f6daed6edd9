// One chat participant: an account on a chat service.
#pragma once

#include <memory>
#include <string>

#include "platform/Coder.h"

namespace parlova {

class ICLPPresentity final : public Object {
public:
  ICLPPresentity(std::string protocol, std::string name)
      : protocol_(std::move(protocol)), name_(std::move(name)) {}

  static std::shared_ptr<const ICLPPresentity> initWithCoder(Coder &coder);

  std::string className() const override { return "ICLPPresentity"; }
  std::string description() const override { return protocol_ + ":" + name_; }

  // The service's name as iChat stored it.
  const std::string &protocol() const { return protocol_; }
  // The account name (screen name) as stored.
  const std::string &rawName() const { return name_; }

private:
  std::string protocol_;
  std::string name_;
};

} // namespace parlova
