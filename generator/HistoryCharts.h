// The charts of the statistics page, drawn from the chat history as inline
// SVG: no script, no web font, nothing fetched, so the page looks the same
// opened from disk and printed. Every bar and cell carries its number
// (data-value, and a title a browser shows on hovering).
#pragma once

#include <optional>
#include <string>

#include "history/ChatHistory.h"

namespace parlova {

// Chats and words per month over the whole span, years labelled.
std::string monthsChart(const HistorySummary &history);
// The people talked with most, by words, your share and theirs.
std::string peopleChart(const HistorySummary &history);
// Messages by weekday and hour.
std::string hoursChart(const HistorySummary &history);
// "March 2003 – December 2012 · 3,412 chats · 0.9 a day".
std::string spanText(const HistorySummary &history);

// Fills ____CHARTMONTHS, ____CHARTPEOPLE, ____CHARTHOURS and ____SPAN; with
// no history, or one without chats, each with nothing.
void fillHistoryPlaceholders(std::string &page, const std::optional<HistorySummary> &history);

} // namespace parlova
