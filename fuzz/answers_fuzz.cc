// An answers file of arbitrary bytes, then questions of several kinds.

#include <string_view>

#include "cli/console_operators.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace tavrix;
  ScriptedOperator op(
      AnswersFile::parse(std::string_view(reinterpret_cast<const char*>(data), size)), nullptr);
  for (const char* kind : {"CONTINUEOK", "ENTEROKCANCEL", "QUESTION", "DATAENTRY", "CONTINUEOK"}) {
    Question q{kind, "", "?", {"OK", "Cancel"}};
    op.ask(q, [](Answer) {});
  }
  return 0;
}
