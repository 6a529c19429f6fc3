// The plant view over HTTP on loopback, with a results store filled by real
// runs of the pump example (on the database file and on a server of the
// test's own), a run held at a breakpoint for the live page, and the
// guards: tokens, the login cookie and its end, cross-site posts, and the
// addresses it refuses to listen on.
#include "plant_server.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <thread>

#include "cli_test_support.h"
#include "control_socket.h"
#include "instrument/tcp/link_key.h"
#include "panel/plant_view_launcher.h"
#include "resultsdb/station_status.h"
#include "station_publisher.h"
#include "testing/store_fixture.h"
#include "testing/test_files.h"

namespace tavrix::plant {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

std::string Hex(const std::string& bytes) {
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

class PlantServerTest : public CliTestBase {
 protected:
  PlantServerTest() {
    fs::copy(TAVRIX_SOURCE_DIR "/examples", Path("examples"), fs::copy_options::recursive);
  }
  ~PlantServerTest() override {
    if (server_) server_->stop();
  }

  std::string Home() const { return dir_ + "/home"; }

  // Runs the pump example as a station would: pump 1234 passes, 1235 fails
  // its cold-start check.
  void RunExample(const std::string& start, const std::string& station,
                  const std::string& store = "") {
    std::vector<std::string> args = {"run",       "--virtual-time",
                                     "--start",   start,
                                     "--setup",   "examples/rig.ims",
                                     "--answers", "examples/uut_test.answers",
                                     "--station", station};
    if (!store.empty()) args.insert(args.end(), {"--results-store", store});
    args.push_back("examples/uut_test.wts");
    const fs::path before = fs::current_path();
    fs::current_path(dir_);
    EXPECT_EQ(Cli(args), kExitUutFailed) << err_;
    fs::current_path(before);
  }

  ServerOptions Options(const std::string& store = "") {
    ServerOptions o;
    o.listen = "127.0.0.1:0";
    std::string error;
    EXPECT_TRUE(ParseStoreSpec(store, Home(), o.store, &error)) << error;
    o.runsFolder = RunsFolder(Home());
    o.auditLog = Home() + "/plant-audit.log";
    o.liveScanMs = 20;
    o.now = [this] { return now_.load(); };
    return o;
  }

  void Start(ServerOptions o) {
    std::string error;
    server_ = Server::Start(testFiles(), std::move(o), &error);
    ASSERT_TRUE(server_) << error;
    client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
    client_->set_read_timeout(20);
  }

  std::string Get(const std::string& path, int expected = 200, const httplib::Headers& h = {}) {
    auto res = client_->Get(path.c_str(), h);
    if (!res) {
      ADD_FAILURE() << path << ": no answer";
      return {};
    }
    EXPECT_EQ(res->status, expected) << path << "\n" << res->body;
    return res->body;
  }

  std::string Key(const std::string& name) {
    std::string error;
    EXPECT_TRUE(WriteNewLinkKey(Path(name), &error)) << error;
    std::string key;
    EXPECT_TRUE(LoadLinkKey(testFiles(), Path(name), key, &error)) << error;
    return Hex(key);
  }

  // Sends `text` over a connection of its own and gives what came back
  // before the server closed it.
  std::string Raw(const std::string& text) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(server_->port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::send(fd, text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
    ::shutdown(fd, SHUT_WR);
    std::string reply;
    char buf[4096];
    for (ssize_t n; (n = ::recv(fd, buf, sizeof buf, 0)) > 0;)
      reply.append(buf, static_cast<size_t>(n));
    ::close(fd);
    return reply;
  }

  std::atomic<long long> now_{1800000000};
  std::unique_ptr<Server> server_;
  std::unique_ptr<httplib::Client> client_;
};

// The pages of a store filled by real runs, on both back ends.
class PlantPagesTest : public PlantServerTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(PlantPagesTest, UnitsSearchUnitPageCsvAnalyticsAndBadRequests) {
  std::string store;
  if (GetParam() == "postgresql") {
    std::string reason;
    if (testing::SharedServer(&reason) == nullptr) GTEST_SKIP() << reason;
    store = testing::FreshPostgresDatabase();
    ASSERT_FALSE(store.empty());
  }
  RunExample("2026-11-15 14:30:05", "rig-7", store);
  RunExample("2026-11-16 09:00:00", "LINE3/S2", store);
  Start(Options(store));

  std::string page = Get("/units");
  EXPECT_THAT(page, HasSubstr("<p id=\"count\">4 units, 1 to 4 shown."));
  // Newest first: the second day's failing pump heads the list.
  const size_t first = page.find("<tr class=\"fail\">");
  ASSERT_NE(first, std::string::npos);
  EXPECT_THAT(page.substr(first, 200), HasSubstr("2026-11-16 09:21:00"));
  EXPECT_EQ(Count(page, "<td class=\"fail\">FAIL</td>"), 2u);
  EXPECT_THAT(page, Not(HasSubstr("http://")));  // nothing fetched from elsewhere
  EXPECT_THAT(page, Not(HasSubstr("https://")));

  page = Get("/units?verdict=fail&station=rig-7");
  EXPECT_THAT(page, HasSubstr("1 units, 1 to 1 shown"));
  page = Get("/units?serial=1234&from=2026-11-16&to=2026-11-16");
  EXPECT_THAT(page, HasSubstr("1 units"));
  // A socket of a station of several.
  page = Get("/units?socket=S2");
  EXPECT_THAT(page, HasSubstr("2 units, 1 to 2 shown"));
  EXPECT_THAT(page, HasSubstr("<td>LINE3/S2</td>"));
  EXPECT_THAT(Get("/units?socket=S"), HasSubstr("0 units."));
  page = Get("/units?test=Pump%20test&serial=nobody");
  EXPECT_THAT(page, HasSubstr("0 units."));

  // The failing unit's page shows the failed check with its value, limits
  // and failure text.
  page = Get("/units?serial=1235&station=rig-7");
  const size_t link = page.find("/unit?key=");
  ASSERT_NE(link, std::string::npos);
  const std::string unitPath = page.substr(link, page.find('"', link) - link);
  page = Get(unitPath);
  EXPECT_THAT(page, HasSubstr("<h1>Unit 1235</h1>"));
  EXPECT_THAT(page, HasSubstr("<tr class=\"fail\"><td>2</td><td>3</td><td>DIFFERENCE</td>"));
  EXPECT_THAT(page, HasSubstr("<td>7.25</td><td>degC</td><td>-3</td><td>3</td><td "
                              "class=\"fail\">Fail</td><td>Value: 7.25  Min: -3  Max: 3</td>"));
  EXPECT_EQ(Count(page, "<tr class=\"fail\">"), 1u);
  EXPECT_EQ(Count(page, "<tr"), 1u + 10u + 1u + 7u);  // figures, verdict, heading, 7 checks

  const std::string csv = Get("/units.csv?serial=1234");
  EXPECT_EQ(Count(csv, "\r\n"), 1u + 2u * 7u);  // a header and a line a check of each test
  EXPECT_THAT(csv, HasSubstr(",1234,2026-11-15 00:00:00,Ann Lee,Pump A,"));

  page = Get("/analytics");
  EXPECT_THAT(page, HasSubstr("4 units tested, yield 50.0%, first-pass yield 50.0%, 2 retests."));
  EXPECT_THAT(page, HasSubstr("<svg"));
  EXPECT_THAT(page, HasSubstr("<h2>Yield per socket</h2>"));
  EXPECT_THAT(page, HasSubstr("<tr><td>LINE3/S2</td><td>2</td><td>1</td><td>50.0%</td><td>-</td>"
                              "<td>2</td></tr>"));
  EXPECT_THAT(page, HasSubstr("<tr><td>LINE3</td><td>2</td>"));
  EXPECT_THAT(page, HasSubstr("step=2&test=Pump%20test\">OVEN-AMBIENT</a></td><td>2</td><td>4"));
  page = Get("/check?name=Fan%20speed&step=3&test=Pump%20test");
  EXPECT_THAT(page, HasSubstr("<td id=\"mean\">"));
  EXPECT_THAT(page, HasSubstr("aria-label=\"readings over time\""));
  EXPECT_THAT(page, HasSubstr("aria-label=\"histogram\""));
  EXPECT_THAT(page, HasSubstr("upper 1250"));
  EXPECT_THAT(Get("/check?name=Nothing"), HasSubstr("No numeric reading"));

  // Bad input: an error page, and the server goes on.
  for (const std::string& bad : std::vector<std::string>{
           "/units?page=0", "/units?page=abc", "/units?page=99999999999999999999",
           "/units?verdict=MAYBE", "/units?from=yesterday", "/units?to=2026-13-45", "/unit",
           "/check", "/check?name=x&step=-1", "/analytics?verdict=PASS",
           "/units?serial=" + std::string(300, 'x'), "/units.csv?from=never"}) {
    EXPECT_THAT(Get(bad, 400), HasSubstr("class=\"error\"")) << bad;
  }
  Get("/unit?key=nothing-like-it", 404);
  Get("/no/such/page", 404);
  Get("/units?serial=%zz%", 200);
  // A request that is no HTTP at all, and one cut off half way: the
  // connection is dropped.
  EXPECT_THAT(Raw("NOT HTTP AT ALL\r\n\r\n"), Not(HasSubstr("200 OK")));
  Raw("GET /units?serial=12");
  EXPECT_THAT(Get("/units"), HasSubstr("4 units"));
}

INSTANTIATE_TEST_SUITE_P(BackEnds, PlantPagesTest, ::testing::Values("sqlite", "postgresql"),
                         [](const auto& info) { return info.param; });

TEST_F(PlantServerTest, AThousandRowsAPage) {
  {
    std::string error;
    StoreSpec spec;
    ASSERT_TRUE(ParseStoreSpec("", Home(), spec, &error));
    fs::create_directories(Home());
    auto store = OpenResultsStore(spec, &error);
    ASSERT_TRUE(store) << error;
    std::vector<StoredUut> batch;
    for (int i = 0; i < 2500; ++i) {
      char ended[32];
      // Two units end at each time: the pages part between records, not times.
      const int t = i / 2;
      std::snprintf(ended, sizeof ended, "2026-11-%02d %02d:%02d:%02d", 1 + t / 1000, t / 60 % 24,
                    t % 60, t % 7);
      batch.push_back(testing::SampleUut("k" + std::to_string(i), "S" + std::to_string(i), ended, 2,
                                         i % 10 == 0));
    }
    ASSERT_TRUE(store->record(batch, &error)) << error;
  }
  Start(Options());
  // The link of `id` on a page, as a path and query.
  auto link = [](const std::string& page, const std::string& id) {
    const auto at = page.find("\" id=\"" + id + "\"");
    if (at == std::string::npos) return std::string();
    const auto start = page.rfind("href=\"", at) + 6;
    std::string href = page.substr(start, at - start);
    for (size_t amp; (amp = href.find("&amp;")) != std::string::npos;) href.replace(amp, 5, "&");
    return href;
  };
  std::set<std::string> keys;
  auto collect = [&](const std::string& page) {
    for (size_t at = 0; (at = page.find("/unit?key=", at)) != std::string::npos;) {
      at += 10;
      keys.insert(page.substr(at, page.find('"', at) - at));
    }
  };
  std::string page = Get("/units");
  EXPECT_THAT(page, HasSubstr("2500 units, 1 to 1000 shown"));
  EXPECT_EQ(Count(page, "/unit?key="), 1000u);
  EXPECT_EQ(link(page, "newer"), "");
  collect(page);
  page = Get(link(page, "older"));
  EXPECT_THAT(page, HasSubstr("2500 units, 1001 to 2000 shown"));
  collect(page);
  page = Get(link(page, "older"));
  EXPECT_THAT(page, HasSubstr("2500 units, 2001 to 2500 shown"));
  EXPECT_EQ(Count(page, "/unit?key="), 500u);
  EXPECT_EQ(link(page, "older"), "");
  EXPECT_EQ(link(page, "oldest"), "");
  collect(page);
  EXPECT_EQ(keys.size(), 2500u);  // every unit once, ties or not
  page = Get(link(page, "newer"));
  EXPECT_THAT(page, HasSubstr("2500 units, 1001 to 2000 shown"));
  EXPECT_EQ(link(page, "newest"), "/units");
  page = Get(link(page, "oldest"));
  EXPECT_THAT(page, HasSubstr("2500 units, 1501 to 2500 shown"));
  EXPECT_THAT(page, HasSubstr("key=k0\""));  // the oldest last
  // A search is kept from page to page.
  page = Get("/units?verdict=FAIL&oldest=1");
  EXPECT_THAT(page, HasSubstr("250 units, 1 to 250 shown"));
  page = Get("/units?verdict=FAIL");
  EXPECT_EQ(link(page, "older"), "");
  page = Get("/units?page=3");
  EXPECT_THAT(page, HasSubstr("2500 units, 2001 to 2500 shown"));
  page = Get("/units?page=4");
  EXPECT_EQ(Count(page, "/unit?key="), 0u);
  for (const char* bad : {"/units?older=nothing", "/units?newer=k1&older=k2",
                          "/units?oldest=1&page=2", "/units?oldest=2"}) {
    EXPECT_THAT(Get(bad, 400), HasSubstr("class=\"error\"")) << bad;
  }
  const std::string csv = Get("/units.csv");
  EXPECT_EQ(Count(csv, "\r\n"), 1u + 2500u * 2u);
}

TEST_F(PlantServerTest, TokensCookiesAndWhereItListens) {
  // No address but loopback without TLS and a token, and nothing bound.
  std::string error;
  ServerOptions o = Options();
  o.listen = "0.0.0.0:0";
  EXPECT_FALSE(Server::Start(testFiles(), o, &error));
  EXPECT_THAT(error, HasSubstr("refused to listen on 0.0.0.0"));
  o.tokenFile = Path("early.key");
  Key("early.key");
  EXPECT_FALSE(Server::Start(testFiles(), o, &error));
  EXPECT_THAT(error, HasSubstr("needs TLS"));
  o.listen = "[::]:0";
  EXPECT_FALSE(Server::Start(testFiles(), o, &error));
  o.tlsCert = Path("cert.pem");
  EXPECT_FALSE(Server::Start(testFiles(), o, &error));
  EXPECT_THAT(error, HasSubstr("both a certificate"));
  o = Options();
  o.listen = "127.0.0.1:99999";
  EXPECT_FALSE(Server::Start(testFiles(), o, &error));
  o.listen = "nonsense";
  EXPECT_FALSE(Server::Start(testFiles(), o, &error));
  o = Options();
  o.allowControl = true;
  EXPECT_FALSE(Server::Start(testFiles(), o, &error));
  EXPECT_THAT(error, HasSubstr("--control-token-file"));
  o = Options();
  o.tokenFile = Path("unreadable.key");
  EXPECT_FALSE(Server::Start(testFiles(), o, &error));
  EXPECT_TRUE(IsLoopback("127.0.0.1") && IsLoopback("127.8.0.1") && IsLoopback("::1") &&
              IsLoopback("localhost"));
  EXPECT_FALSE(IsLoopback("0.0.0.0") || IsLoopback("10.0.0.1") || IsLoopback("::") ||
               IsLoopback("128.0.0.1"));

  RunExample("2026-11-15 14:30:05", "rig-7");
  o = Options();
  const std::string viewer = Key("viewer.key");
  o.tokenFile = Path("viewer.key");
  o.sessionSeconds = 600;
  Start(o);
  EXPECT_THAT(Get("/units", 401), HasSubstr("name=\"token\""));
  Get("/units", 401, {{"Authorization", "Bearer " + std::string(64, '0')}});
  Get("/units", 401, {{"Authorization", "Bearer"}});
  Get("/live/events", 401);
  Get("/units.csv", 401);
  EXPECT_THAT(Get("/units", 200, {{"Authorization", "Bearer " + viewer}}), HasSubstr("2 units"));
  // A forged cookie is no login.
  Get("/units", 401, {{"Cookie", "tavrix_session=" + std::string(64, 'a')}});

  // The login form sets a cookie that holds for the session's time.
  auto res = client_->Post("/login", "token=wrong", "application/x-www-form-urlencoded");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 401);
  EXPECT_THAT(res->body, HasSubstr("not known here"));
  res = client_->Post("/login", "token=" + viewer, "application/x-www-form-urlencoded");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 303);
  const std::string setCookie = res->get_header_value("Set-Cookie");
  EXPECT_THAT(setCookie, HasSubstr("HttpOnly"));
  EXPECT_THAT(setCookie, HasSubstr("SameSite=Strict"));
  const std::string cookie = setCookie.substr(0, setCookie.find(';'));
  Get("/units", 200, {{"Cookie", "other=1; " + cookie}});
  now_ += 599;
  Get("/analytics", 200, {{"Cookie", cookie}});
  now_ += 2;  // expired
  Get("/units", 401, {{"Cookie", cookie}});
  // A login posted from another site is refused.
  res = client_->Post("/login", {{"Origin", "http://elsewhere.example"}}, "token=" + viewer,
                      "application/x-www-form-urlencoded");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 403);
}

