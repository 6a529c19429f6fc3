// tavrix: the desktop window. Its command line is the original's: an
// optional sequence file name, in double quotes or not, and an optional " /A"
// to start the run at once. A station file (.toml) in its place opens the
// station's test sockets; " /A" then starts every socket.

#include <QApplication>
#include <QFileInfo>
#include <QMessageBox>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

#include "link_bridge.h"
#include "machine_door.h"
#include "main_window.h"
#include "window_engine.h"
#ifndef _WIN32
#include "station_publisher.h"
#endif

namespace {

// The window's work runs inside Qt's event loop; an exception that leaves it
// (memory exhausted, a fault of the program) is reported in words on
// standard error and ends the program with status 1.
int RunWindow(int argc, char** argv);

}  // namespace

int main(int argc, char** argv) {
  try {
    return RunWindow(argc, argv);
  } catch (const std::bad_alloc&) {
    std::fputs("tavrix: out of memory\n", stderr);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "tavrix: internal error: %s\n", e.what());
  } catch (...) {
    std::fputs("tavrix: internal error\n", stderr);
  }
  return 1;
}

namespace {

int RunWindow(int argc, char** argv) {
  QApplication app(argc, argv);
  std::string commandLine;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    // Start-up changes the working folder: a file named from here keeps
    // meaning the same file.
    if (i == 1 && QFileInfo(QString::fromLocal8Bit(argv[i])).isFile())
      arg =
          QFileInfo(QString::fromLocal8Bit(argv[i])).absoluteFilePath().toLocal8Bit().toStdString();
    // A name with blanks came as one argument: quote it as the original's
    // command line would hold it.
    if (i == 1 && arg.find(' ') != std::string::npos && arg.front() != '"') arg = '"' + arg + '"';
    commandLine += (i > 1 ? " " : "") + arg;
  }
  // The instrument settings: the file $TAVRIX_SETTINGS names, else
  // tavrix.cfg beside the program when there is one.
  tavrix::InstrumentSettings settings;
  std::string settingsFile;
  if (const char* named = std::getenv("TAVRIX_SETTINGS"); named != nullptr && *named != '\0') {
    settingsFile = named;
  } else if (const QString beside = QCoreApplication::applicationDirPath() + "/tavrix.cfg";
             QFileInfo(beside).isFile()) {
    settingsFile = beside.toLocal8Bit().toStdString();
  }
  // The disk and the data root are decided here, once, for the window.
  const tavrix::Host machine{tavrix::localFiles(), tavrix::defaultDataRoot()};
  std::string error;
  if (!settingsFile.empty() &&
      !tavrix::LoadInstrumentSettings(machine.files, settingsFile, settings, &error)) {
    QMessageBox::critical(nullptr, "tavrix", QString::fromStdString(error));
    return 2;
  }
  // The window runs on the simulated rig unless the settings name a link;
  // the rig PC's libraries are reached through the bridge when this window
  // cannot load them itself.
  const tavrix::LinkPlan plan =
      tavrix::PlanLink(settings, settingsFile, tavrix::DllLoadsInProcess(settings, machine.files),
                       QCoreApplication::applicationDirPath());
  std::unique_ptr<tavrix::LinkBridge> bridge;
  std::string link = plan.link;
  if (plan.bridge) {
    bridge = tavrix::LinkBridge::findOrStart(machine.files, plan, settings.linkKeyFile, &error);
    if (!bridge) {
      QMessageBox::critical(nullptr, "tavrix", QString::fromStdString(error));
      return 2;
    }
    link = bridge->link();
  }
  tavrix::MainWindow window(
      machine,
      [settings, link, root = machine.dataRoot](tavrix::Operator& op) {
        return tavrix::MakeWindowEngine(op, root, settings, link);
      },
      commandLine);
  window.setPlantViewStore(settings.resultsStore);
#ifndef _WIN32
  // With a plant's database server for a store, the station's runs are
  // published into it while the window is open (the plant page shows them).
  const auto publishing = tavrix::plant::RunPublishing::Start(settings.resultsStore,
                                                              machine.dataRoot, settings.station);
  if (publishing) {
    window.onRunSocket([p = publishing.get()](const std::string& id) { p->ranHere(id); });
  }
#endif
  // A station's sockets run on the system's clock with the same settings.
  tavrix::StationSockets::Options station;
  station.dataRoot = machine.dataRoot;
  station.settings = settings;
  window.setStationOptions(station);
  window.show();
  return app.exec();
}

}  // namespace
