// Must not compile: the Foundation layer sees nothing of the operating
// system's services.
#include "platform/Log.h"
