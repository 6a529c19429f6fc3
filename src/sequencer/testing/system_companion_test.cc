// The companion commands against real programs: the DDE test server beside
// this test program answers as the streamer and the logging programs do,
// and its window records the keys typed into it.

#include <windows.h>

#include <filesystem>
#include <fstream>

#include "sequencer/test_run_engine.h"

namespace tavrix {
namespace {

std::wstring Widen(const std::string& text) {
  const int n =
      MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring out(static_cast<size_t>(n), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n);
  return out;
}

std::string Narrow(const std::wstring& text) {
  const int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr,
                                    0, nullptr, nullptr);
  std::string out(static_cast<size_t>(n), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n,
                      nullptr, nullptr);
  return out;
}

// The test server's path: beside this program.
std::string ServerPath() {
  wchar_t self[MAX_PATH];
  const DWORD n = GetModuleFileNameW(nullptr, self, MAX_PATH);
  std::wstring path(self, n);
  path.resize(path.find_last_of(L"\\/") + 1);
  return Narrow(path) + "dde_test_server.exe";
}

// A named event of this test alone.
struct Event {
  std::string name;
  HANDLE handle;
  explicit Event(const std::string& role) {
    static int made = 0;
    name = "tavrix-dde-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++made) +
           "-" + role;
    handle = CreateEventW(nullptr, TRUE, FALSE, Widen(name).c_str());
  }
  ~Event() { CloseHandle(handle); }
  // Blocks on the event, not on a clock: the other program sets it.
  bool waitFor(HANDLE orEnded = nullptr) const {
    HANDLE handles[] = {handle, orEnded};
    return WaitForMultipleObjects(orEnded != nullptr ? 2 : 1, handles, FALSE, 30000) ==
           WAIT_OBJECT_0;
  }
};

constexpr const char* kWindow = "Logger - Run 7";

class SystemCompanionTest : public CommandTest {
 protected:
  void SetUp() override {
    programs_ = MakeSystemCompanion();
    ASSERT_NE(programs_, nullptr);
    companion_.connect(programs_.get());
    log_ = dir_ + "/server.log";
    Event ready("ready");
    std::wstring line = L"\"" + Widen(ServerPath()) + L"\" --log \"" + Widen(log_) +
                        L"\" --service Streamer --service LG_Raw --service Sheets --status BUSY" +
                        L" --window \"" + Widen(kWindow) + L"\" --ready " + Widen(ready.name) +
                        L" --stop " + Widen(stop_.name);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    ASSERT_TRUE(CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                               &startup, &process))
        << ServerPath();
    CloseHandle(process.hThread);
    server_ = process.hProcess;
    ASSERT_TRUE(ready.waitFor(server_)) << "the test server did not come up";
  }

  void TearDown() override {
    companion_.connect(nullptr);
    if (server_ == nullptr) return;
    SetEvent(stop_.handle);
    if (WaitForSingleObject(server_, 30000) != WAIT_OBJECT_0) TerminateProcess(server_, 1);
    CloseHandle(server_);
  }

