// The instrument command link ("IML") over the link library port: opening and
// closing the link, sending a command, fetching a reply with its retry and
// time-out rules, the "REP" check after a command, and the error numbers and
// texts that callers show. Identical for every backend.
//
// Operations return true on success; on failure they leave lastErrorNumber()
// and lastErrorText() set (a reply time-out records no error of its own; the
// caller sees timedOut()). The layer never shows a message itself.
//
// "Let other events run" is EventLoop::processPendingEvents(). While the
// library answers "not ready" (17) the layer waits the poll interval through the
// event loop before it asks again, so timers keep running, virtual time moves
// and a real wait costs no CPU. Exchanges may nest: a timer that ticks while
// a command waits for the link may itself read a channel.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "common/event_loop.h"
#include "common/trace.h"
#include "instrument/link/link_library.h"

namespace tavrix {

// Error numbers and texts of the link and channel layer.
inline constexpr int16_t kErrChannelName = 1500;
inline constexpr int16_t kErrTalkToDevice = 1501;
inline constexpr int16_t kErrReceive = 1503;
inline constexpr int16_t kErrSend = 1504;
inline constexpr int16_t kErrMonitorChannel = 1505;
inline constexpr std::string_view kTextImlError = "IML error: ";
inline constexpr std::string_view kTextTalkToDevice = "IML error - unable to talk to device:";
inline constexpr std::string_view kTextReceive = "IMLreceive error, ret =";
inline constexpr std::string_view kTextSend = "IMLsend error, ret =";
inline constexpr std::string_view kTextReplyError = "IML error - ";
inline constexpr std::string_view kDefaultDirectory = "c:\\corvane";
inline constexpr std::string_view kSetupsFolder = "\\setups";
inline constexpr std::string_view kDataFolder = "\\data";

// The reply's polls before a time-out may abandon it (both this and the
// time-out must have passed).
inline constexpr int kReplyPollLimit = 2000;
// The default wait between two polls of a command or reply that is not ready.
// 2000 polls then last at least 20 s, so a slow device with a shorter reply
// time-out is still waited for, as intended.
inline constexpr Micros kDefaultPollInterval = 10'000;

// How a link is set up; the instrument takes it from its settings.
struct LinkOptions {
  // The link is never opened and no setup is loaded.
  bool noHardware = false;
  // A command the device does not take is given up after the reply
  // time-out. (A reply is given up after kReplyPollLimit polls and the
  // time-out, whatever this says.)
  bool useReplyTimeout = false;
  int16_t replyTimeoutSecs = 10;
  // A failed send or receive records no error.
  bool ignoreLinkErrors = false;
  // Wait between polls of a command or reply that is not ready.
  Micros pollInterval = kDefaultPollInterval;
};

// A reply buffer that is made all blanks before each poll by blanking only
// what the last reply may have written.
struct ReplyBuffer {
  std::string bytes;
  size_t dirty = 0;  // the first `dirty` bytes may not be blanks
  // Makes `bytes` kReplyBufferLength blanks.
  void blank();
  // The reply the library wrote into the blanks, trailing blanks removed.
  // `onlyTheReply`: the library wrote nothing after the reply's NUL.
  std::string_view text(bool onlyTheReply);
};

class ImlLink {
 public:
  ImlLink(LinkLibrary& library, EventLoop& events, Trace* trace, LinkOptions options = {});
  ImlLink(const ImlLink&) = delete;
  ImlLink& operator=(const ImlLink&) = delete;

  const LinkOptions& options() const { return options_; }
  // Takes new options; they hold from the next exchange on.
  void configure(const LinkOptions& options) { options_ = options; }
  bool noHardware() const { return options_.noHardware; }

  // When set and true, waits for the link give up as if timed out (the run
  // was stopped). Keeps a run with an endless wait stoppable.
  void giveUpWaitsWhen(std::function<bool()> stopped) { abandonWaits_ = std::move(stopped); }

