#include "engine_host.h"

#include <future>

namespace tavrix {

EngineHost::EngineHost(Factory factory) {
  std::promise<void> ready;
  thread_ = std::thread([this, &factory, &ready] {
    engine_ = factory();
    ready.set_value();
    engine_->events().waitUntil([this] { return quit_; });
    engine_.reset();
  });
  ready.get_future().wait();
}

EngineHost::~EngineHost() {
  post([this](Engine& engine) {
    if (engine.sequencer().flags().running) engine.sequencer().requestAbort();
    quit_ = true;
  });
  thread_.join();
}

void EngineHost::post(std::function<void(Engine&)> task) { engine_->post(std::move(task)); }

}  // namespace tavrix
