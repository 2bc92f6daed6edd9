#pragma once

namespace parlova {

// The system beep: the terminal bell when stderr is a terminal, else
// nothing (a background run has no one to hear it).
void beep();

} // namespace parlova
