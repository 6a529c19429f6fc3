// DDE, key strokes and program starts against the DDE test server, a real
// program beside this test program.

#include "platform/companion_programs.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <filesystem>

#include "platform/files.h"
#include "platform/testing/dde_test_server_process.h"

namespace tavrix::platform {
namespace {

constexpr const char* kWindow = "Logger - Run 7";

// Wine's DDE client takes a refused poke as done.
bool UnderWine() {
  return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

class CompanionProgramsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tmp = std::getenv("TEMP");
    folder_ = std::filesystem::path(tmp != nullptr ? tmp : ".") /
              ("tavrix-companion-" + std::to_string(processId()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(folder_);
    server_ = std::make_unique<DdeTestServerProcess>(
        (folder_ / "server.log").string(), "--service Streamer --service LG_Raw --hold " +
                                               hold_.name() + " --typed " + typed_.name() +
                                               " --window \"" + kWindow + "\"");
    ASSERT_TRUE(server_->started())
        << "the test server did not come up: " << DdeTestServerProcess::path();
  }

  void TearDown() override {
    hold_.set();
    server_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  std::filesystem::path folder_;
  NamedEvent hold_{"hold"};
  NamedEvent typed_{"typed"};
  std::unique_ptr<DdeTestServerProcess> server_;
};

TEST_F(CompanionProgramsTest, ExecutesPokesAndRequestsReachTheServer) {
  DdeClient dde;
  std::string error;
  EXPECT_TRUE(dde.execute("Streamer", "System", "COLLECT c:\\data\\run1.dat", error)) << error;
  EXPECT_TRUE(dde.execute("LG_Raw", "System", "Stop", error)) << error;
  EXPECT_EQ(dde.request("Streamer", "System", "Status", error), "READY") << error;
  EXPECT_TRUE(dde.poke("Streamer", "System", "Status", "BUSY", error)) << error;
  EXPECT_EQ(dde.request("Streamer", "Status", "Status", error), "BUSY") << error;
  // Text beyond ASCII crosses as UTF-16 in executes and in the code page in
  // pokes; the degree sign is in every Western code page.
  EXPECT_TRUE(dde.execute("LG_Raw", "System",
                          "Note 20 \xC2\xB0"
                          "C",
                          error))
      << error;
  EXPECT_TRUE(dde.poke("LG_Raw", "System", "R1C1",
                       "12.5 \xC2\xB0"
                       "C",
                       error))
      << error;
  EXPECT_EQ(server_->received(),
            (std::vector<std::string>{
                "execute Streamer|System COLLECT c:\\data\\run1.dat", "execute LG_Raw|System Stop",
                "request Streamer|System Status", "poke Streamer|System Status=BUSY",
                "request Streamer|Status Status",
                "execute LG_Raw|System Note 20 \xC2\xB0"
                "C",
                "poke LG_Raw|System R1C1=12.5 \xC2\xB0"
                "C"}));
}

TEST_F(CompanionProgramsTest, FailuresSayWhatWentWrong) {
  DdeClient dde(300);
  std::string error;
  EXPECT_FALSE(dde.execute("Nobody", "System", "Stop", error));
  EXPECT_EQ(error, "no program answers the DDE topic Nobody|System on this computer");
  EXPECT_EQ(dde.request("Nobody", "System", "Status", error), std::nullopt);
  EXPECT_EQ(error, "no program answers the DDE item Status of Nobody|System on this computer");
  EXPECT_EQ(dde.request("Streamer", "System", "Level", error), std::nullopt);
  EXPECT_EQ(error, "no program answers the DDE item Level of Streamer|System on this computer");
  EXPECT_FALSE(dde.execute("LG_Raw", "System", "Refuse", error));
  EXPECT_EQ(error, "LG_Raw|System did not carry out the DDE command \"Refuse\"");
  if (!UnderWine()) {
    EXPECT_FALSE(dde.poke("LG_Raw", "System", "Locked", "1", error));
    EXPECT_EQ(error, "LG_Raw|System did not take the DDE item Locked");
  } else {
    dde.poke("LG_Raw", "System", "Locked", "1", error);
  }
  EXPECT_FALSE(dde.poke("LG_Raw", "System", std::string(300, 'x'), "1", error));
  EXPECT_EQ(error, "a DDE name of LG_Raw|System is empty or longer than 255 characters");
  // The server holds this one for two seconds.
  EXPECT_FALSE(dde.execute("LG_Raw", "System", "Hold", error));
  EXPECT_EQ(error, "LG_Raw|System did not answer within 300 ms");
  EXPECT_EQ(
      server_->received(),
      (std::vector<std::string>{"request Streamer|System Level", "execute LG_Raw|System Refuse",
                                "poke LG_Raw|System Locked=1", "execute LG_Raw|System Hold"}));
  // The client goes on after a time-out.
  EXPECT_TRUE(dde.execute("LG_Raw", "System", "Start", error)) << error;
}

TEST_F(CompanionProgramsTest, KeysAreTypedIntoTheWindowOfThatTitle) {
  std::string error;
  EXPECT_FALSE(sendKeysToWindow("No such window", "abc", error));
  EXPECT_EQ(error, "no window is titled \"No such window\"");
  EXPECT_FALSE(sendKeysToWindow(kWindow, "%D{DELL}", error));
  EXPECT_EQ(error, "the key string \"%D{DELL}\" names no key DELL");
  EXPECT_TRUE(server_->received().empty());

  ASSERT_TRUE(sendKeysToWindow(kWindow, "+ab{TAB}~", error)) << error;
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
  ASSERT_TRUE(startProgram(DdeTestServerProcess::path() + " --signal " + started.name(), error))
      << error;
  EXPECT_TRUE(started.waitFor()) << "the started program never ran";

  const std::string missing = (folder_ / "missing.exe").string();
  EXPECT_FALSE(startProgram(missing + " /auto", error));
  EXPECT_FALSE(error.empty());
}

}  // namespace
}  // namespace tavrix::platform
