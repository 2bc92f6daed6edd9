// Makes the archiving of one transcript happen once, whatever ends a run
// half-way (a kill, a power cut, a full disk).
//
// Before the first archive changes, the journal keeps the archives as they
// are (hard links to the files, which every write replaces rather than
// changes) and names the transcript by path, size and digest. Once every
// stage is done it names the move's target; after the move it is cleared.
// A later run finds what was left: archives half-way through are put back,
// so that the transcript is processed afresh, and a move that was due is
// finished.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "foundation/PropertyListValue.h"

namespace parlova {

class TranscriptJournal {
public:
  explicit TranscriptJournal(std::filesystem::path parlovaFolder);

  struct Recovery {
    enum class Kind {
      Nothing,         // no run died half-way, or it had changed nothing yet
      RolledBack,      // the archives are as they were before `transcript`
      MoveDue,         // `transcript` was archived and goes to `target` next
      BatchDue         // the archives are as before a catch-up's batch, and
                       // the transcripts in `moved` are to be added to them
                       // again, in that order, each moved first where it is
                       // `due`; then clear()
    };
    struct BatchMove {
      std::filesystem::path transcript;
      std::filesystem::path target; // where it is now
      bool links = false;           // the stages that were on for it
      bool images = false;
      bool due = false;             // still where it was: mailed, its move not made
    };
    Kind kind = Kind::Nothing;
    std::filesystem::path transcript;
    std::filesystem::path target;
    std::vector<BatchMove> moved;
    bool moveFailedBefore = false; // MoveDue: a run tried and failed
  };

  // Undoes or finishes what a run that died left behind. Only while no
  // other run can be working (under the run lock). A due move is the
  // caller's to make, followed by clear().
  Recovery recover();

  // Before the first archive changes. False when the journal could not be
  // written; errno says why.
  bool begin(const std::filesystem::path &transcript);
  // Every stage is done; the transcript goes to `target` next.
  bool markArchived(const std::filesystem::path &target);
  // The move to `target` failed: later runs retry the move and nothing
  // else, until it succeeds.
  bool markMoveFailed(const std::filesystem::path &target);
  // Forgets the transcript: after its move, or once nothing is left to do.
  void clear();

  // A catch-up's batch: the archives are kept as for one transcript, and
  // every transcript of the batch is noted, with its stages, before any of
  // them. A batch cut short is finished rather than undone: the archives go
  // back to what was kept and every transcript that had been moved is added
  // to them again, so no transcript returns to the walk and the order in
  // which transcripts are taken stays that of the first walk. clear() once
  // the batch's archives are written.
  bool beginBatch();
  // A note on the disk counts its transcript as mailed. With `hold` (its
  // mail is not in its mailbox yet, not even after a kill) it waits, with
  // every note after it, for syncBatchMoves(); otherwise it is written now,
  // after those that waited.
  bool noteBatchMove(const Recovery::BatchMove &move, bool hold);
  // Writes the held notes and puts them on the disk: a move is made only
  // after its note is there, or a power cut could keep the move and lose
  // the note.
  bool syncBatchMoves();

  std::filesystem::path journalFile() const { return folder_ / "journal.plist"; }
  std::filesystem::path movesFile() const { return folder_ / "moves"; }

  // What names a transcript's contents: its size and digest. Also the name
  // of its message in a Maildir.
  struct Identity {
    uint64_t size = 0;
    std::string digest;
    // "<size>.<digest>": its message's name in a mailbox, its chat's key in
    // the history.
    std::string key() const { return std::to_string(size) + "." + digest; }
  };
  static std::optional<Identity> identify(const std::filesystem::path &transcript);
  static Identity identityOf(std::span<const uint8_t> contents);

private:
  bool keepArchives();
  bool writeHeldMoves();
  // Puts the kept archives back and keeps them kept (the journal's clear()
  // lets them go), so that a recovery cut short can be made again.
  void restoreKeptArchives();
  std::vector<Recovery::BatchMove> movedInBatch();

  bool write(const std::filesystem::path &transcript, const Identity &identity,
             const std::optional<std::filesystem::path> &target, bool moveFailed = false);
  PlistValue existedBefore() const;

  std::filesystem::path parlovaFolder_;
  std::filesystem::path folder_;
  std::optional<std::filesystem::path> transcript_;
  Identity identity_;
  std::string heldMoves_; // notes not yet written, one line each
  std::vector<std::pair<std::string, bool>> existedBefore_; // archive name, whether it was there
};

} // namespace parlova
