#include "model/ICLPPresentity.h"

#include <cstdlib>

#include "foundation/FoundationValues.h"
#include "foundation/TextAttributes.h"
#include "foundation/Unicode.h"
#include "platform/AddressBook.h"

namespace parlova {

std::shared_ptr<const ICLPPresentity> ICLPPresentity::initWithCoder(Coder &coder) {
  if (coder.allowsKeyedCoding()) {
    auto protocol = stringValueOf(coder.decodeObjectForKey("ServiceName"));
    auto name = stringValueOf(coder.decodeObjectForKey("ID"));
    return std::make_shared<ICLPPresentity>(std::move(protocol), std::move(name));
  }
  // A typed stream has positions only: service first, then the account.
  auto protocol = coder.decodeStringObject();
  auto name = coder.decodeStringObject();
  return std::make_shared<ICLPPresentity>(std::move(protocol), std::move(name));
}

std::string ICLPPresentity::description() const { return name_ + " on protocol " + protocol_; }

// Asked for every message a participant said: each branch looks up only
// what it needs.
std::optional<std::string> ICLPPresentity::Name() const {
  if (name_ == " myself " && protocol_ == "SubNet") {
    const char *user = std::getenv("USER");
    return user ? std::optional<std::string>(user) : std::nullopt;
  }
  if (protocol_ == "SubNet")
    return name_.substr(0, name_.find('@'));
  if (protocol_ == "AIM") {
    const ContactCard *me = AddressBook::shared().me();
    const std::optional<std::string> myHandle = me ? me->primaryAIMHandle() : std::nullopt;
    if (!myHandle || name_ != *myHandle)
      return ResolveAIMName(name_);
    return me->firstName && me->lastName ? *me->firstName + " " + *me->lastName : name_;
  }
  return name_;
}

std::string ICLPPresentity::ResolveAIMName(const std::string &aimName) {
  const auto cards = AddressBook::shared().cardsWithAIMHandle(aimName);
  if (cards.empty())
    return aimName;
  const ContactCard *card = cards.front();
  if (!card->firstName || !card->lastName)
    return aimName;
  return *card->firstName + " " + *card->lastName;
}

std::shared_ptr<const AttributedString> ICLPPresentity::RichName() const {
  // The font manager's bold face of Helvetica 12.
  static const auto bold = std::make_shared<const TextAttributes>(std::vector<TextAttributes::Entry>{
      {std::string(kFontAttributeName), std::make_shared<Font>("Helvetica-Bold", 12.0)}});
  std::u16string text = utf8ToUtf16(Name().value_or(""));
  const size_t length = text.size();
  return std::make_shared<AttributedString>(std::move(text), std::vector<AttributedString::RunSpec>{{length, bold}});
}

} // namespace parlova
