// A fixture for driving `tavrix-cli` in-process on files in a temporary
// folder of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/file_system.h"
#include "run_command.h"
#include "testing/test_files.h"

namespace tavrix {

// What tavrix-cli's entry point would hand the commands in this process:
// the real disk, and the data root of the environment as it is now.
inline Host testHost() { return {testFiles(), testDataRoot()}; }

// A stream whose text is kept for the test: a temporary file.
class Captured {
 public:
  Captured() : stream_(std::tmpfile()) {}
  ~Captured() {
    if (stream_ != nullptr) std::fclose(stream_);
  }
  Captured(const Captured&) = delete;
  Captured& operator=(const Captured&) = delete;
  std::FILE* stream() { return stream_; }
  // Everything written; the stream is closed.
  std::string take() {
    std::string text;
    if (stream_ == nullptr) return text;
    std::rewind(stream_);
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, stream_)) > 0) text.append(buf, n);
    std::fclose(stream_);
    stream_ = nullptr;
    return text;
  }

 private:
  std::FILE* stream_;
};

// Everything written to `f` (a temporary file), which is then closed.
inline std::string Slurp(std::FILE* f) {
  std::rewind(f);
  std::string text;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
  std::fclose(f);
  return text;
}

class CliTestBase : public ::testing::Test {
 protected:
  // `withoutDots`: see ScratchFolder. The data root (the results store and
  // its queue) is the test's own.
  explicit CliTestBase(bool withoutDots = false) : scratch_(withoutDots) {
    setenv("TAVRIX_HOME", (dir_ + "/home").c_str(), 1);
  }
  ~CliTestBase() override { unsetenv("TAVRIX_HOME"); }

  std::string Path(const std::string& name) const { return dir_ + "/" + name; }

  // Writes `text` to a file of the folder and returns its path.
  std::string File(const std::string& name, const std::string& text) {
    EXPECT_TRUE(testFiles().writeAtomically(Path(name), text, nullptr));
    return Path(name);
  }

  // Runs the command line; its standard output and error land in out_ and err_.
  int Cli(std::vector<std::string> args) { return Cli(std::move(args), nullptr); }

  // The same with `input` as its standard input (not a terminal).
  int Cli(std::vector<std::string> args, const std::string& input) {
    std::FILE* in = std::tmpfile();
    std::fputs(input.c_str(), in);
    std::rewind(in);
    const int status = Cli(std::move(args), in);
    std::fclose(in);
    return status;
  }

 private:
  int Cli(std::vector<std::string> args, std::FILE* in) {
    args.insert(args.begin(), "tavrix-cli");
    Captured out;
    Captured err;
    const int status = TavrixCliMain(testHost(), args, in, out.stream(), err.stream());
    out_ = out.take();
    err_ = err.take();
    return status;
  }

 public:
  ScratchFolder scratch_;
  std::string dir_ = scratch_.path();
  std::string out_;
  std::string err_;
};

}  // namespace tavrix
