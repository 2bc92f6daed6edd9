// Must not compile: the web view sees nothing of the driver beside it.
#include "driver/RunDriver.h"
