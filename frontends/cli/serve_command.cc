#include "serve_command.h"

#include <CLI/CLI.hpp>

#include "common/file_system.h"
#include "common/paths.h"
#include "instrument/link/instrument_settings.h"
#include "resultsdb/results_store.h"
#include "resultsdb/uut_capture.h"
#include "run_command.h"
#ifndef _WIN32
#include <pthread.h>

#include <csignal>

#include "control_socket.h"
#include "plant_server.h"
#endif

namespace tavrix {

ServeCommand::ServeCommand(CLI::App& app) {
  command_ = app.add_subcommand(
      "serve", "Serve the plant view: live runs, results and analytics in a browser");
  command_->add_option("--results-folder", options_.resultsFolder,
                       "The folder the units' results files are served from (default: the data "
                       "root); files elsewhere are not served");
  command_->add_option("--listen", options_.listen,
                       "HOST:PORT to listen on (default 127.0.0.1:8080); an address other than "
                       "loopback needs --tls-cert, --tls-key and --token-file");
  command_->add_option("--results-store,--store", options_.store,
                       "The results store: sqlite (the file in the data root), sqlite:FILE or a "
                       "connection string");
  command_->add_option("--instrument-settings", options_.settings,
                       "Settings file whose results_store names the store");
  command_->add_option("--tls-cert", options_.tlsCert, "Certificate file (PEM) for HTTPS");
  command_->add_option("--tls-key", options_.tlsKey, "The certificate's key file (PEM)");
  command_->add_option("--token-file", options_.tokenFile,
                       "Key file whose token viewers send (bearer token or the login form)");
  command_->add_option("--control-token-file", options_.controlTokenFile,
                       "Key file of the token that may stop, pause and resume runs");
  command_->add_option("--station", options_.station,
                       "With a plant's database server: the name this station publishes its runs "
                       "under, for the plant page (default: the host name)");
  command_->add_flag("--allow-control", options_.allowControl,
                     "Let a control token stop, pause and resume runs from the live page");
}

#ifdef _WIN32

std::optional<int> ServeCommand::run(const Host&, std::FILE*, std::FILE* err) {
  if (!command_->parsed()) return std::nullopt;
  std::fprintf(err, "tavrix-cli serve: this Windows build has no plant view\n");
  return kExitSequenceError;
}

#else

std::optional<int> ServeCommand::run(const Host& cli, std::FILE* out, std::FILE* err) {
  if (!command_->parsed()) return std::nullopt;
  const ServeOptions& o = options_;
  std::string error;
  InstrumentSettings settings;
  if (o.settings && !LoadInstrumentSettings(cli.files, *o.settings, settings, &error)) {
    std::fprintf(err, "tavrix-cli serve: %s\n", error.c_str());
    return kExitUsage;
  }
  const std::string& root = cli.dataRoot;
  plant::ServerOptions options;
  if (!ParseStoreSpec(o.store.value_or(settings.resultsStore), root, options.store, &error)) {
    std::fprintf(err, "tavrix-cli serve: %s\n", error.c_str());
    return kExitUsage;
  }
  options.listen = o.listen;
  options.runsFolder = RunsFolder(root);
  options.auditLog = join(root, "plant-audit.log");
  options.resultsFolder = o.resultsFolder.empty() ? root : o.resultsFolder;
  options.tlsCert = o.tlsCert;
  options.tlsKey = o.tlsKey;
  options.tokenFile = o.tokenFile;
  options.controlTokenFile = o.controlTokenFile;
  options.allowControl = o.allowControl;
  // With a plant's server every station that serves publishes its runs.
  if (options.store.kind == StoreSpec::Kind::kPostgres)
    options.station = o.station.empty() ? DefaultStationName() : o.station;

  // Interrupts are taken by this thread alone, so the server's threads run
  // undisturbed and it stops cleanly.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  auto server = plant::Server::Start(cli.files, options, &error);
  if (!server) {
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    std::fprintf(err, "tavrix-cli serve: %s\n", error.c_str());
    return kExitSequenceError;
  }
  std::string host;
  int port = 0;
  plant::ParseListen(o.listen, host, port, nullptr);
  if (host.find(':') != std::string::npos) host = "[" + host + "]";
  std::fprintf(out, "tavrix-cli serve: the plant view is at %s://%s:%d/ (results store %s)\n",
               server->tls() ? "https" : "http", host.c_str(), server->port(),
               DescribeStoreSpec(options.store).c_str());
  std::fflush(out);
  int signal = 0;
  sigwait(&signals, &signal);
  server->stop();
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  std::fprintf(out, "tavrix-cli serve: stopped\n");
  return kExitOk;
}

#endif

}  // namespace tavrix
