#include "indexing/index_files.h"

#include "common/text_conventions.h"
#include "common/text_file.h"
#include "common/text_items.h"

namespace tavrix {

namespace {

constexpr std::string_view kMarker = "???";

}  // namespace

bool IndexFileTable::add(std::string_view spec, std::string_view nameTemplate, int16_t limit,
                         std::string* message) {
  specs_.emplace_back(spec);
  const std::string local = paths_.toLocal(trim(spec));
  std::string error;
  if (local.find('/') != std::string::npos) files_.makeFolders(parentFolder(local), nullptr);
  // Two runs may set up the same index file at once: one creates it.
  if (const auto held = files_.lock(local, &error)) {
    const FileKind kind = files_.info(local).kind;
    std::string text;
    if (kind == FileKind::kFolder) {
      error = "it is a folder";
    } else if (kind != FileKind::kMissing) {
      if (readTextFile(files_, local, text, &error)) return true;
    } else {
      const std::string number = std::to_string(limit);
      if (writeTextFileAtomically(files_, local, {ItemToWrite(nameTemplate), number, number},
                                  &error)) {
        return true;
      }
    }
  }
  if (message) *message = "Open " + std::string(spec) + " error: -" + error;
  return false;
}

std::string IndexFileTable::issue(int number, Micros now, std::string* message, std::string* reason,
                                  const std::function<void()>& yield) {
  auto fail = [&](std::string why) {
    if (reason) *reason = std::move(why);
    return std::string();
  };
  if (number < 1 || static_cast<size_t>(number) > specs_.size()) {
    return fail("there is no index file number " + std::to_string(number));
  }
  const std::string local = paths_.toLocal(trim(specs_[static_cast<size_t>(number) - 1]));
  std::string text;
  std::string error;
  // The number is read and the next one written under one lock, so that two
  // runs never get the same number.
  const auto held = files_.lock(local, &error);
  if (!held) return fail(error);
  if (!readTextFile(files_, local, text, &error)) return fail(error);
  const std::vector<std::string> lines = splitLines(text);
  if (lines.size() < 3) return fail(local + " holds no template, limit and last number");
  std::string nameTemplate;
  TextItemReader(lines[0]).next(nameTemplate);
  const auto limit = roundToInt16(leadingNumber(lines[1]));
  const auto last = roundToInt16(leadingNumber(lines[2]));
  if (!limit || !last) return fail(local + " holds a limit or last number out of range");
  std::vector<std::string> history;
  for (size_t i = 3; i < lines.size(); ++i) {
    if (!lines[i].empty()) history.push_back(lines[i]);
    if (yield) yield();
  }

  int next = *last + 1;
  if (next > *limit) next = 1;
  const size_t marker = nameTemplate.find(kMarker);
  if (marker == std::string::npos) {
    if (message) *message = kNoQuestionMarks;
    return fail(std::string(kNoQuestionMarks));
  }
  const std::string name = nameTemplate.substr(0, marker) + formatNumber(next, "000") +
                           nameTemplate.substr(marker + kMarker.size());

  // The template is read as an item, so it is written as one.
  std::vector<std::string> out = {ItemToWrite(nameTemplate), std::to_string(*limit),
                                  std::to_string(next)};
  out.push_back(name + "\t" + formatDate(now, "dd-mm-yyyy") + " " + formatDate(now, "hh:mm:ss"));
  const size_t keep = *limit > 0 ? static_cast<size_t>(*limit) : 0;
  for (size_t i = 0; i < history.size() && i < keep; ++i) out.push_back(history[i]);
  if (!writeTextFileAtomically(files_, local, out, &error)) return fail(error);
  return name;
}

}  // namespace tavrix
