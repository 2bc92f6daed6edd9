// One chat participant: an account on a chat service.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "foundation/AttributedString.h"

#include "archiving/Coder.h"

namespace parlova {

class ICLPPresentity final : public Object {
public:
  ICLPPresentity(std::string protocol, std::string name)
      : protocol_(std::move(protocol)), name_(std::move(name)) {}

  static std::shared_ptr<const ICLPPresentity> initWithCoder(Coder &coder);

  std::string className() const override { return "ICLPPresentity"; }
  // "<account> on protocol <service>"
  std::string description() const override;

  // The service's name as iChat stored it.
  const std::string &Protocol() const { return protocol_; }
  // The account name (screen name) as stored.
  const std::string &rawName() const { return name_; }

  // The name pages, mails and statistics show: the user's own entries as
  // the user, AIM buddies by their address-book card, local-network
  // accounts without their host. Nothing only for the user's own
  // local-network entry when $USER is unset.
  std::optional<std::string> Name() const;
  // Name in bold Helvetica 12.
  std::shared_ptr<const AttributedString> RichName() const;

  // "First Last" of the first card with this AIM handle, else the handle.
  static std::string ResolveAIMName(const std::string &aimName);

private:
  std::string protocol_;
  std::string name_;
};

} // namespace parlova
