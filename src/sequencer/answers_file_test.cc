#include "sequencer/answers_file.h"

#include <gtest/gtest.h>

#include "sequencer/console_operators.h"

namespace tavrix {
namespace {

std::string Take(AnswersFile& file, std::string_view kind) {
  const auto* line = file.take(kind);
  return line ? line->caption : "<none>";
}

TEST(AnswersFile, TaggedUntaggedAndStandingAnswers) {
  AnswersFile file = AnswersFile::parse(
      "# comment\n"
      "\n"
      "ENTEROKCANCEL: Cancel\r\n"
      "OK\n"
      "QUESTION*: Yes\n"
      "CONTINUEOK: Continue\n");
  // A CONTINUEOK question skips the ENTEROKCANCEL line and takes "OK".
  EXPECT_EQ(Take(file, "CONTINUEOK"), "OK");
  EXPECT_EQ(Take(file, "ENTEROKCANCEL"), "Cancel");
  EXPECT_EQ(Take(file, "CONTINUEOK"), "Continue");
  // The standing answer serves every QUESTION once the other lines are used.
  EXPECT_EQ(Take(file, "QUESTION"), "Yes");
  EXPECT_EQ(Take(file, "QUESTION"), "Yes");
  EXPECT_EQ(Take(file, "ENTEROKCANCEL"), "<none>");
}

TEST(AnswersFile, UnusedLinesComeFirstInFileOrder) {
  AnswersFile file = AnswersFile::parse("ENTEROKCANCEL*: OK\nCancel\n");
  EXPECT_EQ(Take(file, "ENTEROKCANCEL"), "Cancel");
  EXPECT_EQ(Take(file, "ENTEROKCANCEL"), "OK");
  // A caption that merely holds a colon is no tag.
  AnswersFile odd = AnswersFile::parse("Repeat: last test step\n");
  EXPECT_EQ(Take(odd, "DB_STAGECHECK"), "Repeat: last test step");
}

TEST(ScriptedOperator, RefusesACaptionThatIsNoButton) {
  ScriptedOperator op(AnswersFile::parse("Maybe\nok\n"), nullptr);
  Question q{"ENTEROKCANCEL", "", "Go?", {"OK", "Cancel"}};
  Answer got = std::string("unset");
  op.ask(q, [&](Answer a) { got = a; });
  EXPECT_EQ(got, std::nullopt);
  EXPECT_NE(op.unansweredReason().find("line 1"), std::string::npos);
  op.ask(q, [&](Answer a) { got = a; });
  EXPECT_EQ(got, "OK");  // any case names the button
  op.ask(q, [&](Answer a) { got = a; });
  EXPECT_EQ(got, std::nullopt);
  EXPECT_NE(op.unansweredReason().find("no answer left"), std::string::npos);
}

}  // namespace
}  // namespace tavrix
