#include "panel/resume_offer.h"

#include "common/civil_time.h"
#include "engine/engine.h"

namespace tavrix {

std::optional<ResumeOffer> ResumeOfferAtStartUp(const FileSystem& files, Micros now) {
  InterruptedRun run;
  if (!FindInterruptedRun(files, "", run, nullptr)) return std::nullopt;
  ResumeOffer offer;
  offer.text =
      "The run of " + run.sequence + " did not end: it was at line " + std::to_string(run.line) +
      (run.file != run.sequence ? " of " + run.file : "") +
      (run.serial.empty() ? ", with no unit under test" : ", testing the unit " + run.serial) +
      ", when its last checkpoint was taken at " + isoDateTime(run.taken) + ", " +
      GapText(now - run.taken) +
      " ago.\n\nResume it where it was, or discard it (it is kept in runs/discarded/ "
      "for a week)?";
  offer.run = std::move(run);
  return offer;
}

bool CarryOutResumeChoice(Engine& engine, const ResumeOffer& offer, const std::string& choice,
                          std::string* message) {
  if (choice == kDiscardChoice)
    return DiscardCheckpoint(engine.files(), offer.run.path, engine.clock().now(), message);
  if (choice != kResumeChoice) return true;
  ResumeReport report;
  if (!engine.prepareResume(offer.run.path, false, &report, message)) return false;
  engine.runResumed();
  // A resumed run that ends abnormally leaves the rig safe, as any other.
  engine.makeSafeAfterAbnormalEnd();
  return true;
}

}  // namespace tavrix