TEST_P(PlantPagesTest, StationsPublishTheirRunsAndOneSilentForThirtySecondsIsOffline) {
  std::string store;
  if (GetParam() == "postgresql") {
    std::string reason;
    if (testing::SharedServer(&reason) == nullptr) GTEST_SKIP() << reason;
    store = testing::FreshPostgresDatabase();
    ASSERT_FALSE(store.empty());
  }
  fs::create_directories(Home());
  ServerOptions o = Options(store);
  o.station = "LINE3";
  o.publishSeconds = 3600;  // the test publishes itself
  Start(o);
  EXPECT_THAT(Get("/plant"), HasSubstr("http-equiv=\"refresh\""));
  std::string error;
  ASSERT_TRUE(server_->publishNow(&error)) << error;
  {
    // Two other stations: one heard from 30 s ago, one 31 s ago.
    auto direct = OpenResultsStore(o.store, &error);
    ASSERT_TRUE(direct) << error;
    ASSERT_TRUE(PublishStationStatus(
        *direct, {"rig-a", R"([{"id":"r1","socket":"S1","state":"held","line":12}])", now_ - 30},
        &error))
        << error;
    ASSERT_TRUE(PublishStationStatus(*direct, {"rig-b", "[]", now_ - 31}, &error)) << error;
  }
  std::string page = Get("/plant");
  EXPECT_THAT(page, HasSubstr("<h2>LINE3</h2><p class=\"state-running\">online</p><p>No run is "
                              "going.</p>"));
  EXPECT_THAT(page, HasSubstr("<h2>rig-a</h2><p class=\"state-running\">online</p>"));
  EXPECT_THAT(page, HasSubstr("<td>r1</td><td>S1</td><td class=\"state-held\">held</td><td>12"));
  EXPECT_THAT(page, HasSubstr("<h2>rig-b</h2><p class=\"state-offline\">offline (silent 31 s)"));
  // Publishing again replaces the station's row; time goes on for the rest.
  now_ += 10;
  ASSERT_TRUE(server_->publishNow(&error)) << error;
  page = Get("/plant");
  EXPECT_EQ(Count(page, "<h2>LINE3</h2>"), 1u);
  EXPECT_THAT(page, HasSubstr("<h2>LINE3</h2><p class=\"state-running\">online"));
  EXPECT_THAT(page, HasSubstr("<h2>rig-a</h2><p class=\"state-offline\">offline (silent 40 s)"));
}

