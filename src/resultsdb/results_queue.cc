#include "resultsdb/results_queue.h"

#include <array>
#include <nlohmann/json.hpp>

#include "common/file_system.h"

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

std::string StoredUutToJson(const StoredUut& uut) {
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
                  {"checks", checks}};
  // Text that is not valid UTF-8 (a description typed in another code page)
  // is kept byte for byte as far as the JSON allows.
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

bool ResultsQueue::open(std::string* error) {
  std::lock_guard lock(mutex_);
  pending_.clear();
  if (files_.info(path_).kind != FileKind::kMissing) {
    std::string text;
    std::string readError;
    if (!files_.readFile(path_, text, &readError)) {
      if (error) *error = QueueError(readError);
      return false;
    }
    std::string body;
    for (size_t start = 0; start < text.size();) {
      size_t end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      const std::string_view line(text.data() + start, end - start);
      start = end + 1;
      // The last line of a journal cut off by a crash has no line end; it
      // fails its checksum (or, if whole, was written in full).
      if (!ParseEntryLine(line, body)) continue;
      const json j = json::parse(body, nullptr, false);
      if (!j.is_object()) continue;
      if (j.contains("done")) {
        const std::string key = j["done"].is_string() ? j["done"].get<std::string>() : "";
        for (auto it = pending_.begin(); it != pending_.end(); ++it) {
          if (it->key == key) {
            pending_.erase(it);
            break;
          }
        }
        continue;
      }
      StoredUut uut;
      if (j.contains("uut") && StoredUutFromJson(j["uut"].dump(), uut)) {
        pending_.push_back(std::move(uut));
      }
    }
  }
  return rewrite(error);
}

bool ResultsQueue::appendLine(const std::string& line, std::string* error) {
  std::string fsError;
  const std::string folder = parentFolder(path_);
  if (!files_.isFolder(folder) && !files_.makeFolders(folder, &fsError)) {
    if (error) *error = QueueError(fsError);
    return false;
  }
  // The append lands whole or not at all, and is on the disk when it
  // returns.
  if (!files_.append(path_, line, &fsError)) {
    if (error) *error = QueueError(fsError);
    return false;
  }
  ++linesInFile_;
  return true;
}

bool ResultsQueue::rewrite(std::string* error) {
  std::string text;
  for (const auto& uut : pending_) {
    text += EntryLine("{\"uut\":" + StoredUutToJson(uut) + "}");
  }
  if (text.empty() && files_.info(path_).kind == FileKind::kMissing) {
    linesInFile_ = 0;
    return true;
  }
  std::string fsError;
  const std::string folder = parentFolder(path_);
  if ((!files_.isFolder(folder) && !files_.makeFolders(folder, &fsError)) ||
      !files_.writeAtomically(path_, text, &fsError)) {
    if (error) *error = QueueError(fsError);
    return false;
  }
  linesInFile_ = pending_.size();
  return true;
}

bool ResultsQueue::append(const StoredUut& uut, std::string* error) {
  std::lock_guard lock(mutex_);
  pending_.push_back(uut);
  return appendLine(EntryLine("{\"uut\":" + StoredUutToJson(uut) + "}"), error);
}

std::vector<StoredUut> ResultsQueue::front(size_t count) const {
  std::lock_guard lock(mutex_);
  count = std::min(count, pending_.size());
  return {pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(count)};
}

bool ResultsQueue::acknowledge(size_t count, std::string* error) {
  std::lock_guard lock(mutex_);
  std::string lines;
  for (size_t i = 0; i < count && !pending_.empty(); ++i) {
    lines += EntryLine(json({{"done", pending_.front().key}}).dump());
    pending_.pop_front();
  }
  // An acknowledgement that is lost only makes the record be sent again,
  // which its key makes harmless.
  if (pending_.empty() || linesInFile_ > 4 * pending_.size() + 1000) return rewrite(error);
  return appendLine(lines, error);
}

size_t ResultsQueue::size() const {
  std::lock_guard lock(mutex_);
  return pending_.size();
}

}  // namespace tavrix
