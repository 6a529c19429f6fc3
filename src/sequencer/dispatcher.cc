#include "sequencer/dispatcher.h"

#include <algorithm>
#include <stdexcept>

#include "sequencer/sequencer.h"

namespace tavrix {

// The order of comparison of the original table; a word is looked up by
// exact, case-sensitive equality, so the order matters only for speed.
const std::array<std::string_view, kKeywordCount> kKeywords = {
    "IMSFILESPEC",
    "ICONISE",
    "APPLOAD",
    "GOTO",
    "WAITSECONDS",
    "WAITRANDOM",
    "WAIT",
    "WAITALARM",
    "WAITNOALARM",
    "WAITTIMEOFDAY",
    "WAITDATETIME",
    "EXECUTEDEFINE",
    "ONTIMEOUT",
    "ENTEROKCANCEL",
    "ENTERSEND",
    "SEND",
    "SENDKEYS",
    "SENDSMC",
    "RAMP",
    "IMLDEF",
    "IMLESC",
    "MONITOR",
    "KILLMONITOR",
    "LINKPOKE",
    "LINKEXECUTE",
    "STOP",
    "WAIT580",
    "COPYFILE",
    "CHECKIMS",
    "LOGONCE",
    "ABORTTEST",
    "ALARMDEFINE",
    "PULSEOUTPUT",
    "[GROUPRAMPS]",
    "STARTTIMECOUNT",
    "AFTERTIMECOUNT",
    "REZERO",
    "INDEXINIT",
    "INDEXSAVE580",
    "INDEXLOGGERFILE",
    "ENDTAVRIX",
    "WAITSTREAMER",
    "STARTSTREAMER",
    "SINEOUT",
    "RESETLOOPCOUNT",
    "INCREMENTLOOPCOUNT",
    "CHECK",
    "NONSTOP",
    "LOOPCHECK",
    "CHAIN",
    "RETURN",
    "FILEDELETE",
    "SELECTMENU",
    "PAUSEALARM",
    "DOWITHSHOW",
    "[HELPTEXT]",
    "MANUALADJUST",
    "CONTINUEOK",
    "SHOWERROROFF",
    "SHOWERRORON",
    "STARTCALCULATEDCHANNELS",
    "CC_CHANGELOGGERS",
    "CC_START",
    "CC_PAUSE",
    "DB_STAGECHECK",
    "DB_DATAENTRY",
};

namespace {

int keywordIndex(std::string_view word) {
  for (size_t i = 0; i < kKeywords.size(); ++i) {
    if (kKeywords[i] == word) return static_cast<int>(i);
  }
  return -1;
}

}  // namespace

void ReportParseFailure(Sequencer& sequencer, const std::string& message) {
  sequencer.reportSequenceError(message);
}

Dispatcher::Dispatcher() = default;

void Dispatcher::add(KeywordEntry entry, CommandHandler handler) {
  if (hasHandler(entry.name)) throw std::logic_error("keyword " + entry.name + " is bound twice");
  const int index = keywordIndex(entry.name);
  if (index >= 0) {
    handlers_[static_cast<size_t>(index)] = std::move(handler);
  } else {
    others_.emplace_back(entry.name, std::move(handler));
  }
  entries_.push_back(std::move(entry));
}

bool Dispatcher::hasHandler(std::string_view keyword) const {
  const int index = keywordIndex(keyword);
  if (index >= 0) return handlers_[static_cast<size_t>(index)] != nullptr;
  return std::any_of(others_.begin(), others_.end(),
                     [&](const auto& other) { return other.first == keyword; });
}

std::string Dispatcher::notAvailableText(std::string_view keyword) {
  return std::string(keyword) + " - command is not available in this version of the program";
}

void Dispatcher::run(Sequencer& sequencer, const CommandLine& command) const {
  const int index = keywordIndex(command.word);
  if (index >= 0) {
    const auto& handler = handlers_[static_cast<size_t>(index)];
    if (handler) {
      handler(sequencer, command);
    } else {
      sequencer.reportSequenceError(notAvailableText(command.word));
    }
    return;
  }
  for (const auto& [word, handler] : others_) {
    if (word == command.word) {
      handler(sequencer, command);
      return;
    }
  }
}

}  // namespace tavrix
