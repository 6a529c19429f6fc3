// `tavrix-cli lint SEQUENCE...`: finds, without running anything, what would
// fail or silently do nothing when a sequence runs: words that are close to a
// keyword but are none, jumps to labels that do not exist, CHAIN files that
// cannot be found, setup strings and parameters that will not parse, and
// "[GROUPRAMPS]" blocks that will fail. Messages read like a compiler's:
//   FILE:LINE: error|warning: message
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "common/host.h"

namespace CLI {
class App;
}

namespace tavrix {

class FileSystem;
class PathMap;
struct IoMap;

struct LintMessage {
  int line = 0;  // from 1; 0 for the file as a whole
  bool error = true;
  std::string text;
};

// Lints one sequence file of `files`. False, with `readError`, when it cannot be read.
// With an I/O map, lines that name a channel the map lacks, write a channel
// the map cannot write or read one it cannot read are errors too.
bool LintSequenceFile(const FileSystem& files, const std::string& path, const PathMap& paths,
                      std::vector<LintMessage>& messages, std::string* readError,
                      const IoMap* map = nullptr);

// Adds the `lint` subcommand; its files are collected into `files`, the
// link of its --link option (map:FILE) into `link` and the station file of
// its --station option into `station`, when given.
CLI::App* AddLintCommand(CLI::App& app, std::vector<std::string>& files,
                         std::string* link = nullptr, std::string* station = nullptr);

// Lints the files and prints the messages to `out`. Returns 0 when there is
// no error, 1 when there are errors, 2 when a file (or the map) cannot be
// read.
int RunLint(const Host& host, const std::vector<std::string>& files, std::FILE* out, std::FILE* err,
            const std::string& link = {});

}  // namespace tavrix
