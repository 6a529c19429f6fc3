#include "sequencer/line_splitter.h"

#include "common/text_conventions.h"

namespace tavrix {

CommandLine SplitCommandLine(std::string& line) {
  CommandLine out;
  line.erase(line.find_last_not_of(' ') + 1);
  size_t tabs = 0;
  while (tabs < line.size() && line[tabs] == '\t') ++tabs;
  line.erase(0, tabs);

  const size_t blank = line.find(' ');
  if (blank == std::string::npos) {
    out.word = upperCase(line);
    return out;
  }
  out.word = upperCase(std::string_view(line).substr(0, blank));
  const std::string_view rest = std::string_view(line).substr(blank + 1);
  const size_t comma1 = rest.find(',');
  if (comma1 == std::string_view::npos) {
    out.arg1 = rest;
    return out;
  }
  out.arg1 = rest.substr(0, comma1);
  const std::string_view second = trimLeft(rest.substr(comma1 + 1));
  const size_t comma2 = second.find(',');
  if (comma2 == std::string_view::npos) {
    out.arg2 = second;
    return out;
  }
  out.arg2 = second.substr(0, comma2);
  out.arg3 = trimLeft(second.substr(comma2 + 1));
  return out;
}

}  // namespace tavrix
