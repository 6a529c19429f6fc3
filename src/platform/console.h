// The console a command-line program runs in.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

namespace tavrix::platform {

// Whether `stream` is an interactive terminal.
bool isTerminal(std::FILE* stream);
// The width of the terminal `stream` shows in, in characters; 0 when unknown.
int terminalColumns(std::FILE* stream);

// While it lives, an operator's stop request from the console calls
// `onStop` on a thread of its own instead of ending the process: on POSIX
// systems SIGINT, SIGTERM and SIGHUP (a closed terminal); on Windows Ctrl+C,
// Ctrl+Break, closing the console window, logging off and shutting down.
// `exitStatus` is the status for a program that ends because of the
// request (128 + the signal's number; 130 for Ctrl+C, 149 for Ctrl+Break and
// 129 for the others on Windows). Windows ends the process once the handler
// returns from a close, log-off or shut-down event, so for those the call
// waits (a few seconds at most) until this object is destroyed, which the
// program does once its results are written. Make it before any thread of
// the program starts: on POSIX systems the signals are blocked in the
// threads started afterwards, so that only this one takes them. At most one
// may live at a time.
class StopRequests {
 public:
  explicit StopRequests(std::function<void(int exitStatus)> onStop);
  ~StopRequests();
  StopRequests(const StopRequests&) = delete;
  StopRequests& operator=(const StopRequests&) = delete;

  struct State;

 private:
  std::unique_ptr<State> state_;
};

// Lines typed at a terminal, read in a way that another thread can cut
// short: a question that the program closes (the run was stopped) stops
// waiting for its answer at once. On Windows a read under way cannot be cut
// short; there cancel() takes effect at the next line.
class LineReader {
 public:
  explicit LineReader(std::FILE* stream);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  enum class Result { kLine, kEnd, kCancelled };
  // The next line, without its line end.
  Result readLine(std::string& line);
  // Ends the readLine() under way with kCancelled, or the next one when none
  // is under way.
  void cancel();
  // Forgets a cancel() that no readLine() has taken.
  void clear();

  struct State;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace tavrix::platform
