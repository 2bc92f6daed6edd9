// A TCP connection to a mail server, made within a time limit.
#pragma once

#include <chrono>
#include <string>

#include "platform/FileDescriptor.h"

namespace parlova {

// Connected by the deadline, or nothing; blocking again, each read and
// write bounded by `timeoutSeconds` as well (0: unbounded).
FileDescriptor connectToServer(const std::string &host, unsigned port, unsigned timeoutSeconds,
                               std::chrono::steady_clock::time_point deadline);

// How long a silent server is waited on: 60 seconds, or
// $PARLOVA_SMTP_TIMEOUT_SECONDS.
unsigned mailTimeoutSeconds();

// Each read and write on `fd` bounded by `seconds` (0: unbounded).
void limitSocketWaits(int fd, unsigned seconds);

} // namespace parlova
