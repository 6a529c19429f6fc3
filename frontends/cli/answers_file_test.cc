#include "answers_file.h"

#include <gtest/gtest.h>

#include "console_operators.h"

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

TEST(ScriptedOperator, FieldsAfterTheButtonReachTheAskerWhole) {
  ScriptedOperator op(AnswersFile::parse("DATAENTRY: accept|serial=12|operator=Ann Lee\n"
                                         "DATAENTRY: Maybe|serial=13\n"
                                         "ENTEROKCANCEL: OK|serial=14\n"),
                      nullptr);
  Question entry{"DATAENTRY", "", "Data?", {"Accept", "Cancel"}};
  entry.fieldsAfterChoice = true;
  Answer got;
  op.ask(entry, [&](Answer a) { got = a; });
  EXPECT_EQ(got, "Accept|serial=12|operator=Ann Lee");
  // The part before the first '|' must still name a button.
  op.ask(entry, [&](Answer a) { got = a; });
  EXPECT_EQ(got, std::nullopt);
  // A question without fields keeps taking whole captions only.
  Question plain{"ENTEROKCANCEL", "", "Go?", {"OK", "Cancel"}};
  op.ask(plain, [&](Answer a) { got = a; });
  EXPECT_EQ(got, std::nullopt);
}

// A question that must be asked again after its answer (MANUALADJUST after
// Up, a refused data entry) may be, unless the answer came from a KIND*
// line: that line would only give the same answer again.
TEST(ScriptedOperator, AStandingAnswerCannotBeAskedForAgain) {
  ScriptedOperator op(AnswersFile::parse("MANUALADJUST: Up\nMANUALADJUST*: Down\n"), nullptr);
  Question q{"MANUALADJUST", "", "Adjust", {"Up", "Down", "Done"}};
  Answer got;
  op.ask(q, [&](Answer a) { got = a; });
  EXPECT_EQ(got, "Up");
  EXPECT_TRUE(op.mayAskAgain(q, "only Done ends it"));
  op.ask(q, [&](Answer a) { got = a; });
  EXPECT_EQ(got, "Down");
  EXPECT_FALSE(op.mayAskAgain(q, "only Done ends it"));
  EXPECT_EQ(op.unansweredReason(),
            "line 2 of the answers file answers \"Down\" to every MANUALADJUST question, and only "
            "Done ends it; the same answer would come again");
}

}  // namespace
}  // namespace tavrix
