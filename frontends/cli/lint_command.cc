#include "lint_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <optional>
#include <set>

#include "common/paths.h"
#include "common/text_conventions.h"
#include "engine/keyword_catalogue.h"
#include "instrument/commands/channel_commands.h"
#include "instrument/iomap/io_map.h"
#include "instrument/iomap/map_link.h"
#include "instrument/outputs/load_maintenance.h"
#include "instrument/outputs/pulse_sine.h"
#include "instrument/outputs/ramps.h"
#include "platform/files.h"
#include "sequencer/dispatcher.h"
#include "sequencer/line_splitter.h"
#include "sequencer/sequence_file.h"

namespace tavrix {

namespace {

struct Line {
  int number = 0;
  std::string text;  // cleaned as the dispatcher cleans it
  CommandLine command;
};

bool ReadLines(const FileSystem& files, const std::string& path, std::vector<Line>& lines,
               std::vector<std::string>& upper, bool& bareLineFeeds, std::string* error) {
  SequenceFile file;
  if (!file.open(files, path, error)) return false;
  bareLineFeeds = file.hasBareLineFeeds();
  std::string text;
  int number = 0;
  while (file.readLine(text)) {
    Line line;
    line.number = ++number;
    upper.push_back(upperCase(text));
    if (!text.empty() && text[0] == '\n') text.erase(0, 1);
    if (!text.empty() && text[0] == '\t') text.erase(0, 1);
    const size_t blanks = text.find_first_not_of(' ');
    text.erase(0, blanks == std::string::npos ? text.size() : blanks);
    line.command = SplitCommandLine(text);
    line.text = text;
    lines.push_back(std::move(line));
  }
  return true;
}

// A label exists when some line, upper-cased, holds "LABEL:" (the run's
// label search).
bool LabelExists(const std::vector<std::string>& upper, std::string_view label) {
  const std::string target = upperCase(trim(label)) + ":";
  return std::any_of(upper.begin(), upper.end(), [&](const std::string& line) {
    return line.find(target) != std::string::npos;
  });
}

size_t EditDistance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

bool IsKnownWord(std::string_view word) {
  return FindKeyword(word) != nullptr ||
         std::find(kKeywords.begin(), kKeywords.end(), word) != kKeywords.end();
}

// The keyword that an unknown word was probably meant to be.
std::optional<std::string> NearKeyword(std::string_view word) {
  if (word.size() < 4 || word.back() == ':') return std::nullopt;
  std::vector<std::string_view> known(kKeywords.begin(), kKeywords.end());
  for (const auto& entry : KeywordCatalogue()) {
    if (std::find(known.begin(), known.end(), entry.name) == known.end())
      known.push_back(entry.name);
  }
  std::optional<std::string> best;
  size_t bestScore = SIZE_MAX;
  for (std::string_view keyword : known) {
    size_t score = SIZE_MAX;
    if (word.size() > keyword.size() && word.substr(0, keyword.size()) == keyword) {
      const char next = word[keyword.size()];
      const bool punctuation = !std::isalnum(static_cast<unsigned char>(next)) && next != '_';
      // "WAIT,5" or "WAITSECONDSX": a keyword with something stuck to it.
      if (punctuation || word.size() - keyword.size() <= 2) score = word.size() - keyword.size();
    } else if (keyword.size() >= 5) {
      const size_t distance = EditDistance(word, keyword);
      if (distance <= (keyword.size() >= 8 ? 2u : 1u)) score = distance;
    }
    if (score < bestScore || (score == bestScore && best && keyword.size() > best->size())) {
      bestScore = score;
      best = std::string(keyword);
    }
  }
  return best;
}

class Linter {
 public:
  Linter(const FileSystem& files, const std::string& path, const PathMap& paths,
         std::vector<LintMessage>& out, const IoMap* map)
      : files_(files), path_(path), paths_(paths), out_(out), map_(map) {}

  bool run(std::string* error) {
    bool bareLineFeeds = false;
    if (!ReadLines(files_, path_, lines_, upper_, bareLineFeeds, error)) return false;
    if (bareLineFeeds) out_.push_back({1, false, std::string(kBareLineFeedWarning)});
    for (const auto& line : lines_) {
      if (line.command.word == "EXECUTEDEFINE" && !trim(line.command.arg1).empty() &&
          !trim(line.command.arg2).empty()) {
        defines_.insert(upperCase(trim(line.command.arg1)));
      }
    }
    for (size_t i = 0; i < lines_.size(); ++i) i = check(i);
    return true;
  }

 private:
  void error(const Line& line, std::string text) {
    out_.push_back({line.number, true, std::move(text)});
  }
  void warning(const Line& line, std::string text) {
    out_.push_back({line.number, false, std::move(text)});
  }

  void needLabel(const Line& line, std::string_view label) {
    if (!LabelExists(upper_, label))
      error(line, "Label " + std::string(trim(label)) + ": does not exist");
  }

