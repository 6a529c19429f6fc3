#include "station_run.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "common/civil_time.h"
#include "console_operators.h"
#include "engine/engine.h"
#include "instrument/backends/link_backends.h"
#include "instrument/link/instrument.h"
#include "instrument/link/instrument_settings.h"
#include "lint_command.h"
#include "platform/console.h"
#include "resultsdb/results_feed.h"
#include "resultsdb/uut_capture.h"
#include "run_control.h"
#include "station_file.h"
#include "station_rig.h"
#include "terminal_view.h"
#ifndef _WIN32
#include "station_publisher.h"
#endif

namespace tavrix {

namespace {

int Rank(int status) {
  switch (status) {
    case kExitUsage:
      return 6;
    case kExitSequenceError:
      return 5;
    case kExitStopped:
      return 4;
    case kExitOutputLost:
      return 3;
    case kExitLimit:
      return 2;
    case kExitUutFailed:
      return 1;
    default:
      return 0;
  }
}

// What one socket shows: its line on a terminal and its part of the summary.
struct SocketRow {
  std::string name;
  std::string state = "waiting";
  int line = 0;
  std::string command;
  std::string serial;
  std::string verdict;
  int passed = 0;
  int failed = 0;
  std::optional<int> status;
  std::string reason;
};

// The station's terminal view: one line per socket, redrawn in place on a
// terminal, with each socket's messages and questions above it, its name in
// front. Elsewhere only the messages and the summary. Called from every
// socket's thread.
class StationView {
 public:
  StationView(const std::vector<std::string>& names, std::FILE* out, bool live)
      : out_(out), live_(live) {
    for (const auto& name : names) {
      SocketRow row;
      row.name = name;
      rows_.push_back(std::move(row));
    }
  }

  void print(size_t socket, const std::string& text) {
    std::lock_guard guard(mutex_);
    clear();
    std::string body;
    for (char c : text) {
      body += c == '\r' ? '\n' : c;
      if (c == '\n' || c == '\r') body += rows_[socket].name + ": ";
    }
    std::fprintf(out_, "%s: %s\n", rows_[socket].name.c_str(), body.c_str());
    draw();
  }

  void event(size_t socket, const RunEvent& event) {
    std::lock_guard guard(mutex_);
    SocketRow& row = rows_[socket];
    switch (event.kind) {
      case RunEventKind::kLine:
        row.line = event.line;
        row.command = event.text;
        break;
      case RunEventKind::kCommand:
        row.command = event.text;
        break;
      case RunEventKind::kStatus:
        row.state = event.text;
        break;
      case RunEventKind::kHold:
        row.state = "Held";
        break;
      case RunEventKind::kPrompt:
        row.state = "Asking";
        break;
      case RunEventKind::kAnswer:
        row.state = "Running";
        break;
      case RunEventKind::kUut:
        row.serial = event.title;
        row.verdict = event.flag ? "PASS" : "FAIL";
        ++(event.flag ? row.passed : row.failed);
        break;
      default:
        return;
    }
    if (!live_) return;
    const auto now = std::chrono::steady_clock::now();
    if (now - drawn_ < std::chrono::milliseconds(100)) return;
    clear();
    draw();
  }

  // While a person is asked something at the terminal, the lines are not
  // redrawn (the question stands where they would be).
  void pause(bool paused) {
    std::lock_guard guard(mutex_);
    if (paused) clear();
    paused_ = paused;
    if (!paused) draw();
  }

  void ended(size_t socket, int status, const std::string& reason) {
    std::lock_guard guard(mutex_);
    rows_[socket].status = status;
    rows_[socket].reason = reason;
    rows_[socket].state = "Ended";
    if (!live_) return;
    clear();
    draw();
  }

  void finish(int status) {
    std::lock_guard guard(mutex_);
    clear();
    live_ = false;
    for (const SocketRow& row : rows_) {
      std::fprintf(out_, "%s: ended by %s: exit status %d", row.name.c_str(), row.reason.c_str(),
                   row.status.value_or(kExitUsage));
      if (row.passed + row.failed > 0)
        std::fprintf(out_, "; UUTs: %d passed, %d failed", row.passed, row.failed);
      std::fprintf(out_, "\n");
    }
    std::fprintf(out_, "Station: exit status %d (the worst of its sockets')\n", status);
    std::fflush(out_);
  }

