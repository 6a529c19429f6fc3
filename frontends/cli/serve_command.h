// `tavrix-cli serve`: the plant view (frontends/plant/plant_server.h) in a
// browser, until the program is interrupted.
#pragma once

#include <cstdio>
#include <optional>
#include <string>

#include "common/host.h"

namespace CLI {
class App;
}

namespace tavrix {

struct ServeOptions {
  std::string listen = "127.0.0.1:8080";
  std::optional<std::string> store;
  std::optional<std::string> settings;
  std::string tlsCert;
  std::string tlsKey;
  std::string tokenFile;
  std::string controlTokenFile;
  bool allowControl = false;
  std::string station;        // the name the station publishes its runs under
  std::string resultsFolder;  // where results files are served from
};

class ServeCommand {
 public:
  explicit ServeCommand(CLI::App& app);
  // The exit status when `serve` was given: 0 after an interrupt, 1 when it
  // cannot serve (the store, the address), 2 bad usage.
  std::optional<int> run(const Host& host, std::FILE* out, std::FILE* err);

 private:
  CLI::App* command_;
  ServeOptions options_;
};

}  // namespace tavrix
