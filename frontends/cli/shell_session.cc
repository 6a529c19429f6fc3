#include "shell_session.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <sstream>

#include "common/trace.h"
#include "engine/keyword_catalogue.h"
#include "instrument/link/channels.h"
#include "instrument/link/instrument.h"

#ifdef TAVRIX_HAVE_LINE_EDITING
#include <editline/readline.h>
#endif

namespace tavrix {

namespace {

std::vector<std::string> Words(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

std::string Trimmed(std::string line) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' ' ||
                           line.back() == '\t')) {
    line.pop_back();
  }
  const size_t first = line.find_first_not_of(" \t");
  return first == std::string::npos ? std::string() : line.substr(first);
}

#ifdef TAVRIX_HAVE_LINE_EDITING
// What completion offers: the keywords and the channels of the rig, taken
// when the shell starts.
std::vector<std::string>& CompletionWords() {
  static std::vector<std::string> words;
  return words;
}

char* NextCompletion(const char* text, int state) {
  static size_t next = 0;
  if (state == 0) next = 0;
  const auto& words = CompletionWords();
  const size_t length = std::strlen(text);
  while (next < words.size()) {
    const std::string& word = words[next++];
    if (word.size() >= length && std::equal(text, text + length, word.begin(), [](char a, char b) {
          return std::toupper(static_cast<unsigned char>(a)) ==
                 std::toupper(static_cast<unsigned char>(b));
        })) {
      return strdup(word.c_str());
    }
  }
  return nullptr;
}

char** Complete(const char* text, int, int) {
  rl_attempted_completion_over = 1;
  return rl_completion_matches(text, NextCompletion);
}
#endif

}  // namespace

ShellSession::ShellSession(Engine& engine, std::FILE* in, std::FILE* out, bool interactive,
                           std::string historyFile)
    : engine_(engine),
      in_(in),
      out_(out),
      interactive_(interactive),
      historyFile_(std::move(historyFile)) {
  shared_->loop = &engine_.events();
  std::vector<std::string> words;
  if (interactive_) {
    for (const auto& keyword : KeywordCatalogue()) words.push_back(keyword.name);
    if (Instrument* instrument = engine_.instrument()) {
      for (const auto& record : instrument->channels().records()) words.push_back(record.name);
    }
    for (const char* dot : {".read", ".channels", ".watch", ".trace", ".quit"})
      words.push_back(dot);
  }
  reader_ = std::thread(ReadLines, shared_, in_, interactive_, historyFile_, std::move(words));
}

ShellSession::~ShellSession() {
  bool blocked = false;
  {
    std::lock_guard lock(shared_->mutex);
    shared_->quit = true;
    shared_->loop = nullptr;
    blocked = shared_->reading;
  }
  shared_->wanted.notify_all();
  // A reader blocked in a read of a terminal or pipe cannot be woken; it is
  // let go, and ends with the process.
  if (blocked) {
    reader_.detach();
  } else {
    reader_.join();
  }
}

void ShellSession::attach() {
  engine_.sequencer().addBetweenLinesCheck(
      [this](Sequencer& seq) { return ended_ ? std::nullopt : nextLine(seq); });
}

void ShellSession::ReadLines(std::shared_ptr<Shared> shared, std::FILE* in, bool interactive,
                             std::string historyFile, std::vector<std::string> words) {
#ifdef TAVRIX_HAVE_LINE_EDITING
  if (interactive) {
    CompletionWords() = std::move(words);
    rl_attempted_completion_function = Complete;
    using_history();
    if (!historyFile.empty()) read_history(historyFile.c_str());
  }
#else
  (void)interactive;
  (void)historyFile;
  (void)words;
#endif
  for (;;) {
    {
      std::unique_lock lock(shared->mutex);
      shared->wanted.wait(lock, [&] { return shared->want || shared->quit; });
      if (shared->quit) return;
      shared->want = false;
      shared->reading = true;
    }
    Input got;
#ifdef TAVRIX_HAVE_LINE_EDITING
    if (interactive) {
      char* line = readline("tavrix> ");
      if (line == nullptr) {
        got.end = true;
      } else {
        got.line = line;
        if (got.line.find_first_not_of(" \t") != std::string::npos) {
          add_history(line);
          if (!historyFile.empty()) {
            if (write_history(historyFile.c_str()) == 0)
              history_truncate_file(historyFile.c_str(), 1000);
          }
        }
        std::free(line);
      }
    } else
#endif
    {
      // A line of any length, read a piece at a time.
      char buf[4096];
      bool any = false;
      while (std::fgets(buf, sizeof buf, in) != nullptr) {
        any = true;
        got.line += buf;
        if (!got.line.empty() && got.line.back() == '\n') break;
      }
      got.end = !any;
    }
    std::lock_guard lock(shared->mutex);
    shared->reading = false;
    shared->lines.push_back(std::move(got));
    if (shared->loop != nullptr) shared->loop->post([] {});
    if (shared->quit) return;
  }
}