 private:
  void clear() {
    if (!live_ || paused_ || drawnLines_ == 0) return;
    std::fprintf(out_, "\x1b[%dA\x1b[J", drawnLines_);
    drawnLines_ = 0;
  }
  void draw() {
    if (!live_ || paused_) {
      std::fflush(out_);
      return;
    }
    for (const SocketRow& row : rows_) {
      std::string serial = row.serial.empty() ? "-" : row.serial;
      std::string verdict = row.status            ? "exit " + std::to_string(*row.status)
                            : row.verdict.empty() ? "RUNNING"
                                                  : row.verdict;
      std::string command = row.command.substr(0, 40);
      std::fprintf(out_, "%-8s %-8s %5d  %-40s %-12s %s\n", row.name.c_str(), row.state.c_str(),
                   row.line, command.c_str(), serial.c_str(), verdict.c_str());
    }
    drawnLines_ = static_cast<int>(rows_.size());
    drawn_ = std::chrono::steady_clock::now();
    std::fflush(out_);
  }

  std::mutex mutex_;
  std::FILE* out_;
  bool live_;
  bool paused_ = false;
  std::vector<SocketRow> rows_;
  int drawnLines_ = 0;
  std::chrono::steady_clock::time_point drawn_{};
};

// A socket's operator: the answers file's (or none), with what it shows
// and asks told on the station view under the socket's name.
class SocketOperator final : public Operator {
 public:
  SocketOperator(std::unique_ptr<Operator> inner, StationView& view, size_t socket)
      : inner_(std::move(inner)), view_(view), socket_(socket) {}

  void ask(const Question& question, std::function<void(Answer)> answered) override {
    // A person sees the question itself, under the socket's name.
    if (!inner_->isPerson()) view_.print(socket_, "[" + question.kind + "] " + question.text);
    inner_->ask(question, [this, answered = std::move(answered)](Answer answer) {
      if (answer) view_.print(socket_, "  answered: " + *answer);
      answered(std::move(answer));
    });
  }
  void closeQuestion() override { inner_->closeQuestion(); }
  std::string unansweredReason() const override { return inner_->unansweredReason(); }
  bool mayAskAgain(const Question& question, std::string_view why) override {
    return inner_->mayAskAgain(question, why);
  }
  bool isPerson() const override { return inner_->isPerson(); }
  void showMessage(std::string_view title, std::string_view text) override {
    view_.print(socket_, "[" + std::string(title) + "] " + std::string(text));
  }

 private:
  std::unique_ptr<Operator> inner_;
  StationView& view_;
  size_t socket_;
};

// Questions of sockets without an answers file, put to the person at the
// terminal one at a time, in the order asked, each under its socket's name.
// A thread of its own hands them to the terminal, so that an answer (given
// on the terminal's reader thread) never waits for the next question.
class QuestionDesk {
 public:
  QuestionDesk(std::FILE* in, std::FILE* out, StationView& view) : terminal_(in, out), view_(view) {
    thread_ = std::thread([this] { serve(); });
  }
  ~QuestionDesk() {
    {
      std::lock_guard guard(mutex_);
      stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  QuestionDesk(const QuestionDesk&) = delete;
  QuestionDesk& operator=(const QuestionDesk&) = delete;

  void ask(size_t socket, Question question, std::function<void(Answer)> answered) {
    std::lock_guard guard(mutex_);
    queue_.push_back({socket, std::move(question), std::move(answered)});
    changed_.notify_all();
  }
  // The socket's question is withdrawn (its run was stopped).
  void close(size_t socket) {
    std::unique_lock lock(mutex_);
    queue_.erase(std::remove_if(queue_.begin(), queue_.end(),
                                [&](const Item& item) { return item.socket == socket; }),
                 queue_.end());
    if (active_ && *active_ == socket) {
      active_.reset();
      lock.unlock();
      terminal_.closeQuestion();
      view_.pause(false);
      changed_.notify_all();
    }
  }

 private:
  struct Item {
    size_t socket;
    Question question;
    std::function<void(Answer)> answered;
  };

  void serve() {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [&] { return stopping_ || (!active_ && !queue_.empty()); });
      if (stopping_) return;
      Item item = std::move(queue_.front());
      queue_.pop_front();
      active_ = item.socket;
      const auto answered = std::move(item.answered);
      const size_t socket = item.socket;
      lock.unlock();
      view_.pause(true);
      terminal_.ask(item.question, [this, socket, answered](Answer answer) {
        {
          std::lock_guard guard(mutex_);
          if (!active_ || *active_ != socket) return;
          active_.reset();
        }
        changed_.notify_all();
        view_.pause(false);
        answered(std::move(answer));
      });
      lock.lock();
    }
  }

