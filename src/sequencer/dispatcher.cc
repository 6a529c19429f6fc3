#include "sequencer/dispatcher.h"

#include "sequencer/sequencer.h"

namespace tavrix {

// The order of comparison of the original table; a word is looked up by
// exact, case-sensitive equality, so the order matters only for speed.
const std::array<std::string_view, kKeywordCount> kKeywords = {
    "IMSFILESPEC",     "ICONISE",       "APPLOAD",        "GOTO",
    "WAITSECONDS",     "WAITRANDOM",    "WAIT",           "WAITALARM",
    "WAITNOALARM",     "WAITTIMEOFDAY", "WAITDATETIME",   "EXECUTEDEFINE",
    "ONTIMEOUT",       "ENTEROKCANCEL", "ENTERSEND",      "SEND",
    "SENDKEYS",        "SENDSMC",       "RAMP",           "IMLDEF",
    "IMLESC",          "MONITOR",       "KILLMONITOR",    "LINKPOKE",
    "LINKEXECUTE",     "STOP",          "WAIT580",        "COPYFILE",
    "CHECKIMS",        "LOGONCE",       "ABORTTEST",      "ALARMDEFINE",
    "PULSEOUTPUT",     "[GROUPRAMPS]",  "STARTTIMECOUNT", "AFTERTIMECOUNT",
    "REZERO",          "INDEXINIT",     "INDEXSAVE580",   "INDEXLOGGERFILE",
    "ENDTAVRIX",       "WAITSTREAMER",  "STARTSTREAMER",  "SINEOUT",
    "RESETLOOPCOUNT",  "INCREMENTLOOPCOUNT", "CHECK",     "NONSTOP",
    "LOOPCHECK",       "CHAIN",         "RETURN",         "FILEDELETE",
    "SELECTMENU",      "PAUSEALARM",    "DOWITHSHOW",     "[HELPTEXT]",
    "MANUALADJUST",    "CONTINUEOK",    "SHOWERROROFF",   "SHOWERRORON",
    "STARTCALCULATEDCHANNELS", "CC_CHANGELOGGERS", "CC_START", "CC_PAUSE",
    "DB_STAGECHECK",   "DB_DATAENTRY",
};

namespace {

int keywordIndex(std::string_view word) {
  for (size_t i = 0; i < kKeywords.size(); ++i) {
    if (kKeywords[i] == word) return static_cast<int>(i);
  }
  return -1;
}

}  // namespace

Dispatcher::Dispatcher() = default;

bool Dispatcher::registerHandler(std::string_view keyword, CommandHandler handler) {
  const int index = keywordIndex(keyword);
  if (index < 0) return false;
  handlers_[static_cast<size_t>(index)] = std::move(handler);
  return true;
}

bool Dispatcher::hasHandler(std::string_view keyword) const {
  const int index = keywordIndex(keyword);
  return index >= 0 && handlers_[static_cast<size_t>(index)] != nullptr;
}

void Dispatcher::addExtension(CommandExtension extension) {
  extensions_.push_back(std::move(extension));
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
  for (const auto& extension : extensions_) {
    if (extension(sequencer, command)) return;
  }
}

}  // namespace tavrix
