#include "platform/StopSignals.h"

#include <csignal>

namespace parlova {

namespace {

volatile std::sig_atomic_t stopSignal = 0;

void noteStop(int signal) { stopSignal = signal; }

} // namespace

void StopSignals::install() {
  struct sigaction action {};
  action.sa_handler = noteStop;
  sigemptyset(&action.sa_mask);
  // After the first, the default action is back: a second Ctrl-C ends the
  // run at once, which the journal makes safe.
  action.sa_flags = SA_RESTART | SA_RESETHAND;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

int StopSignals::requested() { return stopSignal; }

} // namespace parlova