  TerminalOperator terminal_;
  StationView& view_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Item> queue_;
  std::optional<size_t> active_;
  bool stopping_ = false;
  std::thread thread_;
};

// A socket's questions, put to the person at the terminal.
class DeskOperator final : public Operator {
 public:
  DeskOperator(QuestionDesk& desk, size_t socket, std::string name)
      : desk_(desk), socket_(socket), name_(std::move(name)) {}
  void ask(const Question& question, std::function<void(Answer)> answered) override {
    Question shown = question;
    shown.text = name_ + ": " + question.text;
    desk_.ask(socket_, std::move(shown), std::move(answered));
  }
  void closeQuestion() override { desk_.close(socket_); }
  bool isPerson() const override { return true; }
  std::string unansweredReason() const override { return "the terminal input was closed"; }
  void showMessage(std::string_view, std::string_view) override {}

 private:
  QuestionDesk& desk_;
  size_t socket_;
  std::string name_;
};

// "trace.jsonl" for socket S2: "trace.S2.jsonl".
std::string SocketTracePath(const std::string& path, const std::string& socket) {
  const size_t slash = path.find_last_of("/\\");
  const size_t dot = path.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash) ||
      dot == (slash == std::string::npos ? 0 : slash + 1))
    return path + "." + socket;
  return path.substr(0, dot) + "." + socket + path.substr(dot);
}

struct StationShared {
  StationShared(const RunOptions& o, const Station& s, InstrumentSettings i, std::string root,
                StationView& v, std::FILE* e)
      : options(o),
        station(s),
        settings(std::move(i)),
        dataRoot(std::move(root)),
        view(v),
        err(e) {}
  const RunOptions& options;
  const Station& station;
  InstrumentSettings settings;
  std::string dataRoot;
  StationView& view;
  std::FILE* err;
  std::mutex errMutex;
  StationTime* time = nullptr;  // on a virtual clock
  std::unique_ptr<StationRig> rig;
  // Where sockets without an answers file ask, when the input is a terminal.
  std::unique_ptr<QuestionDesk> desk;
#ifndef _WIN32
  // The station's runs published into a plant's database server.
  std::unique_ptr<plant::RunPublishing> publishing;
#endif

  // Stop requests (Ctrl+C, SIGTERM, a closed terminal) reach every socket
  // whose engine is running, as the window's close request does.
  std::mutex enginesMutex;
  std::vector<Engine*> engines;
  bool stopping = false;
  // False when a stop request came first: the socket does not start.
  bool attach(Engine* engine) {
    std::lock_guard guard(enginesMutex);
    if (stopping) return false;
    engines.push_back(engine);
    return true;
  }
  void detach(Engine* engine) {
    std::lock_guard guard(enginesMutex);
    engines.erase(std::remove(engines.begin(), engines.end(), engine), engines.end());
  }
  void stopAll() {
    std::lock_guard guard(enginesMutex);
    stopping = true;
    for (Engine* engine : engines) requestStop(*engine);
  }
  static void requestStop(Engine& engine) {
    engine.post([](Engine& e) {
      Sequencer& seq = e.sequencer();
      if (seq.flags().running && seq.mayClose()) seq.requestAbort();
    });
  }

  void report(const std::string& socket, const std::string& text) {
    std::lock_guard guard(errMutex);
    std::fprintf(err, "tavrix-cli: %s: %s\n", socket.c_str(), text.c_str());
    std::fflush(err);
  }
};