// A self-signed certificate for 127.0.0.1 and its key, as PEM files.
bool WriteCertificate(const std::string& certFile, const std::string& keyFile) {
  EVP_PKEY* key = EVP_RSA_gen(2048);
  X509* cert = X509_new();
  if (!key || !cert) return false;
  ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert), 0);
  X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
  X509_set_pubkey(cert, key);
  X509_NAME* name = X509_get_subject_name(cert);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
  X509_set_issuer_name(cert, name);
  bool ok = X509_sign(cert, key, EVP_sha256()) > 0;
  FILE* c = std::fopen(certFile.c_str(), "w");
  FILE* k = std::fopen(keyFile.c_str(), "w");
  ok = ok && c && k && PEM_write_X509(c, cert) &&
       PEM_write_PrivateKey(k, key, nullptr, nullptr, 0, nullptr, nullptr);
  if (c) std::fclose(c);
  if (k) std::fclose(k);
  X509_free(cert);
  EVP_PKEY_free(key);
  return ok;
}

TEST_F(PlantServerTest, OverTlsTheTokenIsNeededAndTheCookieIsSecure) {
  RunExample("2026-11-15 14:30:05", "rig-7");
  ASSERT_TRUE(WriteCertificate(Path("cert.pem"), Path("key.pem")));
  ServerOptions o = Options();
  o.tlsCert = Path("cert.pem");
  o.tlsKey = Path("key.pem");
  o.tokenFile = Path("viewer.key");
  const std::string viewer = Key("viewer.key");
  std::string error;
  // A key that is not the certificate's is refused.
  ServerOptions wrong = o;
  wrong.tlsKey = Path("viewer.key");
  EXPECT_FALSE(Server::Start(testFiles(), wrong, &error));
  EXPECT_THAT(error, HasSubstr("cannot use the certificate"));

  auto server = Server::Start(testFiles(), o, &error);
  ASSERT_TRUE(server) << error;
  EXPECT_TRUE(server->tls());
  httplib::SSLClient tls("127.0.0.1", server->port());
  tls.enable_server_certificate_verification(false);
  auto res = tls.Get("/units");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 401);
  res = tls.Get("/units", {{"Authorization", "Bearer " + viewer}});
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_THAT(res->body, HasSubstr("2 units"));
  res = tls.Post("/login", "token=" + viewer, "application/x-www-form-urlencoded");
  ASSERT_TRUE(res);
  EXPECT_THAT(res->get_header_value("Set-Cookie"), HasSubstr("; Secure"));
  // Plain HTTP gets no page.
  httplib::Client plain("127.0.0.1", server->port());
  plain.set_read_timeout(5);
  res = plain.Get("/units", {{"Authorization", "Bearer " + viewer}});
  EXPECT_TRUE(!res || res->status != 200);
  server->stop();
}