  // --- What the last operations left --------------------------------------
  // The error of the last failed operation (kept until the next failure).
  int16_t lastErrorNumber() const { return lastErrorNumber_; }
  const std::string& lastErrorText() const { return lastErrorText_; }
  void clearError() {
    lastErrorNumber_ = 0;
    lastErrorText_.clear();
  }
  // Whether the last send or reply was given up for time (or a Stop).
  bool timedOut() const { return linkTimedOut_; }
  // The handle the link library gave when the link was opened.
  int16_t handle() const { return imlHandle_; }
  // Whether the link is open with the setup library loaded.
  bool setupLibraryLoaded() const { return imsLibLoaded_; }
  // The name of the setup loaded and locked (at most 13 characters); the
  // link unlocks it when it closes.
  const std::string& setupName() const { return setupName_; }
  void setupLoaded(std::string name) { setupName_ = std::move(name); }

  LinkLibrary& library() { return library_; }
  EventLoop& events() { return events_; }

  // --- Operations ----------------------------------------------------------
  bool OpenLink();
  bool CloseLink();
  bool IMLSendCommand(int16_t device, std::string_view command, bool waitFlag);
  // Appends the reply (trailing blanks removed, the library's NUL and what
  // follows it kept) to `reply`.
  bool IMLGetReply(int16_t device, std::string& reply);
  // Sends (wait flag true) and fetches the reply, sending again, without
  // limit, while the reply fails (each fetch has its own reply time-out). A
  // send that fails, or a Stop (giveUpWaitsWhen), ends it with 1501.
  bool IMLSendReceive(int16_t device, std::string_view command, std::string& reply);
  // Sends "REP"; a reply starting with "0" is success, anything else becomes
  // the last error (its leading number, "IML error - " + reply).
  bool IMLCheckReply(int16_t device);
  // Records the library's result `number` as the last error; `detail`, when
  // given, follows the text after " - ".
  void SetIMLError(int32_t number, std::string_view detail = {});
  // Whole seconds since `start` (a date and time of the run's clock).
  float ElapsedSeconds(Micros start) const;
  std::string GetSetupsDirectory();
  std::string GetDataDirectory();

  // REA of channel `name` on `device` with its reply fetched, as one call to
  // a library that takes it at once (see DirectExchanges), when nothing else
  // is due on the event loop (the turns between the command and its reply
  // would then do nothing). False, with nothing done, when the exchange must
  // go the usual way (IMLSendCommand and IMLGetReply).
  bool directRead(int16_t device, std::string_view name, DirectHint& hint, double& value);
  // WRI of `value` to `name`, then the REP check, in the same way: true when
  // both went through and the report was "0".
  bool directWrite(int16_t device, std::string_view name, std::string_view value, DirectHint& hint);

  // Records an error number and text (unless nothing may be recorded).
  void recordError(int16_t number, std::string text);

  // Counters for tests and benchmarks.
  int64_t pollCount() const { return polls_; }

 private:
  void letEventsRun() { events_.processPendingEvents(); }
  // Waits the poll interval through the event loop.
  void waitPoll();
  bool abandoned() const { return abandonWaits_ && abandonWaits_(); }
  // The direct exchanges of the library, when they may be used now.
  DirectExchanges* directNow();
  void traceExchange(int16_t device, std::string_view command, const std::string* reply,
                     std::optional<int32_t> ret);
  std::string directory(std::string_view folder);

  LinkLibrary& library_;
  EventLoop& events_;
  Trace* trace_;
  LinkOptions options_;
  std::function<bool()> abandonWaits_;
  int16_t imlHandle_ = 0;
  bool imsLibLoaded_ = false;
  bool linkTimedOut_ = false;
  int16_t lastErrorNumber_ = 0;
  std::string lastErrorText_;
  std::string setupName_;
  ReplyBuffer replyBuffer_;
  bool replyBufferInUse_ = false;
  int64_t polls_ = 0;
  // The command sent with the wait flag to each device whose reply has not
  // been fetched yet (only while the trace is on).
  std::array<std::optional<std::string>, 100> pendingTrace_;
};

// One key=value field of a reply: the text after the first occurrence of
// `key` up to the next `delimiter` (or the end), trimmed of blanks; " " when
// the key is absent or the value empty.
std::string ReplyField(std::string_view text, std::string_view key, std::string_view delimiter);

}  // namespace tavrix
