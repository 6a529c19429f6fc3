#include "plant_server.h"

#include <arpa/inet.h>
#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <filesystem>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "common/civil_time.h"
#include "common/clock.h"
#include "common/file_system.h"
#include "instrument/tcp/link_key.h"
#include "live_monitor.h"
#include "plant_html.h"
#include "resultsdb/results_analytics.h"
#include "resultsdb/station_status.h"
#include "station_publisher.h"

namespace tavrix::plant {

namespace fs = std::filesystem;

using nlohmann::json;
using Query = std::multimap<std::string, std::string>;

namespace {

constexpr int kPageRows = 1000;
constexpr int kLastPage = 1000000;
// A results file larger than this is not shown (they are a few kilobytes).
constexpr uintmax_t kLargestServedFile = 64ull << 20;
constexpr size_t kLongestParameter = 256;
constexpr size_t kMostLiveViewers = 200;
constexpr const char* kCookie = "tavrix_session";

std::string Hex(const std::string& bytes) {
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

std::string RandomHex(size_t bytes) {
  std::random_device device;
  std::string raw;
  for (size_t i = 0; i < bytes; ++i) raw += static_cast<char>(device() & 0xff);
  return Hex(raw);
}

// A bad request: the reason, shown on an error page.
struct BadInput {
  std::string why;
};

std::string Param(const Query& q, const std::string& name) {
  const auto it = q.find(name);
  if (it == q.end()) return {};
  if (it->second.size() > kLongestParameter) throw BadInput{name + " is too long"};
  return it->second;
}

// The filter a page's query names; throws BadInput for a value out of range.
UutFilter FilterOf(const Query& q) {
  UutFilter f;
  f.serial = Param(q, "serial");
  f.station = Param(q, "station");
  f.socket = Param(q, "socket");
  f.test = Param(q, "test");
  f.verdict = Param(q, "verdict");
  std::transform(f.verdict.begin(), f.verdict.end(), f.verdict.begin(), ::toupper);
  if (!f.verdict.empty() && f.verdict != "PASS" && f.verdict != "FAIL")
    throw BadInput{"verdict is PASS or FAIL"};
  const std::string from = Param(q, "from");
  const std::string to = Param(q, "to");
  if (!from.empty() && !NormaliseDateBound(from, false, f.from))
    throw BadInput{"from is a day, YYYY-MM-DD, or YYYY-MM-DD HH:MM:SS"};
  if (!to.empty() && !NormaliseDateBound(to, true, f.to))
    throw BadInput{"to is a day, YYYY-MM-DD, or YYYY-MM-DD HH:MM:SS"};
  return f;
}

int WholeParam(const Query& q, const std::string& name, int otherwise, int lowest, int highest) {
  const std::string text = Param(q, name);
  if (text.empty()) return otherwise;
  char* end = nullptr;
  errno = 0;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || errno != 0 || v < lowest || v > highest) {
    throw BadInput{name + " is a whole number from " + std::to_string(lowest) + " to " +
                   std::to_string(highest)};
  }
  return static_cast<int>(v);
}

// The query of a filter, to carry it into links.
std::string FilterQuery(const Query& q) {
  std::string out;
  for (const char* name : {"serial", "station", "socket", "test", "verdict", "from", "to"}) {
    const std::string v = Param(q, name);
    if (v.empty()) continue;
    out += (out.empty() ? "" : "&") + std::string(name) + "=" + Url(v);
  }
  return out;
}

std::string SearchForm(const Query& q, const std::string& action, bool withVerdict) {
  std::string form = "<form class=\"search\" method=\"get\" action=\"" + action + "\">";
  for (const auto& [name, label] :
       {std::pair{"serial", "Serial"}, std::pair{"test", "Test"}, std::pair{"station", "Station"},
        std::pair{"socket", "Socket"}}) {
    form += std::string("<label>") + label + " <input name=\"" + name + "\" size=\"10\" value=\"" +
            Html(Param(q, name)) + "\"></label> ";
  }
  if (withVerdict) {
    const std::string v = Param(q, "verdict");
    form += "<label>Verdict <select name=\"verdict\"><option value=\"\">any</option>";
    for (const char* option : {"PASS", "FAIL"}) {
      form +=
          std::string("<option") + (v == option ? " selected" : "") + ">" + option + "</option>";
    }
    form += "</select></label> ";
  }
  form += "<label>From <input name=\"from\" size=\"10\" placeholder=\"YYYY-MM-DD\" value=\"" +
          Html(Param(q, "from")) + "\"></label> <label>To <input name=\"to\" size=\"10\" " +
          "placeholder=\"YYYY-MM-DD\" value=\"" + Html(Param(q, "to")) +
          "\"></label> <button>Search</button></form>";
  return form;
}

std::string Csv(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  return quoted + "\"";
}

std::string VerdictCell(bool passed) {
  return passed ? "<td class=\"pass\">PASS</td>" : "<td class=\"fail\">FAIL</td>";
}

// The readings' figures as a table.
std::string FiguresTable(const CheckStatistics& s) {
  auto opt = [](const std::optional<double>& v) { return v ? Number(*v, 4) : std::string("-"); };
  std::string t = "<table class=\"figures\" id=\"figures\">";
  auto row = [&](const std::string& name, const std::string& value, const char* id = nullptr) {
    t += "<tr><td>" + name + "</td><td" + (id ? std::string(" id=\"") + id + "\"" : "") + ">" +
         value + "</td></tr>";
  };
  row("Readings", std::to_string(s.count) + " (" + std::to_string(s.failed) + " failed)");
  row("Lower limit", opt(s.lower));
  row("Upper limit", opt(s.upper));
  row("Mean", Number(s.mean), "mean");
  row("Std dev (overall)", Number(s.stdDev), "stddev");
  row("Std dev (within)", Number(s.sigmaWithin));
  row("Min / max", Number(s.minimum) + " / " + Number(s.maximum));
  row("Cp", opt(s.cp));
  row("Cpk", opt(s.cpk), "cpk");
  row("Pp", opt(s.pp));
  row("Ppk", opt(s.ppk), "ppk");
  t += "</table>";
  if (s.limitsVaried) t += "<p>Older readings were recorded against other limits.</p>";
  return t;
}

// JSON as ASCII on one line, safe inside a script element and as one
// server-sent event (no "</", no line end).
std::string ScriptJson(const json& j) {
  std::string text = j.dump(-1, ' ', true, json::error_handler_t::replace);
  for (size_t at = 0; (at = text.find("</", at)) != std::string::npos; at += 3)
    text.replace(at, 2, "<\\/");
  return text;
}

// The live page's script: takes the snapshots the server sends and draws
// the table from them, every text set as text.
constexpr const char* kLiveScript = R"js(
const body = document.getElementById('runs');
const note = document.getElementById('live-note');
function cell(row, text, cls) { const td = row.insertCell(); td.textContent = text; if (cls) td.className = cls; return td; }
function draw(snap) {
  body.replaceChildren();
  if (snap.runs.length === 0) { const r = body.insertRow(); const td = cell(r, 'No run is going on this station.'); td.colSpan = 8; }
  for (const run of snap.runs) {
    const r = body.insertRow(); r.id = 'run-' + run.id;
    cell(r, run.id);
    cell(r, run.sequence || '');
    cell(r, run.state, 'state-' + run.state);
    const line = cell(r, String(run.line)); line.className = 'line';
    cell(r, run.line_text || '');
    let doing = run.command || '';
    if (run.timeout_left !== undefined) doing += ' (time-out in ' + run.timeout_left + ' s)';
    cell(r, doing);
    cell(r, (run.socket ? 'socket ' + run.socket + ' ' : '') + (run.last_serial ? run.last_serial + ' ' + run.last_verdict : ''));
    const m = cell(r, '');
    if (run.prompt) { const p = document.createElement('div'); p.className = 'prompt'; p.textContent = 'Waits for an answer: ' + run.prompt.text; m.appendChild(p); }
    for (const text of run.messages) { const d = document.createElement('div'); d.className = 'msg'; d.textContent = text; m.appendChild(d); }
    if (run.end) { const d = document.createElement('div'); d.textContent = 'ended: ' + run.end; m.appendChild(d); }
    if (window.tavrixControl && run.state !== 'ended') {
      const button = (action, caption, answer) => {
        const f = document.createElement('form'); f.method = 'post'; f.action = '/control';
        for (const [k, v] of [['run', run.id], ['action', action], ['answer', answer], ['csrf', window.tavrixControl]]) {
          const i = document.createElement('input'); i.type = 'hidden'; i.name = k; i.value = v; f.appendChild(i);
        }
        const b = document.createElement('button'); b.textContent = caption; f.appendChild(b); f.style.display = 'inline'; m.appendChild(f);
      };
      if (run.prompt) for (const item of run.prompt.items) button('answer', item, item);
      for (const action of ['pause', 'resume', 'stop']) button(action, action, '');
    }
  }
  document.body.dataset.version = snap.version;
}
const source = new EventSource('/live/events');
source.onmessage = (e) => { draw(JSON.parse(e.data)); note.textContent = 'Updated ' + new Date().toLocaleTimeString(); };
source.onerror = () => { note.textContent = 'Connection lost; trying again.'; };
)js";

}  // namespace

