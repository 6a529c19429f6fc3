// A fixture for driving `tavrix-cli` in-process on files in a temporary
// folder of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/file_system.h"
#include "run_command.h"

namespace tavrix {

class CliTestBase : public ::testing::Test {
 protected:

  std::string Path(const std::string& name) const { return dir_ + "/" + name; }

  // Writes `text` to a file of the folder and returns its path.
  std::string File(const std::string& name, const std::string& text) {
    EXPECT_TRUE(localFiles().writeAtomically(Path(name), text, nullptr));
    return Path(name);
  }

  // Runs the command line; its standard output and error land in out_ and err_.
  int Cli(std::vector<std::string> args) {
    args.insert(args.begin(), "tavrix-cli");
    std::FILE* out = std::tmpfile();
    std::FILE* err = std::tmpfile();
    const int status = TavrixCliMain(args, nullptr, out, err);
    out_ = Slurp(out);
    err_ = Slurp(err);
    return status;
  }

  static std::string Slurp(std::FILE* f) {
    std::rewind(f);
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    std::fclose(f);
    return text;
  }

  ScratchFolder scratch_;
  std::string dir_ = scratch_.path();
  std::string out_;
  std::string err_;
};

}  // namespace tavrix
