// What a run that ended half-way left, put right by the next one.
#pragma once

namespace parlova {

// Puts right what a run that ended half-way through a transcript, or a
// catch-up half-way through a batch, left: its archives back as they were,
// its due move made, or its batch's moved transcripts added to the archives.
// Only while no other run can be working. False when that could not be
// done (a full disk): the run must end and leave it to the next.
bool FinishInterruptedArchiving();

} // namespace parlova