  std::string chainPath(std::string_view written) const {
    std::string local = paths_.toLocal(trim(written));
    if (!local.empty() && !isAbsolutePath(local)) {
      const size_t slash = path_.find_last_of(platform::pathSeparators());
      if (slash != std::string::npos) local = join(path_.substr(0, slash), local);
    }
    return local;
  }

  // Checks the line at `i`; returns the index of the last line it used.
  size_t check(size_t i) {
    const Line& line = lines_[i];
    const CommandLine& c = line.command;
    const std::string& w = c.word;
    if (w.empty()) return i;
    if (!IsKnownWord(w)) {
      if (const auto near = NearKeyword(w)) {
        warning(line, "\"" + w + "\" is no keyword and is ignored; did you mean " + *near + "?");
      }
      return i;
    }
    if (w == "[HELPTEXT]") return skipSection(i, false);
    if (w == "[GROUPRAMPS]") return skipSection(i, true);
    // The arguments, parsed as the run parses them.
    const KeywordEntry* keyword = FindKeyword(w);
    if (keyword != nullptr) {
      if (const auto e = keyword->check(c)) {
        error(line, *e);
        return i;
      }
    }
    // What only a look at the whole file shows: labels, defines, chained files.
    if (w == "GOTO") needLabel(line, c.arg1);
    if (w == "CHECK" || w == "LOOPCHECK" || w == "ENTEROKCANCEL") needLabel(line, c.arg2);
    if (w == "AFTERTIMECOUNT") needLabel(line, c.arg3);
    if (w == "ONTIMEOUT" && leadingNumber(c.arg1) > 0 &&
        defines_.count(upperCase(trim(c.arg2))) == 0) {
      needLabel(line, c.arg2);
    }
    if (w == "EXECUTEDEFINE" && !trim(c.arg1).empty() && trim(c.arg2).empty() &&
        defines_.count(upperCase(trim(c.arg1))) == 0) {
      error(line, "Define " + std::string(trim(c.arg1)) + ": does not exist");
    }
    if (w == "CHAIN") checkChain(line);
    if (w == "SELECTMENU") {
      std::string choices = c.arg2 + (c.arg3.empty() ? "" : "," + c.arg3);
      size_t pos = 0;
      for (;;) {
        const size_t comma = choices.find(',', pos);
        const std::string choice(trim(std::string_view(choices).substr(
            pos, comma == std::string::npos ? comma : comma - pos)));
        if (!choice.empty()) needLabel(line, choice);
        if (comma == std::string::npos) break;
        pos = comma + 1;
      }
    }
    if (w == "DOWITHSHOW" && !trim(c.arg3).empty()) needLabel(line, c.arg3);
    if (map_ != nullptr) checkChannels(line);
    return i;
  }

  enum class Use { kRead, kWrite, kName };

  // A channel a line names, against the I/O map.
  void channel(const Line& line, std::string_view name, Use use) {
    const std::string n(trim(name));
    if (n.empty()) return;
    const MapChannel* c = map_->find(n);
    if (c == nullptr) {
      error(line, "Channel " + n + " is not in the I/O map " + map_->path);
    } else if (use == Use::kWrite && !c->writable()) {
      error(line, line.command.word + " writes " + n + ", which the I/O map makes read-only");
    } else if (use == Use::kRead && !c->readable()) {
      error(line, line.command.word + " reads " + n + ", which the I/O map makes write-only");
    }
  }

  void checkChannels(const Line& line) {
    const CommandLine& c = line.command;
    const std::string& w = c.word;
    if (w == "SEND" || w == "SENDSMC" || w == "PULSEOUTPUT" || w == "INCREMENTLOOPCOUNT") {
      channel(line, c.arg1, Use::kWrite);
    } else if (w == "REZERO") {
      channel(line, c.arg1, Use::kRead);
    } else if (w == "IMLDEF" || w == "IMLESC" || w == "KILLMONITOR") {
      channel(line, c.arg1, Use::kName);
    } else if (w == "CHECK" || w == "WAIT") {
      if (const auto condition = ParseChannelCondition(c.arg1))
        channel(line, condition->channel, Use::kRead);
    } else if (w == "RAMP") {
      const auto ramp = ParseRampLine(c, false);
      if (ramp.ok()) channel(line, ramp->channel, Use::kWrite);
    } else if (w == "SINEOUT") {
      channel(line, c.arg1, Use::kWrite);
      if (const auto sine = ParseSineSetup(c.arg2)) {
        channel(line, sine->monitor, Use::kRead);
        channel(line, sine->peakTo, Use::kWrite);
      }
    } else if (w == "MT_MAINTAIN" || w == "MT_RAMP") {
      std::string text = c.arg1;
      if (!c.arg2.empty() || !c.arg3.empty()) text += "," + c.arg2;
      if (!c.arg3.empty()) text += "," + c.arg3;
      std::string why;
      if (w == "MT_MAINTAIN") {
        if (const auto setup = ParseMaintainSetup(text, &why)) {
          channel(line, setup->loadChannel, Use::kRead);
          channel(line, setup->outputChannel, Use::kWrite);
        }
        return;
      }
      // MT_RAMP: the ramp, then "AT load USING output".
      std::string rest;
      if (!ParseRampSetup(text, false, &why, &rest)) return;
      const std::string upper = upperCase(rest);
      const auto after = [&](std::string_view keyword, size_t from, size_t& end) {
        const size_t at = upper.find(keyword, from);
        if (at == std::string::npos) return std::string();
        size_t begin = at + keyword.size();
        while (begin < rest.size() && rest[begin] == ' ') ++begin;
        end = rest.find(' ', begin);
        if (end == std::string::npos) end = rest.size();
        return rest.substr(begin, end - begin);
      };
      size_t end = 0;
      const std::string load = after("AT", 0, end);
      const std::string output = load.empty() ? std::string() : after("USING", end, end);
      if (output.empty()) return;
      channel(line, load, Use::kRead);
      channel(line, output, Use::kWrite);
    }
  }

