// The companion programs of this computer, through the platform layer. A
// link topic "Program|Topic" names the DDE service before the bar and the
// topic after it.

#include <memory>

#include "platform/companion_programs.h"
#include "sequencer/companion.h"

namespace tavrix {

namespace {

class SystemCompanion final : public Companion {
 public:
  bool execute(std::string_view topic, std::string_view, std::string_view command,
               std::string* error) override {
    std::string service, name, why;
    const bool done =
        split(topic, service, name, why) && dde_.execute(service, name, command, &why);
    return report(done, why, error);
  }

  bool poke(std::string_view topic, std::string_view item, std::string_view value,
            std::string* error) override {
    std::string service, name, why;
    const bool done =
        split(topic, service, name, why) && dde_.poke(service, name, item, value, &why);
    return report(done, why, error);
  }

  std::optional<std::string> request(std::string_view topic, std::string_view item,
                                     std::string* error) override {
    std::string service, name, why;
    std::optional<std::string> answer;
    if (split(topic, service, name, why)) answer = dde_.request(service, name, item, &why);
    if (!answer && error != nullptr) *error = why;
    return answer;
  }

  bool sendKeys(std::string_view windowTitle, std::string_view keys, std::string* error) override {
    std::string why;
    return report(platform::sendKeysToWindow(windowTitle, keys, &why), why, error);
  }

  bool start(std::string_view commandLine, std::string* error) override {
    std::string why;
    return report(platform::startProgram(commandLine, &why), why, error);
  }

 private:
  static bool split(std::string_view link, std::string& service, std::string& topic,
                    std::string& error) {
    const size_t bar = link.find('|');
    if (bar == std::string_view::npos || bar == 0 || bar + 1 == link.size()) {
      error = "a DDE topic is written Program|Topic, not \"" + std::string(link) + "\"";
      return false;
    }
    service = link.substr(0, bar);
    topic = link.substr(bar + 1);
    return true;
  }

  static bool report(bool done, const std::string& why, std::string* error) {
    if (!done && error != nullptr) *error = why;
    return done;
  }

  platform::DdeClient dde_;
};

}  // namespace

std::unique_ptr<Companion> MakeSystemCompanion() {
  if (!platform::hasCompanionPrograms()) return nullptr;
  return std::make_unique<SystemCompanion>();
}

}  // namespace tavrix
