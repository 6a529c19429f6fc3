#include "instrument/simdevices/scpi_instrument_server.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <vector>

#include "common/text_conventions.h"
#include "platform/sockets.h"

namespace tavrix {
namespace {

constexpr double kLoadOhms = 10;
constexpr size_t kQueueLength = 16;
constexpr size_t kLongestLine = 4096;

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value);
  return text;
}

bool parseNumber(std::string_view text, double& out) {
  const std::string s(trim(text));
  if (s.empty()) return false;
  char* end = nullptr;
  out = std::strtod(s.c_str(), &end);
  return end == s.c_str() + s.size() && std::isfinite(out);
}

}  // namespace

struct ScpiInstrumentServer::State {
  mutable std::mutex mutex;
  double voltage = 0;
  double current = 1;
  bool output = false;
  std::deque<std::string> errors;
  platform::Socket listener = platform::kNoSocket;
  struct Client {
    platform::Socket socket;
    std::string inbox;
  };
  std::vector<Client> clients;

  void error(std::string entry) {
    if (errors.size() >= kQueueLength) {
      errors.back() = "-350,\"Queue overflow\"";
      return;
    }
    errors.push_back(std::move(entry));
  }
};

ScpiInstrumentServer::ScpiInstrumentServer() : state_(std::make_unique<State>()) {}
ScpiInstrumentServer::~ScpiInstrumentServer() { stop(); }

bool ScpiInstrumentServer::start(const std::string& host, uint16_t port, std::string* error) {
  uint16_t chosen = port;
  state_->listener = platform::listenTcp(host, chosen, error);
  if (state_->listener == platform::kNoSocket) return false;
  port_ = chosen;
  quit_ = false;
  thread_ = std::thread([this] { serve(); });
  return true;
}

void ScpiInstrumentServer::stop() {
  quit_ = true;
  if (thread_.joinable()) thread_.join();
  for (auto& c : state_->clients) platform::closeSocket(c.socket);
  state_->clients.clear();
  platform::closeSocket(state_->listener);
  state_->listener = platform::kNoSocket;
}

void ScpiInstrumentServer::queueError(std::string entry) {
  std::lock_guard lock(state_->mutex);
  state_->error(std::move(entry));
}

double ScpiInstrumentServer::voltage() const {
  std::lock_guard lock(state_->mutex);
  return state_->voltage;
}

bool ScpiInstrumentServer::outputOn() const {
  std::lock_guard lock(state_->mutex);
  return state_->output;
}

std::string ScpiInstrumentServer::handle(std::string_view line) {
  std::lock_guard lock(state_->mutex);
  State& s = *state_;
  const std::string text = upperCase(trim(line));
  if (text.empty()) return {};
  ++commands_;
  const size_t blank = text.find(' ');
  const std::string head = text.substr(0, blank);
  const std::string argument =
      blank == std::string::npos ? std::string{} : std::string(trim(text.substr(blank + 1)));
  const auto setting = [&](double& target, double low, double high) {
    double v = 0;
    if (!parseNumber(argument, v)) {
      s.error("-104,\"Data type error\"");
    } else if (v < low || v > high) {
      s.error("-222,\"Data out of range\"");
    } else {
      target = v;
    }
    return std::string{};
  };
  if (head == "*IDN?") return "TAVRIX,SIM-PSU,0,1.0";
  if (head == "*CLS") {
    s.errors.clear();
    return {};
  }
  if (head == "VOLT" || head == "VOLTAGE") return setting(s.voltage, 0, 30);
  if (head == "VOLT?") return number(s.voltage);
  if (head == "CURR" || head == "CURRENT") return setting(s.current, 0, 5);
  if (head == "CURR?") return number(s.current);
  if (head == "OUTP" || head == "OUTPUT") {
    if (argument == "ON" || argument == "1") {
      s.output = true;
    } else if (argument == "OFF" || argument == "0") {
      s.output = false;
    } else {
      s.error("-224,\"Illegal parameter value\"");
    }
    return {};
  }
  if (head == "OUTP?") return s.output ? "1" : "0";
  if (head == "MEAS:VOLT?") return number(s.output ? s.voltage : 0);
  if (head == "MEAS:CURR?")
    return number(s.output ? std::min(s.voltage / kLoadOhms, s.current) : 0);
  if (head == "SYST:ERR?") {
    if (s.errors.empty()) return "0,\"No error\"";
    std::string entry = std::move(s.errors.front());
    s.errors.pop_front();
    return entry;
  }
  s.error("-113,\"Undefined header\"");
  return {};
}

void ScpiInstrumentServer::serve() {
  State& s = *state_;
  while (!quit_) {
    std::vector<platform::Watch> watches{{s.listener, true, false}};
    for (const auto& c : s.clients) watches.push_back({c.socket, true, false});
    if (platform::waitSockets(watches, 50) <= 0) continue;
    if (watches[0].readable) {
      const platform::Socket client = platform::acceptClient(s.listener);
      if (client != platform::kNoSocket) s.clients.push_back({client, {}});
    }
    for (size_t w = 1; w < watches.size(); ++w) {
      if (!watches[w].readable) continue;
      auto it = std::find_if(s.clients.begin(), s.clients.end(),
                             [&](const State::Client& c) { return c.socket == watches[w].socket; });
      if (it == s.clients.end()) continue;
      char chunk[4096];
      const long n = platform::receiveSome(it->socket, chunk, sizeof chunk);
      if (n == platform::kWouldBlock) continue;
      bool closed = n <= 0 || it->inbox.size() > kLongestLine;
      if (n > 0) it->inbox.append(chunk, static_cast<size_t>(n));
      for (size_t eol; !closed && (eol = it->inbox.find('\n')) != std::string::npos;) {
        const std::string line = it->inbox.substr(0, eol);
        it->inbox.erase(0, eol + 1);
        const bool query = line.find('?') != std::string::npos;
        if (query && resetNext_.exchange(false)) {
          closed = true;
          break;
        }
        if (query && silent_) continue;
        std::string reply = handle(line);
        if (!query) continue;
        if (const int ms = delayMs_; ms > 0)
          std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        if (garbageNext_.exchange(false)) reply = "\x01\x7f#garbage";
        reply += "\n";
        size_t sent = 0;
        while (sent < reply.size()) {
          const long m = platform::sendSome(it->socket, reply.data() + sent, reply.size() - sent);
          if (m > 0) {
            sent += static_cast<size_t>(m);
          } else if (m == platform::kBroken) {
            closed = true;
            break;
          } else {
            std::vector<platform::Watch> out{{it->socket, false, true}};
            platform::waitSockets(out, 100);
          }
        }
      }
      if (closed) {
        platform::closeSocket(it->socket);
        s.clients.erase(it);
      }
    }
  }
}

}  // namespace tavrix
