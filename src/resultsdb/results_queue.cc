#include "resultsdb/results_queue.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <random>
#include <unordered_map>

#include "common/file_system.h"
#include "common/paths.h"
#include "common/trace.h"
#include "resultsdb/results_store.h"

namespace tavrix {

namespace {

using nlohmann::json;

uint32_t Crc32(std::string_view data) {
  static const std::array<uint32_t, 256> table = [] {
    std::array<uint32_t, 256> t{};
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[i] = c;
    }
    return t;
  }();
  uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char ch : data) crc = table[(crc ^ ch) & 0xFF] ^ (crc >> 8);
  return crc ^ 0xFFFFFFFFu;
}

// The file system's message, which names the file and the reason, said of
// the queue.
std::string QueueError(const std::string& error) { return "results queue: " + error; }

}  // namespace

StoredUut Utf8Record(const StoredUut& in) {
  StoredUut uut = in;
  for (std::string* f :
       {&uut.key, &uut.station, &uut.sequenceFile, &uut.testDefinition, &uut.testTitle,
        &uut.testVersion, &uut.serial, &uut.testDate, &uut.operators, &uut.description,
        &uut.startedAt, &uut.endedAt, &uut.resumed}) {
    *f = utf8FromSequenceText(*f);
  }
  // A file's name that is not UTF-8 is converted too (such a file cannot be
  // served by its name then; its record is kept whole).
  for (auto& f : uut.files) f = utf8FromSequenceText(f);
  for (auto& c : uut.checks) {
    for (std::string* f :
         {&c.kind, &c.parameter, &c.channel, &c.value, &c.units, &c.lower, &c.upper, &c.message}) {
      *f = utf8FromSequenceText(*f);
    }
  }
  return uut;
}

std::string StoredUutToJson(const StoredUut& original) {
  const StoredUut uut = Utf8Record(original);
  json checks = json::array();
  for (const auto& c : uut.checks) {
    checks.push_back({{"step", c.step},
                      {"row", c.row},
                      {"kind", c.kind},
                      {"parameter", c.parameter},
                      {"channel", c.channel},
                      {"value", c.value},
                      {"units", c.units},
                      {"lower", c.lower},
                      {"upper", c.upper},
                      {"passed", c.passed},
                      {"message", c.message}});
  }
  const json j = {{"key", uut.key},
                  {"station", uut.station},
                  {"sequence_file", uut.sequenceFile},
                  {"test_definition", uut.testDefinition},
                  {"test_title", uut.testTitle},
                  {"test_version", uut.testVersion},
                  {"serial", uut.serial},
                  {"test_date", uut.testDate},
                  {"operators", uut.operators},
                  {"description", uut.description},
                  {"started_at", uut.startedAt},
                  {"ended_at", uut.endedAt},
                  {"passed", uut.passed},
                  {"resumed", uut.resumed},
                  {"checks", checks},
                  {"files", uut.files}};
  // Text that was not UTF-8 (a description typed in another code page) was
  // converted above, as the store will convert it.
  return j.dump(-1, ' ', false, json::error_handler_t::replace);
}

bool StoredUutFromJson(std::string_view text, StoredUut& uut) {
  const json j = json::parse(text, nullptr, false);
  if (j.is_discarded() || !j.is_object()) return false;
  try {
    uut = StoredUut{};
    uut.key = j.at("key").get<std::string>();
    uut.station = j.at("station").get<std::string>();
    uut.sequenceFile = j.at("sequence_file").get<std::string>();
    uut.testDefinition = j.at("test_definition").get<std::string>();
    uut.testTitle = j.at("test_title").get<std::string>();
    uut.testVersion = j.at("test_version").get<std::string>();
    uut.serial = j.at("serial").get<std::string>();
    uut.testDate = j.at("test_date").get<std::string>();
    uut.operators = j.at("operators").get<std::string>();
    uut.description = j.at("description").get<std::string>();
    uut.startedAt = j.at("started_at").get<std::string>();
    uut.endedAt = j.at("ended_at").get<std::string>();
    uut.passed = j.at("passed").get<bool>();
    // Journals written before records named their files have none.
    if (j.contains("files")) uut.files = j.at("files").get<std::vector<std::string>>();
    // Journals written before resume notes were kept have none.
    uut.resumed = j.value("resumed", std::string());
    for (const auto& c : j.at("checks")) {
      StoredCheck check;
      check.step = c.at("step").get<int>();
      check.row = c.at("row").get<int>();
      check.kind = c.at("kind").get<std::string>();
      check.parameter = c.at("parameter").get<std::string>();
      check.channel = c.at("channel").get<std::string>();
      check.value = c.at("value").get<std::string>();
      check.units = c.at("units").get<std::string>();
      check.lower = c.at("lower").get<std::string>();
      check.upper = c.at("upper").get<std::string>();
      check.passed = c.at("passed").get<bool>();
      check.message = c.at("message").get<std::string>();
      uut.checks.push_back(std::move(check));
    }
  } catch (const json::exception&) {
    return false;
  }
  return true;
}

