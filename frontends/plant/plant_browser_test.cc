// The plant view in a real browser: headless Chromium, driven through its
// DevTools pipe (no extra library, no network but loopback), loads each
// page of a server on loopback whose store real runs filled, and
//  - no page logs an error or throws in its scripts;
//  - the failing unit's page shows the failed check;
//  - the Cpk on the check's page is the one worked out here;
//  - the live page shows a held run's line change when the run is stepped.
// With TAVRIX_SCREENSHOTS=FOLDER each page is saved there as a PNG
// (tools/plant-screenshots fills docs/screenshots/ so).
// Without Chromium the test is skipped; every wait on the browser has a
// hard time-out, and the browser is killed when the test ends.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "cli_test_support.h"
#include "control_socket.h"
#include "ctl_command.h"
#include "plant_server.h"

namespace tavrix::plant {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using ::testing::HasSubstr;

constexpr int kCallSeconds = 20;

std::string FindChromium() {
  for (const char* name : {"chromium", "chromium-browser"}) {
    for (const char* dir : {"/usr/bin", "/usr/local/bin", "/snap/bin"}) {
      const std::string path = std::string(dir) + "/" + name;
      if (::access(path.c_str(), X_OK) == 0) return path;
    }
  }
  return {};
}

std::string Base64Decode(const std::string& text) {
  static const std::string digits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  int bits = 0;
  unsigned value = 0;
  for (char c : text) {
    const size_t d = digits.find(c);
    if (d == std::string::npos) continue;  // padding
    value = (value << 6) | static_cast<unsigned>(d);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((value >> bits) & 0xff);
    }
  }
  return out;
}