std::optional<std::string> ShellSession::nextLine(Sequencer& seq) {
  for (;;) {
    {
      std::lock_guard lock(shared_->mutex);
      if (shared_->lines.empty()) shared_->want = true;
    }
    shared_->wanted.notify_all();
    Input input;
    {
      // A person types the next line: a virtual clock waits for it.
      EventLoop::OutsideWait person(engine_.events());
      engine_.events().waitUntil([&] {
        if (seq.runEnding()) return true;
        std::lock_guard lock(shared_->mutex);
        return !shared_->lines.empty();
      });
      if (seq.runEnding()) return std::nullopt;
      std::lock_guard lock(shared_->mutex);
      input = std::move(shared_->lines.front());
      shared_->lines.pop_front();
    }
    const std::string line = Trimmed(input.line);
    if (input.end || line == ".quit") {
      ended_ = true;
      return std::string("STOP");
    }
    if (line.empty()) continue;
    if (line[0] != '.') return line;
    dotCommand(line);
  }
}

void ShellSession::printReadings(const std::vector<std::string>& channels) {
  Instrument* instrument = engine_.instrument();
  std::string text;
  for (const auto& name : channels) {
    std::string value;
    if (instrument == nullptr || !instrument->channels().ReadChannel(name, value)) {
      value = "(cannot be read)";
    }
    text += (text.empty() ? "" : "  ") + visibleText(name) + " = " + visibleText(value);
  }
  std::fprintf(out_, "%s\n", text.c_str());
  std::fflush(out_);
}

void ShellSession::dotCommand(const std::string& line) {
  std::vector<std::string> words = Words(line);
  const std::string command = words.front();
  words.erase(words.begin());
  if (command == ".read") {
    if (words.empty()) {
      std::fprintf(out_, ".read wants the channels to read\n");
    } else {
      printReadings(words);
    }
  } else if (command == ".channels") {
    Instrument* instrument = engine_.instrument();
    if (instrument == nullptr || instrument->channels().records().empty()) {
      std::fprintf(out_, "no channels: no setup is loaded\n");
    } else {
      for (const auto& device : instrument->backend().deviceLines()) {
        std::fprintf(out_, "%s\n", visibleText(device).c_str());
      }
      for (const auto& r : instrument->channels().records()) {
        char row[128];
        std::snprintf(row, sizeof row, "%-13s  device %2d  channel %5d  %c  %s%s",
                      visibleText(r.name).c_str(), r.device, r.channelNumber, r.mode,
                      visibleText(r.units).c_str(), r.enabled ? "" : "  (disabled)");
        std::fprintf(out_, "%s\n", Trimmed(row).c_str());
      }
    }
  } else if (command == ".watch") {
    watched_ = words;
    if (watched_.empty()) {
      watchTimer_.reset();
    } else {
      if (!watchTimer_) {
        watchTimer_ = std::make_unique<Timer>(engine_.events(), kMicrosPerSecond,
                                              [this] { printReadings(watched_); });
      }
      watchTimer_->setEnabled(true);
      printReadings(watched_);
    }
  } else if (command == ".trace") {
    // The rest of the line is the file's name, blanks and all.
    const std::string path = Trimmed(line.substr(command.size()));
    if (path.empty()) {
      std::fprintf(out_, ".trace wants a file\n");
    } else {
      auto file = engine_.files().create(path, nullptr);
      if (file == nullptr) {
        std::fprintf(out_, "cannot write the trace file %s\n", visibleText(path).c_str());
      } else {
        engine_.trace().setOutput(std::move(file));
        engine_.trace().setOrigin(engine_.clock().now());
        std::fprintf(out_, "tracing to %s\n", visibleText(path).c_str());
      }
    }
  } else {
    std::fprintf(out_, "%s: not a shell command (.read, .channels, .watch, .trace, .quit)\n",
                 visibleText(command).c_str());
  }
  std::fflush(out_);
}

}  // namespace tavrix
