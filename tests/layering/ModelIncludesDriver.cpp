// Must not compile: the model sees nothing of the driver above it.
#include "driver/ExtractChatLog.h"
