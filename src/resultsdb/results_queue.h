// The durable local queue of the results store: UUT records that wait to be
// written, kept in a journal file in the data root so that neither a store
// that cannot be reached nor a crash loses one.
//
// The journal is a text file, one entry a line: a checksum, a blank, and a
// JSON object - a record ({"uut": ...}) or the acknowledgement of one
// ({"done": KEY}). Each entry is appended through the file-system port in
// one piece, and is on the disk before append() returns. A line whose checksum does
// not match (a write cut off by a crash) is ignored. When nothing waits the
// journal is replaced, atomically, by an empty one; on opening, by one that
// holds only the records still waiting.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "resultsdb/stored_uut.h"

namespace tavrix {

class FileSystem;

inline constexpr std::string_view kQueueFileName = "results-queue.journal";

class ResultsQueue {
 public:
  // The journal is the file `path` of `files`.
  ResultsQueue(FileSystem& files, std::string path) : files_(files), path_(std::move(path)) {}

  // Reads the journal (a missing one is an empty queue) and rewrites it with
  // the records that still wait. False with a message when it cannot be read
  // or rewritten; the records read are kept either way.
  bool open(std::string* error);

  // Adds a record at the end, durably. False with a message when the
  // journal cannot be written; the record still waits, in memory only.
  bool append(const StoredUut& uut, std::string* error);
  // Up to `count` records from the front, oldest first.
  std::vector<StoredUut> front(size_t count) const;
  // Removes the `count` records at the front, which the store has taken.
  bool acknowledge(size_t count, std::string* error);
  size_t size() const;
  const std::string& path() const { return path_; }

  // The journal's line for an entry, and back; used by the tests to damage
  // a journal on purpose.
  static std::string EntryLine(std::string_view json);
  static bool ParseEntryLine(std::string_view line, std::string& json);

 private:
  bool appendLine(const std::string& line, std::string* error);
  bool rewrite(std::string* error);

  FileSystem& files_;
  std::string path_;
  mutable std::mutex mutex_;
  std::deque<StoredUut> pending_;
  size_t linesInFile_ = 0;
};

std::string StoredUutToJson(const StoredUut& uut);
bool StoredUutFromJson(std::string_view json, StoredUut& uut);

}  // namespace tavrix
