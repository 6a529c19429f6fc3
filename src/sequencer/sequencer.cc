#include "sequencer/sequencer.h"

#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

#include "common/text_conventions.h"

namespace tavrix {

namespace {

constexpr Micros kSecondsTimerInterval = kMicrosPerSecond;
constexpr std::string_view kCloseQuestionTitle = "Corvane Test Sequence";
constexpr std::string_view kCloseQuestionText =
    "This application should not be  stopped\rDo you want to stop it ?";
constexpr std::string_view kLineCountOverflowText =
    "Line count overflow - a sequence file can hold at most 32767 lines";
constexpr std::string_view kWaitCannotEndText =
    "Wait can never end - nothing is left that could end it";

}  // namespace

const char* EndReasonName(EndReason reason) {
  switch (reason) {
    case EndReason::kEndOfFile:
      return "eof";
    case EndReason::kStop:
      return "stop";
    case EndReason::kError:
      return "error";
    case EndReason::kAbort:
      return "abort";
    case EndReason::kUnload:
      return "error";  // the program ends after a message
    case EndReason::kLimit:
      return "limit";
    case EndReason::kNone:
      break;
  }
  return "none";
}

Sequencer::Sequencer(EventLoop& events, Operator& op, Trace& trace, FileSystem& files,
                     const PathMap& paths)
    : events_(events),
      operator_(op),
      trace_(trace),
      files_(files),
      paths_(paths),
      secondsTimer_(events, kSecondsTimerInterval, [this] { secondsTick(); }) {
  // The trace is the first subscriber: it records each event before any
  // front end acts on it.
  traceWriter_ = runEvents_.subscribe([this](const RunEvent& event) { traceEvent(event); });
}

Sequencer::~Sequencer() = default;

// --- The sequence file -----------------------------------------------------

bool Sequencer::prepareFile(const std::string& path, std::string* error) {
  std::string name(trimRight(path));
  if (!file_.open(files_, name, error)) return false;
  file_.close();
  defines_.clear();
  for (auto& hook : prepareHooks_) hook();
  fileName_ = name;
  preparedName_ = name;
  publish(RunEventKind::kFile, fileName_);
  flags_.singleStepHold = true;
  flags_.running = false;
  publish(RunEventKind::kPrepared, fileName_);
  setStatus(kStatusReady);
  return true;
}

bool Sequencer::readNextLine(std::string& line) {
  if (!file_.readLine(line)) return false;
  if (lineNumber_ == INT16_MAX) {
    // The counter is 16 bits wide: a further line cannot be counted.
    reportSequenceError(kLineCountOverflowText);
    return false;
  }
  ++lineNumber_;
  return true;
}

bool Sequencer::searchLabel(std::string_view label) {
  const std::string name(trim(label));
  const std::string target = upperCase(name) + ":";
  lineNumber_ = 0;
  file_.close();
  std::string error;
  if (!file_.open(files_, fileName_, &error)) {
    reportSequenceError(error);
    return false;
  }
  const auto index = file_.findLineContaining(target);
  if (index && *index >= static_cast<size_t>(INT16_MAX)) {
    file_.skipPast(static_cast<size_t>(INT16_MAX) - 1);
    lineNumber_ = INT16_MAX;
    reportSequenceError(kLineCountOverflowText);
    return false;
  }
  if (!index) {
    // Read to the end without a match: the file is left at its end.
    file_.skipToEnd();
    lineNumber_ = static_cast<int16_t>(std::min<size_t>(file_.linesRead(), INT16_MAX));
    reportSequenceError("Label " + name + ": does not exist");
    return false;
  }
  file_.skipPast(*index);
  lineNumber_ = static_cast<int16_t>(*index + 1);
  return true;
}

// --- The run loop ----------------------------------------------------------

void Sequencer::runLoop() {
  flags_.jumpPending = false;
  flags_.timeoutPending = false;
  endReason_ = EndReason::kNone;
  lastError_.clear();
  flags_.quitRequested = false;
  fileName_ = preparedName_;
  std::string error;
  const bool opened = file_.open(files_, fileName_, &error);
  flags_.running = true;
  flags_.endRequested = false;
  flags_.stopRequested = false;
  flags_.mustNotBeStopped = false;
  lineNumber_ = 0;
  if (!opened) reportSequenceError(error);
  if (opened && resumeState_ && !applyResumeState(&error)) reportSequenceError(error);
  resumeState_.reset();
  for (auto& hook : runStartHooks_) hook();

  std::string line;
  // The last command came from a between-lines check. A resumed run that
  // goes on inside a line runs that line first: the checks ran before it.
  bool fromCheck = std::exchange(resumeInsideLine_, false);
  while (!file_.atEnd() && !flags_.stopRequested && !flags_.endRequested) {
    if (flags_.jumpPending) {
      searchLabel(jumpTarget_);
      flags_.jumpPending = false;
    }
    if (flags_.timeoutPending) {
      runTimeoutTarget();
      flags_.timeoutPending = false;
    }
    // A failed search leaves the file at its end, or asks the run to end.
    if (flags_.endRequested || file_.atEnd()) break;
    if (!fromCheck && runBetweenLinesChecks()) {
      fromCheck = true;
      continue;
    }
    fromCheck = false;
    if (!readNextLine(line)) break;
    if (!flags_.stopRequested) dispatchLine(line, true);
  }
  for (auto& hook : runEndHooks_) hook();

  if (!flags_.stopRequested) {
    if (endReason_ == EndReason::kNone) endReason_ = EndReason::kEndOfFile;
    stop();
  } else if (endReason_ == EndReason::kNone) {
    endReason_ = EndReason::kAbort;
  }
  secondsTimer_.setEnabled(false);
  file_.close();
  flags_.running = false;
  flags_.singleStepMode = false;
  pausedFromOutside_ = false;
  holdReason_.clear();
  publish(RunEventKind::kEnd, EndReasonName(endReason_));
}

void Sequencer::runTimeoutTarget() {
  if (jumpTargetIsDefine_ && onExecuteDefine_) {
    onExecuteDefine_(*this, jumpTarget_);
  } else {
    searchLabel(jumpTarget_);
  }
}

bool Sequencer::takeTimeoutActionNow() {
  const bool armed = onTimeoutFired_ && onTimeoutFired_(*this);
  if (!armed) {
    cancelTimeout();
    return false;
  }
  runTimeoutTarget();
  return true;
}

bool Sequencer::runBetweenLinesChecks() {
  for (auto& check : betweenLines_) {
    if (auto command = check(*this)) {
      if (flags_.stopRequested || flags_.endRequested) return false;
      dispatchLine(*command);
      return true;
    }
  }
  return false;
}

void Sequencer::dispatchLine(std::string& line, bool fromFile) {
  if (!line.empty() && line[0] == '\n') line.erase(0, 1);
  if (!line.empty() && line[0] == '\t') line.erase(0, 1);
  const size_t blanks = line.find_first_not_of(' ');
  line.erase(0, blanks == std::string::npos ? line.size() : blanks);

  showCurrentCommand(line);
  if (linesHeard()) {
    RunEvent event;
    event.kind = RunEventKind::kLine;
    event.line = lineNumber_;
    event.text = line;
    publish(std::move(event));
  }
  events_.processPendingEvents();

  // Until it runs, a held line is run again by a run that goes on from here.
  lineInProgress_ = fromFile;
  lineFromFile_ = fromFile;
  lineRerunnable_ = fromFile;
  inTimedWait_ = false;
  if (flags_.singleStepMode) {
    RunEvent hold;
    hold.kind = RunEventKind::kHold;
    hold.line = lineNumber_;
    hold.text = line;
    hold.title = holdReason_.empty() ? "step" : holdReason_;
    hold.number = holdReason_ == "break" ? holdBreakpoint_ : 0;
    holdReason_.clear();
    holdBreakpoint_ = 0;
    publish(std::move(hold));
    // Only a person, or the front end that paused the run, can release the
    // hold.
    std::optional<EventLoop::OutsideWait> person;
    if (operator_.isPerson() || pausedFromOutside_) person.emplace(events_);
    releasedBy_.clear();
    waitUntil([this] { return !flags_.singleStepHold || !flags_.singleStepMode; });
    flags_.singleStepHold = true;
    publish(RunEventKind::kRelease, releasedBy_);
    // A line held when Stop is pressed is not run: an output written after
    // the operator pressed Stop would endanger the rig and the person at it.
    if (flags_.stopRequested) {
      lineInProgress_ = false;
      return;
    }
  }

  const CommandLine command = SplitCommandLine(line);
  lineInProgress_ = true;
  lineFromFile_ = fromFile;
  lineRerunnable_ = false;
  events_.processPendingEvents();
  const int16_t number = lineNumber_;  // a jump moves it
  if (fromFile) lineStart_ = number;
  // What a resumed run kept of its first line's command is for that line,
  // not for a command an alarm check gives before it.
  std::optional<Micros> keptWaitLeft;
  std::unique_ptr<nlohmann::json> keptProgress;
  if (!fromFile) {
    keptWaitLeft = std::exchange(resumedWaitLeft_, std::nullopt);
    keptProgress = std::move(resumedProgress_);
  }
  dispatcher_.run(*this, command);
  resumedWaitLeft_ = keptWaitLeft;
  resumedProgress_ = std::move(keptProgress);
  lineProgress_ = nullptr;
  lineInProgress_ = false;
  inTimedWait_ = false;
  for (auto& hook : lineHooks_) hook(number);
}

// --- Run commands ------------------------------------------------------------

void Sequencer::start() {
  if (flags_.running) {
    resume();
    return;
  }
  if (fileName_.empty()) return;
  flags_.stopRequested = false;
  RunEvent started;
  started.kind = RunEventKind::kStarted;
  started.text = fileName_;
  publish(std::move(started));
  setStatus(kStatusRunning);
  flags_.singleStepHold = false;
  runLoop();
}

void Sequencer::startStepping() {
  if (flags_.running || fileName_.empty()) return;
  flags_.singleStepMode = true;
  RunEvent started;
  started.kind = RunEventKind::kStarted;
  started.text = fileName_;
  started.flag = true;
  publish(std::move(started));
  setStatus(kStatusRunning);
  flags_.singleStepHold = true;
  events_.processPendingEvents();
  runLoop();
}

void Sequencer::pause() {
  if (!flags_.running || flags_.singleStepMode || runEnding()) return;
  flags_.singleStepMode = true;
  flags_.singleStepHold = true;
  pausedFromOutside_ = true;
  holdReason_ = "pause";
  publish(RunEventKind::kPaused);
}

void Sequencer::holdForBreakpoint(int64_t id) {
  if (!flags_.running || runEnding()) return;
  if (!flags_.singleStepMode) {
    flags_.singleStepMode = true;
    flags_.singleStepHold = true;
    publish(RunEventKind::kPaused);
  }
  pausedFromOutside_ = true;
  holdReason_ = "break";
  holdBreakpoint_ = id;
}

void Sequencer::resume() {
  // A held run goes on freely from the current line.
  if (!flags_.running || !flags_.singleStepMode) return;
  releasedBy_ = "resume";
  flags_.singleStepHold = false;
  flags_.singleStepMode = false;
  pausedFromOutside_ = false;
  publish(RunEventKind::kResumed);
  setStatus(kStatusRunning);
}

void Sequencer::step() {
  flags_.stepExecute = true;
  flags_.singleStepHold = false;
  releasedBy_ = "step";
  events_.processPendingEvents();
}

void Sequencer::skip() {
  flags_.singleStepHold = false;
  flags_.stepExecute = false;
  releasedBy_ = "skip";
}

void Sequencer::stop() {
  flags_.jumpPending = true;
  flags_.stopRequested = true;
  RunEvent stopped;
  stopped.kind = RunEventKind::kStopped;
  stopped.flag = flags_.singleStepMode;
  publish(std::move(stopped));
  setStatus(kStatusStopped);
  if (flags_.singleStepHold) releasedBy_ = "stop";
  flags_.singleStepHold = false;
  flags_.stepExecute = false;
  secondsTimer_.setEnabled(false);
  for (auto& hook : stopHooks_) hook();
}

void Sequencer::requestEnd(EndReason reason) {
  flags_.endRequested = true;
  if (endReason_ == EndReason::kNone) endReason_ = reason;
}

void Sequencer::requestAbort() {
  if (endReason_ == EndReason::kNone) endReason_ = EndReason::kAbort;
  stop();
}

void Sequencer::requestLimitStop() {
  if (endReason_ == EndReason::kNone) endReason_ = EndReason::kLimit;
  stop();
}

bool Sequencer::mayClose() {
  if (!flags_.mustNotBeStopped) return true;
  Question question;
  question.kind = "QUESTION";
  question.title = kCloseQuestionTitle;
  question.text = kCloseQuestionText;
  question.choices = {"Yes", "No", "Cancel"};
  // Only an explicit Yes closes: a question that gets no answer, or any
  // other answer, leaves the run going.
  const Answer answer = awaitAnswer(question, {}, {}).answer;
  return answer && *answer == "Yes";
}

void Sequencer::startResumed() {
  if (flags_.running || fileName_.empty() || !resumeState_) return;
  flags_.stopRequested = false;
  const bool stepping = resumeState_->value("stepping", false);
  RunEvent started;
  started.kind = RunEventKind::kStarted;
  started.text = fileName_;
  started.flag = stepping;
  publish(std::move(started));
  setStatus(kStatusRunning);
  flags_.singleStepMode = stepping;
  flags_.singleStepHold = stepping;
  runLoop();
}

void Sequencer::startAtNextSecond() {
  if (fileName_.empty()) return;
  flags_.autoStartPending = true;
  secondsTimer_.setEnabled(true);
}

// --- The seconds timer -------------------------------------------------------

void Sequencer::secondsTick() {
  if (flags_.autoStartPending) {
    flags_.autoStartPending = false;
    secondsTimer_.setEnabled(false);
    // Started from outside the tick, so that the timer runs during the run.
    events_.post([this] { start(); });
    return;
  }
  if (!deadline_) return;
  const Micros left = *deadline_ - events_.now();
  timeoutSeconds_ = static_cast<int32_t>(std::floor(static_cast<double>(left) / kMicrosPerSecond));
  RunEvent timeout;
  timeout.kind = RunEventKind::kTimeout;
  timeout.number = timeoutSeconds_;
  publish(std::move(timeout));
  if (timeoutSeconds_ < 0) flags_.timeoutExpired = true;
}

void Sequencer::cancelTimeout() {
  deadline_.reset();
  flags_.timeoutExpired = false;
  secondsTimer_.setEnabled(false);
}

bool Sequencer::continueInFile(const std::string& path, int16_t linesToSkip, std::string* error) {
  SequenceFile next;
  if (!next.open(files_, path, error)) return false;
  std::string line;
  int16_t skipped = 0;
  while (skipped < linesToSkip && next.readLine(line)) ++skipped;
  file_ = std::move(next);
  fileName_ = path;
  lineNumber_ = skipped;
  publish(RunEventKind::kFile, fileName_);
  return true;
}

void Sequencer::setTimeoutDeadline(Micros deadline) {
  deadline_ = deadline;
  flags_.timeoutExpired = false;
  secondsTimer_.setEnabled(true);
}

// --- Services ------------------------------------------------------------------

void Sequencer::reportSequenceError(std::string_view text) {
  const std::string message = "Sequence file: " + fileName_ +
                              "\rError on line:" + numberText(lineNumber_) + "\r" +
                              std::string(text);
  lastError_ = text;
  RunEvent event;
  event.kind = RunEventKind::kMessage;
  event.title = kErrorTitle;
  event.text = message;
  event.flag = !errorDisplayOff_;
  publish(std::move(event));
  if (!errorDisplayOff_) operator_.showMessage(kErrorTitle, message);
  requestEnd(EndReason::kError);
}

void Sequencer::showMessage(std::string_view text) {
  RunEvent event;
  event.kind = RunEventKind::kMessage;
  event.title = kErrorTitle;
  event.text = text;
  event.flag = true;
  publish(std::move(event));
  operator_.showMessage(kErrorTitle, text);
}

bool Sequencer::waitEnds(WaitRule rule) const {
  if (flags_.jumpPending || flags_.timeoutPending) return true;
  switch (rule) {
    case WaitRule::kJumpOrTimeout:
      return false;
    case WaitRule::kInterrupted:
      return flags_.stopRequested;
    case WaitRule::kRunEnding:
      return runEnding();
    case WaitRule::kPollSleep:
      return flags_.stopRequested || flags_.timeoutExpired;
  }
  return false;
}

bool Sequencer::waitUntil(const std::function<bool()>& done,
                          const std::function<void()>& eachTurn) {
  if (events_.waitUntil(done, eachTurn)) return true;
  reportSequenceError(kWaitCannotEndText);
  return false;
}

Sequencer::AnswerWait Sequencer::awaitAnswer(const Question& question,
                                             const std::function<bool()>& closeNow,
                                             std::string_view closedAs) {
  auto result = std::make_shared<std::optional<Answer>>();
  EventLoop& loop = events_;
  AnswerWait wait;
  {
    RunEvent prompt;
    prompt.kind = RunEventKind::kPrompt;
    prompt.title = question.kind;
    prompt.text = question.text;
    prompt.items = question.choices;
    publish(std::move(prompt));
    std::optional<EventLoop::OutsideWait> person;
    if (operator_.isPerson()) person.emplace(events_);
    operator_.ask(question, [&loop, result](Answer answer) {
      loop.post([result, answer] { *result = answer; });
    });
    wait.waitEnded = events_.waitUntil([&] {
      if (result->has_value()) return true;
      wait.closed = closeNow && closeNow();
      return wait.closed;
    });
  }
  if (wait.closed) {
    operator_.closeQuestion();
    wait.answer = std::string(closedAs);
  } else {
    wait.answer = result->value_or(std::nullopt);
  }
  RunEvent answered;
  answered.kind = RunEventKind::kAnswer;
  answered.title = question.kind;
  answered.text = question.text;
  answered.answer = wait.answer;
  publish(std::move(answered));
  return wait;
}

Answer Sequencer::ask(const Question& question) { return ask(question, {}, {}); }

Answer Sequencer::ask(const Question& question, const std::function<bool()>& closeNow,
                      std::string_view closedAs) {
  const AnswerWait wait = awaitAnswer(question, closeNow, closedAs);
  if (!wait.waitEnded) {
    reportSequenceError(kWaitCannotEndText);
  } else if (!wait.answer) {
    reportSequenceError("No answer to the " + question.kind + " question \"" + question.text +
                        "\" - " + operator_.unansweredReason());
  }
  return wait.answer;
}

bool Sequencer::mayAskAgain(const Question& question, std::string_view why) {
  if (operator_.mayAskAgain(question, why)) return true;
  reportSequenceError("No answer to the " + question.kind + " question \"" + question.text +
                      "\" - " + operator_.unansweredReason());
  return false;
}

void Sequencer::examineDefineTable() {
  if (onExamineDefines_) onExamineDefines_(*this);
}

void Sequencer::addDefine(DefineEntry entry) {
  if (trimRight(entry.first).empty()) {
    defines_.assign(1, DefineEntry{});
    return;
  }
  defines_.push_back(std::move(entry));
}

bool Sequencer::replaceDefine(std::string_view name, std::string second, bool isChain) {
  const std::string wanted = upperCase(name);
  for (auto& entry : defines_) {
    if (upperCase(trim(entry.first)) == wanted) {
      entry.second = std::move(second);
      entry.isChain = isChain;
      return true;
    }
  }
  return false;
}

void Sequencer::setStopAllowed(bool allowed) {
  RunEvent event;
  event.kind = RunEventKind::kStopAllowed;
  event.flag = allowed;
  publish(std::move(event));
}

void Sequencer::showCurrentCommand(std::string_view text) {
  if (runEvents_.subscribers() > 1) publish(RunEventKind::kCommand, std::string(text));
}

void Sequencer::setStatus(std::string_view status) {
  if (status == currentStatus_) return;
  currentStatus_ = status;
  publish(RunEventKind::kStatus, currentStatus_);
}

void Sequencer::publish(RunEvent event) {
  event.time = events_.now();
  runEvents_.publish(event);
}

void Sequencer::publish(RunEventKind kind, std::string text) {
  RunEvent event;
  event.kind = kind;
  event.text = std::move(text);
  publish(std::move(event));
}

void Sequencer::traceEvent(const RunEvent& event) {
  if (!trace_.enabled()) return;
  switch (event.kind) {
    case RunEventKind::kLine:
      trace_.line(event.time, static_cast<int>(event.line), event.text);
      break;
    case RunEventKind::kStatus:
      trace_.event("status").field("text", event.text);
      break;
    case RunEventKind::kHold: {
      auto traced = trace_.event("hold");
      traced.field("n", static_cast<int>(event.line)).field("reason", event.title);
      if (event.title == "break") traced.field("id", event.number);
      break;
    }
    case RunEventKind::kRelease:
      trace_.event("resume").field("by", event.text);
      break;
    case RunEventKind::kMessage: {
      auto traced = trace_.event("message");
      traced.field("title", event.title).field("text", event.text);
      if (!event.flag) traced.field("shown", false);
      break;
    }
    case RunEventKind::kAnswer: {
      auto traced = trace_.event("prompt");
      traced.field("kind", event.title).field("text", event.text);
      if (event.answer) {
        traced.field("answer", *event.answer);
      } else {
        traced.field("answer", std::nullopt);
      }
      break;
    }
    default:
      break;
  }
}

}  // namespace tavrix