  // What the server received since the last call.
  std::vector<std::string> Received() {
    std::ifstream in(std::filesystem::path(Widen(log_)), std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    std::vector<std::string> fresh(lines.begin() + std::min(seen_, lines.size()), lines.end());
    seen_ = lines.size();
    return fresh;
  }

  std::unique_ptr<Companion> programs_;
  std::string log_;
  size_t seen_ = 0;
  Event stop_{"stop"};
  HANDLE server_ = nullptr;
};

TEST_F(SystemCompanionTest, ExecutesPokesAndRequestsReachTheServer) {
  // The streamer is busy until something pokes its status to READY, three
  // seconds into the wait.
  Timer ready(events_, 3 * kMicrosPerSecond, [&] {
    std::string error;
    EXPECT_TRUE(companion_.poke("Streamer|System", "Status", "READY", &error)) << error;
  });
  ready.setEnabled(true);
  EXPECT_EQ(
      Run({"STARTSTREAMER c:\\data\\run1.dat", "WAITSTREAMER",
           "LINKEXECUTE LG_Raw|System, Status, Stop", "LINKEXECUTE LG_Raw|System, Status, Start",
           "LINKPOKE Sheets|Sheet1, R1C1, 12.5, -3"}),
      "");
  ready.setEnabled(false);
  EXPECT_DOUBLE_EQ(Elapsed(), 3.0);
  const std::vector<std::string> received = Received();
  ASSERT_GE(received.size(), 4u);
  EXPECT_EQ(
      std::vector<std::string>(received.begin(), received.begin() + 4),
      (std::vector<std::string>{"execute Streamer|System COLLECT c:\\data\\run1.dat",
                                "execute Streamer|System START", "request Streamer|System Status",
                                "request Streamer|System Status"}));
  EXPECT_EQ(std::vector<std::string>(received.end() - 5, received.end()),
            (std::vector<std::string>{"poke Streamer|System Status=READY",
                                      "request Streamer|System Status",
                                      "execute LG_Raw|System Stop", "execute LG_Raw|System Start",
                                      "poke Sheets|Sheet1 R1C1=12.5, -3"}));
  std::string error;
  EXPECT_EQ(companion_.request("Streamer|Status", "Status", &error), "READY") << error;
  // Text other than ASCII crosses in the code page of the server's side.
  EXPECT_TRUE(companion_.execute("LG_Raw|System", "",
                                 "Note 20 \xC2\xB0"
                                 "C",
                                 &error))
      << error;
  EXPECT_EQ(Received(), (std::vector<std::string>{"request Streamer|Status Status",
                                                  "execute LG_Raw|System Note 20 \xC2\xB0"
                                                  "C"}));
}

TEST_F(SystemCompanionTest, WhatTheProgramsCannotDoIsReported) {
  EXPECT_EQ(Run({"LINKEXECUTE Nobody|System, Status, Stop"}),
            "LinkExecute - no program answers the DDE topic Nobody|System on this computer");
  EXPECT_EQ(Run({"LINKEXECUTE LG_Raw|System, Status, Refuse"}),
            "LinkExecute - LG_Raw|System did not carry out the DDE command \"Refuse\"");
  EXPECT_EQ(Run({"LINKPOKE Sheets|Sheet1, Locked, 1"}),
            "LinkPoke - Sheets|Sheet1 did not take the DDE item Locked");
  EXPECT_EQ(Run({"LINKPOKE Sheet1, R1C1, 1"}),
            "LinkPoke - a DDE topic is written Program|Topic, not \"Sheet1\"");
  std::string error;
  EXPECT_EQ(companion_.request("Streamer|System", "Level", &error), std::nullopt);
  EXPECT_EQ(error, "no program answers the DDE item Level of Streamer|System on this computer");
  EXPECT_EQ(companion_.request("Nobody|System", "Status", &error), std::nullopt);
  EXPECT_EQ(error, "no program answers the DDE item Status of Nobody|System on this computer");
  EXPECT_EQ(Received(),
            (std::vector<std::string>{"execute LG_Raw|System Refuse", "poke Sheets|Sheet1 Locked=1",
                                      "request Streamer|System Level"}));

  EXPECT_EQ(Run({"SENDKEYS No such window, abc"}),
            "SendKeys - no window is titled \"No such window\"");
  EXPECT_EQ(Run({std::string("SENDKEYS ") + kWindow + ", %D{DELL}"}),
            "SendKeys - the key string \"%D{DELL}\" names no key DELL");
  const std::string missing = dir_ + "\\missing.exe";
  const std::string appLoad = Run({"APPLOAD " + missing});
  EXPECT_EQ(appLoad.rfind("AppLoad - cannot start " + missing + ": ", 0), 0u) << appLoad;
  EXPECT_GT(appLoad.size(), ("AppLoad - cannot start " + missing + ": ").size());
}

TEST_F(SystemCompanionTest, StartsProgramsAndTypesIntoWindows) {
  Event started("started");
  EXPECT_EQ(Run({"APPLOAD " + ServerPath() + ", --signal " + started.name}), "");
  EXPECT_TRUE(started.waitFor()) << "the started program never ran";

  std::string error;
  const bool typed = companion_.sendKeys(kWindow, "+ab{TAB}~", &error);
  if (!typed) GTEST_SKIP() << "no key strokes on this desktop: " << error;
  // Shift and A as keys; b as a character of its own (the key the system
  // keeps for typed characters); Tab; Enter.
  EXPECT_EQ(Received(), (std::vector<std::string>{"key 10", "key 41", "char A", "key e7", "char b",
                                                  "key 09", "char \t", "key 0d", "char \r"}));
}

}  // namespace
}  // namespace tavrix
