// Calls the error report once, as the email and link stages do:
//   parlova-report-error CODE TEXT
#include <cstdlib>

#include "context/ErrorReport.h"

int main(int argc, char **argv) {
  if (argc != 3)
    return 2;
  parlova::reportErrorAndLog(std::atoi(argv[1]), argv[2]);
  return 0;
}
