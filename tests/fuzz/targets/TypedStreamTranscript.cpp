// A typed-stream transcript (.chat, iChat 2), loaded and walked as a run would.
#include "model/ICLPChatLog.h"
#include "tests/fuzz/TranscriptFuzzTarget.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  decodeTranscriptFormat(data, size, parlova::ICLPChatLog::Format::iChat2);
  return 0;
}
