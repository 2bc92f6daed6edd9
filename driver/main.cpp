#include "driver/RunDriver.h"

int main() { return parlova::runParlova(); }
