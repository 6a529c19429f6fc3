// What the window offers at start-up when a run of an earlier session did
// not end (a power cut, a crash, a killed process): to go on with it where
// it was, to discard it, or to decide later. The offer and what each answer
// does live here, without a toolkit; the window only shows the question.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "common/clock.h"
#include "common/file_system.h"
#include "engine/run_checkpoints.h"

namespace tavrix {

class Engine;

inline constexpr std::string_view kResumeOfferTitle = "Interrupted run";
inline constexpr std::string_view kResumeChoice = "Resume";
inline constexpr std::string_view kDiscardChoice = "Discard";
inline constexpr std::string_view kLaterChoice = "Later";

struct ResumeOffer {
  InterruptedRun run;  // the newest interrupted run that can go on
  std::string text;    // the question: the sequence, the line, the unit, the gap
  // Later is the middle one, the window's default: Enter discards nothing.
  std::vector<std::string> choices{std::string(kResumeChoice), std::string(kLaterChoice),
                                   std::string(kDiscardChoice)};
};

// The offer for the newest interrupted run in the data root of `files` that
// can go on, at `now`; none when there is none. Checkpoints that cannot be
// used are not offered (tavrix-cli ctl list --interrupted shows them).
std::optional<ResumeOffer> ResumeOfferAtStartUp(const FileSystem& files, Micros now);

// Carries out the answer on the engine thread. Resume: the checks, the
// safe-state sequence and the run state as tavrix-cli run --resume does
// them, then the run goes on (this returns when it ends). Discard: the
// checkpoint goes to runs/discarded/. Later (or any other answer): it stays
// for another start. False, with a message for the operator, when the run
// cannot go on or the checkpoint cannot be moved; the checkpoint is kept.
bool CarryOutResumeChoice(Engine& engine, const ResumeOffer& offer, const std::string& choice,
                          std::string* message);

}  // namespace tavrix
