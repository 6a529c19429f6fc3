// Results files written by many processes at once, and by processes killed
// in the middle of a write. POSIX only: the writers are forked children.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <set>

#include "testing/results_files_fixture.h"

namespace tavrix {
namespace {

class ResultsFilesProcessTest : public ResultsFilesTest {};

// Real processes on one results folder: 60 runs that each write one UUT at
// the same moment leave 60 entries, one header block and 60 details files.
TEST_F(ResultsFilesProcessTest, ManyProcessesWritingAtOnceLoseAndDoubleNothing) {
  constexpr int kRuns = 60;
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  std::vector<pid_t> children;
  for (int i = 0; i < kRuns; ++i) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      close(go[1]);
      char byte;
      if (read(go[0], &byte, 1) != 0) _exit(2);  // all start when the pipe closes
      LocalFileSystem files(folder_.path());
      std::string error;
      _exit(WriteTestResults(files, details_, Passed("U" + std::to_string(i)), settings_, paths_,
                             kWhen, &error)
                ? 0
                : 1);
    }
    children.push_back(child);
  }
  close(go[0]);
  close(go[1]);
  for (const pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  const std::string summary = folder_.Read("results/Valve test_261115.txt");
  const auto lines = splitLines(summary);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "Test_Results"), 1);
  for (int i = 0; i < kRuns; ++i) EXPECT_EQ(Entries(summary, "U" + std::to_string(i)), 1) << i;
  EXPECT_EQ(lines.size(), 5u + kRuns);
}

std::vector<std::string> splitTabs(const std::string& line) {
  std::vector<std::string> fields;
  size_t start = 0;
  for (size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1) {
    fields.push_back(line.substr(start, tab - start));
  }
  fields.push_back(line.substr(start));
  return fields;
}

// 200 writers killed outright at random moments while they write results:
// afterwards the summary holds the header once and whole entries, none twice,
// and the next write finishes what a killed one left half done.
TEST_F(ResultsFilesProcessTest, WritersKilledAtRandomMomentsLeaveWholeUniqueEntries) {
  std::mt19937 random(20261115);
  for (int round = 0; round < 200; ++round) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      close(ready[0]);
      LocalFileSystem files(folder_.path());
      for (int k = 0;; ++k) {
        std::string error;
        const UutRecord uut = k % 2 ? Failed(std::to_string(round) + "-" + std::to_string(k))
                                    : Passed(std::to_string(round) + "-" + std::to_string(k));
        if (!WriteTestResults(files, details_, uut, settings_, paths_, kWhen, &error)) _exit(1);
        if (write(ready[1], "r", 1) != 1) _exit(1);
      }
    }
    close(ready[1]);
    // Killed after 0 to 2 whole UUTs, while it writes the next.
    const int wait = static_cast<int>(random() % 3);
    char byte = 0;
    for (int i = 0; i < wait; ++i) ASSERT_EQ(read(ready[0], &byte, 1), 1);
    ASSERT_EQ(kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    close(ready[0]);
  }
  LocalFileSystem files(folder_.path());
  std::string error;
  ASSERT_TRUE(WriteTestResults(files, details_, Passed("last"), settings_, paths_, kWhen, &error))
      << error;

  const auto lines = splitLines(folder_.Read("results/Valve test_261115.txt"));
  ASSERT_GE(lines.size(), 6u);
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 5)[0], "Test_Results");
  std::set<std::string> serials;
  for (size_t i = 5; i < lines.size(); ++i) {
    std::string line = lines[i];
    if (line.rfind("Valve test_261115.txt", 0) == 0) line.erase(0, 21);
    const auto fields = splitTabs(line);
    if (line.rfind(std::string(17, ' ') + "\t", 0) == 0) {
      EXPECT_EQ(fields.size(), 7u) << line;  // a failure line
      continue;
    }
    ASSERT_EQ(fields.size(), 3u) << "line " << i << ": " << line;
    EXPECT_TRUE(fields[1] == "PASS" || fields[1] == "FAIL") << line;
    EXPECT_EQ(fields[2], "SN" + fields[0] + "_261115.txt") << line;
    EXPECT_TRUE(serials.insert(fields[0]).second) << "twice: " << fields[0];
  }
  EXPECT_TRUE(serials.count("last"));
  // The summary's marker of an interrupted append went with the next write.
  EXPECT_FALSE(folder_.Exists("results/.Valve test_261115.txt.appending"));
}

}  // namespace
}  // namespace tavrix
