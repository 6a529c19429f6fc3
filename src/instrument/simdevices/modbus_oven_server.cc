#include "instrument/simdevices/modbus_oven_server.h"

#include <arpa/inet.h>
#include <modbus/modbus.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <vector>

namespace tavrix {
namespace {

constexpr int kHeaterRegister = 10;
constexpr int kOvenInput = 3;
constexpr int kFanCoil = 0;
constexpr int kDoorInput = 4;
constexpr int kCyclesRegister = 20;

float heaterFrom(const uint16_t* registers) {
  // Low word first.
  const uint32_t bits =
      (uint32_t{registers[kHeaterRegister + 1]} << 16) | registers[kHeaterRegister];
  float f = 0;
  std::memcpy(&f, &bits, sizeof f);
  return std::isfinite(f) ? f : 0.0f;
}

}  // namespace

struct ModbusOvenServer::State {
  OvenModel model;
  mutable std::mutex mutex;
  modbus_t* ctx = nullptr;
  modbus_mapping_t* mapping = nullptr;
  int listener = -1;
  std::vector<int> clients;
  double temperature = 0;
  double heater = 0;
  Micros last = 0;

  // Moves the temperature on to `now` with the heater as it has been.
  void advance(Micros now) {
    if (last != 0 && now > last) {
      const double target = model.ambient + model.gain * heater;
      const double seconds = static_cast<double>(now - last) / 1e6;
      const double keep = model.lagSeconds > 0 ? std::exp(-seconds / model.lagSeconds) : 0.0;
      temperature = target + (temperature - target) * keep;
    }
    if (now > last) last = now;
    const long tenths = std::lround(temperature * 10);
    mapping->tab_input_registers[kOvenInput] =
        static_cast<uint16_t>(static_cast<int16_t>(std::clamp(tenths, -32768L, 32767L)));
  }
};

ModbusOvenServer::ModbusOvenServer(const Clock& clock, OvenModel model)
    : clock_(clock), state_(std::make_unique<State>()) {
  state_->model = model;
  state_->temperature = model.ambient;
  state_->mapping = modbus_mapping_new(16, 16, 32, 16);
  state_->mapping->tab_input_bits[kDoorInput] = 1;
  state_->mapping->tab_registers[kCyclesRegister + 1] = 0;
}

ModbusOvenServer::~ModbusOvenServer() {
  stop();
  modbus_mapping_free(state_->mapping);
}

bool ModbusOvenServer::start(const std::string& host, uint16_t port, std::string* error) {
  State& s = *state_;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) {
    if (error) *error = "\"" + host + "\" is not an IPv4 address";
    return false;
  }
  s.listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int yes = 1;
  ::setsockopt(s.listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (s.listener < 0 ||
      ::bind(s.listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(s.listener, 16) != 0) {
    if (error)
      *error =
          "cannot listen on " + host + ":" + std::to_string(port) + ": " + std::strerror(errno);
    if (s.listener >= 0) ::close(s.listener);
    s.listener = -1;
    return false;
  }
  socklen_t length = sizeof address;
  ::getsockname(s.listener, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  // The context only frames and answers requests; the sockets are ours.
  s.ctx = modbus_new_tcp("127.0.0.1", port_);
  modbus_set_indication_timeout(s.ctx, 2, 0);
  s.last = clock_.now();
  quit_ = false;
  thread_ = std::thread([this] { serve(); });
  return true;
}

void ModbusOvenServer::stop() {
  quit_ = true;
  if (thread_.joinable()) thread_.join();
  State& s = *state_;
  for (int fd : s.clients) ::close(fd);
  s.clients.clear();
  if (s.listener >= 0) ::close(s.listener);
  s.listener = -1;
  if (s.ctx != nullptr) modbus_free(s.ctx);
  s.ctx = nullptr;
}

void ModbusOvenServer::serve() {
  State& s = *state_;
  uint8_t query[MODBUS_TCP_MAX_ADU_LENGTH];
  while (!quit_) {
    fd_set ready;
    FD_ZERO(&ready);
    FD_SET(s.listener, &ready);
    int highest = s.listener;
    for (int fd : s.clients) {
      FD_SET(fd, &ready);
      highest = std::max(highest, fd);
    }
    timeval wait{0, 50'000};
    if (::select(highest + 1, &ready, nullptr, nullptr, &wait) <= 0) continue;
    if (FD_ISSET(s.listener, &ready)) {
      const int fd = ::accept4(s.listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd >= 0) s.clients.push_back(fd);
    }
    for (size_t i = 0; i < s.clients.size();) {
      const int fd = s.clients[i];
      if (!FD_ISSET(fd, &ready)) {
        ++i;
        continue;
      }
      const auto drop = [&] {
        ::close(fd);
        s.clients.erase(s.clients.begin() + static_cast<ptrdiff_t>(i));
      };
      modbus_set_socket(s.ctx, fd);
      const int length = modbus_receive(s.ctx, query);
      if (length < 0) {
        drop();
        continue;
      }
      ++i;
      if (length == 0) continue;
      ++requests_;
      if (resetNext_.exchange(false)) {
        ::shutdown(fd, SHUT_RDWR);
        continue;
      }
      if (silent_) continue;
      if (const int ms = delayMs_; ms > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
      if (garbageNext_.exchange(false)) {
        static const char kGarbage[] = "\xff\xfe garbage, not a reply \r\n";
        (void)!::send(fd, kGarbage, sizeof kGarbage - 1, MSG_NOSIGNAL);
        continue;
      }
      std::lock_guard lock(s.mutex);
      s.advance(clock_.now());
      // Counted before the reply, so that a client that has its reply sees
      // its write counted.
      const uint8_t function = query[7];
      const bool write =
          function == 0x05 || function == 0x06 || function == 0x0f || function == 0x10;
      if (write) ++writes_;
      modbus_reply(s.ctx, query, length, s.mapping);
      if (write) s.heater = heaterFrom(s.mapping->tab_registers);
    }
  }
}

double ModbusOvenServer::heater() const {
  std::lock_guard lock(state_->mutex);
  return state_->heater;
}

double ModbusOvenServer::temperature() const {
  std::lock_guard lock(state_->mutex);
  state_->advance(clock_.now());
  return state_->temperature;
}

bool ModbusOvenServer::fan() const {
  std::lock_guard lock(state_->mutex);
  return state_->mapping->tab_bits[kFanCoil] != 0;
}

void ModbusOvenServer::setDoorClosed(bool closed) {
  std::lock_guard lock(state_->mutex);
  state_->mapping->tab_input_bits[kDoorInput] = closed ? 1 : 0;
}

}  // namespace tavrix