// Who answers the questions of socket `index`: its answers file, else the
// question desk of the terminal, else the station's answers file or none.
std::unique_ptr<Operator> MakeSocketOperator(StationShared& shared, size_t index,
                                             const FileSystem& files, std::string& error) {
  const Station& station = shared.station;
  const StationSocket& socket = station.sockets[index];
  if (!station.answersOf(socket) && shared.desk)
    return std::make_unique<DeskOperator>(*shared.desk, index, socket.name);
  return MakeConsoleOperator(files, station.answersOf(socket), nullptr, nullptr, &error);
}

// The engine of socket `index`, on the station's rig, its questions put to
// `op` and its results files in the socket's folder.
std::unique_ptr<Engine> BuildSocketEngine(StationShared& shared, size_t index,
                                          std::unique_ptr<LocalFileSystem> files, Operator& op,
                                          std::string& error) {
  const Station& station = shared.station;
  const StationSocket& socket = station.sockets[index];
  const RunOptions& options = shared.options;
  EngineConfig config;
  shared.rig->configure(index, config);
  config.files = std::move(files);
  config.op = &op;
  config.resultsStore = EngineConfig::ResultsStore{
      options.resultsStore.value_or(shared.settings.resultsStore),
      SocketRecordName(station, socket),
      [&shared, name = socket.name](const std::string& text) { shared.report(name, text); }};
  config.settings = shared.settings;
  config.xmlResultsFiles = options.results == "xml";
  config.writeResultsFiles = options.results != "off";
  config.companionAnswers = options.companionAnswers;
  EngineBuildError problem;
  std::unique_ptr<Engine> engine = BuildEngine(std::move(config), &problem);
  if (!engine) {
    error = problem.text;
    return nullptr;
  }
  if (const std::string& folder = station.resultsOf(socket); !folder.empty())
    engine->testDatabase().setDataDirectory(folder);
  engine->files().onFirstLoss([&shared, &socket](const WatchedFileSystem::Loss& loss) {
    shared.report(socket.name, "output lost: " + loss.firstError);
  });
  return engine;
}

// The socket's trace file (--trace FILE, named for the socket); its times
// count from now.
bool StartSocketTrace(Engine& engine, const RunOptions& options, const StationSocket& socket,
                      std::string& error) {
  if (options.trace) {
    const std::string path = SocketTracePath(*options.trace, socket.name);
    auto file = engine.files().create(path, nullptr);
    if (file == nullptr) {
      error = "cannot write the trace file " + path;
      return false;
    }
    engine.trace().setOutput(std::move(file));
  }
  engine.trace().setOrigin(engine.clock().now());
  return true;
}

// The socket's link opened and the station's setup loaded into it.
bool OpenSocketLink(Engine& engine, const Station& station, std::string& error) {
  Instrument* instrument = engine.instrument();
  if (!instrument->ensureOpen()) {
    error = "cannot open the instrument link: " + instrument->link().lastErrorText();
    return false;
  }
  if (!station.setup.empty() && !instrument->selectSetupFile(station.setup)) {
    error = "cannot load the setup " + station.setup + ": " + instrument->link().lastErrorText();
    return false;
  }
  return true;
}

// The socket's run, its events shown in the station's view; a stop request
// that came before it starts ends it unstarted.
EndReason RunSocketEngine(StationShared& shared, size_t index, Engine& engine) {
  auto events = engine.subscribe(
      [&shared, index](const RunEvent& event) { shared.view.event(index, event); });
  if (!shared.attach(&engine)) return EndReason::kAbort;
  const EndReason reason = engine.run();
  shared.detach(&engine);
  return reason;
}

// The socket's exit status once the results store has had its records: a
// lost output turns a finished run into a failed one.
int SocketEndStatus(StationShared& shared, const StationSocket& socket, Engine& engine,
                    EndReason reason) {
  size_t recordsLost = 0;
  if (ResultsFeed* feed = engine.resultsFeed()) {
    std::string why;
    if (!feed->finish(std::chrono::seconds(10), &why)) shared.report(socket.name, why);
    recordsLost = feed->lost();
  }
  int status = ExitStatusFor(reason);
  if (status == kExitOk && engine.testDatabase().anyUutFailed()) status = kExitUutFailed;
  const auto losses = engine.files().losses();
  if ((!losses.empty() || recordsLost > 0) && (status == kExitOk || status == kExitUutFailed))
    status = kExitOutputLost;
  return status;
}