// Follows /live/events on a thread of its own and keeps what arrived.
class EventStream {
 public:
  EventStream(int port, httplib::Headers headers) : client_("127.0.0.1", port) {
    client_.set_read_timeout(30);
    thread_ = std::thread([this, headers] {
      client_.Get("/live/events", headers, [this](const char* data, size_t length) {
        std::lock_guard guard(mutex_);
        text_.append(data, length);
        cv_.notify_all();
        return !closing_;
      });
      std::lock_guard guard(mutex_);
      ended_ = true;
      cv_.notify_all();
    });
  }
  ~EventStream() {
    {
      std::lock_guard guard(mutex_);
      closing_ = true;
    }
    client_.stop();
    thread_.join();
  }
  // Waits until what arrived holds `what`, for at most `seconds`.
  bool until(const std::string& what, int seconds) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, std::chrono::seconds(seconds), [&] {
      return text_.find(what) != std::string::npos || ended_;
    }) && text_.find(what) != std::string::npos;
  }
  std::string text() {
    std::lock_guard guard(mutex_);
    return text_;
  }

 private:
  httplib::Client client_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::string text_;
  bool closing_ = false;
  bool ended_ = false;
};

TEST_F(PlantServerTest, TheLivePageFollowsAHeldRunAndOnlyAControlTokenFromThisSiteStepsIt) {
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
  Captured out;
  int status = -1;
  std::thread run([&] {
    status = TavrixCliMain(testHost(),
                           {"tavrix-cli", "run", "--virtual-time", "--quiet", "--setup", setup,
                            "--break", "2", "--results-store", "off", seq},
                           nullptr, out.stream(), errWrite);
    std::fclose(errWrite);
  });
  char buffer[4096];
  ASSERT_NE(std::fgets(buffer, sizeof buffer, errRead), nullptr);
  const std::string held = buffer;
  const size_t at = held.find("ctl ") + 4;
  const std::string id = held.substr(at, held.find(' ', at) - at);

  fs::create_directories(Home());
  ServerOptions o = Options();
  const std::string viewer = Key("viewer.key");
  const std::string control = Key("control.key");
  o.tokenFile = Path("viewer.key");
  o.controlTokenFile = Path("control.key");
  o.allowControl = true;
  Start(o);
  const httplib::Headers asViewer = {{"Authorization", "Bearer " + viewer}};
  const httplib::Headers asControl = {{"Authorization", "Bearer " + control}};

  EventStream stream(server_->port(), asViewer);
  ASSERT_TRUE(stream.until("\"id\":\"" + id + "\"", 20)) << stream.text();
  ASSERT_TRUE(stream.until("\"state\":\"held\"", 20)) << stream.text();
  EXPECT_THAT(Get("/live", 200, asViewer), HasSubstr("new EventSource('/live/events')"));
  EXPECT_THAT(Get("/live", 200, asViewer), Not(HasSubstr("window.tavrixControl =")));

  auto post = [&](const httplib::Headers& h, const std::string& body) {
    auto res = client_->Post("/control", h, body, "application/x-www-form-urlencoded");
    EXPECT_TRUE(res);
    return res ? res->status : 0;
  };
  // A viewer may not, a bearer control token may.
  EXPECT_EQ(post(asViewer, "run=" + id + "&action=step"), 403);
  EXPECT_EQ(post(asControl, "run=" + id + "&action=dance"), 400);
  EXPECT_EQ(post(asControl, "run=../x&action=stop"), 400);
  EXPECT_EQ(post(asControl, "run=nosuchrun&action=pause"), 409);

  // A login of the control token: its forms carry the session's own value,
  // and a post from another site or without that value is refused.
  auto login = client_->Post("/login", "token=" + control, "application/x-www-form-urlencoded");
  ASSERT_TRUE(login);
  const std::string setCookie = login->get_header_value("Set-Cookie");
  const httplib::Headers cookie = {{"Cookie", setCookie.substr(0, setCookie.find(';'))}};
  const std::string livePage = Get("/live", 200, cookie);
  const size_t csrfAt = livePage.find("window.tavrixControl = \"");
  ASSERT_NE(csrfAt, std::string::npos);
  const size_t valueAt = csrfAt + std::string("window.tavrixControl = \"").size();
  const std::string csrf = livePage.substr(valueAt, livePage.find('"', valueAt) - valueAt);
  const std::string origin = "http://127.0.0.1:" + std::to_string(server_->port());
  httplib::Headers crossSite = cookie;
  crossSite.insert({"Origin", "http://elsewhere.example"});
  EXPECT_EQ(post(crossSite, "run=" + id + "&action=pause&csrf=" + csrf), 403);
  httplib::Headers sameSite = cookie;
  sameSite.insert({"Origin", origin});
  EXPECT_EQ(post(sameSite, "run=" + id + "&action=pause&csrf=wrong"), 403);
  httplib::Headers noOrigin = cookie;
  EXPECT_EQ(post(noOrigin, "run=" + id + "&action=pause&csrf=" + csrf), 403);
  EXPECT_EQ(post(sameSite, "run=" + id + "&action=pause&csrf=" + csrf), 303);
  // An answer goes to the run, which says no question of it waits here.
  EXPECT_EQ(post(asControl, "run=" + id + "&action=answer"), 400);
  EXPECT_EQ(post(asControl, "run=" + id + "&action=answer&answer=Continue"), 409);

  // Resume from the page: the run leaves its hold and runs to its end,
  // which the stream shows.
  EXPECT_EQ(post(asControl, "run=" + id + "&action=resume"), 200);
  EXPECT_TRUE(stream.until("\"state\":\"ended\"", 20)) << stream.text();
  run.join();
  std::fclose(errRead);
  EXPECT_EQ(status, kExitOk);

  // Every control action, refused or done, is in the audit log.
  std::string audit;
  ASSERT_TRUE(testFiles().readFile(Home() + "/plant-audit.log", audit, nullptr));
  EXPECT_EQ(Count(audit, "\n"), 11u) << audit;
  EXPECT_THAT(audit, HasSubstr("\tanswer Continue\trefused by the run: "));
  EXPECT_THAT(audit, HasSubstr("viewer token\t127.0.0.1\t" + id +
                               "\tstep\trefused: This token may not control runs."));
  EXPECT_THAT(audit,
              HasSubstr("\t" + id + "\tpause\trefused: A control request from another site"));
  EXPECT_THAT(audit, HasSubstr("control token\t127.0.0.1\t" + id + "\tresume\tdone"));
  EXPECT_THAT(audit, HasSubstr("\tpause\tdone"));

  // A server that was not given --allow-control controls nothing.
  server_->stop();
  o = Options();
  o.controlTokenFile = Path("control.key");
  Start(o);
  EXPECT_EQ(post(asControl, "run=" + id + "&action=stop"), 403);
}

