#pragma once

#include <cstddef>
#include <cstdint>

#include "model/ICLPChatLog.h"

// Decodes bytes as both transcript formats and walks whatever loaded the
// way the pipeline does. Answers how many formats loaded (0, 1 or 2).
int decodeTranscriptBytes(const uint8_t *data, size_t size);
// The same for one format; true when it loaded.
bool decodeTranscriptFormat(const uint8_t *data, size_t size, parlova::ICLPChatLog::Format format);
