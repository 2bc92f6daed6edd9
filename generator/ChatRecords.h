// A loaded transcript as the history keeps it.
#pragma once

#include <filesystem>
#include <string>

#include "generator/ICLPLogGenerator.h"
#include "history/ChatRecord.h"
#include "platform/FileManager.h"

namespace parlova {

class ICLPChatLog;

// The chat's row, hours and messages, counted as the totals count it
// (`counts`), under `key` (the transcript's size and digest), kept at
// `transcript`.
// Its texts are held, or with `RecordTexts::MadeAsWritten` made from the chat
// as the history writes them: the chat must then outlive the record.
enum class RecordTexts { Held, MadeAsWritten };
ChatRecord chatRecordOf(const ICLPChatLog &log, const ICLPLogGenerator::ChatCounts &counts, std::string key,
                        std::filesystem::path transcript, RecordTexts texts = RecordTexts::Held);

// The history's stage of the pipeline, the same for a single run, a
// catch-up and a rebuild: the chat's record and, when the chat library is
// kept, its page (written always, or only when it is not there yet).
enum class ChatPage { Write, WriteWhenMissing };
ChatRecord keptChat(const ICLPChatLog &log, const ICLPLogGenerator::ChatCounts &counts, std::string key,
                    std::filesystem::path transcript, ChatPage page, Durability durability = Durability::Now,
                    RecordTexts texts = RecordTexts::Held);

} // namespace parlova
