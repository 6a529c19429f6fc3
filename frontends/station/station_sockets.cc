#include "station_sockets.h"

#include <chrono>
#include <future>
#include <optional>

#include "engine/run_record.h"
#include "instrument/link/instrument.h"
#include "resultsdb/results_feed.h"
#include "scripted_operator.h"

namespace tavrix {

namespace {

// A socket's operator: the answers file's or a person's, with its message
// boxes told to the front end under the socket's number.
class SocketOperator final : public Operator {
 public:
  SocketOperator(std::unique_ptr<Operator> inner, StationSockets::MessageHandler messages,
                 size_t socket)
      : inner_(std::move(inner)), messages_(std::move(messages)), socket_(socket) {}

  void ask(const Question& question, std::function<void(Answer)> answered) override {
    inner_->ask(question, std::move(answered));
  }
  void closeQuestion() override { inner_->closeQuestion(); }
  std::string unansweredReason() const override { return inner_->unansweredReason(); }
  bool mayAskAgain(const Question& question, std::string_view why) override {
    return inner_->mayAskAgain(question, why);
  }
  std::string answersUsed() const override { return inner_->answersUsed(); }
  bool restoreAnswersUsed(std::string_view used) override {
    return inner_->restoreAnswersUsed(used);
  }
  // A person is at the front end: a line held for Step waits for them,
  // whatever answers the questions.
  bool isPerson() const override { return true; }
  void showMessage(std::string_view title, std::string_view text) override {
    if (messages_) messages_(socket_, std::string(title), std::string(text));
  }

