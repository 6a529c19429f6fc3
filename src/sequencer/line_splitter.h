// Cuts a sequence line into an upper-case command word and at most three
// argument strings: the first blank ends the word, the first two commas after
// it end the first and second argument, and everything behind the second
// comma is the third argument, commas included.
#pragma once

#include <string>

namespace tavrix {

struct CommandLine {
  std::string word;  // always upper case
  std::string arg1;  // keeps its blanks
  std::string arg2;  // leading blanks removed
  std::string arg3;  // leading blanks removed
};

// Splits `line` and writes its cleaned form (trailing blanks and leading tabs
// removed) back into it.
CommandLine SplitCommandLine(std::string& line);

}  // namespace tavrix