namespace tavrix {

// --- The run state kept in a checkpoint -----------------------------------------

void Sequencer::addStatePart(std::string name, StateSave save, StateRestore restore) {
  stateParts_.push_back({std::move(name), std::move(save), std::move(restore)});
}

std::unique_ptr<nlohmann::json> Sequencer::takeResumedProgress() {
  return std::move(resumedProgress_);
}

void Sequencer::enterTimedWait(Micros due) {
  inTimedWait_ = lineInProgress_ && lineFromFile_;
  timedWaitDue_ = due;
  for (auto& hook : waitHooks_) hook();
}

void Sequencer::saveRunState(nlohmann::json& state) const {
  using nlohmann::json;
  const Micros now = events_.now();
  // A line in progress that may be run again is read again: the file
  // position is the line before it.
  const bool again = lineInProgress_ && lineFromFile_ && (inTimedWait_ || lineRerunnable_);
  state["file"] = fileName_;
  state["prepared"] = preparedName_;
  state["lines"] = again ? lineStart_ - 1 : lineNumber_;
  state["lineAgain"] = again;
  state["waitLeft"] = again && inTimedWait_ && timedWaitDue_ && *timedWaitDue_ != Clock::kNever
                          ? json(std::max<Micros>(0, *timedWaitDue_ - now))
                          : json(nullptr);
  state["progress"] = again && inTimedWait_ && lineProgress_ ? lineProgress_() : json(nullptr);
  state["loopCount"] = loopCount_;
  json defines = json::array();
  for (const auto& entry : defines_) defines.push_back({entry.first, entry.second, entry.isChain});
  state["defines"] = std::move(defines);
  state["timeoutLeft"] = deadline_ ? json(*deadline_ - now) : json(nullptr);
  state["timeoutSeconds"] = timeoutSeconds_;
  state["timeoutExpired"] = flags_.timeoutExpired;
  state["timeoutPending"] = flags_.timeoutPending;
  state["jumpTarget"] = jumpTarget_;
  state["jumpIsDefine"] = jumpTargetIsDefine_;
  state["jumpPending"] = flags_.jumpPending && !flags_.stopRequested;
  state["endRequested"] = flags_.endRequested;
  state["endReason"] = static_cast<int>(endReason_);
  state["stepping"] = flags_.singleStepMode;
  state["errorDisplayOff"] = errorDisplayOff_;
  state["mustNotBeStopped"] = flags_.mustNotBeStopped;
  json parts = json::object();
  for (const auto& part : stateParts_) {
    json saved = json::object();
    part.save(saved);
    parts[part.name] = std::move(saved);
  }
  state["parts"] = std::move(parts);
}

bool Sequencer::restoreRunState(const nlohmann::json& state, std::string* error) {
  try {
    if (!state.is_object() || !state.contains("lines") || !state.contains("parts"))
      throw std::runtime_error("the run state is incomplete");
    const auto& parts = state.at("parts");
    for (const auto& part : stateParts_) {
      const auto found = parts.find(part.name);
      if (found == parts.end()) continue;  // the subsystem was not in use
      std::string problem;
      if (!part.restore(*found, &problem)) {
        if (error) *error = part.name + ": " + problem;
        return false;
      }
    }
    resumeState_ = std::make_unique<nlohmann::json>(state);
    return true;
  } catch (const std::exception& e) {
    if (error) *error = std::string("the run state cannot be read: ") + e.what();
    return false;
  }
}

bool Sequencer::applyResumeState(std::string* error) {
  try {
    const nlohmann::json& state = *resumeState_;
    const std::string file = state.at("file").get<std::string>();
    const int lines = state.at("lines").get<int>();
    if (lines < 0 || lines > INT16_MAX) throw std::runtime_error("a line number out of range");
    if (!continueInFile(file, static_cast<int16_t>(lines), error)) return false;
    if (lineNumber_ != lines) {
      if (error) *error = "the file " + file + " is shorter than the line to go on at";
      return false;
    }
    loopCount_ = state.at("loopCount").get<int32_t>();
    defines_.clear();
    for (const auto& entry : state.at("defines"))
      defines_.push_back({entry.at(0).get<std::string>(), entry.at(1).get<std::string>(),
                          entry.at(2).get<bool>()});
    const auto& timeoutLeft = state.at("timeoutLeft");
    if (!timeoutLeft.is_null()) setTimeoutDeadline(events_.now() + timeoutLeft.get<Micros>());
    timeoutSeconds_ = state.value("timeoutSeconds", 0);
    flags_.timeoutExpired = state.value("timeoutExpired", false);
    flags_.timeoutPending = state.value("timeoutPending", false);
    jumpTarget_ = state.value("jumpTarget", std::string());
    jumpTargetIsDefine_ = state.value("jumpIsDefine", false);
    flags_.jumpPending = state.value("jumpPending", false);
    errorDisplayOff_ = state.value("errorDisplayOff", false);
    flags_.mustNotBeStopped = state.value("mustNotBeStopped", false);
    if (state.value("endRequested", false)) {
      const int reason = state.value("endReason", 0);
      requestEnd(reason >= 0 && reason <= static_cast<int>(EndReason::kLimit)
                     ? static_cast<EndReason>(reason)
                     : EndReason::kStop);
    }
    resumeInsideLine_ = state.value("lineAgain", false);
    const auto& waitLeft = state.at("waitLeft");
    if (!waitLeft.is_null()) resumedWaitLeft_ = waitLeft.get<Micros>();
    const auto progress = state.find("progress");
    if (progress != state.end() && !progress->is_null())
      resumedProgress_ = std::make_unique<nlohmann::json>(*progress);
    return true;
  } catch (const std::exception& e) {
    if (error) *error = std::string("the run state cannot be read: ") + e.what();
    return false;
  }
}

}  // namespace tavrix
