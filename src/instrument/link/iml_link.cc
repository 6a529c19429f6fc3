#include "instrument/link/iml_link.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "common/text_conventions.h"

namespace tavrix {

ImlLink::ImlLink(LinkLibrary& library, EventLoop& events, Trace* trace, LinkOptions options)
    : library_(library), events_(events), trace_(trace), options_(options) {
  library_.useEventLoop(events_);
  if (trace_ != nullptr) library_.useTrace(*trace_);
}

void ImlLink::recordError(int16_t number, std::string text) {
  lastErrorNumber_ = number;
  lastErrorText_ = std::move(text);
}

void ImlLink::SetIMLError(int32_t number, std::string_view detail) {
  letEventsRun();
  lastErrorNumber_ = static_cast<int16_t>(number);
  lastErrorText_ = std::string(kTextImlError) + numberText(number);
  if (!detail.empty()) lastErrorText_ += " - " + std::string(detail);
}

float ImlLink::ElapsedSeconds(Micros start) const {
  return static_cast<float>(std::trunc(static_cast<double>(events_.now() - start) / 1e6));
}

void ImlLink::waitPoll() {
  bool due = false;
  Timer timer(events_, options_.pollInterval, [&due] { due = true; });
  timer.setEnabled(true);
  events_.waitUntil([&due] { return due; });
}

void ImlLink::traceExchange(int16_t device, std::string_view command, const std::string* reply,
                            std::optional<int32_t> ret) {
  auto event = trace_->event("iml");
  event.field("dev", static_cast<int>(device)).field("cmd", command);
  if (reply != nullptr) {
    event.field("reply", BufferText(*reply));
  } else {
    event.field("reply", std::nullopt);
  }
  if (ret) event.field("ret", static_cast<int64_t>(*ret));
}

bool ImlLink::OpenLink() {
  if (options_.noHardware) return true;
  const int32_t opened = library_.openInterface(imlHandle_);
  if (opened != link_result::kOk) {
    SetIMLError(opened);
    return false;
  }
  std::string version(kVersionBufferLength, ' ');
  library_.interfaceVersion(imlHandle_, version);
  if (library_.setupLibVersion(version) < 5) {
    SetIMLError(link_result::kSetupLibTooOld);
    return false;
  }
  imsLibLoaded_ = true;
  return true;
}

bool ImlLink::CloseLink() {
  if (options_.noHardware) return true;
  if (imsLibLoaded_) {
    std::string name = setupName_;
    name.resize(kUnlockNameLength, ' ');
    library_.unlockSetup(name, imlHandle_);
    library_.closeInterface(imlHandle_);
    imsLibLoaded_ = false;
  }
  return true;
}

bool ImlLink::IMLSendCommand(int16_t device, std::string_view command, bool waitFlag) {
  // The command, a NUL when it fits, then blanks. On the stack: a nested
  // exchange may send its own command while this one waits.
  char bufferBytes[kCommandBufferLength];
  const size_t length = std::min(command.size(), kCommandBufferLength);
  std::memcpy(bufferBytes, command.data(), length);
  if (length < kCommandBufferLength) {
    bufferBytes[length] = '\0';
    std::memset(bufferBytes + length + 1, ' ', kCommandBufferLength - length - 1);
  }
  const std::string_view buffer(bufferBytes, kCommandBufferLength);

  linkTimedOut_ = false;
  int32_t result = link_result::kNotReady;
  const Micros start = events_.now();
  const bool timed = options_.useReplyTimeout;
  // Before the first try no time has passed since `start`.
  bool tried = false;
  while (result == link_result::kNotReady) {
    if (timed && (tried ? ElapsedSeconds(start) : 0.0f) > options_.replyTimeoutSecs) {
      linkTimedOut_ = true;
      break;
    }
    letEventsRun();
    tried = true;
    result = library_.sendCommand(imlHandle_, device, buffer, waitFlag);
    if (result != link_result::kNotReady) break;
    if (abandoned()) {
      linkTimedOut_ = true;
      break;
    }
    waitPoll();
  }

  const bool tracing = trace_ != nullptr && trace_->enabled();
  if (result == link_result::kOk) {
    if (tracing) {
      if (waitFlag && device >= 0 && device < 100) {
        pendingTrace_[device] = std::string(BufferText(buffer));
      } else {
        traceExchange(device, BufferText(buffer), nullptr, std::nullopt);
      }
    }
    return true;
  }
  if (tracing) traceExchange(device, BufferText(buffer), nullptr, result);
  if (!options_.ignoreLinkErrors)
    recordError(kErrSend, std::string(kTextSend) + numberText(result));
  return false;
}

bool ImlLink::IMLGetReply(int16_t device, std::string& reply) {
  int polls = 0;
  linkTimedOut_ = false;
  int32_t result = link_result::kNotReady;
  const Micros start = events_.now();
  // The link's reply buffer is kept from one exchange to the next. An
  // exchange that runs while this one waits (a timer's, or one during a
  // library call that lets events run) takes a buffer of its own.
  ReplyBuffer nestedBuffer;
  const bool outermost = !replyBufferInUse_;
  ReplyBuffer& buffer = outermost ? replyBuffer_ : nestedBuffer;
  replyBufferInUse_ = true;
  bool givenUp = false;
  while ((result == link_result::kNotReady || result == link_result::kPending) && !givenUp) {
    letEventsRun();
    buffer.blank();
    result = library_.getReply(imlHandle_, device, buffer.bytes, true);
    buffer.dirty = kReplyBufferLength;
    ++polls;
    ++polls_;
    if (result == link_result::kNotReady) {
      if ((polls > kReplyPollLimit && ElapsedSeconds(start) > options_.replyTimeoutSecs) ||
          abandoned()) {
        result = link_result::kTimedOut;
        linkTimedOut_ = true;
        givenUp = true;
        library_.abortReply(imlHandle_, device);
      } else {
        waitPoll();
      }
    } else if (result == link_result::kOk) {
      reply.append(buffer.text(library_.writesOnlyTheReply()));
    } else if (result == link_result::kPending) {
      waitPoll();
    }
  }

  if (outermost) replyBufferInUse_ = false;

  if (trace_ != nullptr && trace_->enabled() && device >= 0 && device < 100 &&
      pendingTrace_[device]) {
    const std::string command = std::move(*pendingTrace_[device]);
    pendingTrace_[device].reset();
    if (result == link_result::kOk) {
      traceExchange(device, command, &reply, std::nullopt);
    } else {
      traceExchange(device, command, nullptr, result);
    }
  }

  if (result == link_result::kOk) return true;
  if (result == link_result::kTimedOut) return false;
  if (!options_.ignoreLinkErrors)
    recordError(kErrReceive, std::string(kTextReceive) + numberText(result));
  return false;
}

void ReplyBuffer::blank() {
  if (bytes.size() != kReplyBufferLength) {
    bytes.assign(kReplyBufferLength, ' ');
  } else {
    std::memset(bytes.data(), ' ', dirty);
  }
  dirty = 0;
}

std::string_view ReplyBuffer::text(bool onlyTheReply) {
  // The buffer was all blanks. The usual reply is a text and a NUL at its
  // start with the blanks after it untouched: the text up to the last
  // non-blank is then the text and its NUL, and only those need blanking
  // again. Anything else is trimmed the slow way and blanked whole.
  const std::string_view buffer = bytes;
  dirty = kReplyBufferLength;
  if (buffer.size() != kReplyBufferLength) return trimRight(buffer);
  const void* nul = std::memchr(buffer.data(), '\0', buffer.size());
  if (nul == nullptr) return trimRight(buffer);
  const size_t end = static_cast<size_t>(static_cast<const char*>(nul) - buffer.data()) + 1;
  static const std::string kBlanks(kReplyBufferLength, ' ');
  if (!onlyTheReply && std::memcmp(buffer.data() + end, kBlanks.data(), buffer.size() - end) != 0) {
    return trimRight(buffer);
  }
  dirty = end;
  return buffer.substr(0, end);
}

DirectExchanges* ImlLink::directNow() {
  DirectExchanges* direct = library_.direct();
  return direct != nullptr && events_.idleNow() ? direct : nullptr;
}

bool ImlLink::directRead(int16_t device, std::string_view name, DirectHint& hint, double& value) {
  DirectExchanges* direct = directNow();
  if (direct == nullptr) return false;
  const bool tracing = trace_ != nullptr && trace_->enabled();
  std::string text;
  if (!direct->readNumber(device, name, hint, value, tracing ? &text : nullptr)) return false;
  // What the send and the one poll of the reply leave.
  linkTimedOut_ = false;
  ++polls_;
  if (tracing) {
    if (device >= 0 && device < 100) pendingTrace_[device].reset();
    std::string command = "REA ";
    command.append(name);
    traceExchange(device, command, &text, std::nullopt);
  }
  return true;
}

bool ImlLink::directWrite(int16_t device, std::string_view name, std::string_view value,
                          DirectHint& hint) {
  DirectExchanges* direct = directNow();
  if (direct == nullptr || !direct->writeChecked(device, name, value, hint)) return false;
  linkTimedOut_ = false;
  ++polls_;
  if (trace_ != nullptr && trace_->enabled()) {
    std::string command = "WRI ";
    command.append(name).append(1, ' ').append(value);
    traceExchange(device, command, nullptr, std::nullopt);
    if (device >= 0 && device < 100) pendingTrace_[device].reset();
    const std::string report = "0";
    traceExchange(device, "REP", &report, std::nullopt);
  }
  return true;
}

bool ImlLink::IMLSendReceive(int16_t device, std::string_view command, std::string& reply) {
  for (;;) {
    if (!IMLSendCommand(device, command, true)) {
      recordError(kErrTalkToDevice, std::string(kTextTalkToDevice) + numberText(device));
      return false;
    }
    letEventsRun();
    letEventsRun();
    std::string received;
    if (IMLGetReply(device, received)) {
      reply = std::move(received);
      return true;
    }
    // A failed reply, a timed-out one included, sends the command again,
    // for as long as it takes; only a Stop gives up.
    if (abandoned()) {
      recordError(kErrTalkToDevice, std::string(kTextTalkToDevice) + numberText(device));
      return false;
    }
  }
}

bool ImlLink::IMLCheckReply(int16_t device) {
  std::string reply;
  if (!IMLSendReceive(device, "REP", reply)) return false;
  if (!reply.empty() && reply[0] == '0') return true;
  const std::string_view text = BufferText(reply);
  lastErrorNumber_ = roundToInt16(leadingNumber(text)).value_or(0);
  lastErrorText_ = std::string(kTextReplyError) + std::string(text);
  return false;
}

std::string ImlLink::directory(std::string_view folder) {
  std::string dir;
  if (!options_.noHardware) {
    std::string version(kVersionBufferLength, ' ');
    library_.setupLibVersion(version);
    std::string path;
    if (library_.dirPath(path) == link_result::kOk) dir = std::string(trim(BufferText(path)));
  }
  if (dir.empty()) dir = kDefaultDirectory;
  while (!dir.empty() && (dir.back() == '\\' || dir.back() == '/')) dir.pop_back();
  return dir + std::string(folder);
}

std::string ImlLink::GetSetupsDirectory() { return directory(kSetupsFolder); }
std::string ImlLink::GetDataDirectory() { return directory(kDataFolder); }

std::string ReplyField(std::string_view text, std::string_view key, std::string_view delimiter) {
  const size_t at = text.find(key);
  if (at == std::string_view::npos) return " ";
  std::string_view value = text.substr(at + key.size());
  const size_t end = delimiter.empty() ? std::string_view::npos : value.find(delimiter);
  if (end != std::string_view::npos) value = value.substr(0, end);
  value = trim(value);
  if (value.empty()) return " ";
  return std::string(value);
}

}  // namespace tavrix
