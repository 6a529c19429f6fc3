// The durable local queue of the results store: UUT records that wait to be
// written, kept in a journal file in the data root so that neither a store
// that cannot be reached nor a crash loses one.
//
// One journal serves every run of a data root, at the same time if need be:
// each record names the store it was made for, and every look at the journal
// and every change to it is made under the file-system port's lock on the
// data root, so no run works from an old copy of it. A run delivers the
// records of its own store only (those of earlier runs included); the others
// wait for a run, or a `tavrix-cli results queue --retry`, that reaches their
// store.
//
// The journal is a text file, one entry a line: a checksum, a blank, and a
// JSON object - a record ({"uut": ..., "store": ...}), the acknowledgement of
// one ({"done": KEY}), or a record set aside because its store refused what it
// holds ({"aside": KEY, "reason": ...}). Each entry is appended in one piece
// and is on the disk before append() returns. A line whose checksum does not
// match (a write cut off by a crash) is ignored. When nothing waits the
// journal is replaced, atomically, by an empty one, and a journal mostly made
// of acknowledgements by one that holds only what still waits.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "resultsdb/stored_uut.h"

namespace tavrix {

class FileLock;
class FileSystem;

inline constexpr std::string_view kQueueFileName = "results-queue.journal";

// A record of the journal as `results queue` shows it.
struct QueuedRecord {
  StoredUut uut;
  std::string store;
  bool setAside = false;
  std::string reason;  // why the store refused it
};

class ResultsQueue {
 public:
  // The journal is the file `path` of `files`; this object appends and
  // delivers records for `store` (see StoreKey()). An empty `store` is the
  // database file of the journal's folder, which is also the store of a
  // record that names none (a journal of an earlier version).
  ResultsQueue(FileSystem& files, std::string path, std::string store = "");

  // Reads the journal (a missing one is an empty queue) and compacts it.
  // False with a message when it cannot be read or rewritten.
  bool open(std::string* error);

  // Adds a record at the end, durably. False with a message when the
  // journal cannot be written: the record then waits in this object's
  // memory only (unjournaled()), and dies with the process.
  bool append(const StoredUut& uut, std::string* error);
  // Up to `count` records for this object's store that wait, oldest first:
  // those of the journal, then those only in memory.
  std::vector<StoredUut> front(size_t count, std::string* error = nullptr) const;
  // The store has taken the records of `keys`.
  bool acknowledge(const std::vector<std::string>& keys, std::string* error);
  // The store refused the record of `key` for what it holds: it is kept, with
  // the reason, but no longer sent.
  bool setAside(const std::string& key, const std::string& reason, std::string* error);

  // Records for this object's store that wait (in the journal, read afresh,
  // and in memory).
  size_t size() const;
  // Of those, the ones this object appended.
  size_t ownWaiting() const;
  // Records whose journal entry could not be written and that no store has
  // taken yet.
  std::vector<StoredUut> unjournaled() const;
  const std::string& path() const { return path_; }
  const std::string& store() const { return store_; }

  // Every record of the journal at `path` that waits or was set aside, in
  // order; `defaultStore` is the store of a record that names none.
  static bool ReadAll(FileSystem& files, const std::string& path, const std::string& defaultStore,
                      std::vector<QueuedRecord>& out, std::string* error);

  // The journal's line for an entry, and back; used by the tests to damage
  // a journal on purpose.
  static std::string EntryLine(std::string_view json);
  static bool ParseEntryLine(std::string_view line, std::string& json);

 private:
  // What this object knows of the journal: every record read so far with
  // what became of it, and how much of the file that was.
  struct Journal {
    bool valid = false;
    uint64_t device = 0;
    uint64_t inode = 0;
    uint64_t consumed = 0;  // bytes read, up to the last whole line
    std::string head;       // the file's first bytes, to tell a rewrite
    size_t lines = 0;
    std::vector<QueuedRecord> records;  // in order of their entries
    std::vector<bool> gone;             // acknowledged
    size_t goneCount = 0;
    std::unordered_map<std::string, size_t> byKey;  // of those not gone

    // Takes the whole lines of `text` (up to `whole`): records, their
    // acknowledgements and records set aside; a damaged line is passed over.
    void takeLines(const std::string& text, size_t whole, const std::string& defaultStore);
    void takeEntry(const nlohmann::json& entry, const std::string& defaultStore);
  };
  std::unique_ptr<FileLock> lockJournal(std::string* error) const;
  // Callers hold the lock on the journal: brings journal_ up to date with
  // the file, reading only what was appended since the last look.
  bool readLocked(std::string* error) const;
  bool appendLocked(const std::string& lines, std::string* error);
  bool rewriteLocked(std::string* error);
  // Compacts the journal when it is mostly acknowledgements.
  bool compactLocked(std::string* error);
  bool waitsHere(size_t index) const;
  static std::string RecordLine(const StoredUut& uut, const std::string& store);

  FileSystem& files_;
  std::string path_;
  std::string store_;
  mutable std::mutex mutex_;
  std::deque<StoredUut> unjournaled_;
  std::set<std::string> own_;       // appended here and not yet taken
  std::set<std::string> finished_;  // taken or set aside, whether or not the journal says so
  mutable Journal journal_;
};

std::string StoredUutToJson(const StoredUut& uut);
bool StoredUutFromJson(std::string_view json, StoredUut& uut);

}  // namespace tavrix
