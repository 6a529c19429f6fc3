#include "link_bridge.h"

#include <QDir>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <cstdio>

#include "common/clock.h"
#include "instrument/backends/link_backends.h"
#include "instrument/dll/dll_link.h"
#include "instrument/tcp/link_key.h"
#include "instrument/tcp/tcp_link.h"

namespace tavrix {
namespace {

constexpr char kLoopback[] = "127.0.0.1";

std::string LoopbackLink(int port) {
  return "tcp://" + std::string(kLoopback) + ":" + std::to_string(port);
}

// Whether a rig server answers on the port (with the key, when there is one).
bool Answers(const FileSystem& files, int port, const std::string& keyFile) {
  SystemClock clock;
  TcpLink link(clock, kLoopback, static_cast<uint16_t>(port), files,
               TcpLinkOptions{.connectWaitMs = 500});
  if (!keyFile.empty()) {
    std::string key;
    if (!LoadLinkKey(files, keyFile, key, nullptr)) return false;
    link.setKey(std::move(key));
  }
  int16_t handle = 0;
  if (link.openInterface(handle) != link_result::kOk) return false;
  link.closeInterface(handle);
  return true;
}

}  // namespace

LinkPlan PlanLink(const InstrumentSettings& settings, const std::string& settingsFile,
                  bool dllInProcess, const QString& windowFolder) {
  LinkPlan plan;
  plan.link = settings.link.empty() ? std::string(kLinkSim) : settings.link;
  if (plan.link != kLinkDll || dllInProcess) return plan;
  plan.bridge = true;
  plan.port = settings.bridgePort;
  plan.program = settings.bridgeProgram.empty() ? QDir(windowFolder).filePath("tavrix-cli32.exe")
                                                : QString::fromStdString(settings.bridgeProgram);
  plan.arguments = {
      "rig", "--link", "dll", "--listen",
      QString::fromStdString(std::string(kLoopback) + ":" + std::to_string(plan.port))};
  // The bridge finds the libraries where the window's settings say.
  if (!settingsFile.empty()) {
    plan.arguments << "--instrument-settings" << QString::fromStdString(settingsFile);
  }
  if (!settings.linkKeyFile.empty()) {
    plan.arguments << "--key" << QString::fromStdString(settings.linkKeyFile);
  }
  plan.link = LoopbackLink(plan.port);
  return plan;
}

bool DllLoadsInProcess(const InstrumentSettings& settings, const FileSystem& files) {
#if defined(_WIN32) && !defined(_WIN64)
  return MakeDllLink(settings, files, nullptr) != nullptr;
#else
  (void)settings;
  (void)files;
  return false;
#endif
}

LinkBridge::~LinkBridge() {
  if (!process_) return;
  // A console program on Windows takes no close request: the bridge holds
  // nothing that needs an orderly end, so it is ended outright.
  process_->kill();
  process_->waitForFinished(5000);
}

std::unique_ptr<LinkBridge> LinkBridge::findOrStart(const FileSystem& files, const LinkPlan& plan,
                                                    const std::string& keyFile, std::string* error,
                                                    int startMs) {
  std::unique_ptr<LinkBridge> bridge(new LinkBridge);
  if (plan.port != 0 && Answers(files, plan.port, keyFile)) {
    bridge->link_ = LoopbackLink(plan.port);
    return bridge;
  }
  auto process = std::make_unique<QProcess>();
  process->setProcessChannelMode(QProcess::SeparateChannels);
  process->setStandardOutputFile(QProcess::nullDevice());
  process->setReadChannel(QProcess::StandardError);
  process->start(plan.program, plan.arguments);
  if (!process->waitForStarted(startMs)) {
    if (error)
      *error = "the link bridge " + plan.program.toStdString() +
               " does not start: " + process->errorString().toStdString();
    return nullptr;
  }
  // The bridge says "serving ... on 127.0.0.1:PORT" once it listens; the
  // port it names is the one to use (it picks one when asked for port 0).
  static const QRegularExpression serving(R"(serving .* on 127\.0\.0\.1:(\d+))");
  QElapsedTimer elapsed;
  elapsed.start();
  QString said;
  while (elapsed.elapsed() < startMs) {
    const QRegularExpressionMatch match = serving.match(said);
    if (match.hasMatch()) {
      bridge->link_ = LoopbackLink(match.captured(1).toInt());
      // What the bridge says later (the clients it refuses) goes on to the
      // window's standard error, so that its pipe never fills up.
      QProcess* running = process.get();
      QObject::connect(running, &QProcess::readyReadStandardError, running, [running] {
        const QByteArray text = running->readAllStandardError();
        std::fwrite(text.constData(), 1, static_cast<size_t>(text.size()), stderr);
      });
      bridge->process_ = std::move(process);
      return bridge;
    }
    if (process->state() == QProcess::NotRunning) break;
    if (process->waitForReadyRead(static_cast<int>(startMs - elapsed.elapsed()))) {
      said += QString::fromLocal8Bit(process->readAllStandardError());
    } else {
      said += QString::fromLocal8Bit(process->readAllStandardError());
      if (process->state() == QProcess::NotRunning || elapsed.elapsed() >= startMs) break;
    }
  }
  said += QString::fromLocal8Bit(process->readAllStandardError());
  const bool running = process->state() != QProcess::NotRunning;
  if (running) {
    process->kill();
    process->waitForFinished(5000);
  }
  if (error)
    *error = "the link bridge " + plan.program.toStdString() +
             (running ? " did not begin serving" : " ended") +
             (said.trimmed().isEmpty() ? std::string() : ": " + said.trimmed().toStdString());
  return nullptr;
}

}  // namespace tavrix
