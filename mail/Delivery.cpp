#include "mail/Delivery.h"

#include "platform/Log.h"

namespace parlova {

DeliveryResult waitForSetting(const std::string &reason) {
  logFormat("Unable to connect to mail server: %@.", reason);
  return DeliveryResult::wait(2, reason);
}

} // namespace parlova