 private:
  std::unique_ptr<Operator> inner_;
  StationSockets::MessageHandler messages_;
  size_t socket_;
};

}  // namespace

struct StationSockets::Socket {
  enum class Request { kNone, kFree, kStepped };
  size_t index = 0;
  std::unique_ptr<Operator> op;
  std::unique_ptr<Engine> engine;
  std::shared_ptr<void> companion;
  RunEventBus::Subscription events;
  std::thread thread;
  // Engine thread only.
  Request request = Request::kNone;
  bool quit = false;
};

std::unique_ptr<StationSockets> StationSockets::Open(const std::string& path,
                                                     const Options& options, EventHandler events,
                                                     MessageHandler messages, PersonFactory person,
                                                     std::string* error) {
  std::unique_ptr<StationSockets> s(new StationSockets);
  s->events_ = std::move(events);
  s->messages_ = std::move(messages);
  s->person_ = std::move(person);
  LocalFileSystem files(options.dataRoot);
  if (!LoadStationFile(files, path, s->station_, error)) return nullptr;
  if (options.virtualTime) {
    const Micros start = options.start != 0 ? options.start : SystemClock().now();
    s->time_ = std::make_unique<StationTime>(start, s->station_.sockets.size(),
                                             StationTime::Start::kOnDemand);
  }
  s->rig_ = StationRig::Open(s->station_, options.settings, files, s->time_.get(), error);
  if (!s->rig_) return nullptr;
  // One socket after the other, so that the first loads the rig's setup and
  // the others find it loaded.
  for (size_t i = 0; i < s->station_.sockets.size(); ++i) {
    if (!s->startSocket(i, options, error)) return nullptr;
  }
  return s;
}

bool StationSockets::startSocket(size_t index, const Options& options, std::string* error) {
  sockets_.push_back(std::make_unique<Socket>());
  Socket& socket = *sockets_.back();
  socket.index = index;
  std::promise<std::string> ready;
  socket.thread = std::thread([this, &socket, &options, &ready] {
    const StationSocket& own = station_.sockets[socket.index];
    const auto fail = [&](const std::string& text) { ready.set_value(own.name + ": " + text); };
    auto files = std::make_unique<LocalFileSystem>(options.dataRoot);
    std::string problem;
    std::unique_ptr<Operator> inner;
    if (const auto& answers = station_.answersOf(own)) {
      auto file = AnswersFile::load(*files, *answers, &problem);
      if (!file) return fail(problem);
      inner = std::make_unique<ScriptedOperator>(std::move(*file), nullptr);
    } else if (person_) {
      inner = person_(socket.index, own.name);
    } else {
      inner = std::make_unique<ScriptedOperator>(AnswersFile{}, nullptr);
    }
    socket.op = std::make_unique<SocketOperator>(std::move(inner), messages_, socket.index);

    EngineConfig config;
    rig_->configure(socket.index, config);
    config.files = std::move(files);
    config.op = socket.op.get();
    config.resultsStore =
        EngineConfig::ResultsStore{options.settings.resultsStore, SocketRecordName(station_, own),
                                   [this, index = socket.index](const std::string& text) {
                                     if (messages_) messages_(index, "Results store", text);
                                   }};
    config.settings = options.settings;
    EngineBuildError built;
    socket.engine = BuildEngine(std::move(config), &built);
    if (!socket.engine) return fail(built.text);
    Engine& engine = *socket.engine;
    if (const std::string& folder = station_.resultsOf(own); !folder.empty())
      engine.testDatabase().setDataDirectory(folder);
    // Each run of the socket keeps a record, and then whatever the front
    // end keeps beside it finds the run's record.
    engine.recordEveryRun({options.settings.recordsMaxAge, options.settings.recordsMaxBytes},
                          "station", own.name);
    if (options.companion) socket.companion = options.companion(engine, socket.index, own.name);
    Instrument* instrument = engine.instrument();
    if (instrument == nullptr || !instrument->ensureOpen()) {
      return fail("cannot open the instrument link: " +
                  (instrument ? instrument->link().lastErrorText() : std::string("none named")));
    }
    if (!station_.setup.empty() && !instrument->selectSetupFile(station_.setup)) {
      return fail("cannot load the setup " + station_.setup + ": " +
                  instrument->link().lastErrorText());
    }
    // From the file's preparing on, the front end follows the socket.
    socket.events = engine.subscribe([this, &engine, index = socket.index](const RunEvent& event) {
      if (!events_) return;
      const TestDatabase& db = engine.testDatabase();
      events_(index, event, SocketUnit{db.uutOpen(), db.uut().serialNumber});
    });
    if (!engine.sequencer().prepareFile(station_.sequenceOf(own), &problem)) return fail(problem);
    if (!engine.feedResultsStore(&problem)) return fail("results store: " + problem);
    ready.set_value({});
    serve(socket);
  });
  const std::string problem = ready.get_future().get();
  if (problem.empty()) return true;
  socket.thread.join();
  sockets_.pop_back();
  if (error) *error = problem;
  return false;
}

void StationSockets::serve(Socket& socket) {
  Engine& engine = *socket.engine;
  for (;;) {
    {
      // At rest the socket waits for the front end, off the station's
      // clock: the others' turns go on without it.
      std::optional<EventLoop::OutsideWait> atRest;
      if (time_) atRest.emplace(engine.events());
      engine.events().waitUntil(
          [&] { return socket.quit || socket.request != Socket::Request::kNone; });
    }
    if (socket.quit) break;
    const Socket::Request request = std::exchange(socket.request, Socket::Request::kNone);
    if (time_) time_->enter(socket.index);
    if (request == Socket::Request::kFree) {
      engine.sequencer().start();
    } else {
      engine.sequencer().startStepping();
    }
    engine.makeSafeAfterAbnormalEnd();
    if (time_) time_->leave(socket.index);
  }
  socket.events.reset();
  socket.companion.reset();
  if (ResultsFeed* feed = engine.resultsFeed()) {
    std::string why;
    if (!feed->finish(std::chrono::seconds(10), &why) && messages_)
      messages_(socket.index, "Results store", why);
  }
  socket.engine.reset();
}

StationSockets::~StationSockets() {
  for (auto& socket : sockets_) {
    Socket* s = socket.get();
    s->engine->post([s](Engine& engine) {
      if (engine.sequencer().flags().running) engine.sequencer().requestAbort();
      s->quit = true;
    });
  }
  for (auto& socket : sockets_) socket->thread.join();
}

std::vector<std::string> StationSockets::names() const {
  std::vector<std::string> names;
  for (const StationSocket& s : station_.sockets) names.push_back(s.name);
  return names;
}

Micros StationSockets::now() const { return time_ ? time_->now() : SystemClock().now(); }

void StationSockets::run(size_t index) {
  Socket* s = sockets_.at(index).get();
  s->engine->post([s](Engine& engine) {
    if (engine.sequencer().flags().running) {
      engine.sequencer().start();
    } else {
      s->request = Socket::Request::kFree;
    }
  });
}

void StationSockets::step(size_t index) {
  Socket* s = sockets_.at(index).get();
  s->engine->post([s](Engine& engine) {
    if (engine.sequencer().flags().running) {
      engine.sequencer().step();
    } else {
      s->request = Socket::Request::kStepped;
    }
  });
}

void StationSockets::stop(size_t index) { sockets_.at(index)->engine->stop(); }

void StationSockets::post(size_t index, std::function<void(Engine&)> task) {
  sockets_.at(index)->engine->post(std::move(task));
}

}  // namespace tavrix