// Headless Chromium on the DevTools pipe: requests and replies are JSON
// messages ended by a NUL, on descriptors 3 (to the browser) and 4 (from it).
class Browser {
 public:
  bool start(const std::string& binary, const std::string& profile, std::string* error) {
    int toBrowser[2];
    int fromBrowser[2];
    if (::pipe(toBrowser) != 0 || ::pipe(fromBrowser) != 0) {
      *error = "no pipe";
      return false;
    }
    const std::string profileArg = "--user-data-dir=" + profile + "/data";
    // The browser's temporary files go into the profile's folder, which
    // goes with the test's.
    const std::string temporary = profile + "/tmp";
    std::error_code ec;
    std::filesystem::create_directories(temporary, ec);
    // The child's environment is made before the fork: between fork and
    // exec a process with threads may only make system calls.
    std::vector<std::string> environment = {"TMPDIR=" + temporary};
    for (char** e = environ; *e != nullptr; ++e)
      if (std::string_view(*e).rfind("TMPDIR=", 0) != 0) environment.emplace_back(*e);
    std::vector<char*> envp;
    for (auto& e : environment) envp.push_back(e.data());
    envp.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      // The browser and the helpers it starts are a process group of their
      // own, killed together: a helper left running writes into the
      // profile's folder after the test removed it.
      ::setpgid(0, 0);
      ::dup2(toBrowser[0], 3);
      ::dup2(fromBrowser[1], 4);
      for (int fd = 5; fd < 1024; ++fd) ::close(fd);
      const int null = ::open("/dev/null", O_RDWR);
      ::dup2(null, 1);
      ::dup2(null, 2);
      // Everything but loopback unreachable; nothing fetched in the
      // background.
      const char* args[] = {binary.c_str(),
                            "--headless=new",
                            "--no-sandbox",
                            "--disable-gpu",
                            "--no-first-run",
                            "--no-default-browser-check",
                            "--disable-background-networking",
                            "--disable-component-update",
                            "--disable-sync",
                            "--disable-extensions",
                            "--no-pings",
                            "--host-resolver-rules=MAP * ~NOTFOUND , EXCLUDE 127.0.0.1",
                            "--window-size=1280,900",
                            "--remote-debugging-pipe",
                            profileArg.c_str(),
                            "about:blank",
                            nullptr};
      ::execve(binary.c_str(), const_cast<char**>(args), envp.data());
      ::_exit(127);
    }
    if (pid_ > 0) ::setpgid(pid_, pid_);
    ::close(toBrowser[0]);
    ::close(fromBrowser[1]);
    out_ = toBrowser[1];
    in_ = fromBrowser[0];
    if (pid_ < 0) {
      *error = "cannot start " + binary;
      return false;
    }
    const json targets = call("Target.getTargets", json::object());
    std::string target;
    for (const auto& t : targets.value("targetInfos", json::array()))
      if (t.value("type", "") == "page") target = t.value("targetId", "");
    if (target.empty()) {
      target = call("Target.createTarget", {{"url", "about:blank"}}).value("targetId", "");
    }
    session_ = call("Target.attachToTarget", {{"targetId", target}, {"flatten", true}})
                   .value("sessionId", "");
    if (session_.empty()) {
      *error = "the browser gave no page to drive";
      return false;
    }
    for (const char* domain : {"Runtime.enable", "Log.enable", "Page.enable"})
      call(domain, json::object(), true);
    return true;
  }

  ~Browser() {
    if (out_ >= 0) ::close(out_);
    if (in_ >= 0) ::close(in_);
    if (pid_ > 0) {
      ::kill(-pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }

  // Sends a command (to the page when `onPage`) and gives its result; an
  // empty object, and a test failure, when the browser does not answer.
  json call(const std::string& method, const json& params, bool onPage = false) {
    const int id = ++lastId_;
    json message = {{"id", id}, {"method", method}, {"params", params}};
    if (onPage) message["sessionId"] = session_;
    const std::string text = message.dump() + '\0';
    if (::write(out_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      ADD_FAILURE() << "cannot write to the browser";
      return json::object();
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kCallSeconds);
    for (;;) {
      json reply;
      if (!next(reply, deadline)) {
        ADD_FAILURE() << method << ": the browser did not answer";
        return json::object();
      }
      if (reply.value("id", 0) == id) {
        if (reply.contains("error")) ADD_FAILURE() << method << ": " << reply["error"].dump();
        return reply.value("result", json::object());
      }
      event(reply);
    }
  }

  // Goes to `url` and waits until the page has loaded.
  void navigate(const std::string& url) {
    loaded_ = false;
    call("Page.navigate", {{"url", url}}, true);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kCallSeconds);
    while (!loaded_) {
      json message;
      if (!next(message, deadline)) {
        ADD_FAILURE() << url << " did not load";
        return;
      }
      event(message);
    }
  }

  // The value of a script on the page; a promise is waited for (the wait
  // is the page's, bounded by its own time-out).
  json evaluate(const std::string& expression) {
    const json result =
        call("Runtime.evaluate",
             {{"expression", expression}, {"returnByValue", true}, {"awaitPromise", true}}, true);
    if (result.contains("exceptionDetails")) {
      ADD_FAILURE() << expression << ": " << result["exceptionDetails"].dump();
      return nullptr;
    }
    return result.value("result", json::object()).value("value", json());
  }

  std::string screenshot() {
    return Base64Decode(
        call("Page.captureScreenshot", {{"format", "png"}, {"captureBeyondViewport", true}}, true)
            .value("data", ""));
  }

  // Errors the pages logged or threw since the last look.
  std::vector<std::string> takeErrors() { return std::exchange(errors_, {}); }

 private:
  bool next(json& message, std::chrono::steady_clock::time_point deadline) {
    for (;;) {
      const size_t end = buffer_.find('\0');
      if (end != std::string::npos) {
        message = json::parse(buffer_.substr(0, end), nullptr, false);
        buffer_.erase(0, end + 1);
        return true;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                            deadline - std::chrono::steady_clock::now())
                            .count();
      if (left <= 0) return false;
      pollfd p{in_, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(left)) <= 0) continue;
      char chunk[65536];
      const ssize_t n = ::read(in_, chunk, sizeof chunk);
      if (n <= 0) return false;
      buffer_.append(chunk, static_cast<size_t>(n));
    }
  }

  void event(const json& message) {
    const std::string method = message.value("method", "");
    const json params = message.value("params", json::object());
    if (method == "Page.loadEventFired") loaded_ = true;
    if (method == "Runtime.exceptionThrown") errors_.push_back(params.dump());
    if (method == "Runtime.consoleAPICalled" && params.value("type", "") == "error")
      errors_.push_back(params.dump());
    if (method == "Log.entryAdded" &&
        params.value("entry", json::object()).value("level", "") == "error")
      errors_.push_back(params.dump());
  }

  pid_t pid_ = -1;
  int out_ = -1;
  int in_ = -1;
  int lastId_ = 0;
  std::string session_;
  std::string buffer_;
  bool loaded_ = false;
  std::vector<std::string> errors_;
};

class PlantBrowserTest : public CliTestBase {
 protected:
  void SetUp() override {
    chromium_ = FindChromium();
    if (chromium_.empty()) GTEST_SKIP() << "no chromium installed: the browser tests are skipped";
    fs::copy(TAVRIX_SOURCE_DIR "/examples", Path("examples"), fs::copy_options::recursive);
  }

  void RunExample(const std::string& start, const std::string& station) {
    const fs::path before = fs::current_path();
    fs::current_path(dir_);
    EXPECT_EQ(
        Cli({"run", "--virtual-time", "--start", start, "--setup", "examples/rig.ims", "--answers",
             "examples/uut_test.answers", "--station", station, "examples/uut_test.wts"}),
        kExitUutFailed)
        << err_;
    fs::current_path(before);
  }

