// The companion programs: DDE executes, pokes and requests on a link topic
// ("App|Topic") and item, key strokes sent to a window found by its title,
// and starting programs. Abstract so that the engine runs the same on every
// platform; MakeSystemCompanion() reaches the programs of this computer
// (Windows), and RecordingCompanion records every call for the trace and
// for tests, passing it on to the system's when connected to it.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavrix {

class Trace;

// The streamer's DDE link: its status item answers "READY" when it can
// collect; "COLLECT " + a data file specification and then "START" are
// executed on it to start a collection.
inline constexpr std::string_view kStreamerTopic = "Streamer|System";
inline constexpr std::string_view kStreamerItem = "Status";
inline constexpr std::string_view kStreamerReady = "READY";
inline constexpr std::string_view kStreamerCollect = "COLLECT ";
inline constexpr std::string_view kStreamerStart = "START";

class Companion {
 public:
  virtual ~Companion() = default;

  // Each returns false, with a message saying why, when the effect cannot
  // happen (no such program, window or link, or no way to do it here).
  virtual bool execute(std::string_view topic, std::string_view item, std::string_view command,
                       std::string* error) = 0;
  virtual bool poke(std::string_view topic, std::string_view item, std::string_view value,
                    std::string* error) = 0;
  // The item's current value; std::nullopt, with a message, when there is
  // no answer.
  virtual std::optional<std::string> request(std::string_view topic, std::string_view item,
                                             std::string* error) = 0;
  // Activates the window whose title is `windowTitle` and types `keys`
  // (the key string notation: "%" Alt, "^" Ctrl, "+" Shift, "~" Enter,
  // "{DEL}" and the like).
  virtual bool sendKeys(std::string_view windowTitle, std::string_view keys,
                        std::string* error) = 0;
  // Starts a program from a command line and does not wait for it.
  virtual bool start(std::string_view commandLine, std::string* error) = 0;
};

// The companion programs of this computer: a DDE client for the links,
// key strokes through the window system, programs started by the system.
// DDE executes carry no item; the item given to execute() goes nowhere.
// nullptr where the system has no companion programs (all but Windows).
std::unique_ptr<Companion> MakeSystemCompanion();

// Records every call, and writes each to the trace as
//   {"ev":"companion","kind":"execute|poke|request|keys|start",...}
// with "topic" and "item" (DDE), "window" (keys), "text" (the command, value,
// key string or command line) and, for a request, "answer" (null when none).
//
// It never pretends: executes, pokes, key strokes and program starts are
// taken as delivered (the trace is their effect) unless refused below; a
// request has an answer only when one was configured with setAnswer, and
// otherwise fails with a message that says so. Once connected to the
// system's companion programs, every effect that is not refused and every
// request without a configured answer goes to them, and their failures are
// the caller's.
class RecordingCompanion final : public Companion {
 public:
  struct Call {
    std::string kind;   // "execute", "poke", "request", "keys", "start"
    std::string topic;  // DDE topic, or the window title for "keys"
    std::string item;
    std::string text;
    bool operator==(const Call&) const = default;
  };

  explicit RecordingCompanion(Trace* trace = nullptr) : trace_(trace) {}

  // The answer that requests of `topic`/`item` get from now on.
  void setAnswer(std::string_view topic, std::string_view item, std::string_view value);
  // Parses "TOPIC!ITEM=VALUE" (the form of `tavrix-cli run --companion-answer`).
  bool setAnswerFromText(std::string_view spec, std::string* error);
  // Makes every effect of `kind` ("execute", "poke", "keys", "start") on
  // `target` (a topic, a window title, or "" for every target) fail with
  // `reason`.
  void refuse(std::string_view kind, std::string_view target, std::string_view reason);

  // Passes calls on to `programs` (nullptr: record only). `programs` must
  // outlive this companion or be disconnected first.
  void connect(Companion* programs) { programs_ = programs; }

  const std::vector<Call>& calls() const { return calls_; }

  bool execute(std::string_view topic, std::string_view item, std::string_view command,
               std::string* error) override;
  bool poke(std::string_view topic, std::string_view item, std::string_view value,
            std::string* error) override;
  std::optional<std::string> request(std::string_view topic, std::string_view item,
                                     std::string* error) override;
  bool sendKeys(std::string_view windowTitle, std::string_view keys, std::string* error) override;
  bool start(std::string_view commandLine, std::string* error) override;

 private:
  bool deliver(Call call, std::string* error);
  const std::string* refusal(std::string_view kind, std::string_view target) const;

  Trace* trace_;
  Companion* programs_ = nullptr;
  std::vector<Call> calls_;
  std::map<std::pair<std::string, std::string>, std::string> answers_;
  std::map<std::pair<std::string, std::string>, std::string> refusals_;
};

}  // namespace tavrix
