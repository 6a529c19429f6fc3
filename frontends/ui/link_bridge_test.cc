// How the window reaches the rig PC's libraries: which link it uses, which
// bridge it starts and with what command line, and that a bridge it starts
// serves and ends with it. The simulated rig stands in for the libraries,
// which load only on Windows.
#include "link_bridge.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <atomic>
#include <thread>

#include "common/clock.h"
#include "instrument/tcp/link_key.h"
#include "instrument/tcp/rig_server.h"
#include "instrument/tcp/tcp_link.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

bool Opens(const std::string& link, const std::string& key = "") {
  SystemClock clock;
  const std::string address = link.substr(std::string("tcp://").size());
  const size_t colon = address.rfind(':');
  TcpLink tcp(clock, address.substr(0, colon),
              static_cast<uint16_t>(std::stoi(address.substr(colon + 1))), testFiles());
  tcp.setKey(key);
  int16_t handle = 0;
  return tcp.openInterface(handle) == link_result::kOk;
}

TEST(LinkBridge, TheSettingsDecideWhetherTheWindowNeedsABridge) {
  InstrumentSettings settings;
  EXPECT_EQ(PlanLink(settings, "", false, "/opt/tavrix").link, "sim");
  EXPECT_FALSE(PlanLink(settings, "", false, "/opt/tavrix").bridge);
  settings.link = "tcp://10.1.2.3:5025";
  EXPECT_EQ(PlanLink(settings, "", false, "/opt/tavrix").link, "tcp://10.1.2.3:5025");

  // The dll link: in the window itself where the libraries load there, else
  // through the bridge beside the window on the loopback port.
  settings.link = "dll";
  EXPECT_EQ(PlanLink(settings, "", true, "/opt/tavrix").link, "dll");
  EXPECT_FALSE(PlanLink(settings, "", true, "/opt/tavrix").bridge);
  LinkPlan plan = PlanLink(settings, "/opt/tavrix/tavrix.cfg", false, "/opt/tavrix");
  EXPECT_TRUE(plan.bridge);
  EXPECT_EQ(plan.link, "tcp://127.0.0.1:5026");
  EXPECT_EQ(plan.program, "/opt/tavrix/tavrix-cli32.exe");
  EXPECT_EQ(plan.arguments.join(' '),
            "rig --link dll --listen 127.0.0.1:5026 --instrument-settings /opt/tavrix/tavrix.cfg");

  // The program and port of the settings, and a key passed on.
  settings.bridgeProgram = "c:/tavrix32/tavrix-cli.exe";
  settings.bridgePort = 6000;
  settings.linkKeyFile = "c:/keys/rig.key";
  plan = PlanLink(settings, "", false, "/opt/tavrix");
  EXPECT_EQ(plan.program, "c:/tavrix32/tavrix-cli.exe");
  EXPECT_EQ(plan.link, "tcp://127.0.0.1:6000");
  EXPECT_EQ(plan.arguments.join(' '),
            "rig --link dll --listen 127.0.0.1:6000 --key c:/keys/rig.key");
#if !defined(_WIN32)
  EXPECT_FALSE(DllLoadsInProcess(settings, testFiles()));
#endif
}

TEST(LinkBridge, ABridgeStartedByTheWindowServesAndEndsWithIt) {
  LinkPlan plan;
  plan.bridge = true;
  plan.program = TAVRIX_CLI_PATH;
  plan.arguments = {"rig", "--link", "sim", "--listen", "127.0.0.1:0"};
  std::string error;
  std::string link;
  {
    auto bridge = LinkBridge::findOrStart(testFiles(), plan, "", &error);
    ASSERT_NE(bridge, nullptr) << error;
    EXPECT_TRUE(bridge->started());
    link = bridge->link();
    EXPECT_EQ(link.rfind("tcp://127.0.0.1:", 0), 0u) << link;
    EXPECT_TRUE(Opens(link));
  }
  EXPECT_FALSE(Opens(link));

  // A program that is not there, and one that ends at once, say why.
  plan.program = TAVRIX_CLI_PATH ".missing";
  EXPECT_EQ(LinkBridge::findOrStart(testFiles(), plan, "", &error), nullptr);
  EXPECT_NE(error.find("does not start"), std::string::npos) << error;
  plan.program = TAVRIX_CLI_PATH;
  plan.arguments = {"rig", "--listen", "0.0.0.0:0"};
  EXPECT_EQ(LinkBridge::findOrStart(testFiles(), plan, "", &error), nullptr);
  EXPECT_NE(error.find(" ended: tavrix-cli rig: listening on 0.0.0.0"), std::string::npos) << error;
}

TEST(LinkBridge, ABridgeAlreadyServingIsUsedAsItIs) {
  RigServer server;
  std::string error;
  ASSERT_TRUE(server.listen("127.0.0.1:0", &error)) << error;
  std::atomic<bool> stop{false};
  std::thread serving([&] { server.serve(stop); });
  LinkPlan plan;
  plan.bridge = true;
  plan.port = server.port();
  plan.program = TAVRIX_CLI_PATH ".missing";
  auto bridge = LinkBridge::findOrStart(testFiles(), plan, "", &error);
  ASSERT_NE(bridge, nullptr) << error;
  EXPECT_FALSE(bridge->started());
  EXPECT_EQ(bridge->link(), "tcp://127.0.0.1:" + std::to_string(server.port()));
  stop = true;
  serving.join();
}

}  // namespace
}  // namespace tavrix

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
