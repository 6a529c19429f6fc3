// `tavrix-cli results` over what `tavrix-cli run` of the pump example
// leaves: the UUTs in the results files and in the store of the data root.
#include "results_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "cli_test_support.h"
#include "common/file_system.h"
#include "resultsdb/results_queue.h"
#include "resultsdb/results_store.h"
#include "testing/test_files.h"

namespace tavrix {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;

class ResultsCliTest : public CliTestBase {
 protected:
  ResultsCliTest() {
    std::filesystem::copy(TAVRIX_SOURCE_DIR "/examples", Path("examples"),
                          std::filesystem::copy_options::recursive);
  }

  // Runs the pump example from the folder, as from the top of the repository.
  int RunExample(std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {"run",       "--virtual-time",
                                     "--start",   "2026-11-15 14:30:05",
                                     "--setup",   "examples/rig.ims",
                                     "--answers", "examples/uut_test.answers",
                                     "--station", "rig-7"};
    args.insert(args.end(), extra.begin(), extra.end());
    args.push_back("examples/uut_test.wts");
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(dir_);
    const int status = Cli(args);
    std::filesystem::current_path(before);
    return status;
  }

  std::string Read(const std::string& name) const {
    std::ifstream in(Path(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
};

TEST_F(ResultsCliTest, TheExampleRunLeavesItsUutsInTheFilesAndTheStoreForEveryQuery) {
  ASSERT_EQ(RunExample(), kExitUutFailed) << err_;
  EXPECT_TRUE(std::filesystem::exists(Path("results/SN_1234_261115_144035.txt")));
  EXPECT_TRUE(std::filesystem::exists(Path("home/results.sqlite")));

  ASSERT_EQ(Cli({"results", "list", "--json"}), kResultsDone) << err_;
  const json listed = json::parse(out_);
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0]["serial"], "1235");  // newest first
  EXPECT_EQ(listed[0]["verdict"], "FAIL");
  EXPECT_EQ(listed[0]["station"], "rig-7");
  EXPECT_EQ(listed[1]["serial"], "1234");
  EXPECT_EQ(listed[1]["operators"], "Ann Lee");
  EXPECT_EQ(listed[1]["ended"], "2026-11-15 14:40:35");

  ASSERT_EQ(Cli({"results", "show", "1235"}), kResultsDone) << err_;
  EXPECT_THAT(out_, HasSubstr("Serial_Number: 1235\nResult: FAIL\nTest: Pump test"));
  EXPECT_THAT(out_, HasSubstr("DIFFERENCE"));
  EXPECT_THAT(out_, HasSubstr("OVEN-AMBIENT"));
  EXPECT_THAT(out_, HasSubstr("Fail    Value: "));
  EXPECT_EQ(Cli({"results", "show", "9999"}), kResultsFailed);
  EXPECT_THAT(err_, HasSubstr("no UUT with serial number 9999"));

  ASSERT_EQ(Cli({"results", "list", "--verdict", "pass"}), kResultsDone) << err_;
  EXPECT_THAT(out_, HasSubstr("rig-7"));
  EXPECT_THAT(out_, HasSubstr("1234"));
  EXPECT_THAT(out_, Not(HasSubstr("1235")));
  ASSERT_EQ(Cli({"results", "list", "--from", "2026-11-16"}), kResultsDone);
  EXPECT_THAT(out_, Not(HasSubstr("1234")));
  EXPECT_EQ(Cli({"results", "list", "--from", "yesterday"}), kResultsUsage);

  ASSERT_EQ(Cli({"results", "export", "--csv", "--output", Path("all.csv")}), kResultsDone) << err_;
  const std::string csv = Read("all.csv");
  const int checks = listed[0]["checks"].get<int>() + listed[1]["checks"].get<int>();
  EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 1 + checks);  // header, one line a check
  EXPECT_THAT(csv, HasSubstr(",1234,2026-11-15 00:00:00,Ann Lee,Pump A,"));
  EXPECT_FALSE(std::filesystem::exists(Path("all.csv.part")));
  EXPECT_EQ(Cli({"results", "export"}), kResultsUsage);

  ASSERT_EQ(Cli({"results", "export", "--json", "--serial", "1234"}), kResultsDone);
  const json exported = json::parse(out_);
  ASSERT_EQ(exported.size(), 1u);
  EXPECT_EQ(exported[0]["checks"].size(), listed[1]["checks"].get<size_t>());
  EXPECT_EQ(exported[0]["checks"][0]["kind"], "MANUAL");

