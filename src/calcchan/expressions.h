// The analysis expressions of FORMULA rows: a macro line "target = expression",
// the expression language (numbers, named results, waveforms, channel
// references in brackets, parentheses, the functions VALUE, CUT and POS, and
// the operators * / + - that all have the same priority and group from the
// right: 2*3+4 is 2*(3+4)), and the tables that names refer to.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "calcchan/calc_ports.h"
#include "common/file_system.h"

namespace tavrix {

inline constexpr std::string_view kTextCannotParseMacro =
    "Cannot parse macro line for vb analysis: ";
inline constexpr std::string_view kTextNoReading =
    "CalcChan: unable to get a reading from channel: ";
inline constexpr std::string_view kTextExpressionPrefix = "Expression: ";
inline constexpr std::string_view kTextExpressionSuffix = " cannot be evaluated";
inline constexpr std::string_view kTextValueArgs = "Analysis function: VALUE requires 2 arguments";
inline constexpr std::string_view kTextCutArgs = "Analysis function: CUT requires 3 arguments";
inline constexpr std::string_view kTextPosArgs = "Analysis function: POS requires 2 arguments";
inline constexpr std::string_view kTextBeyondEnd =
    "Trying to read a value beyond the end of a waveform";
inline constexpr std::string_view kTextWaveformMissingSuffix = " has not been loaded or created";
inline constexpr std::string_view kTextValueNotFound =
    "Analysis function: POS cannot find the value ";
// The marker of a waveform that CUT made.
inline constexpr std::string_view kCreatedMarker = "vbCreated";
// Waveform files: "<name>.csv" in the waveform folder.
inline constexpr std::string_view kWaveformExtension = ".csv";

struct NamedResult {
  std::string name;
  float value = 0;
};

struct Waveform {
  std::string name;
  std::vector<std::string> description;  // "#" lines of its file, or the marker
  std::vector<double> samples;           // sample 0, 1, 2, ...
};

// The evaluator's current result: a number, or a waveform.
struct AnalysisResult {
  bool isWaveform = false;
  double number = 0;
  Waveform waveform;
};

class Analyser {
 public:
  explicit Analyser(const CalcPorts& ports) : ports_(ports) {}

  // Evaluates "target = expression" and returns the value as text (a number
  // as numberText writes it), or empty text when nothing could be evaluated
  // or the value is a waveform. A number is stored as the named result
  // `target`, a waveform as the waveform `target` (each created or replaced).
  std::string EvaluateMacroLine(std::string_view line);
  // Evaluates an expression into result(); false after a failure, whose
  // message has been shown.
  bool EvaluateExpression(std::string_view expression);
  const AnalysisResult& result() const { return result_; }

  // Where waveform files are looked for (a local folder).
  void setWaveformFolder(const FileSystem& files, std::string folder) {
    files_ = &files;
    waveformFolder_ = std::move(folder);
  }
  // Loads a waveform from a CSV file (see docs/calculated-channels.md);
  // false with a reason when the file cannot be read or holds no sample.
  bool loadWaveform(std::string_view name, const std::string& path, std::string* error);
  // Forgets every named result and waveform.
  void clear();

  // (Whoever takes the table may change it: the results are then looked up
  // afresh.)
  std::vector<NamedResult>& namedResults() {
    indexed_ = false;
    return results_;
  }
  std::vector<Waveform>& waveforms() { return waveforms_; }
  // Case-blind lookups; a waveform that is not in the table yet is loaded from
  // "<name>.csv" in the waveform folder when that file exists.
  NamedResult* findResult(std::string_view name);
  Waveform* findWaveform(std::string_view name);

 private:
  bool eval(std::string_view text, AnalysisResult& out, int depth);
  bool operand(std::string_view token, std::string_view text, AnalysisResult& out);
  bool function(std::string_view name, std::string_view inside, std::string_view text,
                AnalysisResult& out, int depth);
  bool number(std::string_view text, double& out, int depth);
  bool channelValue(std::string_view name, double& out);
  bool fail(std::string_view message);
  bool cannotEvaluate(std::string_view text);

  const CalcPorts& ports_;
  AnalysisResult result_;
  std::vector<NamedResult> results_;
  // Where the first result of each name is, by the name upper-cased; made
  // again after the table was handed out or emptied. `key_` is the name
  // being looked up, upper-cased.
  std::unordered_map<std::string, size_t> resultIndex_;
  bool indexed_ = false;
  std::string key_;
  std::vector<Waveform> waveforms_;
  // None until setWaveformFolder: no waveform can be loaded.
  const FileSystem* files_ = nullptr;
  std::string waveformFolder_;
};

}  // namespace tavrix