// A run whose results go to a plant's server publishes its station there by
// itself, with no `serve` on the station: its run while it runs, and a last
// word without it when it ends. A run with the station's database file
// publishes nothing.
TEST_F(PlantServerTest, ARunPublishesItsStationIntoAPlantsServerWithoutServe) {
  std::string reason;
  if (testing::SharedServer(&reason) == nullptr) GTEST_SKIP() << reason;
  const std::string store = testing::FreshPostgresDatabase();
  ASSERT_FALSE(store.empty());
  std::mutex mutex;
  std::condition_variable published;
  std::vector<StationStatus> seen;
  StationPublisher::SetPublishedHook([&](const StationStatus& status) {
    std::lock_guard guard(mutex);
    seen.push_back(status);
    published.notify_all();
  });
  struct Unhook {
    ~Unhook() { StationPublisher::SetPublishedHook(nullptr); }
  } unhook;
  auto until = [&](const std::function<bool(const StationStatus&)>& what) {
    std::unique_lock lock(mutex);
    return published.wait_for(lock, std::chrono::seconds(20),
                              [&] { return !seen.empty() && what(seen.back()); });
  };

  const std::string setup = File("rig.ims", "D 1 MONITORS=1\n  10001 E=1 M=A N=OUT\n");
  const std::string seq = File("main.wts", "SEND OUT, 5\r\nWAITSECONDS 10\r\nWAITSECONDS 10\r\n");
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  std::FILE* errWrite = ::fdopen(pipeFds[1], "w");
  std::FILE* errRead = ::fdopen(pipeFds[0], "r");
  Captured out;
  int status = -1;
  const long long before = std::time(nullptr);
  std::thread run([&] {
    status = TavrixCliMain(testHost(),
                           {"tavrix-cli", "run", "--virtual-time", "--quiet", "--setup", setup,
                            "--break", "2", "--results-store", store, "--station", "LINE9", seq},
                           nullptr, out.stream(), errWrite);
    std::fclose(errWrite);
  });
  // The note of the hold names the run; a note of the results store may
  // come before it.
  char buffer[4096];
  std::string held;
  while (held.find("ctl ") == std::string::npos) {
    ASSERT_NE(std::fgets(buffer, sizeof buffer, errRead), nullptr) << held;
    held = buffer;
  }
  const size_t at = held.find("ctl ") + 4;
  const std::string id = held.substr(at, held.find(' ', at) - at);
  EXPECT_TRUE(until([&](const StationStatus& s) {
    return s.station == "LINE9" && s.runs.find("\"id\":\"" + id + "\"") != std::string::npos &&
           s.runs.find("\"state\":\"held\"") != std::string::npos;
  }));

  // What the plant page reads.
  std::string error;
  StoreSpec spec;
  ASSERT_TRUE(ParseStoreSpec(store, Home(), spec, &error)) << error;
  auto direct = OpenResultsStore(spec, &error);
  ASSERT_TRUE(direct) << error;
  std::vector<StationStatus> stations;
  ASSERT_TRUE(ReadStationStatus(*direct, stations, &error)) << error;
  ASSERT_EQ(stations.size(), 1u);
  EXPECT_EQ(stations[0].station, "LINE9");
  EXPECT_THAT(stations[0].runs, HasSubstr("\"id\":\"" + id + "\""));
  EXPECT_THAT(stations[0].runs, HasSubstr("\"line\":2"));
  EXPECT_GE(stations[0].heartbeat, before);
  EXPECT_LE(stations[0].heartbeat, std::time(nullptr));
  now_ = std::time(nullptr);
  Start(Options(store));
  std::string page = Get("/plant");
  EXPECT_THAT(page, HasSubstr("<h2>LINE9</h2><p class=\"state-running\">online</p>"));
  EXPECT_THAT(page, HasSubstr("<td>" + id + "</td>"));

  // The run goes on to its end; its last word leaves it out.
  EXPECT_EQ(Cli({"ctl", id, "resume"}), kExitOk) << err_;
  run.join();
  std::fclose(errRead);
  EXPECT_EQ(status, kExitOk);
  {
    std::lock_guard guard(mutex);
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back().runs, "[]");
  }
  ASSERT_TRUE(ReadStationStatus(*direct, stations, &error)) << error;
  ASSERT_EQ(stations.size(), 1u);
  EXPECT_EQ(stations[0].runs, "[]");
  page = Get("/plant");
  EXPECT_THAT(page, HasSubstr("<h2>LINE9</h2><p class=\"state-running\">online</p><p>No run is "
                              "going.</p>"));
}

