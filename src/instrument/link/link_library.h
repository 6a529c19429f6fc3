// The link library port: the instrument link library and the hardware setup
// library, one method per function that the program calls, with the same
// arguments and result codes. Abstract so that the link layer runs unchanged
// over the simulated rig (SimLink), the TCP client of a rig server (TcpLink)
// or a vendor library.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace tavrix {

// Result codes. 0 is success everywhere. The link layer gives meaning only to
// 17, 29 and 30; every other code is the library's and is only reported.
namespace link_result {
inline constexpr int32_t kOk = 0;
inline constexpr int32_t kNotReady = 17;   // the command or reply is not ready yet
inline constexpr int32_t kTimedOut = 29;   // the exchange was given up
inline constexpr int32_t kPending = 30;    // keep polling; no text this time
inline constexpr int32_t kLinkLost = 31;   // the connection to the rig is gone
inline constexpr int32_t kNotOpen = 32;    // the link is not open (bad handle)
inline constexpr int32_t kBadDevice = 33;  // device number outside 0-99
// Setup library.
inline constexpr int32_t kSetupBusy = 23;  // call the load again
inline constexpr int32_t kNoMemory = 55;
inline constexpr int32_t kSetupNotLoaded = 59;
inline constexpr int32_t kNotConfiguring = 67;
inline constexpr int32_t kSetupLibTooOld = 74;
inline constexpr int32_t kNoMonitorChannels = 76;
inline constexpr int32_t kSetupFileUnreadable = 80;
inline constexpr int32_t kSetupFileBadLine = 81;
}  // namespace link_result

// Sizes of the buffers the program passes.
inline constexpr size_t kCommandBufferLength = 199;
inline constexpr size_t kReplyBufferLength = 1999;
inline constexpr size_t kVersionBufferLength = 199;
inline constexpr size_t kSetupNameLength = 13;
inline constexpr size_t kUnlockNameLength = 80;

// What the setup library fills in for a monitor channel request.
struct MonitorChannelRecord {
  int16_t device = 0;
  int16_t channelNumber = 0;
};

// The result of loading and locking a setup.
struct SetupLoad {
  std::string setupName;  // at most 13 characters
  // The setup summary the library produced for the setup: text lines
  // (CR LF or LF ends a line) in the summary's own form.
  std::string summary;
  // A readable reason when the load failed (e.g. the file and line that
  // could not be read); empty otherwise.
  std::string message;
};

class EventLoop;
class Trace;

// Where a library keeps its own lookup of one channel from one exchange to
// the next (the caller keeps it with its own lookup of the name and empties
// it whenever that changes).
struct DirectHint {
  uint64_t generation = 0;  // the library's table it was found in; 0: none
  size_t slot = 0;
};

// The channel exchanges that a library in this process carries out at once,
// as a single call, with the same outcome as the commands sent and the
// replies fetched through the buffers: the device's state afterwards is the
// one the exchanges leave, and a reading is the number its reply's text reads
// as. Each call either does all of it and returns true, or does nothing and
// returns false (the exchange then goes the usual way): a device that would
// not answer at once, a channel it does not know or has disabled, a reply
// that would not be a plain number, a command that would not fit the buffer.
class DirectExchanges {
 public:
  // "REA <name>" sent to `device` with the wait flag, then its reply
  // fetched: `value` is what the reply's text reads as (leadingNumber), and
  // `text`, when given, gets that text.
  virtual bool readNumber(int16_t device, std::string_view name, DirectHint& hint, double& value,
                          std::string* text) = 0;
  // "WRI <name> <value>" sent to `device` without the wait flag, then "REP"
  // sent with it and its reply fetched, that reply being "0".
  virtual bool writeChecked(int16_t device, std::string_view name, std::string_view value,
                            DirectHint& hint) = 0;
  // The text of the last reply that readNumber gave a number for.
  virtual std::string lastReadText() const = 0;

 protected:
  ~DirectExchanges() = default;
};

class LinkLibrary {
 public:
  virtual ~LinkLibrary() = default;