std::string ResultsQueue::EntryLine(std::string_view json) {
  char crc[16];
  std::snprintf(crc, sizeof crc, "%08x ", Crc32(json));
  return crc + std::string(json) + "\n";
}

bool ResultsQueue::ParseEntryLine(std::string_view line, std::string& json) {
  if (line.size() < 10 || line[8] != ' ') return false;
  const std::string_view body = line.substr(9);
  char crc[16];
  std::snprintf(crc, sizeof crc, "%08x", Crc32(body));
  if (line.substr(0, 8) != crc) return false;
  json = std::string(body);
  return true;
}

ResultsQueue::ResultsQueue(FileSystem& files, std::string path, std::string store)
    : files_(files), path_(std::move(path)), store_(std::move(store)) {
  if (store_.empty()) store_ = join(parentFolder(path_), kStoreFileName);
}

std::unique_ptr<FileLock> ResultsQueue::lockJournal(std::string* error) const {
  // The lock is the data root folder's, which must be there to be locked.
  const std::string folder = parentFolder(path_);
  if (!files_.isFolder(folder) && !files_.makeFolders(folder, error)) return nullptr;
  return files_.lock(path_, error);
}

bool ResultsQueue::readLocked(std::string* error) const {
  Journal& j = journal_;
  const FileInfo info = files_.info(path_);
  if (info.kind == FileKind::kMissing) {
    j = Journal{};
    j.valid = true;
    return true;
  }
  std::string readError;
  const auto in = files_.openInput(path_, &readError);
  if (!in) {
    if (error) *error = QueueError(readError);
    return false;
  }
  auto readUpTo = [&](uint64_t count, std::string& into) {
    char buf[65536];
    while (into.size() < count) {
      size_t got = 0;
      const size_t want = static_cast<size_t>(std::min<uint64_t>(sizeof buf, count - into.size()));
      if (!in->read(buf, want, got, &readError)) return false;
      if (got == 0) break;
      into.append(buf, got);
    }
    return true;
  };
  // Appends leave what was read before as it was; a rewrite is a new file
  // (another identity) that starts with a line of its own. Only then is the
  // whole journal read again.
  constexpr uint64_t kHead = 256;
  std::string head;
  bool more = j.valid && j.consumed > 0 && info.device == j.device && info.inode == j.inode &&
              info.size >= j.consumed;
  uint64_t readSoFar = 0;
  if (more) {
    if (!readUpTo(std::min(kHead, j.consumed), head)) {
      if (error) *error = QueueError(readError);
      return false;
    }
    readSoFar = head.size();
    more = head == j.head;
  }
  if (!more) {
    j = Journal{};
    if (readSoFar > 0 && !in->skipTo(0, 0, &readError)) {
      // A file read from its start can always go back there by reopening.
      const auto again = files_.openInput(path_, &readError);
      if (!again) {
        if (error) *error = QueueError(readError);
        return false;
      }
      return readLocked(error);
    }
    readSoFar = 0;
  }
  std::string text;
  if ((more && !in->skipTo(j.consumed, readSoFar, &readError)) ||
      !readUpTo(info.size - (more ? j.consumed : 0), text)) {
    j.valid = false;
    if (error) *error = QueueError(readError);
    return false;
  }
  j.device = info.device;
  j.inode = info.inode;
  // Lines are taken up to the last line end: a line without one is an
  // append still under way or cut off, read again next time.
  const size_t whole = text.rfind('\n') == std::string::npos ? 0 : text.rfind('\n') + 1;
  if (!more) j.head = text.substr(0, std::min<size_t>(kHead, whole));
  j.consumed += whole;
  j.valid = true;
  journal_.takeLines(text, whole, join(parentFolder(path_), kStoreFileName));
  return true;
}

void ResultsQueue::Journal::takeLines(const std::string& text, size_t whole,
                                      const std::string& defaultStore) {
  std::string body;
  for (size_t start = 0; start < whole;) {
    const size_t end = text.find('\n', start);
    const std::string_view line(text.data() + start, end - start);
    start = end + 1;
    ++lines;
    if (!ParseEntryLine(line, body)) continue;
    const json entry = json::parse(body, nullptr, false);
    if (entry.is_object()) takeEntry(entry, defaultStore);
  }
}

