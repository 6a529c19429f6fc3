#include "panel/run_panel.h"

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
      steppedRun_ = event.flag;
      if (event.flag) {
        stepping();
      } else {
        controls_.singleStepEnabled = false;
        controls_.stepEnabled = false;
        controls_.runEnabled = false;
        controls_.stopEnabled = true;
        controls_.fileMenuEnabled = false;
      }
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
      controls_.runEnabled = true;
      controls_.stopEnabled = false;
      controls_.skipEnabled = false;
      controls_.stepEnabled = false;
      controls_.singleStepEnabled = true;
      if (event.flag) controls_.singleStepTicked = false;
      controls_.fileMenuEnabled = true;
      break;
    case RunEventKind::kStopAllowed:
      controls_.stopEnabled = event.flag;
      break;
    case RunEventKind::kEnd:
      held_ = false;
      controls_.singleStepTicked = false;
      if (steppedRun_) {
        controls_.runEnabled = true;
        controls_.stopEnabled = false;
        controls_.stepEnabled = false;
        controls_.skipEnabled = false;
      }
      steppedRun_ = false;
      break;
    case RunEventKind::kLine:
      line_ = event.line;
      break;
    case RunEventKind::kStatus:
      status_ = event.text;
      break;
    case RunEventKind::kCommand:
      command_ = event.text;
      break;
    case RunEventKind::kTimeout:
      timeout_ = event.number;
      break;
    default:
      break;
  }
  return !(controls_ == before);
}

bool RunPanel::tickSingleStep(bool ticked) {
  controls_.singleStepTicked = ticked;
  return ticked;
}

}  // namespace tavrix
