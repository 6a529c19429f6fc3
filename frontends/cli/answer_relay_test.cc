#include "answer_relay.h"

#include <gtest/gtest.h>

namespace tavrix {
namespace {

// A person at a terminal who has not answered yet.
class SlowPerson : public Operator {
 public:
  void ask(const Question&, std::function<void(Answer)> answered) override {
    answered_ = std::move(answered);
    open = true;
  }
  void closeQuestion() override { open = false; }
  bool isPerson() const override { return true; }
  void showMessage(std::string_view, std::string_view) override {}
  void type(const std::string& text) { answered_(text); }
  bool open = false;

 private:
  std::function<void(Answer)> answered_;
};

// A question may be answered from elsewhere: the answer names a button by
// caption (any case) or number, the front end that asked closes its
// question, and whichever answer comes first is the only one the engine
// gets. Nothing waiting, or text that names no answer, is refused with a
// message that says what would do.
TEST(AnswerRelay, TheFirstAnswerFromAnywhereIsTheOneAndTheAskerClosesItsQuestion) {
  SlowPerson person;
  AnswerRelay relay(person);
  std::string error;
  EXPECT_FALSE(relay.answer("OK", &error));
  EXPECT_EQ(error, "no question waits for an answer");

  std::vector<Answer> got;
  relay.ask({"CONTINUEOK", "", "Close the door", {"OK", "Cancel"}},
            [&](Answer a) { got.push_back(a); });
  ASSERT_TRUE(relay.openQuestion());
  EXPECT_EQ(relay.openQuestion()->text, "Close the door");
  EXPECT_FALSE(relay.answer("maybe", &error));
  EXPECT_EQ(error, "\"maybe\" names no answer of the CONTINUEOK question (OK, Cancel)");
  EXPECT_TRUE(got.empty());
  EXPECT_TRUE(person.open);

  EXPECT_TRUE(relay.answer("cancel", &error)) << error;
  EXPECT_FALSE(person.open);
  person.type("OK");  // too late: the question was answered
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0], "Cancel");
  EXPECT_FALSE(relay.openQuestion());
  EXPECT_FALSE(relay.answer("OK", &error));

  // The person first: an answer from elsewhere then finds nothing waiting.
  relay.ask({"ENTEROKCANCEL", "", "Hot?", {"OK", "Cancel"}}, [&](Answer a) { got.push_back(a); });
  person.type("OK");
  EXPECT_FALSE(relay.answer("2", &error));
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[1], "OK");

  // A question with fields takes them after its button; a number names a
  // button.
  relay.ask({"DATAENTRY", "", "", {"Accept", "Cancel"}, true}, [&](Answer a) { got.push_back(a); });
  EXPECT_TRUE(relay.answer("accept|serial=1234", &error)) << error;
  relay.ask({"QUESTION", "", "Go?", {"Yes", "No"}}, [&](Answer a) { got.push_back(a); });
  EXPECT_TRUE(relay.answer("2", &error)) << error;
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[2], "Accept|serial=1234");
  EXPECT_EQ(got[3], "No");

  // The engine closing the question (a stop) leaves nothing to answer.
  relay.ask({"CONTINUEOK", "", "Again", {"OK"}}, [&](Answer a) { got.push_back(a); });
  relay.closeQuestion();
  EXPECT_FALSE(relay.answer("OK", &error));
  EXPECT_EQ(got.size(), 4u);
}

}  // namespace
}  // namespace tavrix
