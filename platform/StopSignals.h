// SIGINT and SIGTERM (Ctrl-C, systemctl stop) asking a long run to stop at
// its next safe point. The first of them is only noted; a second one ends
// the process the way the signal always does.
#pragma once

namespace parlova {

class StopSignals {
public:
  StopSignals() = delete;

  static void install();
  // The signal that asked, or 0.
  static int requested();
};

} // namespace parlova
