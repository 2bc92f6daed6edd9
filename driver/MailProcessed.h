// Mail for chats that were processed without it (a first catch-up with mail
// off, a mailbox added later): every processed transcript, or those of a
// span of days, delivered with today's mail settings, once per mailbox or
// address. Nothing else changes: no archive, count, page or transcript.
#pragma once

#include "driver/CommandLine.h"

namespace parlova {

// 0 when every chat was delivered or found delivered; 1 when the mailing
// stopped early (settings, an unreachable server, a refusal, a signal).
int mailProcessed(const RunOptions &options);

} // namespace parlova
