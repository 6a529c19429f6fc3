// Other programs on this computer: DDE conversations with them, key strokes
// typed into their windows, and starting them. Only Windows has these; on
// other systems every call fails with a message that says so, and
// hasCompanionPrograms() is false.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tavrix::platform {

bool hasCompanionPrograms();

// A DDE client. Each call holds one conversation with the program that
// serves `service` on `topic`: connect, one transaction, disconnect. Calls
// are made on the thread that made the client. A transaction that gets no
// answer within the time-out fails.
class DdeClient {
 public:
  static constexpr int kDefaultTimeoutMs = 5000;
  explicit DdeClient(int timeoutMs = kDefaultTimeoutMs);
  ~DdeClient();
  DdeClient(const DdeClient&) = delete;
  DdeClient& operator=(const DdeClient&) = delete;

  // A command for the server to carry out.
  bool execute(std::string_view service, std::string_view topic, std::string_view command,
               std::string* error);
  // Sets `item` to `value` (as text).
  bool poke(std::string_view service, std::string_view topic, std::string_view item,
            std::string_view value, std::string* error);
  // The text value of `item`; std::nullopt, with a message, when there is
  // no answer.
  std::optional<std::string> request(std::string_view service, std::string_view topic,
                                     std::string_view item, std::string* error);

  // Why the last failed call failed, as the DDE layer numbers it (0 when
  // it was no DDE failure).
  unsigned lastDdeError() const { return lastDdeError_; }

 private:
  struct Instance;
  // One conversation: connect, one transaction of `type` (as the DDE layer
  // numbers them) with `data` in `format`, disconnect. The data of the
  // answer in `answer` when given. False, with lastDdeError_ set, on
  // failure; the caller words the message, as it knows what was asked.
  bool transact(std::string_view service, std::string_view topic, unsigned type,
                std::string_view item, const std::string& data, unsigned format,
                std::string* answer);
  // The message for the failure lastDdeError_ names.
  std::string failure(std::string_view service, std::string_view topic,
                      std::string_view refused) const;

  std::unique_ptr<Instance> instance_;
  int timeoutMs_;
  unsigned lastDdeError_ = 0;
};

// Brings the top-level window whose title is exactly `windowTitle` to the
// front and types `keys` (platform/key_string.h) into it.
bool sendKeysToWindow(std::string_view windowTitle, std::string_view keys, std::string* error);

// Starts the program of `commandLine` (the program, then its arguments) and
// does not wait for it.
bool startProgram(std::string_view commandLine, std::string* error);

}  // namespace tavrix::platform
