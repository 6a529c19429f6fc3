// Stage checks and the operator's verdicts: the check types, the questions
// they ask (UUT Check, Alert Message, the check-failure window, the offer to
// repeat a step), and the texts they record.
#pragma once

#include <string>
#include <string_view>

namespace tavrix {

// Check types, compared trimmed and upper-cased.
inline constexpr std::string_view kCheckManual = "MANUAL";
inline constexpr std::string_view kCheckRecord = "RECORD";
inline constexpr std::string_view kCheckMeasure = "MEASURE";
inline constexpr std::string_view kCheckDifference = "DIFFERENCE";
inline constexpr std::string_view kMsgUnrecognisedType = "Unrecognised Check Type: ";

inline constexpr std::string_view kUnNamed = "Un-Named";
inline constexpr std::string_view kOpPass = "Op Pass";
inline constexpr std::string_view kOpFail = "Op Fail";
inline constexpr std::string_view kValueFormat = "#0.00";

// The UUT Check question.
inline constexpr std::string_view kUutCheckKind = "UUTCHECK";
inline constexpr std::string_view kUutCheckTitle = "UUT Check";
inline constexpr std::string_view kPass = "Pass";
inline constexpr std::string_view kFailAndRepeat = "Fail and Repeat";
inline constexpr std::string_view kFailAndContinue = "Fail and Continue";

// The Alert Message question, with either Accept and Cancel or Pass, Fail
// and Retry.
inline constexpr std::string_view kAlertKind = "ALERT";
inline constexpr std::string_view kAlertTitle = "Alert Message";
inline constexpr std::string_view kFail = "Fail";
inline constexpr std::string_view kRetry = "Retry";

// The check-failure window.
inline constexpr std::string_view kCheckFailureKind = "CHECKFAILURE";
inline constexpr std::string_view kCheckFailureTitle = "Check Failure";
inline constexpr std::string_view kCheckFailureKeys = "F1: Ignore  F2 Repeat  F3: Fail and Abandon";
inline constexpr std::string_view kIgnore = "Ignore";
inline constexpr std::string_view kRepeat = "Repeat";
inline constexpr std::string_view kFailAndAbandon = "Fail and Abandon";

// Where a repeat was asked for, the step is offered again.
inline constexpr std::string_view kRepeatStepKind = "REPEATSTEP";
inline constexpr std::string_view kRepeatLastStep = "Repeat last test step";
inline constexpr std::string_view kContinueWithTest = "Continue with test";

// Check verdicts.
inline constexpr int kVerdictPass = 1;        // pass, or ignore
inline constexpr int kVerdictRepeat = 2;      // Repeat in the check-failure window
inline constexpr int kVerdictFail = 3;        // fail and continue, fail and abandon
inline constexpr int kVerdictFailRepeat = 4;  // Fail and Repeat of the UUT Check

// "Value: 3.00  Min: 1  Max: 2" for a value outside its limits.
std::string LimitFailureText(std::string_view value, float lower, float upper);

// A limit as text, the way a number joins a string: 1.5 -> "1.5", 2 -> "2".
std::string LimitText(float limit);

}  // namespace tavrix