TEST_F(PlantServerTest, ARunWithTheStationsDatabaseFilePublishesNothing) {
  std::atomic<int> publications{0};
  StationPublisher::SetPublishedHook([&](const StationStatus&) { ++publications; });
  struct Unhook {
    ~Unhook() { StationPublisher::SetPublishedHook(nullptr); }
  } unhook;
  RunExample("2026-11-15 14:30:05", "rig-7");
  std::string error;
  StoreSpec spec;
  ASSERT_TRUE(ParseStoreSpec("", Home(), spec, &error)) << error;
  auto store = OpenResultsStore(spec, &error);
  ASSERT_TRUE(store) << error;
  std::vector<StationStatus> stations;
  ASSERT_TRUE(ReadStationStatus(*store, stations, &error)) << error;
  EXPECT_TRUE(stations.empty());
  EXPECT_EQ(publications, 0);
}

// A unit's page links to the results files written for it, served from the
// results folder only: a file the store names outside it, or a link inside
// that leads out, is refused, whatever the store says.
TEST_F(PlantServerTest, AUnitsResultsFilesAreServedFromTheResultsFolderOnly) {
  // The example writes its results files into the folder it runs in.
  RunExample("2026-11-15 14:30:05", "rig-7");
  const testing::TempFolder elsewhere;
  const std::string secret = elsewhere.file("secret.txt");
  { std::ofstream(secret) << "not for the page"; }
  fs::create_symlink(secret, Path("leads-out.txt"));
  std::string error;
  {
    StoreSpec spec;
    ASSERT_TRUE(ParseStoreSpec("", Home(), spec, &error)) << error;
    auto store = OpenResultsStore(spec, &error);
    ASSERT_TRUE(store) << error;
    StoredUut evil = testing::SampleUut("evil", "666", "2026-11-15 15:00:00");
    evil.files = {Path("../" + fs::path(elsewhere.path()).filename().string() + "/secret.txt"),
                  Path("leads-out.txt"), Path("gone.txt"), secret};
    ASSERT_TRUE(store->record({evil}, &error)) << error;
  }
  ServerOptions o = Options();
  o.resultsFolder = Path("");
  Start(o);

  // The example's failed unit: its summary and details files.
  std::string page = Get("/units?serial=1235");
  const size_t at = page.find("/unit?key=");
  ASSERT_NE(at, std::string::npos);
  const std::string unitPath = page.substr(at, page.find('"', at) - at);
  page = Get(unitPath);
  ASSERT_THAT(page, HasSubstr("<ul id=\"files\">"));
  EXPECT_EQ(Count(page, "/file?key="), 2u) << page;
  const size_t link = page.find("/file?key=");
  std::string filePath = page.substr(link, page.find('"', link) - link);
  for (size_t amp; (amp = filePath.find("&amp;")) != std::string::npos;)
    filePath.replace(amp, 5, "&");
  EXPECT_THAT(Get(filePath), HasSubstr("1235"));

  page = Get("/unit?key=evil");
  EXPECT_EQ(Count(page, "/file?key="), 0u);
  EXPECT_EQ(Count(page, "(outside the results folder)"), 3u);
  EXPECT_THAT(page, HasSubstr("gone.txt (not here)"));
  for (int n : {1, 2, 4}) {
    EXPECT_THAT(Get("/file?key=evil&n=" + std::to_string(n), 403),
                Not(HasSubstr("not for the page")));
  }
  Get("/file?key=evil&n=3", 404);
  Get("/file?key=evil&n=5", 404);
  Get("/file?key=../../etc/passwd&n=1", 404);
  Get("/file?key=evil&n=0", 400);
  Get("/file?key=evil&n=..%2Fsecret.txt", 400);
  Get("/file", 400);
}

