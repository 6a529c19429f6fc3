// Test sockets on the system clock: eight sockets each in a loop of
// WAITSECONDS 0.5 (the error of each wait's end, median and worst over all
// sockets) and the CPU share while all eight wait.

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "machine_door.h"
#include "run_command.h"
#include "timing.h"

namespace tavrix::bench {
namespace {

constexpr int kSockets = 8;
constexpr int kWaits = 10;

std::string Folder() {
  char name[] = "/tmp/tavrixstationtimingXXXXXX";
  return mkdtemp(name);
}

// Runs a station of eight sockets, each running `lines`, with a trace each.
void RunStationOf(const std::string& dir, const std::vector<std::string>& lines) {
  {
    std::ofstream seq(dir + "/s.wts", std::ios::binary);
    for (const auto& line : lines) seq << line << "\r\n";
    std::ofstream station(dir + "/station.toml", std::ios::binary);
    station << "sequence = \"s.wts\"\n";
    for (int i = 1; i <= kSockets; ++i) station << "[socket.S" << i << "]\n";
  }
  setenv("TAVRIX_HOME", (dir + "/home").c_str(), 1);
  std::FILE* null = std::fopen("/dev/null", "w");
  TavrixCliMain(Host{localFiles(), defaultDataRoot()},
                {"tavrix-cli", "run", "--no-control-socket", "--results-store", "off", "--trace",
                 dir + "/t.jsonl", "--station", dir + "/station.toml"},
                nullptr, null, null);
  std::fclose(null);
}

const RegisterTiming kStationWaits("station", [] {
  const std::string dir = Folder();
  std::vector<std::string> lines(kWaits, "WAITSECONDS 0.5");
  lines.push_back("STOP");
  RunStationOf(dir, lines);
  std::vector<double> errors;
  const std::regex lineTime("\\{\"t\":([0-9.]+),\"ev\":\"line\"");
  for (int i = 1; i <= kSockets; ++i) {
    std::ifstream in(dir + "/t.S" + std::to_string(i) + ".jsonl");
    std::string text;
    std::vector<double> times;
    for (std::string row; std::getline(in, row);) {
      std::smatch m;
      if (std::regex_search(row, m, lineTime)) times.push_back(std::stod(m[1]));
    }
    for (size_t k = 1; k < times.size(); ++k) errors.push_back(times[k] - times[k - 1] - 0.5);
  }
  Rows rows;
  if (errors.empty()) return Rows{{"station of 8 sockets", "failed"}};
  const auto [median, worst] = MedianAndWorst(errors);
  rows.push_back({"8 sockets, WAITSECONDS 0.5 error, median", Fixed(median * 1000, "ms")});
  rows.push_back({"8 sockets, WAITSECONDS 0.5 error, worst", Fixed(worst * 1000, "ms")});
  const double cpu0 = CpuSeconds();
  const double wall0 = WallSeconds();
  RunStationOf(dir, {"WAITSECONDS 5", "STOP"});
  const double share = (CpuSeconds() - cpu0) / (WallSeconds() - wall0);
  rows.push_back(
      {"8 sockets all in WAITSECONDS 5, CPU share of one core", Fixed(100 * share, "%")});
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  return rows;
});

}  // namespace
}  // namespace tavrix::bench