  // The run's event loop, for a library whose calls wait for something
  // outside the program (a rig server's response): such waits go through
  // the loop, as the run's other waits do. The link layer gives it before
  // the first call.
  virtual void useEventLoop(EventLoop& /*events*/) {}
  // The run's trace, for a library with something to record of its own
  // (what its devices say they are). The link layer gives it with the loop.
  virtual void useTrace(Trace& /*trace*/) {}
  // A setup the library brings itself (its own file): the instrument loads
  // it when the link opens and no setup has been loaded yet. Empty when the
  // channel table comes from a setup file that the run chooses.
  virtual std::string ownSetup() const { return {}; }
  // The devices behind the link, for a person looking at the rig (the
  // shell's channel table): one line each, such as its name, address and
  // what it said it is when it was opened. Empty for a link of one system.
  virtual std::vector<std::string> deviceLines() const { return {}; }

  // --- The instrument link library ------------------------------------------
  // Fills in `handle`.
  virtual int32_t openInterface(int16_t& handle) = 0;
  virtual int32_t closeInterface(int16_t handle) = 0;
  // Writes the interface version text (at most 199 characters).
  virtual int32_t interfaceVersion(int16_t handle, std::string& text) = 0;
  // `command` is the program's 199-character buffer: the command text, then
  // a NUL, then blanks (a command of 199 characters or more has no NUL).
  virtual int32_t sendCommand(int16_t handle, int16_t device, std::string_view command,
                              bool wait) = 0;
  // Writes the reply into the start of `buffer` (whose size is the buffer
  // length), followed by a NUL when it fits; the rest is left as it was.
  // 17: not ready yet, poll again.
  virtual int32_t getReply(int16_t handle, int16_t device, std::string& buffer, bool wait) = 0;
  // Whether getReply writes nothing but the reply and its NUL (WriteBuffer
  // does that), so that the link layer need not look at the rest of the
  // buffer. A vendor library may write anything anywhere: false.
  virtual bool writesOnlyTheReply() const { return false; }
  // The exchanges this library carries out at once in this process; nullptr
  // when every exchange goes through the buffers.
  virtual DirectExchanges* direct() { return nullptr; }
  virtual int32_t abortReply(int16_t handle, int16_t device) = 0;
  virtual int32_t millisecondCount() = 0;
  // Why the link last failed to reach its far end, in the system's words
  // and with the address ("connection refused: 127.0.0.1:5025"); empty when
  // the link has no far end or nothing failed.
  virtual std::string connectionProblem() const { return {}; }
  // The library's own data directory ("" when it has none).
  virtual int32_t dirPath(std::string& path) = 0;

  // --- The hardware setup library -------------------------------------------
  // The result is the library's version number; `text` its version text.
  virtual int32_t setupLibVersion(std::string& text) = 0;
  // Loads and locks the setup in `path`. `second` is passed through as the
  // program passes it.
  virtual int32_t loadAndLockSetup(const std::string& path, int32_t second, SetupLoad& load) = 0;
  virtual int32_t unlockSetup(std::string_view setupName, int16_t handle) = 0;
  // Fills in record.channelNumber for a new monitor channel on record.device.
  virtual int32_t requestMonitorChannel(std::string_view setupName,
                                        MonitorChannelRecord& record) = 0;
};

// The text at the start of a library buffer, up to its first NUL (or the
// whole buffer when it has none).
inline std::string_view BufferText(std::string_view buffer) {
  const size_t nul = buffer.find('\0');
  return nul == std::string_view::npos ? buffer : buffer.substr(0, nul);
}

// Writes `text` and a NUL into the start of `buffer`, as a library does; text
// that does not fit is cut.
inline void WriteBuffer(std::string& buffer, std::string_view text) {
  const size_t n = std::min(text.size(), buffer.size());
  if (n > 0) std::memmove(buffer.data(), text.data(), n);
  if (n < buffer.size()) buffer[n] = '\0';
}

}  // namespace tavrix