bool ParseListen(const std::string& text, std::string& host, int& port, std::string* error) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos) {
    if (error) *error = "--listen wants HOST:PORT, not \"" + text + "\"";
    return false;
  }
  host = text.substr(0, colon);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  if (host.empty()) host = "0.0.0.0";
  const std::string number = text.substr(colon + 1);
  char* end = nullptr;
  const long p = std::strtol(number.c_str(), &end, 10);
  if (number.empty() || *end != '\0' || p < 0 || p > 65535) {
    if (error) *error = "--listen wants a port from 0 to 65535, not \"" + number + "\"";
    return false;
  }
  port = static_cast<int>(p);
  return true;
}

bool IsLoopback(const std::string& host) {
  if (host == "localhost" || host == "::1") return true;
  in_addr v4{};
  if (::inet_pton(AF_INET, host.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  return false;
}

namespace {

// Units tested and passed, in all and at their first test.
struct YieldSum {
  int tested = 0, passed = 0, firstTested = 0, firstPassed = 0;
};

// The yield of each day, test, station or socket: bars and a table.
std::string YieldSection(const std::string& title, const std::map<std::string, YieldSum>& sums,
                         bool newestFirst) {
  std::vector<Bar> bars;
  std::string table = "<table><tr><th>" + title +
                      "</th><th>Tested</th><th>Passed</th><th>Yield</th><th>First-pass "
                      "yield</th><th>Retests</th></tr>";
  std::vector<std::pair<std::string, YieldSum>> ordered(sums.begin(), sums.end());
  if (newestFirst) std::reverse(ordered.begin(), ordered.end());
  for (const auto& [name, s] : ordered) {
    if (bars.size() < 31) {
      bars.push_back({name, s.tested ? static_cast<double>(s.passed) / s.tested : 0,
                      std::to_string(s.passed) + " of " + std::to_string(s.tested)});
    }
    table += "<tr><td>" + Html(name) + "</td><td>" + std::to_string(s.tested) + "</td><td>" +
             std::to_string(s.passed) + "</td><td>" + Percent(s.passed, s.tested) + "</td><td>" +
             Percent(s.firstPassed, s.firstTested) + "</td><td>" +
             std::to_string(s.tested - s.firstTested) + "</td></tr>";
  }
  return "<h2>Yield per " + Html(title) + "</h2>" + Bars(bars) + table + "</table>";
}

// The yield of every unit, then per day, test, station and socket.
std::string YieldSections(const std::vector<YieldRow>& rows) {
  // A station of several sockets records each under "NAME/SOCKET": its
  // units count for the station NAME, and for the socket.
  std::map<std::string, YieldSum> byDay, byTest, byStation, bySocket;
  YieldSum all;
  YieldSum none;
  for (const auto& r : rows) {
    const size_t slash = r.station.find('/');
    YieldSum& socket = slash == std::string::npos ? none : bySocket[r.station];
    for (YieldSum* s :
         {&byDay[r.day], &byTest[r.test], &byStation[r.station.substr(0, slash)], &socket, &all}) {
      s->tested += r.tested;
      s->passed += r.passed;
      s->firstTested += r.firstTested;
      s->firstPassed += r.firstPassed;
    }
  }
  std::string body = "<p id=\"yield-all\">" + std::to_string(all.tested) + " units tested, yield " +
                     Percent(all.passed, all.tested) + ", first-pass yield " +
                     Percent(all.firstPassed, all.firstTested) + ", " +
                     std::to_string(all.tested - all.firstTested) + " retests.</p>";
  body += YieldSection("day", byDay, true);
  body += YieldSection("test", byTest, false);
  body += YieldSection("station", byStation, false);
  if (!bySocket.empty()) body += YieldSection("socket", bySocket, false);
  return body;
}

}  // namespace

class Server::Impl {
 public:
  Impl(FileSystem& files, ServerOptions options) : files_(files), options_(std::move(options)) {
    if (!options_.now) options_.now = [] { return static_cast<long long>(std::time(nullptr)); };
  }

  ~Impl() { stop(); }

  bool start(std::string* error) {
    std::string host;
    int port = 0;
    if (!ParseListen(options_.listen, host, port, error)) return false;
    const bool loopback = IsLoopback(host);
    const bool tls = !options_.tlsCert.empty() || !options_.tlsKey.empty();
    if (tls && (options_.tlsCert.empty() || options_.tlsKey.empty())) {
      *error = "TLS wants both a certificate (--tls-cert) and its key (--tls-key)";
      return false;
    }
    if (!loopback && (!tls || (options_.tokenFile.empty() && options_.controlTokenFile.empty()))) {
      *error = "refused to listen on " + host +
               ": an address other than loopback needs TLS (--tls-cert and --tls-key) and a "
               "token (--token-file)";
      return false;
    }
    if (options_.allowControl && options_.controlTokenFile.empty()) {
      *error = "--allow-control needs a token marked for control (--control-token-file)";
      return false;
    }
    for (const auto& [file, control] :
         {std::pair{options_.tokenFile, false}, std::pair{options_.controlTokenFile, true}}) {
      if (file.empty()) continue;
      std::string key;
      std::string why;
      if (!LoadLinkKey(files_, file, key, &why)) {
        *error = why;
        return false;
      }
      tokens_.push_back({Hex(key), control});
    }
    if (tls) {
      server_ =
          std::make_unique<httplib::SSLServer>(options_.tlsCert.c_str(), options_.tlsKey.c_str());
      if (!server_->is_valid()) {
        *error =
            "cannot use the certificate " + options_.tlsCert + " with the key " + options_.tlsKey;
        return false;
      }
    } else {
      server_ = std::make_unique<httplib::Server>();
    }
    tls_ = tls;
    std::string storeError;
    if (options_.store.kind == StoreSpec::Kind::kOff) {
      *error = "the results store is off: the plant view has nothing to show";
      return false;
    }
    if (auto store = OpenResultsStore(options_.store, &storeError)) {
      idle_.push_back(std::move(store));
    } else {
      *error = storeError;
      return false;
    }
    routes();
    if (port == 0) {
      port_ = server_->bind_to_any_port(host);
      if (port_ < 0) port_ = 0;
    } else if (server_->bind_to_port(host, port)) {
      port_ = port;
    }
    if (port_ <= 0) {
      *error = "cannot listen on " + options_.listen;
      return false;
    }
    monitor_ = std::make_unique<LiveMonitor>(options_.runsFolder, options_.liveScanMs);
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    if (!options_.station.empty()) {
      PublisherOptions publishing;
      publishing.store = options_.store;
      publishing.station = options_.station;
      publishing.heartbeatSeconds = options_.publishSeconds;
      publishing.now = options_.now;
      publisher_ = std::make_unique<StationPublisher>(publishing, *monitor_);
      publisher_->start();
    }
    return true;
  }

  bool publish(std::string* error) {
    if (!publisher_) {
      if (error) *error = "this server publishes no station's runs";
      return false;
    }
    return publisher_->publishNow(error);
  }

  void stop() {
    {
      std::lock_guard guard(waitMutex_);
      if (stopped_.exchange(true)) return;
      waitCv_.notify_all();
    }
    if (monitor_) monitor_->stop();
    if (publisher_) publisher_->stop(false);
    if (server_) server_->stop();
    if (thread_.joinable()) thread_.join();
  }

  void wait() {
    std::unique_lock lock(waitMutex_);
    waitCv_.wait(lock, [&] { return stopped_.load(); });
  }

  int port() const { return port_; }
  bool tls() const { return tls_; }

  Reply page(const std::string& path, const Query& q) {
    try {
      if (path == "/" || path == "/units") return units(q);
      if (path == "/unit") return unit(q);
      if (path == "/file") return file(q);
      if (path == "/analytics") return analytics(q);
      if (path == "/check") return check(q);
      if (path == "/live") return live(false, "");
      if (path == "/plant") return plant();
      if (path == "/live.json") return {200, "application/json", ScriptJson(monitor_->snapshot())};
      return ErrorPage(404, "There is no page " + path + " here.");
    } catch (const BadInput& bad) {
      return ErrorPage(400, "The request cannot be answered: " + bad.why + ".");
    } catch (const StoreFailure& failure) {
      return ErrorPage(503, "The results store cannot be read: " + failure.what + ".");
    }
  }

 private:
  struct StoreFailure {
    std::string what;
  };
  struct Principal {
    bool known = false;
    bool control = false;
    std::string who;
    std::string csrf;  // the session's, for forms
    bool byCookie = false;
  };
  struct Session {
    long long expires = 0;
    bool control = false;
    std::string csrf;
  };
  struct Token {
    std::string hex;
    bool control;
  };

  // A store of the pool for the time of one request: each request has a
  // connection of its own, and connections are kept for the next.
  class Lease {
   public:
    explicit Lease(Impl& impl) : impl_(impl) {
      {
        std::lock_guard guard(impl_.poolMutex_);
        if (!impl_.idle_.empty()) {
          store_ = std::move(impl_.idle_.back());
          impl_.idle_.pop_back();
        }
      }
      if (!store_) {
        std::string error;
        store_ = OpenResultsStore(impl_.options_.store, &error);
        if (!store_) throw StoreFailure{error};
      }
    }
    ~Lease() {
      if (!store_ || failed_) return;
      std::lock_guard guard(impl_.poolMutex_);
      if (impl_.idle_.size() < 8) impl_.idle_.push_back(std::move(store_));
    }
    SqlResultsStore& operator*() { return *store_; }
    SqlResultsStore* operator->() { return store_.get(); }
    // A query failed: the connection is not kept, and the page says why.
    [[noreturn]] void fail(const std::string& error) {
      failed_ = true;
      throw StoreFailure{error};
    }

   private:
    Impl& impl_;
    std::unique_ptr<SqlResultsStore> store_;
    bool failed_ = false;
  };

  static Reply ErrorPage(int status, const std::string& text) {
    return {status, "text/html; charset=utf-8",
            Page("Error " + std::to_string(status), "",
                 "<p class=\"error\">" + Html(text) + "</p><p><a href=\"/units\">Results</a></p>")};
  }

  // ---- pages -------------------------------------------------------------

  // The end of the record `key`, for paging from it; BadInput when there is
  // no such record.
  std::string EndOf(SqlResultsStore& store, const std::string& key, const std::string& param) {
    UutFilter one;
    one.key = key;
    std::vector<StoredUut> found;
    std::string error;
    if (!store.list(one, found, &error)) throw StoreFailure{error};
    if (found.empty()) throw BadInput{param + " names no unit's record"};
    return found.front().endedAt;
  }

  // Units newest first, a page at a time. A page is reached from the record
  // next to it (older=KEY: the units older than that one, newer=KEY: those
  // just newer, oldest=1: the last page), so the last page of a long list
  // costs what the first does; page=N still passes over N - 1 pages.
  Reply units(const Query& q) {
    UutFilter filter = FilterOf(q);
    const int page = WholeParam(q, "page", 1, 1, kLastPage);
    const std::string older = Param(q, "older");
    const std::string newer = Param(q, "newer");
    const bool oldest = WholeParam(q, "oldest", 0, 0, 1) == 1;
    if ((older.empty() ? 0 : 1) + (newer.empty() ? 0 : 1) + (oldest ? 1 : 0) + (page > 1 ? 1 : 0) >
        1) {
      throw BadInput{"page, older, newer and oldest do not go together"};
    }
    Lease store(*this);
    std::string error;
    long total = 0;
    if (!store->count(filter, total, &error)) store.fail(error);
    UutFilter shown = filter;
    shown.limit = kPageRows;
    if (!older.empty()) {
      shown.olderEnded = EndOf(*store, older, "older");
      shown.olderKey = older;
    } else if (!newer.empty()) {
      shown.newerEnded = EndOf(*store, newer, "newer");
      shown.newerKey = newer;
      shown.oldestFirst = true;
    } else if (oldest) {
      shown.oldestFirst = true;
    } else {
      shown.offset = (page - 1) * kPageRows;
    }
    std::vector<StoredUut> uuts;
    if (!store->list(shown, uuts, &error)) store.fail(error);
    // Where the page starts in the whole list: the units newer than its first.
    long before = shown.offset;
    if (!uuts.empty() && shown.offset == 0) {
      UutFilter newerThanFirst = filter;
      newerThanFirst.newerEnded = uuts.front().endedAt;
      newerThanFirst.newerKey = uuts.front().key;
      if (!store->count(newerThanFirst, before, &error)) store.fail(error);
    }
    const long after = before + static_cast<long>(uuts.size());
    const std::string carried = FilterQuery(q);
    std::string body = SearchForm(q, "/units", true);
    body += "<p id=\"count\">" + std::to_string(total) + " units" +
            (uuts.empty()
                 ? ""
                 : ", " + std::to_string(before + 1) + " to " + std::to_string(after) + " shown") +
            ". <a href=\"/units.csv" + (carried.empty() ? "" : "?" + carried) +
            "\">Export as CSV</a></p>";
    body +=
        "<table id=\"units\"><tr><th>Ended</th><th>Station</th><th>Test</th><th>Serial</th>"
        "<th>Verdict</th><th>Checks</th><th>Failed</th></tr>";
    for (const auto& u : uuts) {
      body += std::string(u.passed ? "<tr>" : "<tr class=\"fail\">") + "<td>" + Html(u.endedAt) +
              "</td><td>" + Html(u.station) + "</td><td>" + Html(u.testTitle) +
              "</td><td><a href=\"/unit?key=" + Url(u.key) + "\">" + Html(u.serial) + "</a></td>" +
              VerdictCell(u.passed) + "<td>" + std::to_string(u.checkCount) + "</td><td>" +
              std::to_string(u.failedCount) + "</td></tr>";
    }
    body += "</table><p>";
    const std::string base = "/units?" + (carried.empty() ? "" : carried + "&");
    if (before > 0) {
      body += "<a href=\"" + (carried.empty() ? std::string("/units") : "/units?" + carried) +
              "\" id=\"newest\">Newest</a> ";
      if (!uuts.empty())
        body +=
            "<a href=\"" + base + "newer=" + Url(uuts.front().key) + "\" id=\"newer\">Newer</a> ";
    }
    if (after < total) {
      if (!uuts.empty())
        body +=
            "<a href=\"" + base + "older=" + Url(uuts.back().key) + "\" id=\"older\">Older</a> ";
      body += "<a href=\"" + base + "oldest=1\" id=\"oldest\">Oldest</a>";
    }
    body += "</p>";
    return {200, "text/html; charset=utf-8", Page("Units", "Results", body)};
  }

  Reply unit(const Query& q) {
    UutFilter filter;
    filter.key = Param(q, "key");
    if (filter.key.empty()) throw BadInput{"key names the unit's record"};
    Lease store(*this);
    std::string error;
    std::vector<StoredUut> found;
    if (!store->fetch(filter, found, &error)) store.fail(error);
    if (found.empty()) return ErrorPage(404, "There is no unit record " + filter.key + ".");
    const StoredUut& u = found.front();
    std::string body = "<table class=\"figures\">";
    for (const auto& [name, value] :
         std::vector<std::pair<std::string, std::string>>{{"Serial", u.serial},
                                                          {"Test", u.testTitle},
                                                          {"Version", u.testVersion},
                                                          {"Station", u.station},
                                                          {"Sequence", u.sequenceFile},
                                                          {"Definition", u.testDefinition},
                                                          {"Operator(s)", u.operators},
                                                          {"Description", u.description},
                                                          {"Started", u.startedAt},
                                                          {"Ended", u.endedAt}}) {
      body += "<tr><td>" + name + "</td><td>" + Html(value) + "</td></tr>";
    }
    body += "<tr><td>Verdict</td>" + VerdictCell(u.passed) + "</tr></table>";
    body += "<p><a href=\"/units?serial=" + Url(u.serial) +
            "\">Every test of this serial number</a></p>";
    body +=
        "<table id=\"checks\"><tr><th>Stage</th><th>Row</th><th>Kind</th><th>Parameter</th>"
        "<th>Channel</th><th>Value</th><th>Units</th><th>Lower</th><th>Upper</th>"
        "<th>Result</th><th>Message</th></tr>";
    for (const auto& c : u.checks) {
      const bool numeric = LimitValue(c.value).has_value();
      const std::string parameter =
          numeric
              ? "<a href=\"/check?name=" + Url(c.parameter) + "&step=" + std::to_string(c.step) +
                    "&test=" + Url(u.testTitle) + "\">" + Html(c.parameter) + "</a>"
              : Html(c.parameter);
      body += std::string(c.passed ? "<tr>" : "<tr class=\"fail\">") + "<td>" +
              std::to_string(c.step) + "</td><td>" + std::to_string(c.row) + "</td><td>" +
              Html(c.kind) + "</td><td>" + parameter + "</td><td>" + Html(c.channel) + "</td><td>" +
              Html(c.value) + "</td><td>" + Html(c.units) + "</td><td>" + Html(c.lower) +
              "</td><td>" + Html(c.upper) + "</td>" +
              (c.passed ? "<td class=\"pass\">Pass</td>" : "<td class=\"fail\">Fail</td>") +
              "<td>" + Html(c.message) + "</td></tr>";
    }
    body += "</table>";
    std::vector<std::string> files;
    if (!store->files(u.key, files, &error)) store.fail(error);
    if (!files.empty()) {
      body += "<h2>Results files</h2><ul id=\"files\">";
      for (size_t i = 0; i < files.size(); ++i) {
        const std::string name = fs::path(files[i]).filename().string();
        std::string why;
        if (ServedFile(files[i], &why).empty()) {
          body += "<li>" + Html(name) + " (" + Html(why) + ")</li>";
        } else {
          body += "<li><a href=\"/file?key=" + Url(u.key) + "&n=" + std::to_string(i + 1) + "\">" +
                  Html(name) + "</a></li>";
        }
      }
      body += "</ul>";
    }
    return {200, "text/html; charset=utf-8", Page("Unit " + u.serial, "Results", body)};
  }

  // The file the store names as it will be served: its real path when it is
  // a file inside the results folder (links followed), else empty with why.
  std::string ServedFile(const std::string& named, std::string* why) const {
    std::error_code ec;
    if (options_.resultsFolder.empty()) {
      *why = "no results folder is served";
      return {};
    }
    const fs::path folder = fs::canonical(options_.resultsFolder, ec);
    if (ec) {
      *why = "the results folder is not there";
      return {};
    }
    const fs::path file = fs::canonical(named, ec);
    if (ec || !fs::is_regular_file(file, ec)) {
      *why = "not here";
      return {};
    }
    const auto [inFolder, inFile] =
        std::mismatch(folder.begin(), folder.end(), file.begin(), file.end());
    if (inFolder != folder.end() || inFile == file.end()) {
      *why = "outside the results folder";
      return {};
    }
    return file.string();
  }

  // One of a unit's results files, by the unit's key and the file's number:
  // never by a name the client gives.
  Reply file(const Query& q) {
    const std::string key = Param(q, "key");
    if (key.empty()) throw BadInput{"key names the unit's record"};
    const int n = WholeParam(q, "n", 1, 1, 1000);
    std::vector<std::string> files;
    {
      Lease store(*this);
      std::string error;
      if (!store->files(key, files, &error)) store.fail(error);
    }
    if (static_cast<size_t>(n) > files.size())
      return ErrorPage(404, "The unit has no results file " + std::to_string(n) + ".");
    std::string why;
    const std::string path = ServedFile(files[n - 1], &why);
    if (path.empty()) {
      return ErrorPage(why == "outside the results folder" ? 403 : 404,
                       "The results file " + files[n - 1] + " is " + why + ".");
    }
    std::error_code ec;
    if (fs::file_size(path, ec) > kLargestServedFile || ec)
      return ErrorPage(413, "The results file is too large to show here.");
    std::string text;
    if (!files_.readFile(path, text, nullptr))
      return ErrorPage(404, "The results file " + files[n - 1] + " cannot be read.");
    const bool xml = fs::path(path).extension() == ".xml";
    return {200, xml ? "application/xml" : "text/plain; charset=utf-8", std::move(text)};
  }

  Reply analytics(const Query& q) {
    UutFilter filter = FilterOf(q);
    if (!Param(q, "verdict").empty()) throw BadInput{"the analytics take every verdict"};
    Lease store(*this);
    std::string error;
    std::vector<YieldRow> rows;
    if (!store->yield(filter, rows, &error)) store.fail(error);
    std::string body = SearchForm(q, "/analytics", false) + YieldSections(rows);
    body += topFailuresTable(store, filter);
    body += retestsTable(store, filter);
    body += measuredChecksTable(store, filter, Param(q, "station"));
    return {200, "text/html; charset=utf-8", Page("Analytics", "Analytics", body)};
  }

  // The checks failing most in the last seven days that have results,
  // unless the filter names the days.
  std::string topFailuresTable(Lease& store, const UutFilter& filter) {
    std::string error;
    UutFilter week = filter;
    if (week.from.empty()) {
      UutFilter newest = filter;
      newest.limit = 1;
      std::vector<StoredUut> last;
      if (!store->list(newest, last, &error)) store.fail(error);
      if (!last.empty()) {
        const auto end = parseDateTime(last.front().endedAt);
        if (end) week.from = isoDateTime(*end - 7LL * 24 * 3600 * 1000000LL);
      }
    }
    week.limit = 10;
    std::vector<FailureRow> failures;
    if (!TopFailures(*store, week, failures, &error)) store.fail(error);
    std::string body = "<h2>Checks failing most" +
                       (week.from.empty() ? std::string() : " since " + Html(week.from)) + "</h2>";
    body +=
        "<table id=\"top-failures\"><tr><th>Test</th><th>Stage</th><th>Check</th><th>Failed</th>"
        "<th>Checked</th><th>Failure rate</th></tr>";
    for (const auto& f : failures) {
      body += "<tr><td>" + Html(f.test) + "</td><td>" + std::to_string(f.step) +
              "</td><td><a href=\"/check?name=" + Url(f.parameter) +
              "&step=" + std::to_string(f.step) + "&test=" + Url(f.test) + "\">" +
              Html(f.parameter) + "</a></td><td>" + std::to_string(f.failed) + "</td><td>" +
              std::to_string(f.checked) + "</td><td>" + Percent(f.failed, f.checked) + "</td></tr>";
    }
    return body + "</table>";
  }

  // The serial numbers tested more than once.
  std::string retestsTable(Lease& store, const UutFilter& filter) {
    std::string error;
    UutFilter retestFilter = filter;
    retestFilter.limit = 20;
    std::vector<RetestRow> retests;
    if (!Retests(*store, retestFilter, retests, &error)) store.fail(error);
    std::string body =
        "<h2>Serial numbers tested more than once</h2><table id=\"retests\"><tr><th>Serial"
        "</th><th>Test</th><th>Tests</th><th>Passed</th></tr>";
    for (const auto& r : retests) {
      body += "<tr><td><a href=\"/units?serial=" + Url(r.serial) + "\">" + Html(r.serial) +
              "</a></td><td>" + Html(r.test) + "</td><td>" + std::to_string(r.tests) + "</td><td>" +
              std::to_string(r.passed) + "</td></tr>";
    }
    return body + "</table>";
  }

  // The checks with numeric readings, each a link to its page (for the
  // query's station, when it names one).
  std::string measuredChecksTable(Lease& store, const UutFilter& filter,
                                  const std::string& station) {
    std::string error;
    UutFilter checkFilter = filter;
    checkFilter.limit = 200;
    std::vector<NumericCheck> checks;
    if (!NumericChecks(*store, checkFilter, checks, &error)) store.fail(error);
    std::string body =
        "<h2>Measured checks</h2><table "
        "id=\"measured\"><tr><th>Test</th><th>Stage</th><th>Check</th>"
        "<th>Units</th><th>Readings</th></tr>";
    for (const auto& c : checks) {
      body += "<tr><td>" + Html(c.test) + "</td><td>" + std::to_string(c.step) +
              "</td><td><a href=\"/check?name=" + Url(c.parameter) +
              "&step=" + std::to_string(c.step) + "&test=" + Url(c.test) +
              (station.empty() ? "" : "&station=" + Url(station)) + "\">" + Html(c.parameter) +
              "</a></td><td>" + Html(c.units) + "</td><td>" + std::to_string(c.readings) +
              "</td></tr>";
    }
    return body + "</table>";
  }

  Reply check(const Query& q) {
    const std::string name = Param(q, "name");
    if (name.empty()) throw BadInput{"name names the check"};
    UutFilter filter = FilterOf(q);
    filter.limit = WholeParam(q, "last", 0, 0, 10000000);
    const int step = WholeParam(q, "step", 0, 0, 1000000);
    Lease store(*this);
    std::string error;
    std::vector<CheckReading> readings;
    if (!CheckReadings(*store, name, step, filter, readings, &error)) store.fail(error);
    std::string body = SearchForm(q, "/check", false);
    body.insert(
        body.find("<label>"),
        "<input type=\"hidden\" name=\"name\" value=\"" + Html(name) + "\">" +
            (step ? "<input type=\"hidden\" name=\"step\" value=\"" + std::to_string(step) + "\">"
                  : ""));
    if (step) body += "<p>Stage " + std::to_string(step) + " only.</p>";
    if (readings.empty()) {
      body += "<p>No numeric reading of this check in the records searched.</p>";
      return {200, "text/html; charset=utf-8", Page("Check " + name, "Analytics", body)};
    }
    const CheckStatistics s = ComputeCheckStatistics(readings);
    body += FiguresTable(s);
    body += "<h2>Readings over time</h2>" + ValuesChart(readings, s.lower, s.upper);
    body += "<h2>Histogram</h2>" + Histogram(readings, s.lower, s.upper);
    return {200, "text/html; charset=utf-8", Page("Check " + name, "Analytics", body)};
  }

  // Every station that publishes into the store, and its runs; the page
  // reloads itself every few seconds.
  Reply plant() {
    Lease store(*this);
    std::string error;
    std::vector<StationStatus> stations;
    if (!ReadStationStatus(*store, stations, &error)) store.fail(error);
    const long long now = options_.now();
    std::string body =
        "<p>Each station that serves its plant view into this store publishes its runs every "
        "few seconds; one silent for " +
        std::to_string(kStationOfflineSeconds) + " s is offline.</p>";
    if (stations.empty()) body += "<p>No station publishes its runs into this store.</p>";
    body += "<div class=\"cards\" id=\"stations\">";
    for (const auto& st : stations) {
      const long long silent = now - st.heartbeat;
      const bool offline = silent > kStationOfflineSeconds;
      body += "<div class=\"card\" id=\"station-" + Html(st.station) + "\"><h2>" +
              Html(st.station) + "</h2><p class=\"" +
              (offline ? "state-offline\">offline (silent " + std::to_string(silent) + " s)"
                       : "state-running\">online") +
              "</p>";
      const json runs = json::parse(st.runs, nullptr, false);
      if (!offline && runs.is_array()) {
        body += runs.empty() ? "<p>No run is going.</p>"
                             : "<table><tr><th>Run</th><th>Socket</th><th>State</th><th>Line</th>"
                               "<th>Unit</th></tr>";
        for (const auto& r : runs) {
          auto text = [&](const char* key) {
            const auto it = r.find(key);
            if (it == r.end() || it->is_null()) return std::string();
            return it->is_string() ? it->get<std::string>() : it->dump();
          };
          body += "<tr><td>" + Html(text("id")) + "</td><td>" + Html(text("socket")) +
                  "</td><td class=\"state-" + Html(text("state")) + "\">" + Html(text("state")) +
                  "</td><td>" + Html(text("line")) + "</td><td>" + Html(text("last_serial")) + " " +
                  Html(text("last_verdict")) + "</td></tr>";
        }
        if (!runs.empty()) body += "</table>";
      }
      body += "</div>";
    }
    body += "</div>";
    Reply reply{200, "text/html; charset=utf-8", Page("Plant", "Plant", body)};
    reply.body.insert(reply.body.find("<title>"), "<meta http-equiv=\"refresh\" content=\"5\">");
    return reply;
  }

  Reply live(bool control, const std::string& csrf) {
    const json snap = monitor_->snapshot();
    std::string body =
        "<p id=\"live-note\">Connecting...</p><table><thead><tr><th>Run</th><th>Sequence</th>"
        "<th>State</th><th>Line</th><th>Text</th><th>Doing</th><th>Unit</th>"
        "<th>Messages</th></tr></thead><tbody id=\"runs\"></tbody></table>";
    std::string script;
    if (control) script = "window.tavrixControl = " + json(csrf).dump() + ";\n";
    script += kLiveScript;
    // The first view without waiting for the stream.
    script += "draw(" + ScriptJson(snap) + ");";
    return {200, "text/html; charset=utf-8", Page("Live", "Live", body, script)};
  }

  // ---- security ----------------------------------------------------------

  Principal identify(const httplib::Request& req) {
    Principal p;
    const std::string auth = req.get_header_value("Authorization");
    if (auth.rfind("Bearer ", 0) == 0) {
      std::string given = auth.substr(7);
      std::transform(given.begin(), given.end(), given.begin(), ::tolower);
      for (const Token& t : tokens_) {
        if (SameProof(given, t.hex)) {
          p.known = true;
          p.control = t.control;
          p.who = t.control ? "control token" : "viewer token";
        }
      }
      return p;  // a wrong token is not helped by a cookie
    }
    const std::string cookie = CookieValue(req.get_header_value("Cookie"));
    if (!cookie.empty()) {
      std::lock_guard guard(sessionMutex_);
      const auto it = sessions_.find(cookie);
      if (it != sessions_.end()) {
        if (it->second.expires > options_.now()) {
          p.known = true;
          p.control = it->second.control;
          p.csrf = it->second.csrf;
          p.byCookie = true;
          p.who = std::string(p.control ? "control" : "viewer") + " login " + cookie.substr(0, 8);
          return p;
        }
        sessions_.erase(it);
      }
    }
    if (tokens_.empty()) {
      p.known = true;
      p.who = "local viewer";
    }
    return p;
  }

  static std::string CookieValue(const std::string& header) {
    const std::string name = std::string(kCookie) + "=";
    size_t at = 0;
    while ((at = header.find(name, at)) != std::string::npos) {
      if (at == 0 || header[at - 1] == ' ' || header[at - 1] == ';') {
        const size_t end = header.find(';', at);
        return header.substr(at + name.size(),
                             end == std::string::npos ? std::string::npos : end - at - name.size());
      }
      at += name.size();
    }
    return {};
  }

  // True when a form post comes from a page of this server: a browser says
  // where a request comes from, and a page elsewhere cannot make it lie.
  static bool SameSite(const httplib::Request& req) {
    const std::string fetchSite = req.get_header_value("Sec-Fetch-Site");
    if (!fetchSite.empty() && fetchSite != "same-origin" && fetchSite != "none") return false;
    const std::string host = req.get_header_value("Host");
    std::string origin = req.get_header_value("Origin");
    if (origin.empty() || origin == "null") {
      origin = req.get_header_value("Referer");
      if (origin.empty()) return false;
    }
    const size_t scheme = origin.find("://");
    if (scheme == std::string::npos) return false;
    std::string rest = origin.substr(scheme + 3);
    rest = rest.substr(0, rest.find('/'));
    return !host.empty() && rest == host;
  }

  void audit(const httplib::Request& req, const Principal& p, const std::string& run,
             const std::string& action, const std::string& outcome) {
    const std::string line = isoDateTime(SystemClock().now()) + "\t" + p.who + "\t" +
                             req.remote_addr + "\t" + run + "\t" + action + "\t" + outcome + "\n";
    std::lock_guard guard(auditMutex_);
    std::string error;
    const size_t slash = options_.auditLog.rfind('/');
    if (slash != std::string::npos) files_.makeFolders(options_.auditLog.substr(0, slash), nullptr);
    files_.append(options_.auditLog, line, &error);
  }

  static void Send(httplib::Response& res, const Reply& r) {
    res.status = r.status;
    res.set_content(r.body, r.type.c_str());
  }

  static Query QueryOf(const httplib::Request& req) {
    return Query(req.params.begin(), req.params.end());
  }

  std::string LoginForm(const std::string& note) const {
    return Page("Log in", "",
                (note.empty() ? "" : "<p class=\"error\">" + Html(note) + "</p>") +
                    "<form method=\"post\" action=\"/login\"><label>Token <input type=\"password\" "
                    "name=\"token\" size=\"70\" autocomplete=\"off\"></label> <button>Log "
                    "in</button></form>");
  }

  void routes() {
    httplib::Server& s = *server_;
    limitServer(s);
    for (const char* path :
         {"/", "/units", "/unit", "/file", "/analytics", "/check", "/live.json", "/plant"}) {
      s.Get(path, guarded([this, path](const httplib::Request& req, httplib::Response& res,
                                       const Principal&) { Send(res, page(path, QueryOf(req))); }));
    }
    s.Get("/live",
          guarded([this](const httplib::Request&, httplib::Response& res, const Principal& p) {
            Send(res, live(options_.allowControl && p.control, p.csrf));
          }));
    s.Get("/units.csv", guarded([this](const httplib::Request& req, httplib::Response& res,
                                       const Principal&) { csv(req, res); }));
    s.Get("/live/events", guarded([this](const httplib::Request&, httplib::Response& res,
                                         const Principal&) { events(res); }));
    s.Get("/login", [this](const httplib::Request&, httplib::Response& res) {
      res.set_content(LoginForm(""), "text/html; charset=utf-8");
    });
    s.Post("/login",
           [this](const httplib::Request& req, httplib::Response& res) { login(req, res); });
    s.Post("/control", guarded([this](const httplib::Request& req, httplib::Response& res,
                                      const Principal& p) { control(req, res, p); }));
  }

  // What every answer carries and what a request may take: its threads,
  // size and time, the headers that keep pages from being framed or
  // cached, and the pages for a failure.
  static void limitServer(httplib::Server& s) {
    s.new_task_queue = [] { return new httplib::ThreadPool(64); };
    s.set_payload_max_length(64 * 1024);
    s.set_read_timeout(10);
    s.set_write_timeout(10);
    s.set_default_headers({{"X-Content-Type-Options", "nosniff"},
                           {"X-Frame-Options", "DENY"},
                           {"Referrer-Policy", "same-origin"},
                           {"Cache-Control", "no-store"},
                           {"Content-Security-Policy",
                            "default-src 'none'; style-src 'unsafe-inline'; script-src "
                            "'unsafe-inline'; img-src data:; connect-src 'self'; form-action "
                            "'self'; frame-ancestors 'none'"}});
    s.set_exception_handler(
        [](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
          Send(res, ErrorPage(500, "The page could not be made."));
        });
    s.set_error_handler([](const httplib::Request& req, httplib::Response& res) {
      if (!res.body.empty()) return;
      Send(res, ErrorPage(res.status, "The request " + req.path + " cannot be answered."));
    });
  }

  // Every page but the login asks who it is for.
  template <typename Handler>
  httplib::Server::Handler guarded(Handler handler) {
    return [this, handler](const httplib::Request& req, httplib::Response& res) {
      const Principal p = identify(req);
      if (!p.known) {
        res.status = 401;
        res.set_header("WWW-Authenticate", "Bearer");
        res.set_content(LoginForm(""), "text/html; charset=utf-8");
        return;
      }
      handler(req, res, p);
    };
  }

  // A login with a known token opens a session, kept in a cookie.
  void login(const httplib::Request& req, httplib::Response& res) {
    if (!req.get_header_value("Origin").empty() && !SameSite(req)) {
      return Send(res, ErrorPage(403, "A login from another site is refused."));
    }
    std::string given = req.get_param_value("token");
    std::transform(given.begin(), given.end(), given.begin(), ::tolower);
    const Token* match = nullptr;
    for (const Token& t : tokens_)
      if (SameProof(given, t.hex)) match = &t;
    if (match == nullptr) {
      res.status = 401;
      res.set_content(LoginForm("That token is not known here."), "text/html; charset=utf-8");
      return;
    }
    const std::string id = RandomHex(32);
    {
      std::lock_guard guard(sessionMutex_);
      const long long now = options_.now();
      std::erase_if(sessions_, [&](const auto& s) { return s.second.expires <= now; });
      sessions_[id] = {now + options_.sessionSeconds, match->control, RandomHex(16)};
    }
    res.set_header("Set-Cookie", std::string(kCookie) + "=" + id +
                                     "; Path=/; HttpOnly; SameSite=Strict; Max-Age=" +
                                     std::to_string(options_.sessionSeconds) +
                                     (tls_ ? "; Secure" : ""));
    res.set_redirect("/live", 303);
  }

  void control(const httplib::Request& req, httplib::Response& res, const Principal& p) {
    const std::string run = req.get_param_value("run");
    const std::string action = req.get_param_value("action");
    // An answer to the question the run waits on: the caption of one of its
    // buttons (for a data entry with its fields, "Accept|serial=1234").
    const std::string answer = req.get_param_value("answer");
    const std::string what = action == "answer" ? "answer " + answer : action;
    auto refuse = [&](int status, const std::string& why) {
      audit(req, p, run, what, "refused: " + why);
      Send(res, ErrorPage(status, why));
    };
    if (!options_.allowControl)
      return refuse(403, "This plant view only shows; it controls nothing.");
    if (!p.control) return refuse(403, "This token may not control runs.");
    if (p.byCookie && (!SameSite(req) || !SameProof(req.get_param_value("csrf"), p.csrf)))
      return refuse(403, "A control request from another site is refused.");
    if (action != "stop" && action != "pause" && action != "resume" && action != "answer")
      return refuse(400, "The action is stop, pause, resume or answer.");
    if (action == "answer" && (answer.empty() || answer.size() > kLongestParameter))
      return refuse(400, "An answer is the caption of one of the question's buttons.");
    if (run.empty() || run.size() > kLongestParameter || run.find('/') != std::string::npos ||
        run == "." || run == "..")
      return refuse(400, "The run is named by its id.");
    std::string reply;
    std::string error;
    std::vector<std::string> args;
    if (action == "answer") args.push_back(answer);
    if (!monitor_->control(run, action, args, reply, &error)) return refuse(409, error);
    const bool ok = reply.rfind("{\"ok\":true", 0) == 0;
    audit(req, p, run, what, ok ? "done" : "refused by the run: " + reply);
    if (!ok) return Send(res, ErrorPage(409, "The run refused: " + reply));
    if (p.byCookie) return res.set_redirect("/live", 303);
    res.set_content(reply + "\n", "application/json");
  }

  // Every record with its checks, a page of records at a time, so a large
  // export never sits whole in memory.
  void csv(const httplib::Request& req, httplib::Response& res) {
    UutFilter filter;
    try {
      filter = FilterOf(QueryOf(req));
    } catch (const BadInput& bad) {
      return Send(res, ErrorPage(400, "The request cannot be answered: " + bad.why + "."));
    }
    res.set_header("Content-Disposition", "attachment; filename=\"units.csv\"");
    // The next page starts after the last record sent, at the same cost on
    // any page.
    struct Next {
      bool first = true;
      std::string ended, key;
    };
    auto next = std::make_shared<Next>();
    res.set_chunked_content_provider(
        "text/csv; charset=utf-8", [this, filter, next](size_t, httplib::DataSink& sink) {
          if (stopped_) return false;
          std::string text;
          if (next->first) {
            text =
                "key,station,sequence_file,test_definition,test,version,serial,test_date,"
                "operators,description,started,ended,verdict,step,row,kind,parameter,channel,"
                "value,units,lower,upper,result,message\r\n";
          }
          UutFilter page = filter;
          page.limit = kPageRows;
          page.olderEnded = next->ended;
          page.olderKey = next->key;
          std::vector<StoredUut> uuts;
          std::string error;
          try {
            Lease store(*this);
            if (!store->fetch(page, uuts, &error)) return false;  // the download is cut short
          } catch (const StoreFailure&) {
            return false;
          }
          for (const auto& u : uuts) {
            std::string head;
            for (const std::string* f : {&u.key, &u.station, &u.sequenceFile, &u.testDefinition,
                                         &u.testTitle, &u.testVersion, &u.serial, &u.testDate,
                                         &u.operators, &u.description, &u.startedAt, &u.endedAt}) {
              head += Csv(*f) + ",";
            }
            head += u.passed ? "PASS" : "FAIL";
            if (u.checks.empty()) text += head + ",,,,,,,,,,,\r\n";
            for (const auto& c : u.checks) {
              text += head + "," + std::to_string(c.step) + "," + std::to_string(c.row) + "," +
                      Csv(c.kind) + "," + Csv(c.parameter) + "," + Csv(c.channel) + "," +
                      Csv(c.value) + "," + Csv(c.units) + "," + Csv(c.lower) + "," + Csv(c.upper) +
                      "," + (c.passed ? "Pass" : "Fail") + "," + Csv(c.message) + "\r\n";
            }
          }
          if (!text.empty() && !sink.write(text.data(), text.size())) return false;
          next->first = false;
          if (!uuts.empty()) {
            next->ended = uuts.back().endedAt;
            next->key = uuts.back().key;
          }
          if (uuts.size() < static_cast<size_t>(kPageRows)) sink.done();
          return true;
        });
  }

  // The live stream: the whole view at once, then again on each change, at
  // most ten times a second; a comment every 15 s keeps the connection.
  void events(httplib::Response& res) {
    if (viewers_.fetch_add(1) >= kMostLiveViewers) {
      viewers_.fetch_sub(1);
      return Send(res, ErrorPage(503, "Too many live viewers; try again later."));
    }
    auto seen = std::make_shared<long>(-1);
    res.set_chunked_content_provider(
        "text/event-stream",
        [this, seen](size_t, httplib::DataSink& sink) {
          if (stopped_) return false;
          if (*seen >= 0) {
            const long now = monitor_->waitForChange(*seen, 15000);
            if (stopped_) return false;
            if (now == *seen) {
              static const std::string keep = ": still here\n\n";
              return sink.write(keep.data(), keep.size());
            }
          }
          const json snap = monitor_->snapshot();
          *seen = snap["version"].get<long>();
          const std::string message = "data: " + ScriptJson(snap) + "\n\n";
          if (!sink.write(message.data(), message.size())) return false;
          std::this_thread::sleep_for(std::chrono::milliseconds(100));
          return true;
        },
        [this](bool) { viewers_.fetch_sub(1); });
  }

  FileSystem& files_;
  ServerOptions options_;
  std::unique_ptr<httplib::Server> server_;
  std::unique_ptr<LiveMonitor> monitor_;
  std::thread thread_;
  std::unique_ptr<StationPublisher> publisher_;
  int port_ = 0;
  bool tls_ = false;
  std::atomic<bool> stopped_{false};
  std::atomic<size_t> viewers_{0};
  std::mutex waitMutex_;
  std::condition_variable waitCv_;
  std::vector<Token> tokens_;
  std::mutex sessionMutex_;
  std::map<std::string, Session> sessions_;
  std::mutex poolMutex_;
  std::vector<std::unique_ptr<SqlResultsStore>> idle_;
  std::mutex auditMutex_;
};

std::unique_ptr<Server> Server::Start(FileSystem& files, ServerOptions options,
                                      std::string* error) {
  auto impl = std::make_unique<Impl>(files, std::move(options));
  std::string why;
  if (!impl->start(&why)) {
    if (error) *error = why;
    return nullptr;
  }
  return std::unique_ptr<Server>(new Server(std::move(impl)));
}

Server::Server(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Server::~Server() = default;
int Server::port() const { return impl_->port(); }
bool Server::tls() const { return impl_->tls(); }
void Server::stop() { impl_->stop(); }
void Server::wait() { impl_->wait(); }
bool Server::publishNow(std::string* error) { return impl_->publish(error); }
Reply Server::page(const std::string& path, const Query& query) { return impl_->page(path, query); }

}  // namespace tavrix::plant
