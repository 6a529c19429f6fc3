// A fixture for driving `tavrix-cli` in-process on files in a temporary
// folder of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "run_command.h"

namespace tavrix {

class CliTestBase : public ::testing::Test {
 protected:
  CliTestBase() {
    char dir[] = "/tmp/tavrixcliXXXXXX";
    dir_ = mkdtemp(dir);
    // The data root (the results store and its queue) is the test's own.
    setenv("TAVRIX_HOME", (dir_ + "/home").c_str(), 1);
  }
  ~CliTestBase() override {
    unsetenv("TAVRIX_HOME");
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

  std::string Path(const std::string& name) const { return dir_ + "/" + name; }

  // Writes `text` to a file of the folder and returns its path.
  std::string File(const std::string& name, const std::string& text) {
    std::ofstream(Path(name), std::ios::binary) << text;
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

  std::string dir_;
  std::string out_;
  std::string err_;
};

}  // namespace tavrix
