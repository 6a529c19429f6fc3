#include "panel/run_panel.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "common/text_conventions.h"

namespace tavrix {

StartCommandLine ParseStartCommandLine(std::string_view commandLine) {
  StartCommandLine start;
  std::string name;
  const std::string_view rest = trimLeft(commandLine);
  if (!rest.empty() && rest[0] == '"') {
    const size_t close = rest.find('"', 1);
    name = rest.substr(1, close == std::string_view::npos ? std::string_view::npos : close - 1);
  } else {
    name = rest;
    const std::string upper = upperCase(name);
    const size_t flag = upper.rfind(" /A");
    if (flag != std::string::npos && trim(upper.substr(flag + 3)).empty()) name.erase(flag);
  }
  start.file = std::string(trim(name));
  start.autoStart = upperCase(commandLine).find(" /A") != std::string::npos;
  return start;
}

std::string FormatCountDown(double seconds) {
  const long long total = seconds > 0 ? static_cast<long long>(std::ceil(seconds - 1e-9)) : 0;
  const long long hours = total / 3600;
  const long long minutes = (total / 60) % 60;
  const long long secs = total % 60;
  char text[48];
  if (hours > 0) {
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", hours, minutes, secs);
  } else {
    std::snprintf(text, sizeof text, "%02lld:%02lld", minutes, secs);
  }
  return text;
}

namespace {

// "waitseconds 458.72" as its word and figure; false for any other display.
bool ParseCountDown(const std::string& text, std::string& word, double& figure) {
  const size_t space = text.find(' ');
  if (space == 0 || space == std::string::npos || text.find(' ', space + 1) != std::string::npos)
    return false;
  for (size_t i = 0; i < space; ++i)
    if (text[i] < 'a' || text[i] > 'z') return false;
  const std::string number = text.substr(space + 1);
  char* end = nullptr;
  figure = std::strtod(number.c_str(), &end);
  if (number.empty() || end != number.c_str() + number.size() || !std::isfinite(figure))
    return false;
  word = text.substr(0, space);
  return true;
}

}  // namespace

void RunPanel::stepping() {
  controls_.stopEnabled = true;
  controls_.runEnabled = true;
  controls_.stepEnabled = true;
  controls_.skipEnabled = true;
  // The box stays ticked while the run steps; Run or Stop ends the stepping.
  controls_.singleStepTicked = true;
  controls_.singleStepEnabled = false;
  controls_.fileMenuEnabled = false;
}

void RunPanel::started(bool stepped) {
  end_.clear();
  endedInError_ = false;
  line_ = 0;
  steppedRun_ = stepped;
  if (stepped) {
    stepping();
  } else {
    controls_.singleStepEnabled = false;
    controls_.stepEnabled = false;
    controls_.runEnabled = false;
    controls_.stopEnabled = true;
    controls_.fileMenuEnabled = false;
  }
}

void RunPanel::stopped(bool untick) {
  controls_.runEnabled = true;
  controls_.stopEnabled = false;
  controls_.skipEnabled = false;
  controls_.stepEnabled = false;
  controls_.singleStepEnabled = true;
  if (untick) controls_.singleStepTicked = false;
  controls_.fileMenuEnabled = true;
}

void RunPanel::runEnded(const std::string& reason) {
  wait_.reset();
  ended(reason);
  held_ = false;
  controls_.singleStepTicked = false;
  if (steppedRun_) {
    controls_.runEnabled = true;
    controls_.stopEnabled = false;
    controls_.stepEnabled = false;
    controls_.skipEnabled = false;
  }
  steppedRun_ = false;
}

void RunPanel::commandShown(const std::string& text) {
  command_ = text;
  std::string word;
  double left = 0;
  if (!ParseCountDown(text, word, left)) {
    wait_.reset();
    return;
  }
  if (!wait_ || wait_->word != word) {
    wait_ = WaitProgress{word, left, left};
    // The line's own figure is the wait's full length ("WAITSECONDS 600").
    std::string lineWord;
    double length = 0;
    if (ParseCountDown(lowerCase(lineText_), lineWord, length) && lineWord == word &&
        length >= left)
      wait_->length = length;
  }
  wait_->left = left;
}

bool RunPanel::apply(const RunEvent& event) {
  const RunControls before = controls_;
  switch (event.kind) {
    case RunEventKind::kPrepared:
      controls_.runEnabled = true;
      controls_.stepEnabled = false;
      controls_.singleStepEnabled = true;
      break;
    case RunEventKind::kFile:
      file_ = event.text;
      break;
    case RunEventKind::kStarted:
      started(event.flag);
      break;
    case RunEventKind::kPaused:
      stepping();
      break;
    case RunEventKind::kResumed:
      // A held run goes on freely: the controls become those of a free run.
      controls_.singleStepTicked = false;
      controls_.singleStepEnabled = false;
      controls_.runEnabled = false;
      controls_.stepEnabled = false;
      controls_.skipEnabled = false;
      break;
    case RunEventKind::kHold:
      held_ = true;
      break;
    case RunEventKind::kRelease:
      held_ = false;
      break;
    case RunEventKind::kStopped:
      stopped(event.flag);
      break;
    case RunEventKind::kStopAllowed:
      controls_.stopEnabled = event.flag;
      break;
    case RunEventKind::kEnd:
      runEnded(event.text);
      break;
    case RunEventKind::kLine:
      line_ = event.line;
      lineText_ = event.text;
      wait_.reset();
      break;
    case RunEventKind::kStatus:
      status_ = event.text;
      break;
    case RunEventKind::kCommand:
      commandShown(event.text);
      break;
    case RunEventKind::kTimeout:
      timeout_ = event.number;
      break;
    default:
      break;
  }
  return !(controls_ == before);
}

void RunPanel::ended(const std::string& reason) {
  endedInError_ = reason == "error";
  if (reason == "eof") {
    end_ = "Ended: end of file";
  } else if (reason == "stop") {
    end_ = "Ended: STOP in the sequence";
  } else if (reason == "abort") {
    // The operator's Stop, or a close that ended the run.
    end_ = "Ended: Stop";
  } else if (reason == "limit") {
    end_ = "Ended: run limit";
  } else if (endedInError_) {
    // The error stops the run on the line it was found on.
    end_ = line_ > 0 ? "Ended: sequence error at line " + std::to_string(line_)
                     : "Ended: sequence error";
  } else {
    end_ = "Ended";
  }
}

bool RunPanel::tickSingleStep(bool ticked) {
  controls_.singleStepTicked = ticked;
  return ticked;
}

}  // namespace tavrix
