// ui_showcase: drives the desktop window without a person, for the two jobs
// that need a real window and cannot be tests.
//   ui_showcase screenshots DIR   saves PNGs of the main window mid-run and
//                                 of each dialog into DIR
//   ui_showcase measure           prints the process's CPU use while a
//                                 sequence waits (WAITSECONDS 10) and the time
//                                 from a Stop click to "Stopped" while a
//                                 WAITSECONDS 60 runs
// Run under Xvfb or on the offscreen platform (tools/screenshots).

#include <sys/resource.h>

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QElapsedTimer>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QScreen>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QTimer>
#include <cstdio>

#include "about_dialog.h"
#include "check_failure_dialog.h"
#include "common/file_system.h"
#include "common/text_file.h"
#include "data_entry_dialog.h"
#include "decrypt_dialog.h"
#include "machine_door.h"
#include "main_window.h"
#include "report_dialog.h"
#include "station_view.h"
#ifdef TAVRIX_HAVE_CHARTS
#include "chart_window.h"
#endif

namespace tavrix {
namespace {

std::unique_ptr<Engine> RigEngine(Operator& op) {
  EngineConfig config;
  config.clock = std::make_unique<SystemClock>();
  config.files = std::make_unique<LocalFileSystem>(defaultDataRoot());
  config.op = &op;
  config.link = "sim";
  auto engine = BuildEngine(std::move(config));
  if (engine != nullptr)
    engine->instrument()->selectSetupFile(TAVRIX_SOURCE_DIR "/examples/rig.ims");
  return engine;
}

std::string Sequence(const QTemporaryDir& dir, const char* name,
                     const std::vector<std::string>& lines) {
  const std::string path = dir.path().toStdString() + "/" + name;
  writeTextFileAtomically(localFiles(), path, lines, nullptr);
  return path;
}

// Lets the window work until `done` or `ms` have passed. It sleeps until an
// event comes (a display update from the engine wakes it at once) or a 50 ms
// tick, so the measuring itself costs next to no CPU.
bool WaitFor(const std::function<bool()>& done, int ms = 5000) {
  QElapsedTimer clock;
  clock.start();
  QTimer tick;
  tick.start(50);
  while (!done()) {
    if (clock.elapsed() > ms) return false;
    QApplication::processEvents(QEventLoop::WaitForMoreEvents);
  }
  return true;
}

void Settle() {
  QElapsedTimer clock;
  clock.start();
  while (clock.elapsed() < 300) QApplication::processEvents(QEventLoop::AllEvents, 50);
}

template <typename T>
T* Find(QWidget& w, const char* name) {
  T* child = w.findChild<T*>(name);
  if (child == nullptr) qFatal("no control %s", name);
  return child;
}

void Save(QWidget& w, const QString& dir, const char* name) {
  Settle();
  const QString path = dir + "/" + name + ".png";
  if (!w.grab().save(path)) qFatal("cannot write %s", qPrintable(path));
  std::printf("%s\n", qPrintable(path));
}

// The whole screen, for a scene of more than one window.
void SaveScreen(const QString& dir, const char* name) {
  Settle();
  const QString path = dir + "/" + name + ".png";
  QRect shown;
  for (QWidget* top : QApplication::topLevelWidgets())
    if (top->isVisible()) shown = shown.united(top->frameGeometry());
  const QPixmap shot = QGuiApplication::primaryScreen()->grabWindow(0, shown.x(), shown.y(),
                                                                    shown.width(), shown.height());
  if (shot.isNull() || !shot.save(path)) {
    std::printf("%s: no screen to grab on this platform\n", name);
    return;
  }
  std::printf("%s\n", qPrintable(path));
}

QWidget* TopLevel(const char* name) {
  for (QWidget* top : QApplication::topLevelWidgets())
    if (top->isVisible() && top->objectName() == name) return top;
  return nullptr;
}

// A pump on test against the example test database: the data entry as the
// operator fills it, the unit tile while the pump is tested and once it has
// passed, and the UUT check brought up over the report window.
int UnitScenes(const QString& dir) {
  QTemporaryDir temp;
  const QString testdb = temp.path() + "/examples/testdb";
  QDir().mkpath(testdb);
  for (const char* file : {"pump_details.txt", "pump_fields.txt", "pump_stages.txt"})
    QFile::copy(QString(TAVRIX_SOURCE_DIR "/examples/testdb/") + file, testdb + "/" + file);
  const QString before = QDir::currentPath();
  QDir::setCurrent(temp.path());  // the definition names its files from here
  const std::string seq = Sequence(
      temp, "pump.wts",
      {"SEND FAN, 1200", "DB_DATAENTRY examples\\testdb\\pump_details.txt, DONE", "WAITSECONDS 3",
       "DB_STAGECHECK 1", "DB_STAGECHECK 2", "WAITSECONDS 600", "DONE:", "STOP"});
  int status = 0;
  {
    MainWindow w(Host{localFiles(), defaultDataRoot()}, RigEngine, seq);
    w.show();
    WaitFor([&] { return Find<QPushButton>(w, "pbRun")->isEnabled(); });
    Find<QPushButton>(w, "pbRun")->click();
    QWidget* entry = nullptr;
    WaitFor([&] { return (entry = TopLevel("frmDataEntry")) != nullptr; });
    if (entry == nullptr) qFatal("no data entry");
    Find<QLineEdit>(*entry, "ebOperator")->setText("A. Lee");
    Find<QLineEdit>(*entry, "ebDescription")->setText("Pump, 2 kW");
    auto* serial = Find<QLineEdit>(*entry, "ebSerialNum");
    serial->setText("PX-20417");
    entry->activateWindow();
    serial->setFocus();
    Save(*entry, dir, "data-entry");
    Find<QPushButton>(*entry, "pbAccept")->click();

    auto* state = Find<QLabel>(w, "laUnitState");
    WaitFor([&] { return state->isVisible() && state->text() == "TESTING"; });
    w.openReportWindow();
    WaitFor([&] { return TopLevel("frmReport") != nullptr; });
    WaitFor([&] { return Find<QWidget>(w, "frOKcancel")->isVisible(); });
    SaveScreen(dir, "question-over-report");
    if (QWidget* report = TopLevel("frmReport")) report->close();
    Find<QPushButton>(w, "pbOKcancelOK")->click();
    WaitFor([&] {
      return Find<QLineEdit>(w, "sCurrentCommand")->text().startsWith("waitseconds 600");
    });
    Save(w, dir, "unit-testing");
    Find<QPushButton>(w, "pbStop")->click();
    if (!WaitFor([&] { return state->text() == "PASS"; })) {
      std::printf("unit-passed: the tile did not show PASS (%s)\n", qPrintable(state->text()));
      status = 1;
    } else {
      Save(w, dir, "unit-passed");
    }
  }
  QDir::setCurrent(before);
  return status;
}

// The example station of four sockets on the simulated rig: three run their
// first wait, one stepped and held at a line, one stopped.
int StationScene(const QString& dir) {
  QTemporaryDir temp;
  MainWindow w(Host{localFiles(), defaultDataRoot()}, RigEngine, "");
  StationSockets::Options options;
  options.dataRoot = temp.path().toStdString();
  w.setStationOptions(options);
  w.show();
  if (!w.openStation(TAVRIX_SOURCE_DIR "/examples/station4.toml")) {
    std::printf("station-running: the example station did not open\n");
    return 1;
  }
  StationView& station = *w.station();
  const auto tile = [&](const char* name) { return Find<QWidget>(station, name); };
  WaitFor([&] { return Find<QPushButton>(*tile("tile_S4"), "pbSocketRun")->isEnabled(); });
  for (const char* name : {"tile_S1", "tile_S2", "tile_S4"})
    Find<QPushButton>(*tile(name), "pbSocketRun")->click();
  Find<QPushButton>(*tile("tile_S3"), "pbSocketStep")->click();
  WaitFor([&] { return Find<QLabel>(*tile("tile_S4"), "laSocketWait")->isVisible(); });
  Find<QPushButton>(*tile("tile_S4"), "pbSocketStop")->click();
  const bool shown = WaitFor([&] {
    return Find<QLabel>(*tile("tile_S4"), "laSocketState")->text() == "STOPPED" &&
           Find<QLabel>(*tile("tile_S3"), "laSocketLine")->text().startsWith("Held") &&
           Find<QLabel>(*tile("tile_S1"), "laSocketWait")->isVisible();
  });
  if (!shown) {
    std::printf("station-running: the tiles did not reach the scene\n");
    return 1;
  }
  Save(w, dir, "station-running");
  station.stopAll();
  WaitFor([&] { return !station.anyRunning(); });
  return 0;
}

#ifdef TAVRIX_HAVE_CHARTS
// The chart of three rig channels, plotting every 100 ms.
void ChartScene(MainWindow& w, const QString& dir) {
  w.findChild<QAction*>("mbChart")->trigger();
  // The chart is a window of its own, not a child of the main window.
  ChartWindow* chart = nullptr;
  WaitFor([&] {
    for (QWidget* own : w.ownWindows())
      if ((chart = dynamic_cast<ChartWindow*>(own)) != nullptr) return true;
    return false;
  });
  chart->setSampleInterval(100);
  chart->plot("OVEN");
  chart->plot("HEATER");
  chart->plot("AMBIENT");
  WaitFor([&] { return chart->pointCount("OVEN") >= 40; }, 10000);
  Save(*chart, dir, "chart");
  chart->close();
}
#endif

// The dialogs that stand alone: a check failure, the report, the decrypt
// dialog and About.
void DialogScenes(MainWindow& w, const QString& dir) {
  CheckFailureDialog failure(
      {"CHECKFAILURE",
       "Check Failure",
       "Stage 3\rFlow  Value: 3.00  Min: 1  Max: 2\rF1: Ignore  F2 Repeat  F3: Fail and Abandon",
       {"Ignore", "Repeat", "Fail and Abandon"}},
      [](Answer) {}, &w);
  failure.show();
  Save(failure, dir, "check-failure");

  ReportContents contents{{"15-11-2026", "A. Lee", "Pump acceptance test", "3", "PX-20417", {}},
                          {{"Flow", "FLOW", "2.50", "l/min", "1", "3", 1, true, ""},
                           {"Seal", "", "", "", "", "", 2, false, "Op Fail"},
                           {"Pressure", "PRESS", "1.03", "bar", "0.9", "1.2", 3, true, ""}}};
  ReportDialog report(contents, &w);
  report.show();
  Save(report, dir, "report");

  DecryptDialog decrypt(localFiles(), &w);
  Find<QLineEdit>(decrypt, "ebSrcFileSpec")->setText("/srv/rig/data/RUN042.TXE");
  decrypt.show();
  Save(decrypt, dir, "decrypt");

  AboutDialog about(&w);
  about.show();
  Save(about, dir, "about");
}

int Screenshots(const QString& dir) {
  QDir().mkpath(dir);
  QTemporaryDir temp;
  const std::string seq = Sequence(
      temp, "warmup.wts",
      {"[HELPTEXT]", "Warm the oven to 60 degC, then check the fan.", "[END]", "SEND HEATER, 70",
       "CONTINUEOK Fit the unit under test and close the oven door", "WAITSECONDS 600"});
  MainWindow w(Host{localFiles(), defaultDataRoot()}, RigEngine, seq);
  w.show();
  WaitFor([&] { return Find<QPushButton>(w, "pbRun")->isEnabled(); });
  // The operator is on the Manual tab when the question comes: the panel
  // stands above the tabs.
  auto* tabs = w.findChild<QTabWidget*>();
  tabs->setCurrentWidget(Find<QWidget>(w, "frManual"));
  Find<QLineEdit>(w, "ebManualChannel")->setText("OVEN");
  Find<QPushButton>(w, "pbManualRead")->click();
  WaitFor([&] { return !Find<QLabel>(w, "laManualReading")->text().isEmpty(); });
  Save(w, dir, "manual-tab");
  Find<QPushButton>(w, "pbRun")->click();
  WaitFor([&] { return Find<QWidget>(w, "frOKcancel")->isVisible(); });
  Save(w, dir, "main-window-question");
  Find<QPushButton>(w, "pbOKcancelOK")->click();
  WaitFor([&] { return Find<QLineEdit>(w, "sCurrentCommand")->text().startsWith("waitseconds"); });
  Save(w, dir, "main-window-running");

  w.openQuestion({"UUTCHECK",
                  "UUT Check",
                  "Is the seal fitted and dry?",
                  {"Pass", "Fail and Repeat", "Fail and Continue"}},
                 [](Answer) {});
  Save(w, dir, "panel-uut-check");
  Find<QPushButton>(w, "pbOKcancelOK")->click();

#ifdef TAVRIX_HAVE_CHARTS
  ChartScene(w, dir);
#endif
  DialogScenes(w, dir);

  w.openQuestion({"SELECTMENU", "", "Which test?", {"WARMUP", "LEAK", "FULL"}}, [](Answer) {});
  auto* menu = Find<QListWidget>(w, "lbMenu");
  Save(*menu->window(), dir, "select-menu");
  Find<QPushButton>(*menu->window(), "pbMenuOK")->click();

  w.showChannelValue("OVEN", "41.27");
  w.openQuestion({"DOWITHSHOW", "", "Wait until the oven reads above 40 degC", {"Continue"}},
                 [](Answer) {});
  auto* value = Find<QLabel>(w, "ladwsChannelValue");
  Save(*value->window(), dir, "channel-display");
  Find<QPushButton>(*value->window(), "answer_Continue")->click();

  Find<QPushButton>(w, "pbStop")->click();
  WaitFor([&] { return Find<QLabel>(w, "sRunStatus")->text() == "Stopped"; });
  return 0;
}

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

int Measure() {
  QTemporaryDir temp;
  {
    MainWindow w(Host{localFiles(), defaultDataRoot()}, RigEngine,
                 Sequence(temp, "wait10.wts", {"WAITSECONDS 10"}));
    w.show();
    WaitFor([&] { return Find<QPushButton>(w, "pbRun")->isEnabled(); });
    Find<QPushButton>(w, "pbRun")->click();
    WaitFor([&] { return Find<QLabel>(w, "sRunStatus")->text() == "Running"; });
    const double cpu0 = CpuSeconds();
    QElapsedTimer wall;
    wall.start();
    WaitFor([&] { return Find<QLabel>(w, "sRunStatus")->text() == "Stopped"; }, 20000);
    const double cpu = CpuSeconds() - cpu0;
    const double seconds = static_cast<double>(wall.elapsed()) / 1000;
    std::printf(
        "WAITSECONDS 10: %.2f s wall, %.3f s CPU (window and engine threads): %.2f %% of one "
        "core\n",
        seconds, cpu, 100 * cpu / seconds);
  }
  MainWindow w(Host{localFiles(), defaultDataRoot()}, RigEngine,
               Sequence(temp, "wait60.wts", {"WAITSECONDS 60"}));
  w.show();
  WaitFor([&] { return Find<QPushButton>(w, "pbRun")->isEnabled(); });
  for (int i = 0; i < 5; ++i) {
    Find<QPushButton>(w, "pbRun")->click();
    WaitFor(
        [&] { return Find<QLineEdit>(w, "sCurrentCommand")->text().startsWith("waitseconds"); });
    WaitFor([] { return false; }, 500);  // let the wait settle in
    QElapsedTimer clock;
    clock.start();
    Find<QPushButton>(w, "pbStop")->click();
    WaitFor([&] { return Find<QLabel>(w, "sRunStatus")->text() == "Stopped"; });
    std::printf("Stop click to \"Stopped\" during WAITSECONDS 60: %.2f ms\n",
                static_cast<double>(clock.nsecsElapsed()) / 1e6);
    WaitFor([&] { return Find<QPushButton>(w, "pbRun")->isEnabled(); });
  }
  return 0;
}

}  // namespace
}  // namespace tavrix

int main(int argc, char** argv) {
  QApplication app(argc, argv);
  const QStringList args = app.arguments();
  if (args.size() >= 3 && args[1] == "screenshots") {
    const int status = tavrix::Screenshots(args[2]);
    if (status != 0) return status;
    const int units = tavrix::UnitScenes(args[2]);
    return units != 0 ? units : tavrix::StationScene(args[2]);
  }
  if (args.size() >= 2 && args[1] == "measure") return tavrix::Measure();
  std::fprintf(stderr, "usage: ui_showcase screenshots DIR | measure\n");
  return 2;
}