  std::string chromium_;
};

TEST_F(PlantBrowserTest, EveryPageLoadsCleanlyAndTheLivePageFollowsARun) {
  RunExample("2026-11-15 14:30:05", "rig-7");
  RunExample("2026-11-16 09:00:00", "rig-8");
  RunExample("2026-11-17 10:15:00", "rig-7");

  // A run held at its second line, for the live page.
  const std::string setup = File("rig.ims", "D 1 MONITORS=1\n  10001 E=1 M=A N=OUT\n");
  const std::string seq = File("main.wts",
                               "SEND OUT, 5\r\n"
                               "WAITSECONDS 10\r\n"
                               "WAITSECONDS 10\r\n"
                               "WAITSECONDS 10\r\n");
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  std::FILE* errWrite = ::fdopen(pipeFds[1], "w");
  std::FILE* errRead = ::fdopen(pipeFds[0], "r");
  Captured runOut;
  std::thread run([&] {
    TavrixCliMain(testHost(),
                  {"tavrix-cli", "run", "--virtual-time", "--quiet", "--setup", setup, "--break",
                   "2", "--results-store", "off", seq},
                  nullptr, runOut.stream(), errWrite);
    std::fclose(errWrite);
  });
  // Whatever happens below, the run is let go before the test ends.
  struct Finish {
    std::thread& run;
    std::FILE* errRead;
    std::string home;
    std::string id;
    ~Finish() {
      if (!id.empty()) {
        Captured o, e;
        RunCtl(home, {id, "stop"}, o.stream(), e.stream());
      }
      run.join();
      std::fclose(errRead);
    }
  } finish{run, errRead, dir_ + "/home", ""};
  char buffer[4096];
  ASSERT_NE(std::fgets(buffer, sizeof buffer, errRead), nullptr);
  const std::string held = buffer;
  const size_t at = held.find("ctl ") + 4;
  const std::string id = held.substr(at, held.find(' ', at) - at);
  finish.id = id;

  ServerOptions o;
  o.listen = "127.0.0.1:0";
  std::string error;
  ASSERT_TRUE(ParseStoreSpec("", dir_ + "/home", o.store, &error));
  o.runsFolder = RunsFolder(dir_ + "/home");
  o.auditLog = dir_ + "/home/plant-audit.log";
  o.liveScanMs = 50;
  o.station = "LINE3";
  o.publishSeconds = 1;
  auto server = Server::Start(testFiles(), o, &error);
  ASSERT_TRUE(server) << error;
  const std::string base = "http://127.0.0.1:" + std::to_string(server->port());

  Browser browser;
  ASSERT_TRUE(browser.start(chromium_, Path("profile"), &error)) << error;
  const char* shots = std::getenv("TAVRIX_SCREENSHOTS");
  auto shoot = [&](const std::string& name) {
    if (shots == nullptr) return;
    std::ofstream(std::string(shots) + "/" + name + ".png", std::ios::binary)
        << browser.screenshot();
  };

  browser.navigate(base + "/units");
  EXPECT_EQ(browser.evaluate("document.querySelectorAll('#units tr').length"), 7);
  EXPECT_EQ(browser.evaluate("document.getElementById('count').textContent.trim()"),
            "6 units, 1 to 6 shown. Export as CSV");
  shoot("plant-units");
  EXPECT_THAT(browser.takeErrors(), ::testing::IsEmpty());

  // The newest failing unit's page, reached by its link.
  const std::string unitLink =
      browser.evaluate("document.querySelector('#units tr.fail a').getAttribute('href')");
  browser.navigate(base + unitLink);
  EXPECT_EQ(browser.evaluate("document.querySelector('h1').textContent"), "Unit 1235");
  const std::string failed = browser.evaluate(
      "[...document.querySelectorAll('#checks tr.fail td')].map(td => td.textContent).join('|')");
  EXPECT_THAT(failed, ::testing::StartsWith("2|3|DIFFERENCE|OVEN-AMBIENT|OVEN-AMBIENT|7.2"));
  EXPECT_THAT(failed, ::testing::MatchesRegex(
                          ".*\\|degC\\|-3\\|3\\|Fail\\|Value: 7\\.2[0-9]  Min: -3  Max: 3"));
  shoot("plant-unit");
  EXPECT_THAT(browser.takeErrors(), ::testing::IsEmpty());

  browser.navigate(base + "/analytics");
  // (before the flow test's records are added below)
  EXPECT_EQ(browser.evaluate("document.getElementById('yield-all').textContent"),
            "6 units tested, yield 50.0%, first-pass yield 50.0%, 4 retests.");
  EXPECT_EQ(browser.evaluate("document.querySelectorAll('svg').length"), 3);
  shoot("plant-analytics");
  EXPECT_THAT(browser.takeErrors(), ::testing::IsEmpty());

  // A known data set: forty readings of a flow check beside the runs'
  // records; the Cpk on its page against the value worked out here.
  std::vector<double> flow;
  {
    auto store = OpenResultsStore(o.store, &error);
    ASSERT_TRUE(store) << error;
    std::vector<StoredUut> batch;
    for (int i = 0; i < 40; ++i) {
      flow.push_back(4.9 + 0.01 * ((i * 7) % 23) + (i % 5 == 0 ? 0.04 : 0.0));
      StoredUut u;
      u.key = "flow-" + std::to_string(i);
      u.station = "rig-9";
      u.testTitle = "Flow test";
      u.serial = "F" + std::to_string(i);
      char ended[32];
      std::snprintf(ended, sizeof ended, "2026-11-18 08:%02d:00", i);
      u.startedAt = u.endedAt = u.testDate = ended;
      StoredCheck c;
      c.step = 1;
      c.kind = "MEASURE";
      c.parameter = "Flow rate";
      char value[32];
      std::snprintf(value, sizeof value, "%.2f", flow.back());
      c.value = value;
      c.lower = "4.5";
      c.upper = "5.5";
      u.checks.push_back(c);
      batch.push_back(u);
    }
    ASSERT_TRUE(store->record(batch, &error)) << error;
  }
  browser.navigate(base + "/check?name=Flow%20rate&step=1");
  double mean = 0;
  for (double v : flow) mean += v / flow.size();
  double ranges = 0;
  for (size_t i = 1; i < flow.size(); ++i) ranges += std::fabs(flow[i] - flow[i - 1]);
  const double within = ranges / (flow.size() - 1) / 1.128;
  const double expected = std::min(5.5 - mean, mean - 4.5) / (3 * within);
  const std::string cpk = browser.evaluate("document.getElementById('cpk').textContent");
  EXPECT_NEAR(std::stod(cpk), expected, 0.001) << cpk;
  EXPECT_NEAR(
      std::stod(browser.evaluate("document.getElementById('mean').textContent").get<std::string>()),
      mean, 1e-5);
  EXPECT_EQ(browser.evaluate("document.querySelectorAll('svg').length"), 2);
  shoot("plant-check");
  EXPECT_THAT(browser.takeErrors(), ::testing::IsEmpty());

  // The live page: the held run, then its next line once it is stepped.
  browser.navigate(base + "/live");
  const std::string row = "document.getElementById('run-" + id + "')";
  const std::string waitFor =
      "new Promise((done, fail) => { const t0 = Date.now(); const look = () => { const r = " + row +
      "; if (r && r.querySelector('.line').textContent === LINE && "
      "document.getElementById('live-note').textContent.startsWith('Updated')) "
      "done(Date.now()); else if (Date.now() - t0 > 15000) fail(new Error('not shown: ' + "
      "document.getElementById('runs').textContent)); else setTimeout(look, 10); }; look(); })";
  auto until = [&](const std::string& line) {
    std::string script = waitFor;
    script.replace(script.find("LINE"), 4, "'" + line + "'");
    return browser.evaluate(script);
  };
  ASSERT_TRUE(until("2").is_number());
  shoot("plant-live");
  EXPECT_THAT(browser.takeErrors(), ::testing::IsEmpty());

  // The plant page: this station, publishing the held run.
  ASSERT_TRUE(server->publishNow(&error)) << error;
  browser.navigate(base + "/plant");
  EXPECT_EQ(browser.evaluate("document.querySelector('#station-LINE3 td.state-held') !== null"),
            true);
  shoot("plant-stations");
  EXPECT_THAT(browser.takeErrors(), ::testing::IsEmpty());
  browser.navigate(base + "/live");
  ASSERT_TRUE(until("2").is_number());
  const auto stepped = std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count();
  Captured ctlOut, ctlErr;
  ASSERT_EQ(RunCtl(dir_ + "/home", {id, "step"}, ctlOut.stream(), ctlErr.stream()), 0);
  const json shown = until("3");
  ASSERT_TRUE(shown.is_number());
  // How long the step took to show, for the record (speed is measured in
  // the benchmarks, not asserted here).
  RecordProperty("line_change_shown_ms", std::to_string(shown.get<long long>() - stepped));
  std::printf("the live page showed the line change %lld ms after the step\n",
              shown.get<long long>() - stepped);
  EXPECT_THAT(browser.takeErrors(), ::testing::IsEmpty());
  // The watch on errors sees one.
  browser.evaluate("console.error('probe')");
  browser.evaluate("1");
  EXPECT_EQ(browser.takeErrors().size(), 1u);
  server->stop();
}

}  // namespace
}  // namespace tavrix::plant
