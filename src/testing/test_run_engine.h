// A run engine for command tests: virtual clock, recording operator and
// companion, a table of channel values, and sequence files written to a
// temporary folder.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <random>

#include "common/file_system.h"
#include "common/text_file.h"
#include "sequencer/channel_access.h"
#include "sequencer/companion.h"
#include "sequencer/core_commands.h"
#include "sequencer/sequencer.h"
#include "testing/recording_operator.h"
#include "testing/test_start.h"

namespace tavrix {

// Channels held in a table; a channel not in it cannot be read or written.
class TableChannels : public ChannelAccess {
 public:
  std::map<std::string, std::string, std::less<>> values;
  std::vector<std::string> writes;  // "NAME=value"
  bool read(std::string_view channel, std::string& value, std::string* error) override {
    const auto it = values.find(channel);
    if (it == values.end()) {
      *error = "no such channel";
      return false;
    }
    value = it->second;
    return true;
  }
  bool write(std::string_view channel, std::string_view value, std::string* error) override {
    const auto it = values.find(channel);
    if (it == values.end()) {
      *error = "no such channel";
      return false;
    }
    it->second = value;
    writes.push_back(std::string(channel) + "=" + std::string(value));
    return true;
  }
};

class CommandTest : public ::testing::Test {
 protected:
  CommandTest()
      : clock_(kTestStart),
        events_(clock_),
        trace_(clock_),
        companion_(&trace_),
        seq_(events_, op_, trace_, files_, paths_) {
    // WAITRANDOM draws from a seeded generator, or from `draws_` while it
    // holds values.
    RegisterSequencerCommands(seq_, [this] {
      if (draws_.empty()) return std::uniform_real_distribution<double>(0, 1)(random_);
      const double draw = draws_.front();
      draws_.erase(draws_.begin());
      return draw;
    });
    RegisterCompanionCommands(seq_, companion_);
    RegisterOperatorEntryCommands(seq_, &channels_);
    paths_.setDrive('c', dir_ + "/c");
    op_.watch(seq_.runEvents());
  }

  // Writes a file (CR LF line ends) under the temporary folder; returns its path.
  std::string Write(const std::string& name, const std::vector<std::string>& lines) {
    const std::string path = dir_ + "/" + name;
    EXPECT_TRUE(files_.makeFolders(parentFolder(path), nullptr));
    EXPECT_TRUE(writeTextFileAtomically(files_, path, lines, nullptr));
    return path;
  }

  // Runs the lines as main.wts; returns the last sequence error ("" if none).
  std::string Run(const std::vector<std::string>& lines) {
    std::string error;
    EXPECT_TRUE(seq_.prepareFile(Write("main.wts", lines), &error)) << error;
    seq_.start();
    return seq_.lastSequenceError();
  }

  double Elapsed() const {
    return static_cast<double>(clock_.now() - kTestStart) / kMicrosPerSecond;
  }

  // The lines dispatched, in order, as the command display showed them
  // (the count-downs of waits, which begin "wait" in lower case, left out).
  std::vector<std::string> Shown() const {
    std::vector<std::string> shown;
    for (const auto& c : op_.commands) {
      if (c.rfind("wait", 0) != 0) shown.push_back(c);
    }
    return shown;
  }

  VirtualClock clock_;
  EventLoop events_;
  RecordingOperator op_;
  Trace trace_;
  RecordingCompanion companion_;
  TableChannels channels_;
  ScratchFolder scratch_;
  std::string dir_ = scratch_.path();
  LocalFileSystem files_{dir_};
  PathMap paths_{dir_};
  std::mt19937_64 random_{20260101};
  std::vector<double> draws_;
  Sequencer seq_;
};

}  // namespace tavrix