  void checkChain(const Line& line) {
    const std::string file = chainPath(line.command.arg1);
    std::vector<Line> lines;
    std::vector<std::string> upper;
    std::string readError;
    bool bareLineFeeds = false;
    if (!ReadLines(files_, file, lines, upper, bareLineFeeds, &readError)) {
      error(line, "Chain - " + readError);
      return;
    }
    if (!trim(line.command.arg2).empty() && !LabelExists(upper, line.command.arg2)) {
      error(line, "Label " + std::string(trim(line.command.arg2)) + ": does not exist in " + file);
    }
  }

  // A section up to "[END]": help text, or a group of RAMP lines.
  size_t skipSection(size_t i, bool group) {
    const Line& start = lines_[i];
    for (size_t j = i + 1; j < lines_.size(); ++j) {
      const std::string upper = upperCase(lines_[j].text);
      if (!group) {
        if (upper.rfind("[END]", 0) == 0) return j;
        continue;
      }
      if (lines_[j].command.word == "[END]") return j;
      if (upper.rfind("RAMP", 0) != 0) {
        error(lines_[j], "Group Ramps: a non-Ramp command has been found");
        return j;
      }
      const auto ramp = ParseRampLine(lines_[j].command, true);
      if (!ramp.ok()) {
        error(lines_[j], ramp.message());
      } else if (map_ != nullptr) {
        channel(lines_[j], ramp->channel, Use::kWrite);
      }
    }
    if (group) {
      error(start, "[GROUPRAMPS] block has no [END]");
    } else {
      warning(start, "[HELPTEXT] section has no [END]: the rest of the file is help text");
    }
    return lines_.size();
  }

  const FileSystem& files_;
  const std::string& path_;
  const PathMap& paths_;
  std::vector<LintMessage>& out_;
  const IoMap* map_;
  std::vector<Line> lines_;
  std::vector<std::string> upper_;
  std::set<std::string> defines_;
};

}  // namespace

bool LintSequenceFile(const FileSystem& files, const std::string& path, const PathMap& paths,
                      std::vector<LintMessage>& messages, std::string* readError,
                      const IoMap* map) {
  return Linter(files, path, paths, messages, map).run(readError);
}

CLI::App* AddLintCommand(CLI::App& app, std::vector<std::string>& files, std::string* link,
                         std::string* station) {
  CLI::App* lint = app.add_subcommand("lint", "Check sequence files without running them");
  CLI::Option* sequences = lint->add_option("SEQUENCE", files, "The sequence files");
  if (station != nullptr) {
    lint->add_option("--station", *station,
                     "A station file (.toml): check it, and its sockets' sequences");
  } else {
    sequences->required();
  }
  if (link != nullptr) {
    lint->add_option("--link", *link,
                     "map:FILE: also check the channels the lines name against an I/O map");
  }
  return lint;
}

int RunLint(const Host& host, const std::vector<std::string>& files, std::FILE* out, std::FILE* err,
            const std::string& link) {
  const PathMap paths(host.dataRoot);
  IoMap map;
  const IoMap* checkedMap = nullptr;
  if (!link.empty()) {
    if (link.rfind(std::string(kLinkMapPrefix), 0) != 0) {
      std::fprintf(err, "tavrix-cli: lint checks channels against an I/O map: --link map:FILE\n");
      return 2;
    }
    std::string why;
    if (!LoadIoMapFile(host.files, link.substr(kLinkMapPrefix.size()), map, &why)) {
      std::fprintf(err, "tavrix-cli: %s\n", why.c_str());
      return 2;
    }
    checkedMap = &map;
  }
  bool errors = false;
  bool unreadable = false;
  for (const auto& file : files) {
    std::vector<LintMessage> messages;
    std::string readError;
    if (!LintSequenceFile(host.files, file, paths, messages, &readError, checkedMap)) {
      std::fprintf(err, "tavrix-cli: %s\n", readError.c_str());
      unreadable = true;
      continue;
    }
    for (const auto& m : messages) {
      std::fprintf(out, "%s:%d: %s: %s\n", file.c_str(), m.line, m.error ? "error" : "warning",
                   m.text.c_str());
      errors = errors || m.error;
    }
  }
  if (unreadable) return 2;
  return errors ? 1 : 0;
}

}  // namespace tavrix