void ResultsQueue::Journal::takeEntry(const json& e, const std::string& defaultStore) {
  const auto keyOf = [&](const char* field) {
    return e[field].is_string() ? e[field].get<std::string>() : std::string();
  };
  if (e.contains("done")) {
    auto it = byKey.find(keyOf("done"));
    if (it != byKey.end()) {
      gone[it->second] = true;
      ++goneCount;
      byKey.erase(it);
    }
    return;
  }
  if (e.contains("aside")) {
    auto it = byKey.find(keyOf("aside"));
    if (it != byKey.end()) {
      QueuedRecord& r = records[it->second];
      r.setAside = true;
      r.reason = e.contains("reason") && e["reason"].is_string() ? e["reason"].get<std::string>()
                                                                 : std::string();
    }
    return;
  }
  QueuedRecord record;
  if (!e.contains("uut") || !StoredUutFromJson(e["uut"].dump(), record.uut)) return;
  // A record appended twice (its writer died before it knew the first
  // landed) waits once.
  if (byKey.count(record.uut.key)) return;
  record.store =
      e.contains("store") && e["store"].is_string() ? e["store"].get<std::string>() : defaultStore;
  byKey.emplace(record.uut.key, records.size());
  records.push_back(std::move(record));
  gone.push_back(false);
}

bool ResultsQueue::open(std::string* error) {
  std::lock_guard lock(mutex_);
  std::string lockError;
  const auto held = lockJournal(&lockError);
  if (!held) {
    if (error) *error = QueueError(lockError);
    return false;
  }
  journal_.valid = false;
  if (!readLocked(error)) return false;
  if (journal_.records.empty() && journal_.lines == 0) return true;
  return rewriteLocked(error);
}

bool ResultsQueue::ReadAll(FileSystem& files, const std::string& path,
                           const std::string& defaultStore, std::vector<QueuedRecord>& out,
                           std::string* error) {
  ResultsQueue queue(files, path, defaultStore);
  std::string lockError;
  const auto held = queue.lockJournal(&lockError);
  if (!held) {
    if (error) *error = QueueError(lockError);
    return false;
  }
  if (!queue.readLocked(error)) return false;
  out.clear();
  for (size_t i = 0; i < queue.journal_.records.size(); ++i) {
    if (!queue.journal_.gone[i]) out.push_back(std::move(queue.journal_.records[i]));
  }
  return true;
}

bool ResultsQueue::appendLocked(const std::string& lines, std::string* error) {
  std::string fsError;
  const std::string folder = parentFolder(path_);
  if (!files_.isFolder(folder) && !files_.makeFolders(folder, &fsError)) {
    if (error) *error = QueueError(fsError);
    return false;
  }
  // The journal holds the records of the plant's units: for its owner alone
  // to read. The append lands whole or not at all, and is on the disk when
  // it returns.
  if (!files_.createPrivate(path_, &fsError) || !files_.append(path_, lines, &fsError)) {
    if (error) *error = QueueError(fsError);
    return false;
  }
  return true;
}

bool ResultsQueue::rewriteLocked(std::string* error) {
  std::string text;
  for (size_t i = 0; i < journal_.records.size(); ++i) {
    if (journal_.gone[i]) continue;
    const QueuedRecord& r = journal_.records[i];
    text += RecordLine(r.uut, r.store);
    if (r.setAside) text += EntryLine(json({{"aside", r.uut.key}, {"reason", r.reason}}).dump());
  }
  journal_.valid = false;
  if (text.empty() && files_.info(path_).kind == FileKind::kMissing) return true;
  // A rewritten journal starts with a line of its own, so a reader that knew
  // the file before can tell it is not the same one.
  if (!text.empty()) {
    static thread_local std::mt19937_64 random{std::random_device{}()};
    text.insert(0, EntryLine(json({{"journal", std::to_string(random())}}).dump()));
  }
  std::string fsError;
  const std::string folder = parentFolder(path_);
  if ((!files_.isFolder(folder) && !files_.makeFolders(folder, &fsError)) ||
      !files_.writeAtomically(path_, text, &fsError)) {
    if (error) *error = QueueError(fsError);
    return false;
  }
  return true;
}

bool ResultsQueue::compactLocked(std::string* error) {
  if (!readLocked(error)) return false;
  const size_t kept = journal_.records.size() - journal_.goneCount;
  size_t waiting = 0;
  for (size_t i = 0; i < journal_.records.size(); ++i) {
    waiting += journal_.gone[i] || journal_.records[i].setAside ? 0 : 1;
  }
  // An acknowledgement that is lost only makes the record be sent again,
  // which its key makes harmless.
  if ((waiting == 0 && journal_.lines > kept) || journal_.lines > 4 * kept + 1000) {
    return rewriteLocked(error);
  }
  return true;
}

