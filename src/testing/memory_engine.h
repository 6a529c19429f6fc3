// An engine for the tests that drive one as a front end does: in-memory
// files under a data root of the test's choosing, a virtual clock that
// moves only while the run waits, and a recording operator. Nothing reaches
// the disk, and two of them in one test share nothing.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "common/clock.h"
#include "engine/engine.h"
#include "testing/memory_file_system.h"
#include "testing/recording_operator.h"
#include "testing/test_start.h"

namespace tavrix {

class MemoryEngine {
 public:
  // `adjust` changes the config before the engine is built (a link, the
  // settings); the engine must build.
  explicit MemoryEngine(const std::function<void(EngineConfig&)>& adjust = {},
                        const std::string& dataRoot = "/data", Micros start = kTestStart) {
    auto files = std::make_unique<MemoryFileSystem>(dataRoot);
    files_ = files.get();
    auto clock = std::make_unique<VirtualClock>(start);
    clock_ = clock.get();
    EngineConfig config;
    config.clock = std::move(clock);
    config.files = std::move(files);
    config.op = &op_;
    if (adjust) adjust(config);
    EngineBuildError problem;
    engine_ = BuildEngine(std::move(config), &problem);
    EXPECT_NE(engine_, nullptr) << problem.text;
  }
  MemoryEngine(const MemoryEngine&) = delete;
  MemoryEngine& operator=(const MemoryEngine&) = delete;

  Engine& engine() const { return *engine_; }
  MemoryFileSystem& files() const { return *files_; }
  VirtualClock& clock() const { return *clock_; }
  RecordingOperator& op() { return op_; }

  // The file's contents; empty when there is no such file.
  std::string read(const std::string& path) const {
    std::string text;
    files_->readFile(path, text, nullptr);
    return text;
  }

 private:
  RecordingOperator op_;
  MemoryFileSystem* files_ = nullptr;
  VirtualClock* clock_ = nullptr;
  std::unique_ptr<Engine> engine_;
};

}  // namespace tavrix
