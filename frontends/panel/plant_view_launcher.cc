#include "panel/plant_view_launcher.h"

#include <cstring>

#ifndef _WIN32
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

extern char** environ;
#endif

namespace tavrix {

namespace {
constexpr const char* kServing = "the plant view is at ";
}

std::vector<std::string> PlantViewLauncher::ServeArguments(const std::string& storeSetting) {
  std::vector<std::string> args = {"serve", "--listen", "127.0.0.1:0"};
  if (!storeSetting.empty()) args.insert(args.end(), {"--results-store", storeSetting});
  return args;
}

std::string PlantViewLauncher::ViewAddress(const std::string& line) {
  const size_t at = line.find(kServing);
  if (at == std::string::npos) return {};
  const size_t start = at + std::strlen(kServing);
  const size_t end = line.find(' ', start);
  std::string url = line.substr(start, end == std::string::npos ? std::string::npos : end - start);
  while (!url.empty() && (url.back() == '\n' || url.back() == '\r')) url.pop_back();
  // Only a loopback address of our own making is opened.
  if (url.rfind("http://127.0.0.1:", 0) != 0) return {};
  return url;
}

PlantViewLauncher::~PlantViewLauncher() { stop(); }

#ifdef _WIN32

std::string PlantViewLauncher::start(const std::string&, const std::vector<std::string>&,
                                     std::string* error, int) {
  if (error) *error = "the plant view is not part of the Windows builds";
  return {};
}
bool PlantViewLauncher::running() { return false; }
void PlantViewLauncher::stop() {}

#else

std::string PlantViewLauncher::start(const std::string& program,
                                     const std::vector<std::string>& arguments, std::string* error,
                                     int timeoutMs) {
  if (running()) return address_;
  stop();
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    if (error) *error = std::string("cannot start the plant view: ") + std::strerror(errno);
    return {};
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  std::vector<std::string> argv = {program};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  std::vector<char*> raw;
  for (auto& a : argv) raw.push_back(a.data());
  raw.push_back(nullptr);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, program.c_str(), &actions, nullptr, raw.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  if (rc != 0) {
    ::close(fds[0]);
    if (error) *error = "cannot start " + program + ": " + std::strerror(rc);
    return {};
  }
  pid_ = pid;
  // Reads what it says until it names its address, ends, or time runs out.
  std::string said;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    const size_t eol = said.find('\n');
    if (eol != std::string::npos) {
      const std::string url = ViewAddress(said.substr(0, eol));
      if (!url.empty()) {
        address_ = url;
        break;
      }
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    pollfd p{fds[0], POLLIN, 0};
    if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) {
      if (error) *error = program + " did not say where it serves in time";
      break;
    }
    char buffer[1024];
    const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
    if (n <= 0) {
      while (!said.empty() && (said.back() == '\n' || said.back() == ' ')) said.pop_back();
      if (error) *error = said.empty() ? program + " ended without serving" : said;
      break;
    }
    said.append(buffer, static_cast<size_t>(n));
  }
  output_ = fds[0];
  if (address_.empty()) stop();
  return address_;
}

bool PlantViewLauncher::running() {
  if (pid_ <= 0) return false;
  if (::waitpid(pid_, nullptr, WNOHANG) == 0) return true;
  pid_ = -1;  // ended and reaped
  stop();
  return false;
}

void PlantViewLauncher::stop() {
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    // Serve stops at once on SIGTERM; one that does not within 5 s is killed.
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
        break;
      }
      ::usleep(10000);
    }
  }
  if (output_ >= 0) ::close(output_);
  output_ = -1;
  pid_ = -1;
  address_.clear();
}

#endif

}  // namespace tavrix