  ASSERT_EQ(Cli({"results", "yield", "--json"}), kResultsDone);
  const json yield = json::parse(out_);
  ASSERT_EQ(yield.size(), 1u);
  EXPECT_EQ(yield[0]["day"], "2026-11-15");
  EXPECT_EQ(yield[0]["tested"], 2);
  EXPECT_EQ(yield[0]["passed"], 1);
}

TEST_F(ResultsCliTest, FirstPassYieldCpkAndTopFailuresOfTwoDaysOfRuns) {
  ASSERT_EQ(RunExample(), kExitUutFailed) << err_;
  // The same two pumps again the next day on another rig: both are retests.
  std::vector<std::string> again = {"run",
                                    "--virtual-time",
                                    "--start",
                                    "2026-11-16 09:00:00",
                                    "--setup",
                                    "examples/rig.ims",
                                    "--answers",
                                    "examples/uut_test.answers",
                                    "--station",
                                    "rig-8",
                                    "examples/uut_test.wts"};
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(dir_);
  ASSERT_EQ(Cli(again), kExitUutFailed) << err_;
  std::filesystem::current_path(before);

  ASSERT_EQ(Cli({"results", "yield", "--first-pass", "--json"}), kResultsDone) << err_;
  const json yield = json::parse(out_);
  ASSERT_EQ(yield["yield"].size(), 2u);
  EXPECT_EQ(yield["yield"][0]["day"], "2026-11-16");
  EXPECT_EQ(yield["yield"][0]["tested"], 2);
  EXPECT_EQ(yield["yield"][0]["first_tested"], 0);
  EXPECT_EQ(yield["yield"][0]["retests"], 2);
  EXPECT_EQ(yield["yield"][1]["first_tested"], 2);
  EXPECT_EQ(yield["yield"][1]["first_passed"], 1);
  EXPECT_DOUBLE_EQ(yield["yield"][1]["first_pass_yield"].get<double>(), 0.5);
  ASSERT_EQ(yield["retested"].size(), 2u);
  EXPECT_EQ(yield["retested"][0]["tests"], 2);
  ASSERT_EQ(Cli({"results", "yield", "--first-pass"}), kResultsDone) << err_;
  EXPECT_THAT(out_, HasSubstr("First-pass yield"));
  EXPECT_THAT(out_, HasSubstr("2 serial numbers tested more than once (2 retests)"));

  // Cpk of the fan speed against a value worked out here from the exported
  // readings, in the order the units ended.
  ASSERT_EQ(Cli({"results", "export", "--json"}), kResultsDone) << err_;
  const json all = json::parse(out_);
  std::vector<double> fan;
  for (auto u = all.rbegin(); u != all.rend(); ++u) {
    for (const auto& c : (*u)["checks"]) {
      if (c["parameter"] == "Fan speed") fan.push_back(std::stod(c["value"].get<std::string>()));
    }
  }
  ASSERT_GE(fan.size(), 3u);
  double mean = 0;
  for (double v : fan) mean += v / fan.size();
  double ranges = 0;
  for (size_t i = 1; i < fan.size(); ++i) ranges += std::fabs(fan[i] - fan[i - 1]);
  ASSERT_EQ(Cli({"results", "cpk", "Fan speed", "--json"}), kResultsDone) << err_;
  const json cpk = json::parse(out_);
  EXPECT_EQ(cpk["readings"], fan.size());
  EXPECT_NEAR(cpk["mean"].get<double>(), mean, 1e-9);
  EXPECT_EQ(cpk["lower"], 1150.0);
  EXPECT_EQ(cpk["upper"], 1250.0);
  const double within = ranges / (fan.size() - 1) / 1.128;
  if (within > 0) {
    EXPECT_NEAR(cpk["cpk"].get<double>(), std::min(1250 - mean, mean - 1150) / (3 * within), 1e-9);
  } else {
    EXPECT_TRUE(cpk["cpk"].is_null());
  }
  ASSERT_EQ(Cli({"results", "cpk", "Fan speed"}), kResultsDone) << err_;
  EXPECT_THAT(out_, HasSubstr("Limits: 1150.000 to 1250.000"));
  // One name checked at two stages against other limits.
  ASSERT_EQ(Cli({"results", "cpk", "OVEN-AMBIENT", "--json"}), kResultsDone) << err_;
  EXPECT_EQ(json::parse(out_)["limits_varied"], true);
  ASSERT_EQ(Cli({"results", "cpk", "OVEN-AMBIENT", "--step", "2", "--json"}), kResultsDone);
  EXPECT_EQ(json::parse(out_)["limits_varied"], false);
  EXPECT_EQ(json::parse(out_)["upper"], 3.0);
  EXPECT_EQ(Cli({"results", "cpk", "No such check"}), kResultsFailed);
  EXPECT_THAT(err_, HasSubstr("no numeric reading of check \"No such check\""));

  ASSERT_EQ(Cli({"results", "top-failures", "--json"}), kResultsDone) << err_;
  const json top = json::parse(out_);
  ASSERT_EQ(top.size(), 1u);
  EXPECT_EQ(top[0]["check"], "OVEN-AMBIENT");
  EXPECT_EQ(top[0]["step"], 2);
  EXPECT_EQ(top[0]["failed"], 2);
  EXPECT_EQ(top[0]["checked"], 4);
  ASSERT_EQ(Cli({"results", "top-failures", "--station", "rig-7"}), kResultsDone) << err_;
  EXPECT_THAT(out_, HasSubstr("OVEN-AMBIENT  1       2"));
}

TEST_F(ResultsCliTest, ImportTakesAFolderOnceAndSkipsABadFileWhole) {
  ASSERT_EQ(RunExample({"--results-store", "off"}), kExitUutFailed) << err_;
  EXPECT_FALSE(std::filesystem::exists(Path("home/results.sqlite")));
  File("results/SN_77_261115_100000.txt",
       "Test_Details Date=15-11-2026\r\nTest\r\nTitle: Pump test\r\nVersion 2\r\n");
  const std::vector<std::string> import = {"results",   "import",  Path("results"),
                                           "--station", "old-rig", "--json"};
  EXPECT_EQ(Cli(import), kResultsFailed);
  EXPECT_THAT(err_, HasSubstr("SN_77_261115_100000.txt line 4: \"Version: \" expected; the file "
                              "is skipped"));
  const json report = json::parse(out_);
  EXPECT_EQ(report["uuts"], 2);
  EXPECT_EQ(report["summary_files"], 1);
  // Imported again, nothing is doubled.
  EXPECT_EQ(Cli(import), kResultsFailed);
  ASSERT_EQ(Cli({"results", "list", "--station", "old-rig", "--json"}), kResultsDone);
  EXPECT_EQ(json::parse(out_).size(), 2u);
}

TEST_F(ResultsCliTest, AServerThatCannotBeReachedNeitherEndsTheRunNorLosesItsRecords) {
  const std::string secret = "Hunter2Secret";
  const std::string unreachable =
      "postgresql://plant:" + secret + "@/results?host=" + Path("no-server") + "&connect_timeout=1";
  ASSERT_EQ(RunExample({"--results-store", unreachable, "--trace", Path("trace.jsonl")}),
            kExitUutFailed)
      << err_;
  EXPECT_THAT(err_, HasSubstr("2 UUT records wait in"));
  EXPECT_THAT(err_, HasSubstr("user=plant"));
  EXPECT_THAT(err_, Not(HasSubstr(secret)));
  const std::string trace = Read("trace.jsonl");
  EXPECT_THAT(trace, HasSubstr("\"ev\":\"results_store\""));
  EXPECT_THAT(trace, Not(HasSubstr(secret)));
  ResultsQueue queue(testFiles(), Path("home/results-queue.journal"),
                     StoreKey({StoreSpec::Kind::kPostgres, unreachable}));
  ASSERT_TRUE(queue.open(nullptr));
  EXPECT_EQ(queue.size(), 2u);

  // The next run, with another store, leaves them for the server they were
  // made for.
  ASSERT_EQ(RunExample(), kExitUutFailed) << err_;
  ASSERT_EQ(Cli({"results", "list", "--json"}), kResultsDone) << err_;
  EXPECT_EQ(json::parse(out_).size(), 2u);
  EXPECT_EQ(queue.size(), 2u);

  // `results queue` tells what waits and for which store; --retry tries it.
  ASSERT_EQ(Cli({"results", "queue", "--json"}), kResultsDone) << err_;
  const json waiting = json::parse(out_);
  ASSERT_EQ(waiting.size(), 2u);
  EXPECT_THAT(waiting[0]["store"].get<std::string>(), HasSubstr("user=plant"));
  EXPECT_EQ(waiting[0]["state"], "waiting");
  EXPECT_THAT(out_, Not(HasSubstr(secret)));
  EXPECT_EQ(Cli({"results", "queue", "--retry"}), kResultsFailed);
  EXPECT_THAT(err_, HasSubstr("2 still wait"));
  EXPECT_THAT(out_, HasSubstr("waiting"));
  EXPECT_EQ(queue.size(), 2u);
  EXPECT_EQ(Cli({"results", "queue", "--store", "sqlite"}), kResultsDone) << err_;
  EXPECT_THAT(out_, Not(HasSubstr("waiting")));

  // A record its store refused is shown with the reason and not sent again.
  ASSERT_TRUE(
      queue.setAside(waiting[0]["key"].get<std::string>(), "value out of range: \x1b[2J", nullptr));
  EXPECT_EQ(Cli({"results", "queue"}), kResultsDone) << err_;
  EXPECT_THAT(out_, HasSubstr("set aside: value out of range: \\x1B[2J"));
  EXPECT_THAT(out_, HasSubstr("waiting"));
  EXPECT_EQ(queue.size(), 1u);
}

TEST_F(ResultsCliTest, AJournalThatCannotBeWrittenIsReportedAsLossUnlessTheStoreTakesTheRecords) {
  // A folder where the journal would be: it can be neither read nor written.
  std::filesystem::create_directories(Path("home/results-queue.journal"));
  File("not a folder", "");
  ASSERT_EQ(RunExample({"--results-store", "sqlite:" + Path("not a folder/results.sqlite")}),
            kExitOutputLost)
      << err_;
  EXPECT_THAT(err_, HasSubstr("2 UUT records are lost to "));
  EXPECT_THAT(err_, HasSubstr("the results files still hold them: "));
  EXPECT_THAT(err_, HasSubstr("SN_1234_261115_144035.txt"));
  EXPECT_THAT(err_, Not(HasSubstr("UUT records wait in")));

  // The store in reach, the records go to it from memory: nothing is lost.
  ASSERT_EQ(RunExample(), kExitUutFailed) << err_;
  EXPECT_THAT(err_, Not(HasSubstr("are lost to")));
  ASSERT_EQ(Cli({"results", "list", "--json"}), kResultsDone) << err_;
  EXPECT_EQ(json::parse(out_).size(), 2u);
}

TEST_F(ResultsCliTest, OutputsThatAreNotRegularFilesAreWrittenIntoAndAFullStandardOutputFails) {
  ASSERT_EQ(RunExample(), kExitUutFailed) << err_;
  // A full standard output is an error for every command that prints.
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"tavrix-cli", "results", "list"},
        std::vector<std::string>{"tavrix-cli", "results", "export", "--json"},
        std::vector<std::string>{"tavrix-cli", "results", "yield"},
        std::vector<std::string>{"tavrix-cli", "--help"}}) {
    std::FILE* full = std::fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    Captured err;
    EXPECT_EQ(TavrixCliMain(testHost(), args, nullptr, full, err.stream()), 1) << args[1];
    std::fclose(full);
    EXPECT_THAT(err.take(), HasSubstr("tavrix-cli: cannot write standard output")) << args[1];
  }

  // A link to a device, and a FIFO, are written into and stay what they are.
  const std::string link = Path("to-null.csv");
  std::filesystem::create_symlink("/dev/null", link);
  ASSERT_EQ(Cli({"results", "export", "--csv", "--output", link}), kResultsDone) << err_;
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
  const std::string fifo = Path("export.fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::string received;
  std::thread reader([&] {
    std::ifstream in(fifo, std::ios::binary);
    received.assign(std::istreambuf_iterator<char>(in), {});
  });
  const int status = Cli({"results", "export", "--json", "--output", fifo});
  reader.join();
  EXPECT_EQ(status, kResultsDone) << err_;
  EXPECT_TRUE(std::filesystem::is_fifo(fifo));
  EXPECT_EQ(json::parse(received).size(), 2u);
  // A regular file is still replaced whole.
  ASSERT_EQ(Cli({"results", "export", "--csv", "--output", Path("all.csv")}), kResultsDone);
  EXPECT_TRUE(std::filesystem::is_regular_file(Path("all.csv")));
}

}  // namespace
}  // namespace tavrix
