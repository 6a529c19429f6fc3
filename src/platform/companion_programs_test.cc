// DDE, key strokes and program starts against the DDE test server, a real
// program beside this test program.

#include "platform/companion_programs.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <filesystem>

#include "platform/files.h"
#include "testing/dde_test_server_process.h"

namespace tavrix::platform {
namespace {

// Wine's DDE client takes a refused poke as done.
bool UnderWine() {
  return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

class CompanionProgramsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tmp = std::getenv("TEMP");
    folder_ = std::filesystem::path(tmp != nullptr ? tmp : ".") /
              ("tavrix-companion-" + tag_ + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(folder_);
    server_ = std::make_unique<DdeTestServerProcess>(
        (folder_ / "server.log").string(), "--service " + streamer_ + " --service " + logger_ +
                                               " --hold " + hold_.name() + " --typed " +
                                               typed_.name() + " --window \"" + window_ + "\"");
    ASSERT_TRUE(server_->started())
        << "the test server did not come up: " << DdeTestServerProcess::path();
  }

  void TearDown() override {
    hold_.set();
    server_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  // Names of this test process alone: test programs may run side by side.
  const std::string tag_ = std::to_string(processId());
  const std::string streamer_ = "Streamer" + tag_;
  const std::string logger_ = "LG_Raw" + tag_;
  const std::string window_ = "Logger - Run " + tag_;
  std::filesystem::path folder_;
  NamedEvent hold_{"hold"};
  NamedEvent typed_{"typed"};
  std::unique_ptr<DdeTestServerProcess> server_;
};

TEST_F(CompanionProgramsTest, ExecutesPokesAndRequestsReachTheServer) {
  DdeClient dde;
  std::string error;
  EXPECT_TRUE(dde.execute(streamer_, "System", "COLLECT c:\\data\\run1.dat", &error)) << error;
  EXPECT_TRUE(dde.execute(logger_, "System", "Stop", &error)) << error;
  EXPECT_EQ(dde.request(streamer_, "System", "Status", &error), "READY") << error;
  EXPECT_TRUE(dde.poke(streamer_, "System", "Status", "BUSY", &error)) << error;
  EXPECT_EQ(dde.request(streamer_, "Status", "Status", &error), "BUSY") << error;
  // Text beyond ASCII crosses as UTF-16 in executes and in the code page in
  // pokes; the degree sign is in every Western code page.
  EXPECT_TRUE(dde.execute(logger_, "System",
                          "Note 20 \xC2\xB0"
                          "C",
                          &error))
      << error;
  EXPECT_TRUE(dde.poke(logger_, "System", "R1C1",
                       "12.5 \xC2\xB0"
                       "C",
                       &error))
      << error;
  EXPECT_EQ(
      server_->received(),
      (std::vector<std::string>{
          "execute " + streamer_ + "|System COLLECT c:\\data\\run1.dat",
          "execute " + logger_ + "|System Stop", "request " + streamer_ + "|System Status",
          "poke " + streamer_ + "|System Status=BUSY", "request " + streamer_ + "|Status Status",
          "execute " + logger_ +
              "|System Note 20 \xC2\xB0"
              "C",
          "poke " + logger_ +
              "|System R1C1=12.5 \xC2\xB0"
              "C"}));
}

TEST_F(CompanionProgramsTest, FailuresSayWhatWentWrong) {
  DdeClient dde(300);
  std::string error;
  EXPECT_FALSE(dde.execute("Nobody", "System", "Stop", &error));
  EXPECT_EQ(error, "no program answers the DDE topic Nobody|System on this computer");
  EXPECT_EQ(dde.request("Nobody", "System", "Status", &error), std::nullopt);
  EXPECT_EQ(error, "no program answers the DDE item Status of Nobody|System on this computer");
  EXPECT_EQ(dde.request(streamer_, "System", "Level", &error), std::nullopt);
  EXPECT_EQ(error,
            "no program answers the DDE item Level of " + streamer_ + "|System on this computer");
  EXPECT_FALSE(dde.execute(logger_, "System", "Refuse", &error));
  EXPECT_EQ(error, logger_ + "|System did not carry out the DDE command \"Refuse\"");
  if (!UnderWine()) {
    EXPECT_FALSE(dde.poke(logger_, "System", "Locked", "1", &error));
    EXPECT_EQ(error, logger_ + "|System did not take the DDE item Locked");
  } else {
    dde.poke(logger_, "System", "Locked", "1", &error);
  }
  EXPECT_FALSE(dde.poke(logger_, "System", std::string(300, 'x'), "1", &error));
  EXPECT_EQ(error, "a DDE name of " + logger_ + "|System is empty or longer than 255 characters");
  // The server holds this one for two seconds.
  EXPECT_FALSE(dde.execute(logger_, "System", "Hold", &error));
  EXPECT_EQ(error, logger_ + "|System did not answer within 300 ms");
  EXPECT_EQ(server_->received(),
            (std::vector<std::string>{
                "request " + streamer_ + "|System Level", "execute " + logger_ + "|System Refuse",
                "poke " + logger_ + "|System Locked=1", "execute " + logger_ + "|System Hold"}));
  // The client goes on after a time-out.
  EXPECT_TRUE(dde.execute(logger_, "System", "Start", &error)) << error;
}

TEST_F(CompanionProgramsTest, KeysAreTypedIntoTheWindowOfThatTitle) {
  std::string error;
  EXPECT_FALSE(sendKeysToWindow("No such window", "abc", &error));
  EXPECT_EQ(error, "no window is titled \"No such window\"");
  EXPECT_FALSE(sendKeysToWindow(window_, "%D{DELL}", &error));
  EXPECT_EQ(error, "the key string \"%D{DELL}\" names no key DELL");
  EXPECT_TRUE(server_->received().empty());

  ASSERT_TRUE(sendKeysToWindow(window_, "+ab{TAB}~", &error)) << error;
  ASSERT_TRUE(typed_.waitFor()) << "Enter never arrived";
  // Shift and A as keys; b as a character of its own (through the key the
  // system keeps for typed characters); Tab; Enter.
  EXPECT_EQ(server_->received(),
            (std::vector<std::string>{"key 10", "key 41", "char A", "key e7", "char b", "key 09",
                                      "char \t", "key 0d", "char \r"}));
}

TEST_F(CompanionProgramsTest, ProgramsStartAndAreNotWaitedFor) {
  NamedEvent started("started");
  std::string error;
  ASSERT_TRUE(startProgram(DdeTestServerProcess::path() + " --signal " + started.name(), &error))
      << error;
  EXPECT_TRUE(started.waitFor()) << "the started program never ran";

  const std::string missing = (folder_ / "missing.exe").string();
  EXPECT_FALSE(startProgram(missing + " /auto", &error));
  EXPECT_FALSE(error.empty());
}

}  // namespace
}  // namespace tavrix::platform
