#include "sequencer/companion.h"

#include "common/trace.h"

namespace tavrix {

namespace {

void setError(std::string* error, std::string text) {
  if (error) *error = std::move(text);
}

}  // namespace

void RecordingCompanion::setAnswer(std::string_view topic, std::string_view item,
                                   std::string_view value) {
  answers_[{std::string(topic), std::string(item)}] = value;
}

bool RecordingCompanion::setAnswerFromText(std::string_view spec, std::string* error) {
  const size_t bang = spec.find('!');
  const size_t equals = spec.find('=', bang == std::string_view::npos ? 0 : bang);
  if (bang == std::string_view::npos || equals == std::string_view::npos || bang == 0) {
    setError(error,
             "a companion answer is written TOPIC!ITEM=VALUE, not \"" + std::string(spec) + "\"");
    return false;
  }
  setAnswer(spec.substr(0, bang), spec.substr(bang + 1, equals - bang - 1),
            spec.substr(equals + 1));
  return true;
}

void RecordingCompanion::refuse(std::string_view kind, std::string_view target,
                                std::string_view reason) {
  refusals_[{std::string(kind), std::string(target)}] = reason;
}

const std::string* RecordingCompanion::refusal(std::string_view kind,
                                               std::string_view target) const {
  for (const auto& key : {std::pair{std::string(kind), std::string(target)},
                          std::pair{std::string(kind), std::string()}}) {
    const auto it = refusals_.find(key);
    if (it != refusals_.end()) return &it->second;
  }
  return nullptr;
}

bool RecordingCompanion::deliver(Call call, std::string* error) {
  if (trace_ && trace_->enabled()) {
    auto event = trace_->event("companion");
    event.field("kind", call.kind);
    if (call.kind == "keys") {
      event.field("window", call.topic);
    } else if (call.kind != "start") {
      event.field("topic", call.topic).field("item", call.item);
    }
    event.field("text", call.text);
  }
  const std::string* refused = refusal(call.kind, call.topic);
  calls_.push_back(std::move(call));
  if (refused) {
    setError(error, *refused);
    return false;
  }
  if (programs_ == nullptr) return true;
  const Call& c = calls_.back();
  if (c.kind == "execute") return programs_->execute(c.topic, c.item, c.text, error);
  if (c.kind == "poke") return programs_->poke(c.topic, c.item, c.text, error);
  if (c.kind == "keys") return programs_->sendKeys(c.topic, c.text, error);
  return programs_->start(c.text, error);
}

bool RecordingCompanion::execute(std::string_view topic, std::string_view item,
                                 std::string_view command, std::string* error) {
  return deliver({"execute", std::string(topic), std::string(item), std::string(command)}, error);
}

bool RecordingCompanion::poke(std::string_view topic, std::string_view item, std::string_view value,
                              std::string* error) {
  return deliver({"poke", std::string(topic), std::string(item), std::string(value)}, error);
}

bool RecordingCompanion::sendKeys(std::string_view windowTitle, std::string_view keys,
                                  std::string* error) {
  return deliver({"keys", std::string(windowTitle), "", std::string(keys)}, error);
}

bool RecordingCompanion::start(std::string_view commandLine, std::string* error) {
  return deliver({"start", "", "", std::string(commandLine)}, error);
}

std::optional<std::string> RecordingCompanion::request(std::string_view topic,
                                                       std::string_view item, std::string* error) {
  calls_.push_back({"request", std::string(topic), std::string(item), ""});
  const auto it = answers_.find({std::string(topic), std::string(item)});
  std::optional<std::string> answer;
  std::string why;
  if (it != answers_.end()) {
    answer = it->second;
  } else if (programs_ != nullptr) {
    answer = programs_->request(topic, item, &why);
  } else {
    why = "no program answers the DDE item " + std::string(item) + " of " + std::string(topic) +
          " on this computer";
  }
  if (trace_ && trace_->enabled()) {
    auto event = trace_->event("companion");
    event.field("kind", "request").field("topic", topic).field("item", item);
    if (answer) {
      event.field("answer", *answer);
    } else {
      event.field("answer", std::nullopt);
    }
  }
  if (!answer) setError(error, why);
  return answer;
}

}  // namespace tavrix
