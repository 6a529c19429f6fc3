#include "calcchan/expressions.h"

#include <algorithm>
#include <cmath>

#include "common/paths.h"
#include "common/text_conventions.h"
#include "common/text_file.h"
#include "common/text_items.h"

namespace tavrix {
namespace {

// Deeper nesting than this is refused rather than risking the stack.
constexpr int kMaxDepth = 400;

// Names compare with the ASCII letters upper-cased, as upperCase does.
char upperAscii(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

bool sameName(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (upperAscii(a[i]) != upperAscii(b[i])) return false;
  }
  return true;
}

bool isOperator(char c) { return c == '*' || c == '/' || c == '+' || c == '-'; }

// `left` and `right` joined by one of the four operators.
double arithmetic(char op, double left, double right) {
  switch (op) {
    case '*':
      return left * right;
    case '/':
      return left / right;
    case '+':
      return left + right;
    default:
      return left - right;
  }
}

// The position of the bracket that closes the one at `open`, counting
// nesting; npos when it is never closed.
size_t matching(std::string_view text, size_t open, char opening, char closing) {
  int level = 0;
  for (size_t i = open; i < text.size(); ++i) {
    if (text[i] == opening) ++level;
    if (text[i] == closing && --level == 0) return i;
  }
  return std::string_view::npos;
}

// Splits function arguments at the commas outside nested brackets.
std::vector<std::string_view> splitArguments(std::string_view inside) {
  std::vector<std::string_view> args;
  int level = 0;
  size_t start = 0;
  for (size_t i = 0; i < inside.size(); ++i) {
    const char c = inside[i];
    if (c == '(' || c == '[') ++level;
    if (c == ')' || c == ']') --level;
    if (c == ',' && level == 0) {
      args.push_back(trim(inside.substr(start, i - start)));
      start = i + 1;
    }
  }
  args.push_back(trim(inside.substr(start)));
  return args;
}

// A number token whose exponent sign is being read ("1E" before "-3").
bool awaitsExponentSign(std::string_view token) {
  token = trim(token);
  if (token.size() < 2) return false;
  const char last = static_cast<char>(std::toupper(static_cast<unsigned char>(token.back())));
  if (last != 'E' && last != 'D') return false;
  const char first = token.front();
  return (first >= '0' && first <= '9') || first == '.';
}

// Text that is written as a number (so that "0" or "0.00" is zero and not a
// name).
bool looksNumeric(std::string_view token) {
  if (!token.empty() && (token[0] == '+' || token[0] == '-')) token.remove_prefix(1);
  return !token.empty() && ((token[0] >= '0' && token[0] <= '9') || token[0] == '.');
}

}  // namespace

bool Analyser::fail(std::string_view message) {
  if (ports_.showMessage) ports_.showMessage(message);
  return false;
}

bool Analyser::cannotEvaluate(std::string_view text) {
  return fail(std::string(kTextExpressionPrefix) + std::string(text) +
              std::string(kTextExpressionSuffix));
}

void Analyser::clear() {
  results_.clear();
  indexed_ = false;
  waveforms_.clear();
  result_ = AnalysisResult{};
}

NamedResult* Analyser::findResult(std::string_view name) {
  if (!indexed_) {
    resultIndex_.clear();
    for (size_t i = 0; i < results_.size(); ++i)
      resultIndex_.emplace(upperCase(results_[i].name), i);  // the first of a name stays
    indexed_ = true;
  }
  key_.assign(name);
  for (char& c : key_) c = upperAscii(c);
  const auto found = resultIndex_.find(key_);
  return found == resultIndex_.end() ? nullptr : &results_[found->second];
}

Waveform* Analyser::findWaveform(std::string_view name) {
  for (auto& w : waveforms_) {
    if (sameName(w.name, name)) return &w;
  }
  if (files_ == nullptr || waveformFolder_.empty() || name.empty() ||
      name.find_first_of("/\\") != std::string_view::npos) {
    return nullptr;
  }
  // File names are matched without regard to case, as names are.
  const std::string wanted = upperCase(std::string(name) + std::string(kWaveformExtension));
  std::vector<std::string> names;
  if (!files_->list(waveformFolder_, names, nullptr)) return nullptr;
  std::sort(names.begin(), names.end());
  for (const auto& entry : names) {
    if (upperCase(entry) != wanted) continue;
    const std::string path = join(waveformFolder_, entry);
    if (!files_->isFile(path) || !loadWaveform(name, path, nullptr)) return nullptr;
    return &waveforms_.back();
  }
  return nullptr;
}

bool Analyser::loadWaveform(std::string_view name, const std::string& path, std::string* error) {
  if (files_ == nullptr) {
    if (error != nullptr) *error = "no waveform folder is set";
    return false;
  }
  std::vector<std::string> lines;
  if (!readTextLines(*files_, path, lines, error)) return false;
  Waveform wave;
  wave.name = std::string(name);
  for (const auto& line : lines) {
    const std::string_view content = trim(line);
    if (content.empty()) continue;
    if (content[0] == '#') {
      wave.description.emplace_back(trim(content.substr(1)));
      continue;
    }
    TextItemReader items{std::string(content)};
    std::string item;
    while (items.next(item)) {
      if (!trim(item).empty()) wave.samples.push_back(leadingNumber(item));
    }
  }
  if (wave.samples.empty()) {
    if (error) *error = path + " holds no sample";
    return false;
  }
  for (auto& w : waveforms_) {
    if (sameName(w.name, name)) {
      w = std::move(wave);
      return true;
    }
  }
  waveforms_.push_back(std::move(wave));
  return true;
}

std::string Analyser::EvaluateMacroLine(std::string_view line) {
  const size_t eq = line.find('=');
  if (eq == std::string_view::npos) {
    fail(std::string(kTextCannotParseMacro) + std::string(line));
    return {};
  }
  const std::string target(trim(line.substr(0, eq)));
  const std::string_view expression = trim(line.substr(eq + 1));
  if (!EvaluateExpression(expression)) return {};
  if (result_.isWaveform) {
    if (!target.empty()) {
      Waveform stored = result_.waveform;
      stored.name = target;
      const auto same = std::find_if(waveforms_.begin(), waveforms_.end(),
                                     [&](const Waveform& w) { return sameName(w.name, target); });
      if (same != waveforms_.end()) {
        *same = std::move(stored);
      } else {
        waveforms_.push_back(std::move(stored));
      }
    }
    return {};
  }
  if (!target.empty()) {
    if (NamedResult* r = findResult(target)) {
      r->value = static_cast<float>(result_.number);
    } else {
      results_.push_back({target, static_cast<float>(result_.number)});
      if (indexed_) resultIndex_.emplace(upperCase(target), results_.size() - 1);
    }
  }
  return numberText(result_.number);
}

bool Analyser::EvaluateExpression(std::string_view expression) {
  AnalysisResult out;
  if (!eval(expression, out, 0)) return false;
  result_ = std::move(out);
  return true;
}

bool Analyser::channelValue(std::string_view name, double& out) {
  if (ports_.userValue && ports_.userValue(name, out)) return true;
  ChannelReading reading;
  if (ports_.channels != nullptr && ports_.channels->read(name, reading)) {
    out = reading.value();
    return true;
  }
  fail(std::string(kTextNoReading) + std::string(name));
  out = 0;
  return true;
}

bool Analyser::number(std::string_view text, double& out, int depth) {
  if (trim(text).empty()) return cannotEvaluate(text);
  AnalysisResult r;
  if (!eval(text, r, depth + 1)) return false;
  if (r.isWaveform) return cannotEvaluate(text);
  out = r.number;
  return true;
}

bool Analyser::operand(std::string_view token, std::string_view text, AnalysisResult& out) {
  token = trim(token);
  if (token.empty()) return false;
  const double n = leadingNumber(token);
  if (n != 0) {
    out = AnalysisResult{false, n, {}};
    return true;
  }
  if (const NamedResult* r = findResult(token)) {
    out = AnalysisResult{false, r->value, {}};
    return true;
  }
  if (const Waveform* w = findWaveform(token)) {
    out = AnalysisResult{true, 0, *w};
    return true;
  }
  if (looksNumeric(token)) {
    out = AnalysisResult{false, 0, {}};
    return true;
  }
  return cannotEvaluate(text);
}

bool Analyser::function(std::string_view name, std::string_view inside, std::string_view text,
                        AnalysisResult& out, int depth) {
  const std::string fn = upperCase(trim(name));
  const auto args = splitArguments(inside);
  auto missing = [&](std::string_view prefix, std::string_view wave) {
    return fail(std::string(prefix) + std::string(wave) + std::string(kTextWaveformMissingSuffix));
  };
  if (fn == "VALUE") {
    if (args.size() != 2) return fail(kTextValueArgs);
    const Waveform* w = findWaveform(args[0]);
    if (w == nullptr) return missing("Waveform ", args[0]);
    const std::vector<double> samples = w->samples;
    double pos = 0;
    if (!number(args[1], pos, depth)) return false;
    if (!(pos >= 0) || pos > static_cast<double>(samples.size() - 1)) return fail(kTextBeyondEnd);
    const size_t i = static_cast<size_t>(pos);
    const double frac = pos - static_cast<double>(i);
    const double v =
        i + 1 < samples.size() ? samples[i] + frac * (samples[i + 1] - samples[i]) : samples[i];
    out = AnalysisResult{false, v, {}};
    return true;
  }
  if (fn == "CUT") {
    if (args.size() != 3) return fail(kTextCutArgs);
    const Waveform* w = findWaveform(args[0]);
    if (w == nullptr) return missing("Waveform: ", args[0]);
    Waveform cut;
    cut.name = "CUT(" + std::string(trim(inside)) + ")";
    cut.description.emplace_back(kCreatedMarker);
    const std::vector<double> samples = w->samples;
    double start = 0;
    double end = 0;
    if (!number(args[1], start, depth) || !number(args[2], end, depth)) return false;
    const double first = std::ceil(start);
    const double last = std::floor(end);
    if (!(first >= 0) || !(last >= first) || last > static_cast<double>(samples.size() - 1)) {
      return fail(kTextBeyondEnd);
    }
    cut.samples.assign(samples.begin() + static_cast<ptrdiff_t>(first),
                       samples.begin() + static_cast<ptrdiff_t>(last) + 1);
    out = AnalysisResult{true, 0, std::move(cut)};
    return true;
  }
  if (fn == "POS") {
    if (args.size() != 2) return fail(kTextPosArgs);
    const Waveform* w = findWaveform(args[0]);
    if (w == nullptr) return missing("Waveform ", args[0]);
    const std::vector<double> samples = w->samples;
    double value = 0;
    if (!number(args[1], value, depth)) return false;
    for (size_t i = 0; i < samples.size(); ++i) {
      if (samples[i] == value) {
        out = AnalysisResult{false, static_cast<double>(i), {}};
        return true;
      }
      if (i + 1 < samples.size()) {
        const double a = samples[i];
        const double b = samples[i + 1];
        if ((a < value && value < b) || (b < value && value < a)) {
          out = AnalysisResult{false, static_cast<double>(i) + (value - a) / (b - a), {}};
          return true;
        }
      }
    }
    return fail(std::string(kTextValueNotFound) + numberText(value) + " in waveform " +
                std::string(args[0]));
  }
  return cannotEvaluate(text);
}

bool Analyser::eval(std::string_view text, AnalysisResult& out, int depth) {
  if (depth > kMaxDepth) return cannotEvaluate(text);
  text = trimLeft(text);
  std::string token;
  bool haveOperand = false;
  AnalysisResult held;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (isOperator(c) &&
        !(haveOperand == false && (c == '-' || c == '+') && awaitsExponentSign(token))) {
      const std::string_view rest = text.substr(i + 1);
      if (!haveOperand && trim(token).empty()) {
        // A sign: it applies to everything on its right.
        if (c != '-' && c != '+') return cannotEvaluate(text);
        double value = 0;
        if (!number(rest, value, depth)) return false;
        out = AnalysisResult{false, c == '-' ? -value : value, {}};
        return true;
      }
      AnalysisResult left;
      if (haveOperand) {
        if (!trim(token).empty()) return cannotEvaluate(text);
        left = std::move(held);
      } else if (!operand(token, text, left)) {
        return false;
      }
      if (left.isWaveform) return cannotEvaluate(text);
      double right = 0;
      if (trim(rest).empty()) return cannotEvaluate(text);
      if (!number(rest, right, depth)) return false;
      out = AnalysisResult{false, arithmetic(c, left.number, right), {}};
      return true;
    }
    if (c == '[') {
      const size_t close = matching(text, i, '[', ']');
      if (close == std::string_view::npos || haveOperand || !trim(token).empty()) {
        return cannotEvaluate(text);
      }
      double v = 0;
      channelValue(text.substr(i + 1, close - i - 1), v);
      held = AnalysisResult{false, v, {}};
      haveOperand = true;
      i = close;
      continue;
    }
    if (c == '(') {
      const size_t close = matching(text, i, '(', ')');
      if (close == std::string_view::npos || haveOperand) return cannotEvaluate(text);
      const std::string_view inside = text.substr(i + 1, close - i - 1);
      if (trim(token).empty()) {
        if (trim(inside).empty()) return cannotEvaluate(text);
        if (!eval(inside, held, depth + 1)) return false;
      } else if (!function(token, inside, text, held, depth)) {
        return false;
      }
      token.clear();
      haveOperand = true;
      i = close;
      continue;
    }
    token += c;
  }
  if (haveOperand) {
    if (!trim(token).empty()) return cannotEvaluate(text);
    out = std::move(held);
    return true;
  }
  if (trim(token).empty()) return false;  // nothing to evaluate
  return operand(token, text, out);
}

}  // namespace tavrix
