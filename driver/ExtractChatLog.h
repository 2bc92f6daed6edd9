#pragma once

#include <string>

#include "model/ICLPChatLog.h"

namespace parlova {

// Carries one loaded transcript through the pipeline. Returns when the
// transcript is to stay where it is; ends the process once the transcript
// has been carried to the end or an email error stands.
void ExtractChatLog(const std::string &path, ICLPChatLog *log);

// Puts right what a run that ended half-way through a transcript left: its
// archives back as they were, or its due move made. Only while no other run
// can be working.
void FinishInterruptedArchiving();

} // namespace parlova