// Runs socket `index` to its end on the calling thread; its exit status.
int RunSocket(StationShared& shared, size_t index) {
  const Station& station = shared.station;
  const StationSocket& socket = station.sockets[index];
  const RunOptions& options = shared.options;
  const auto fail = [&](const std::string& text) {
    shared.report(socket.name, text);
    shared.view.ended(index, kExitUsage, "an error before its run");
    return kExitUsage;
  };

  auto files = std::make_unique<LocalFileSystem>(shared.dataRoot);
  std::string error;
  std::unique_ptr<Operator> inner = MakeSocketOperator(shared, index, *files, error);
  if (!inner) return fail(error);
  SocketOperator op(std::move(inner), shared.view, index);
  const std::unique_ptr<Engine> engine =
      BuildSocketEngine(shared, index, std::move(files), op, error);
  if (!engine) return fail(error);
  if (!StartSocketTrace(*engine, options, socket, error)) return fail(error);
  // Each socket's run keeps its own record in the data root.
  RunRecording record(*engine,
                      {station.sequenceOf(socket), socket.name, "station", engine->clock().now()},
                      {shared.settings.recordsMaxAge, shared.settings.recordsMaxBytes}, shared.err);
  if (!OpenSocketLink(*engine, station, error)) return fail(error);
  const std::string& sequence = station.sequenceOf(socket);
  if (!engine->sequencer().prepareFile(sequence, &error)) return fail(error);

  RunControl control(*engine, shared.err);
  if (options.controlSocket) control.openSocket(sequence, socket.name, record.id());
#ifndef _WIN32
  if (shared.publishing) shared.publishing->ranHere(control.runId());
#endif
  if (!engine->feedResultsStore(&error)) return fail("--results-store: " + error);

  const EndReason reason = RunSocketEngine(shared, index, *engine);
  const int status = SocketEndStatus(shared, socket, *engine, reason);
  if (engine->trace().enabled())
    engine->trace().event("end").field("reason", EndReasonName(reason)).field("code", status);
  record.finish(reason, status);
  shared.view.ended(index, status, EndReasonName(reason));
  return status;
}

}  // namespace

int LintStation(const Host& host, const std::string& stationFile,
                const std::vector<std::string>& sequences, std::FILE* out, std::FILE* err) {
  if (sequences.size() > 1) {
    std::fprintf(err, "tavrix-cli: lint --station takes at most one SEQUENCE\n");
    return kExitUsage;
  }
  LocalFileSystem files(host.dataRoot);
  Station station;
  std::string error;
  const std::optional<std::string> sequence =
      sequences.empty() ? std::nullopt : std::optional<std::string>(sequences[0]);
  if (!LoadStationFile(files, stationFile, station, &error, sequence)) {
    std::fprintf(err, "tavrix-cli: %s\n", error.c_str());
    return kExitUsage;
  }
  std::vector<std::string> linted;
  for (const auto& socket : station.sockets) {
    const std::string& path = station.sequenceOf(socket);
    if (std::find(linted.begin(), linted.end(), path) == linted.end()) linted.push_back(path);
  }
  const int status = RunLint(host, linted, out, err);
  if (status == 0) {
    std::fprintf(out, "%s: %zu socket%s ready\n", stationFile.c_str(), station.sockets.size(),
                 station.sockets.size() == 1 ? "" : "s");
  }
  return status;
}

int WorseExitStatus(int a, int b) { return Rank(b) > Rank(a) ? b : a; }

bool NamesStationFile(const std::string& value) {
  return value.size() > 5 && value.compare(value.size() - 5, 5, ".toml") == 0;
}

