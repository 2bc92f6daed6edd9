// Must not compile: the model renders a transcript and knows nothing of mail.
#include "mail/Delivery.h"