bool ResultsQueue::waitsHere(size_t i) const {
  const QueuedRecord& r = journal_.records[i];
  return !journal_.gone[i] && !r.setAside && r.store == store_ && finished_.count(r.uut.key) == 0;
}

std::string ResultsQueue::RecordLine(const StoredUut& uut, const std::string& store) {
  return EntryLine(
      json({{"store", store}}).dump().insert(1, "\"uut\":" + StoredUutToJson(uut) + ","));
}

bool ResultsQueue::append(const StoredUut& uut, std::string* error) {
  std::lock_guard lock(mutex_);
  own_.insert(uut.key);
  std::string lockError;
  const auto held = lockJournal(&lockError);
  if (!held) {
    if (error) *error = QueueError(lockError);
  } else if (appendLocked(RecordLine(uut, store_), error)) {
    return true;
  }
  unjournaled_.push_back(uut);
  return false;
}

std::vector<StoredUut> ResultsQueue::front(size_t count, std::string* error) const {
  std::lock_guard lock(mutex_);
  std::vector<StoredUut> out;
  std::string lockError;
  const auto held = lockJournal(&lockError);
  if (!held) {
    if (error) *error = QueueError(lockError);
  } else if (readLocked(error)) {
    for (size_t i = 0; i < journal_.records.size() && out.size() < count; ++i) {
      if (waitsHere(i)) out.push_back(journal_.records[i].uut);
    }
  }
  for (const auto& u : unjournaled_) {
    if (out.size() >= count) break;
    if (finished_.count(u.key) == 0) out.push_back(u);
  }
  return out;
}

bool ResultsQueue::acknowledge(const std::vector<std::string>& keys, std::string* error) {
  std::lock_guard lock(mutex_);
  std::string lines;
  for (const auto& key : keys) {
    finished_.insert(key);
    own_.erase(key);
    auto it = std::find_if(unjournaled_.begin(), unjournaled_.end(),
                           [&](const StoredUut& u) { return u.key == key; });
    if (it != unjournaled_.end()) {
      unjournaled_.erase(it);
      continue;
    }
    lines += EntryLine(json({{"done", key}}).dump());
  }
  if (lines.empty()) return true;
  std::string lockError;
  const auto held = lockJournal(&lockError);
  if (!held) {
    if (error) *error = QueueError(lockError);
    return false;
  }
  return appendLocked(lines, error) && compactLocked(error);
}

bool ResultsQueue::setAside(const std::string& key, const std::string& reason, std::string* error) {
  std::lock_guard lock(mutex_);
  finished_.insert(key);
  own_.erase(key);
  std::string lockError;
  const auto held = lockJournal(&lockError);
  if (!held) {
    if (error) *error = QueueError(lockError);
    return false;
  }
  auto it = std::find_if(unjournaled_.begin(), unjournaled_.end(),
                         [&](const StoredUut& u) { return u.key == key; });
  if (it != unjournaled_.end()) {
    // Kept in the journal, with the reason, if it can be written now.
    if (!appendLocked(RecordLine(*it, store_), error)) return false;
    unjournaled_.erase(it);
  }
  return appendLocked(EntryLine(json({{"aside", key}, {"reason", reason}}).dump()), error);
}

size_t ResultsQueue::size() const {
  std::lock_guard lock(mutex_);
  size_t n = 0;
  std::string lockError;
  const auto held = lockJournal(&lockError);
  if (held && readLocked(nullptr)) {
    for (size_t i = 0; i < journal_.records.size(); ++i) n += waitsHere(i) ? 1 : 0;
  }
  for (const auto& u : unjournaled_) n += finished_.count(u.key) ? 0 : 1;
  return n;
}

size_t ResultsQueue::ownWaiting() const {
  std::lock_guard lock(mutex_);
  if (own_.empty()) return 0;
  size_t n = 0;
  std::string lockError;
  const auto held = lockJournal(&lockError);
  if (!held || !readLocked(nullptr)) return own_.size();
  for (const auto& key : own_) {
    auto it = journal_.byKey.find(key);
    n += it != journal_.byKey.end() && waitsHere(it->second) ? 1 : 0;
  }
  for (const auto& u : unjournaled_) n += finished_.count(u.key) ? 0 : 1;
  return n;
}

std::vector<StoredUut> ResultsQueue::unjournaled() const {
  std::lock_guard lock(mutex_);
  std::vector<StoredUut> out;
  for (const auto& u : unjournaled_) {
    if (finished_.count(u.key) == 0) out.push_back(u);
  }
  return out;
}

}  // namespace tavrix
