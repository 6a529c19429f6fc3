// `tavrix-cli shell`: each line typed is run on the rig at once, as a line of
// a sequence that never ends. The run goes round a two-line sequence of its
// own (a label and a jump back to it); before each of its lines the session
// hands the run the next line typed, so that keywords, defines, outputs in
// progress and the trace behave as in any run. While the session waits for
// a line the run's event loop goes on: a ramp started by one line keeps
// ramping while the next is typed.
//
// Lines that begin with a dot are the shell's own: .read CH..., .channels,
// .watch CH... (readings once a second while the shell waits; .watch alone
// stops), .trace FILE, .quit. The end of the input, or .quit, ends the run
// with STOP, which stops the outputs in progress as the end of a run does.
#pragma once

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/event_loop.h"
#include "engine/engine.h"

namespace tavrix {

class ShellSession {
 public:
  // `in` gives the lines; with `interactive` (a terminal) they are read
  // with line editing, completion and a history kept in `historyFile`.
  ShellSession(Engine& engine, std::FILE* in, std::FILE* out, bool interactive,
               std::string historyFile);
  ~ShellSession();
  ShellSession(const ShellSession&) = delete;
  ShellSession& operator=(const ShellSession&) = delete;

  // The sequence the shell's run goes round in.
  static constexpr const char* kLoopSequence = "SHELL:\r\nGOTO SHELL\r\n";

  // Hands the engine's run its lines from now on.
  void attach();
  // After a run ends: whether another should start (the run ended in a
  // sequence error and lines may follow).
  bool wantsAnotherRun() const { return !ended_; }

 private:
  struct Input {
    std::string line;
    bool end = false;  // the input has ended
  };
  // What the reader thread shares with the session. The reader reads a line
  // only when the run asks for one, so that an operator question of the
  // line before has the input to itself; a reader still blocked in a read
  // when the session ends is let go and touches only this.
  struct Shared {
    std::mutex mutex;
    std::condition_variable wanted;
    bool want = false;
    bool quit = false;
    bool reading = false;
    std::deque<Input> lines;
    EventLoop* loop = nullptr;  // woken when a line comes; null once the session ends
  };
  std::optional<std::string> nextLine(Sequencer& seq);
  // Runs a line that begins with a dot (other than .quit).
  void dotCommand(const std::string& line);
  static void ReadLines(std::shared_ptr<Shared> shared, std::FILE* in, bool interactive,
                        std::string historyFile, std::vector<std::string> words);
  void printReadings(const std::vector<std::string>& channels);

  Engine& engine_;
  std::FILE* in_;
  std::FILE* out_;
  bool interactive_;
  std::string historyFile_;
  std::vector<std::string> watched_;
  std::unique_ptr<Timer> watchTimer_;
  bool ended_ = false;
  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
  std::thread reader_;
};

}  // namespace tavrix
