// Reading a TOML settings file (a station, an I/O map) with messages that
// say where the fault is: "FILE line N: PART: WHAT", the line left out where
// there is none and the part where the fault is in the file as a whole. A
// reader's fault throws TomlFileFault, which the file's parser catches and
// turns into its error text; the other functions here give that text too.
#pragma once

#include <toml++/toml.h>

#include <string>
#include <string_view>
#include <utility>

namespace tavrix {

struct TomlFileFault {
  std::string text;
};

// "FILE line N: PART: WHAT"; no line when `line` is 0, no part when empty.
inline std::string FileLineMessage(std::string_view file, int line, std::string_view part,
                                   std::string_view what) {
  std::string text(file);
  if (line > 0) text += " line " + std::to_string(line);
  text += ": ";
  if (!part.empty()) text.append(part).append(": ");
  text.append(what);
  return text;
}

class TomlReader {
 public:
  explicit TomlReader(std::string_view fileName) : file_(fileName) {}

  const std::string& fileName() const { return file_; }

  [[noreturn]] void fail(int line, std::string_view part, std::string_view what) const {
    throw TomlFileFault{FileLineMessage(file_, line, part, what)};
  }

  static int lineOf(const toml::node& node) { return static_cast<int>(node.source().begin.line); }

  // The file's tables; a syntax error fails at its line.
  toml::table parse(std::string_view text) const {
    try {
      return toml::parse(text, file_);
    } catch (const toml::parse_error& e) {
      fail(static_cast<int>(e.source().begin.line), "", std::string(e.description()));
    }
  }

  // A text value; `nonEmpty` refuses "" too.
  std::string text(const toml::node& node, std::string_view part, std::string_view key,
                   bool nonEmpty = false) const {
    if (!node.is_string() || (nonEmpty && node.as_string()->get().empty())) {
      fail(lineOf(node), part, "\"" + std::string(key) + "\" must be a text");
    }
    return std::string(node.as_string()->get());
  }

 private:
  std::string file_;
};

}  // namespace tavrix
