// A rig for the calculated-channel tests: channels held as texts, each write
// recorded in order; a channel that is not in the map cannot be read or
// written.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "calcchan/calc_ports.h"
#include "common/clock.h"

namespace tavrix {

class FakeChannels final : public CalcChannelPort {
 public:
  std::map<std::string, std::string, std::less<>> values;
  std::vector<std::pair<std::string, std::string>> writes;
  int reads = 0;
  // When set, each write's instant is recorded in writeTimes.
  const Clock* clock = nullptr;
  std::vector<Micros> writeTimes;

  using CalcChannelPort::read;
  using CalcChannelPort::write;
  bool read(std::string_view name, std::string& value) override {
    ++reads;
    const auto it = values.find(name);
    if (it == values.end()) {
      value = "ERROR 12 bad channel";
      return false;
    }
    value = it->second;
    return true;
  }
  bool write(std::string_view name, std::string_view value) override {
    const auto it = values.find(name);
    if (it == values.end()) return false;
    it->second = std::string(value);
    writes.emplace_back(std::string(name), std::string(value));
    if (clock != nullptr) writeTimes.push_back(clock->now());
    return true;
  }
  // The texts written to `name`, in order.
  std::vector<std::string> written(std::string_view name) const {
    std::vector<std::string> out;
    for (const auto& [n, v] : writes) {
      if (n == name) out.push_back(v);
    }
    return out;
  }
};

}  // namespace tavrix
