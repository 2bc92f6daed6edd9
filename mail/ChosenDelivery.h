// The delivery the settings name, as the one way a transcript's mail goes.
#pragma once

#include <memory>

#include "mail/Delivery.h"

namespace parlova {

// The settings' delivery must be one of the table's.
std::unique_ptr<Delivery> chosenDelivery(const MailSettings &settings, Resending resending, MailSessions sessions);

} // namespace parlova
