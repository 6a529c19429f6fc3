// What a run tells the world: run events, published on the engine thread to
// any number of subscribers (the terminal view, the trace writer, the
// window, a control socket). An event is a plain value: a kind and a few
// fields that each kind fills, so that a subscriber can copy it to another
// thread or write it out as one line of JSON without asking the engine
// anything.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavrix {

enum class RunEventKind {
  // A sequence file was prepared for running: `text` its name.
  kPrepared,
  // The file the run reads from now (prepared, chained or returned to).
  kFile,
  // A run started: `flag` true when it starts held before its first line
  // (stepping), false for a free run.
  kStarted,
  // A free run is held from now on before each line (pause).
  kPaused,
  // A held run goes on freely from the held line (resume).
  kResumed,
  // The run holds before line `line` (`text`) until step, skip, resume or stop.
  kHold,
  // The hold ends: `text` says by what ("step", "skip", "resume", "stop").
  kRelease,
  // A line is dispatched: `line` its number, `text` the line as shown.
  kLine,
  // The run status changed: `text` "Ready", "Running" or "Stopped".
  kStatus,
  // The current command display shows `text` (a line, or a wait's count-down).
  kCommand,
  // The sequence time-out count-down: `number` seconds left.
  kTimeout,
  // A question opened: `title` who asks (its kind), `text` the question,
  // `items` the answers offered.
  kPrompt,
  // The question closed: `title` its kind, `text` the question, `answer`
  // the answer (none when no answer could come).
  kAnswer,
  // A message: `title`, `text`; `flag` false when it was only recorded
  // (the error display is switched off).
  kMessage,
  // An output in progress wrote `text` to channel `title`.
  kOutput,
  // A UUT finished: `title` its serial number, `flag` whether it passed,
  // `items` the results files written.
  kUut,
  // Stop was pressed (or a limit or an abort acted as it).
  kStopped,
  // Whether Stop may be used (NONSTOP forbids it for the run): `flag`.
  kStopAllowed,
  // The run ended: `text` the end reason's name ("eof", "stop", ...).
  kEnd,
};

// "prepared", "line", "end", ...: the kind as a word, for traces and sockets.
const char* RunEventKindName(RunEventKind kind);

struct RunEvent {
  RunEventKind kind = RunEventKind::kLine;
  // The engine clock when it happened, in microseconds.
  int64_t time = 0;
  int32_t line = 0;
  int64_t number = 0;
  bool flag = false;
  std::string title;
  std::string text;
  std::optional<std::string> answer;
  std::vector<std::string> items;
};

// The subscribers of one engine's run events. Subscribing and letting go are
// safe from any thread; events are delivered on the thread that publishes
// them (the engine thread), in the order of subscription. Once a
// subscription is let go (or destroyed), its handler is not called again and
// no call of it is still in progress, unless it is let go from inside its
// own handler.
class RunEventBus {
 public:
  using Handler = std::function<void(const RunEvent&)>;

  class Subscription {
   public:
    Subscription() = default;
    ~Subscription() { reset(); }
    Subscription(Subscription&& other) noexcept : entry_(std::move(other.entry_)) {}
    Subscription& operator=(Subscription&& other) noexcept;
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    // Lets go: the handler is called no more.
    void reset();
    bool active() const { return entry_ != nullptr; }

   private:
    friend class RunEventBus;
    struct Entry;
    explicit Subscription(std::shared_ptr<Entry> entry) : entry_(std::move(entry)) {}
    std::shared_ptr<Entry> entry_;
  };

  RunEventBus() = default;
  RunEventBus(const RunEventBus&) = delete;
  RunEventBus& operator=(const RunEventBus&) = delete;

  [[nodiscard]] Subscription subscribe(Handler handler);
  void publish(const RunEvent& event);
  // How many subscriptions are held now (lets a publisher skip building an
  // event nobody hears).
  int subscribers() const { return count_->load(std::memory_order_relaxed); }

 private:
  using Entries = std::vector<std::shared_ptr<Subscription::Entry>>;
  // Drops the entries let go, under the lock.
  void prune();

  mutable std::mutex mutex_;
  // Replaced, never changed, so that publish() takes it with one copy.
  std::shared_ptr<const Entries> entries_ = std::make_shared<const Entries>();
  std::shared_ptr<std::atomic<int>> count_ = std::make_shared<std::atomic<int>>(0);
};

struct RunEventBus::Subscription::Entry {
  std::recursive_mutex calling;  // held while the handler runs
  Handler handler;
  std::atomic<bool> active{true};
  std::shared_ptr<std::atomic<int>> count;  // the bus's count of subscriptions
};

}  // namespace tavrix