namespace {

// What a station file says for each socket, or what runs for one only:
// refused, told, with a station file.
bool RefuseOneRunOptions(const RunOptions& options, std::FILE* err) {
  const std::pair<bool, const char*> refused[] = {
      {options.setup.has_value(), "--setup: the station file's \"setup\" names the rig's setup"},
      {!options.link.empty(), "--link: the station file's \"link\" names the link"},
      {options.answers.has_value(), "--answers: the station file's \"answers\" name them"},
      {options.noHardware, "--no-hardware runs no station"},
      {!options.breaks.empty() || !options.breakIfs.empty(),
       "--break and --break-if hold one run, not a station's"},
      {options.stopAfter || options.maxLines, "--stop-after and --max-lines limit one run"}};
  for (const auto& [given, why] : refused) {
    if (given) {
      std::fprintf(err, "tavrix-cli: %s\n", why);
      return false;
    }
  }
  if (options.trace && *options.trace == "-") {
    std::fprintf(err, "tavrix-cli: a station writes one trace file per socket: --trace FILE\n");
    return false;
  }
  return true;
}

// With --virtual-time, the clock the sockets share, from --start or now;
// false once a --start it cannot read is told.
bool MakeStationTime(const RunOptions& options, size_t sockets, std::unique_ptr<StationTime>& time,
                     std::FILE* err) {
  if (!options.virtualTime) return true;
  Micros start = SystemClock().now();
  if (options.start) {
    const auto parsed = parseDateTime(*options.start);
    if (!parsed) {
      std::fprintf(err, "tavrix-cli: --start wants \"YYYY-MM-DD HH:MM:SS\", not \"%s\"\n",
                   options.start->c_str());
      return false;
    }
    start = *parsed;
  }
  time = std::make_unique<StationTime>(start, sockets);
  return true;
}

// Every socket run to its end; the worst of their exit statuses.
int RunSockets(StationShared& shared, StationTime* time) {
  const size_t sockets = shared.station.sockets.size();
  std::vector<int> statuses(sockets, kExitUsage);
  if (time) {
    // On the virtual clock the sockets take turns, on one thread where the
    // build can switch stacks.
    time->run([&](size_t i) { statuses[i] = RunSocket(shared, i); });
  } else {
    std::vector<std::thread> threads;
    for (size_t i = 0; i < sockets; ++i)
      threads.emplace_back([&, i] { statuses[i] = RunSocket(shared, i); });
    for (auto& thread : threads) thread.join();
  }
  int status = kExitOk;
  for (const int s : statuses) status = WorseExitStatus(status, s);
  return status;
}

}  // namespace

int RunStation(const Host& host, const RunOptions& options, const std::string& stationFile,
               std::FILE* in, std::FILE* out, std::FILE* err) {
  LocalFileSystem files(host.dataRoot);
  Station station;
  std::string error;
  const std::optional<std::string> sequence =
      options.sequence.empty() ? std::nullopt : std::optional<std::string>(options.sequence);
  if (!LoadStationFile(files, stationFile, station, &error, sequence)) {
    std::fprintf(err, "tavrix-cli: %s\n", error.c_str());
    return kExitUsage;
  }
  if (!RefuseOneRunOptions(options, err)) return kExitUsage;
  InstrumentSettings settings;
  if (!LoadRunSettings(files, options, settings, err)) return kExitUsage;
  std::unique_ptr<StationTime> time;
  if (!MakeStationTime(options, station.sockets.size(), time, err)) return kExitUsage;

  std::vector<std::string> names;
  for (const auto& s : station.sockets) names.push_back(s.name);
  StationView view(names, out, !options.quiet && TerminalView::IsTerminal(out));
  StationShared shared(options, station, settings, files.dataRoot(), view, err);
  shared.time = time.get();
  shared.rig = StationRig::Open(station, settings, files, time.get(), &error);
  if (!shared.rig) {
    std::fprintf(err, "tavrix-cli: %s\n", error.c_str());
    return kExitUsage;
  }

  // Taken before any thread starts (the question desk, the sockets), so
  // that a stop request reaches the sockets rather than ending the process.
  const platform::StopRequests stopRequests([&shared](int) { shared.stopAll(); });
  if (in != nullptr && platform::isTerminal(in))
    shared.desk = std::make_unique<QuestionDesk>(in, err, view);
#ifndef _WIN32
  if (options.controlSocket) {
    shared.publishing = plant::RunPublishing::Start(
        options.resultsStore.value_or(shared.settings.resultsStore), files.dataRoot(),
        station.name.empty() ? DefaultStationName() : station.name);
  }
#endif
  const int status = RunSockets(shared, time.get());
  view.finish(status);
  return status;
}

}  // namespace tavrix