// The window's plant view: serve started as a child on loopback for the
// window's store, found where it says it serves, and gone when stopped.
TEST_F(PlantServerTest, TheWindowsLauncherStartsServeOnLoopbackAndStopsIt) {
  RunExample("2026-11-15 14:30:05", "rig-7");
  EXPECT_EQ(PlantViewLauncher::ViewAddress(
                "tavrix-cli serve: the plant view is at http://127.0.0.1:4711/ (results store x)"),
            "http://127.0.0.1:4711/");
  EXPECT_EQ(PlantViewLauncher::ViewAddress("the plant view is at http://10.0.0.5:80/ (x)"), "");
  EXPECT_EQ(PlantViewLauncher::ViewAddress("something else"), "");

  PlantViewLauncher launcher;
  std::string error;
  const std::string url = launcher.start(
      TAVRIX_CLI_PROGRAM, PlantViewLauncher::ServeArguments("sqlite:" + Home() + "/results.sqlite"),
      &error);
  ASSERT_FALSE(url.empty()) << error;
  EXPECT_TRUE(launcher.running());
  EXPECT_EQ(launcher.start(TAVRIX_CLI_PROGRAM, {"never", "run"}, &error), url);  // already there
  const int port = std::stoi(url.substr(std::string("http://127.0.0.1:").size()));
  httplib::Client viewer("127.0.0.1", port);
  viewer.set_read_timeout(20);
  auto res = viewer.Get("/units");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_THAT(res->body, HasSubstr("2 units"));
  launcher.stop();
  EXPECT_FALSE(launcher.running());
  EXPECT_FALSE(viewer.Get("/units"));  // nothing listens there any more

  // A store that cannot be served: what serve said, and nothing left running.
  EXPECT_EQ(launcher.start(TAVRIX_CLI_PROGRAM, PlantViewLauncher::ServeArguments("off"), &error),
            "");
  EXPECT_THAT(error, HasSubstr("the results store is off"));
  EXPECT_FALSE(launcher.running());
  EXPECT_EQ(launcher.start(Path("no-such-program"), {}, &error), "");
  EXPECT_FALSE(error.empty());
}

}  // namespace
}  // namespace tavrix::plant
