// The desktop window driven by clicks on the offscreen platform, against a
// real engine thread. Waits are for conditions (QTRY_*), never fixed sleeps.

#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QElapsedTimer>
#include <QFileDialog>
#include <QFileInfo>
#include <QGroupBox>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QMessageBox>
#include <QPrintDialog>
#include <QPrinter>
#include <QProcess>
#include <QProgressBar>
#include <QPushButton>
#include <QRegularExpression>
#include <QScreen>
#include <QSpinBox>
#include <QTabWidget>
#include <QTableView>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QTextDocument>
#include <QTextEdit>
#include <QtTest>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>

#ifdef TAVRIX_HAVE_CHARTS
#include <QChartView>
#include <QValueAxis>

#include "chart_window.h"
#endif
#include "check_failure_dialog.h"
#include "common/file_system.h"
#include "common/text_file.h"
#include "crypto/encrypted_files.h"
#include "data_entry_dialog.h"
#include "decrypt_dialog.h"
#include "engine/run_record.h"
#ifndef _WIN32
#include "ctl_command.h"
#endif
#include "main_window.h"
#include "qt_text.h"
#include "question_dialogs.h"
#include "report_dialog.h"
#include "resultsdb/results_store.h"
#include "station_view.h"
#include "testing/recording_operator.h"
#include "testing/test_files.h"
#include "window_engine.h"

// The test command builds and tests side by side on a loaded machine,
// where the window can be slow to show what a test waits for: each wait
// gives up after half a minute rather than QTest's five seconds (a test that
// passes waits no longer for it).
constexpr int kPatienceMs = 30000;
#undef QTRY_VERIFY
#define QTRY_VERIFY(expr) QTRY_VERIFY_WITH_TIMEOUT((expr), kPatienceMs)
#undef QTRY_VERIFY2
#define QTRY_VERIFY2(expr, message) QTRY_VERIFY2_WITH_TIMEOUT((expr), (message), kPatienceMs)
#undef QTRY_COMPARE
#define QTRY_COMPARE(expr, expected) QTRY_COMPARE_WITH_TIMEOUT((expr), expected, kPatienceMs)

namespace tavrix {

// The question box of a station's socket, once it shows.
static QMessageBox* SocketQuestion(MainWindow& w) {
  QMessageBox* box = nullptr;
  if (!QTest::qWaitFor(
          [&] {
            box = w.findChild<QMessageBox*>("socketQuestion");
            return box != nullptr && box->isVisible();
          },
          kPatienceMs))
    qFatal("no socket question");
  return box;
}

class MainWindowTest : public QObject {
  Q_OBJECT

 private:
  QTemporaryDir dir_;

  // What the window's entry point would hand it in this process.
  static Host TestHost() { return {testFiles(), testDataRoot()}; }

  std::string Sequence(const char* name, const std::vector<std::string>& lines) {
    const std::string path = dir_.path().toStdString() + "/" + name;
    writeTextFileAtomically(testFiles(), path, lines, nullptr);
    return path;
  }

  // An engine on the system clock over this computer's files, with or
  // without the simulated rig.
  static std::unique_ptr<Engine> Build(Operator& op, bool rig) {
    EngineConfig config;
    config.clock = std::make_unique<SystemClock>();
    config.files = std::make_unique<LocalFileSystem>(testDataRoot());
    config.op = &op;
    if (rig) config.link = "sim";
    EngineBuildError error;
    auto engine = BuildEngine(std::move(config), &error);
    if (engine == nullptr) qFatal("%s", error.text.c_str());
    return engine;
  }

  static MainWindow::EngineFactory Factory() {
    return [](Operator& op) { return Build(op, false); };
  }

  // An engine on the simulated rig of the examples.
  static MainWindow::EngineFactory RigFactory() {
    return [](Operator& op) {
      auto engine = Build(op, true);
      if (!engine->instrument()->selectSetupFile(TAVRIX_SOURCE_DIR "/examples/rig.ims"))
        qFatal("rig.ims: %s", engine->instrument()->link().lastErrorText().c_str());
      return engine;
    };
  }

  // Records the answers a dialog gives.
  struct Answers {
    std::vector<Answer> given;
    std::function<void(Answer)> callback() {
      return [this](Answer a) { given.push_back(std::move(a)); };
    }
  };

  static std::string ReadAll(const std::string& path) {
    std::string text;
    testFiles().readFile(path, text, nullptr);
    return text;
  }

  static void Write(const std::string& path, const std::string& text) {
    testFiles().writeAtomically(path, text, nullptr);
  }

  // The message box a window opened, once it is shown.
  static QMessageBox* Box(QWidget& w, const char* name) {
    QMessageBox* box = nullptr;
    if (!QTest::qWaitFor(
            [&] { return (box = w.findChild<QMessageBox*>(name)) && box->isVisible(); },
            kPatienceMs))
      qFatal("no message box %s", name);
    return box;
  }

  template <typename T>
  static T* Find(QWidget& w, const char* name) {
    T* child = w.findChild<T*>(name);
    if (child == nullptr) qFatal("no control %s", name);
    return child;
  }

  // A window of its own the main window opened (report, chart).
  template <typename T>
  static T* Own(MainWindow& w) {
    for (QWidget* window : w.ownWindows())
      if (auto* own = dynamic_cast<T*>(window)) return own;
    return nullptr;
  }

  static QString Status(MainWindow& w) { return Find<QLabel>(w, "sRunStatus")->text(); }

  static void Click(MainWindow& w, const char* button) {
    QTRY_VERIFY(Find<QPushButton>(w, button)->isEnabled());
    QTest::mouseClick(Find<QPushButton>(w, button), Qt::LeftButton);
  }

  // Runs `task` on the engine thread and gives back what it returns.
  template <typename T>
  static T OnEngine(MainWindow& w, std::function<T(Engine&)> task) {
    auto promise = std::make_shared<std::promise<T>>();
    std::future<T> result = promise->get_future();
    w.host().post([promise, task](Engine& e) { promise->set_value(task(e)); });
    if (!QTest::qWaitFor(
            [&] { return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
            kPatienceMs))
      qFatal("the engine did not answer");
    return result.get();
  }

  // "Stopped" shows as Stop is taken; the run loop unwinds just after.
  static bool Idle(MainWindow& w) {
    return OnEngine<bool>(w, [](Engine& e) { return !e.sequencer().flags().running; });
  }

  static std::string Channel(MainWindow& w, const char* name) {
    return OnEngine<std::string>(w, [name](Engine& e) {
      std::string value;
      e.instrument()->channels().ReadChannel(name, value);
      return value;
    });
  }

  // A test definition whose one stage is a manual UUT check.
  std::string UutSequence(const char* name) {
    const std::string d = dir_.path().toStdString();
    Write(d + "/details.txt",
          "TEST SEQUENCE - DETAILS\r\nTitle\tNotes\tVersion\r\nPump test\t\t1\t\t" + d +
              "/fields.txt\t" + d + "/stages.txt\t" + d + "/results\r\n");
    Write(d + "/fields.txt", "TEST SEQUENCE - FIELD NAMES\r\nField Name\r\n");
    Write(d + "/stages.txt",
          "TEST SEQUENCE - STAGE CHECKS\r\nStep Number\r\n"
          "1\tMANUAL\t\t\t\t\tSeal\t\tIs the seal fitted?\r\n");
    return Sequence(name, {"DB_DATAENTRY " + d + "/details.txt", "DB_STAGECHECK 1", "STOP"});
  }

#ifndef _WIN32
  // tavrix-cli ctl against the data root `root`: its exit status, and what
  // it printed in `text`.
  static int Ctl(const std::string& root, const std::vector<std::string>& words,
                 std::string& text) {
    std::FILE* out = std::tmpfile();
    const int status = RunCtl(root, words, out, out);
    text.assign(static_cast<size_t>(std::ftell(out)), '\0');
    std::rewind(out);
    text.resize(std::fread(text.data(), 1, text.size(), out));
    std::fclose(out);
    return status;
  }
#endif

 private slots:

  // The questions of sockets without an answers file are asked in the
  // window under the socket's name, one at a time in the order asked; the
  // answer goes to the socket that asked.
  void stationSocketsWithoutAnswersAskInTheWindow() {
    const std::string d = dir_.path().toStdString() + "/asking station";
    QVERIFY(testFiles().makeFolders(d + "/data", nullptr));
    Write(d + "/ask.wts",
          "ENTEROKCANCEL Is the unit fitted?, NOTFITTED\r\nSTOP\r\nNOTFITTED:\r\n"
          "GOTO NOWHERE\r\n");
    Write(d + "/ask.toml", "sequence = \"ask.wts\"\nlink = \"sim\"\n[socket.A]\n[socket.B]\n");
    MainWindow w(TestHost(), Factory(), "");
    StationSockets::Options options;
    options.dataRoot = d + "/data";
    options.virtualTime = true;
    w.setStationOptions(options);
    w.show();
    QVERIFY(w.openStation(d + "/ask.toml"));
    auto* a = Find<QGroupBox>(*w.station(), "tile_A");
    auto* b = Find<QGroupBox>(*w.station(), "tile_B");
    const auto state = [](QGroupBox* tile) { return Find<QLabel>(*tile, "laSocketState")->text(); };
    Click(w, "pbRunAll");
    const auto asked = [&] { return SocketQuestion(w); };
    QMessageBox* box = asked();
    const QString first = box->text();
    QVERIFY2(first == "A: Is the unit fitted?" || first == "B: Is the unit fitted?",
             qPrintable(first));
    // One question at a time: the first asker is answered OK, then the
    // second is asked and answered Cancel (its run then ends in an error).
    QCOMPARE(w.findChildren<QMessageBox*>("socketQuestion").size(), 1);
    QTest::mouseClick(Find<QPushButton>(*box, "answer_OK"), Qt::LeftButton);
    const QString second =
        first.startsWith("A") ? "B: Is the unit fitted?" : "A: Is the unit fitted?";
    QTRY_VERIFY((box = w.findChild<QMessageBox*>("socketQuestion")) != nullptr &&
                box->isVisible() && box->text() == second);
    QTest::mouseClick(Find<QPushButton>(*box, "answer_Cancel"), Qt::LeftButton);
    QGroupBox* okTile = first.startsWith("A") ? a : b;
    QGroupBox* cancelTile = first.startsWith("A") ? b : a;
    QTRY_COMPARE(state(okTile), QString("PASS"));
    QTRY_COMPARE(state(cancelTile), QString("FAIL"));
    // A socket that asks when the window closes gets no answer: the window
    // closes all the same.
    QTest::mouseClick(Find<QPushButton>(*okTile, "pbSocketRun"), Qt::LeftButton);
    asked();
  }

#ifndef _WIN32
  // Each run of a station's socket in the window keeps its record in the
  // data root, named for its socket, and listens on a control socket in the
  // record's folder while it goes: ctl lists both runs and tells each
  // socket's status while they wait on their questions; once they end, the
  // sockets are gone and the records list with how the runs ended.
  void stationSocketsKeepRecordsAndListen() {
    const std::string d = dir_.path().toStdString() + "/recorded station";
    const std::string root = d + "/data";
    QVERIFY(testFiles().makeFolders(root, nullptr));
    Write(d + "/ask.wts", "ENTEROKCANCEL Fitted?, GONE\r\nSTOP\r\nGONE:\r\nSTOP\r\n");
    Write(d + "/rec.toml", "sequence = \"ask.wts\"\nlink = \"sim\"\n[socket.A]\n[socket.B]\n");
    MainWindow w(TestHost(), Factory(), "");
    StationSockets::Options options;
    options.dataRoot = root;
    options.virtualTime = true;
    w.setStationOptions(options);
    w.show();
    QVERIFY(w.openStation(d + "/rec.toml"));
    const LocalFileSystem files(root);
    QCOMPARE(ListRunRecords(files).size(), size_t{0});
    Click(w, "pbRunAll");
    const auto asked = [&] { return SocketQuestion(w); };
    QMessageBox* box = asked();
    QTRY_COMPARE(ListRunRecords(files).size(), size_t{2});
    std::vector<std::string> sockets;
    std::string text;
    for (const RunRecordSummary& record : ListRunRecords(files)) {
      sockets.push_back(record.testSocket);
      QCOMPARE(record.frontEnd, std::string("station"));
      QVERIFY(!record.end);
      QTRY_VERIFY(RunAnswers(record.folder));
      QCOMPARE(Ctl(root, {record.id, "status"}, text), 0);
      QVERIFY2(text.find("\"socket\":\"" + record.testSocket + "\"") != std::string::npos &&
                   text.find("ask.wts") != std::string::npos &&
                   text.find("\"state\":\"running\"") != std::string::npos,
               text.c_str());
    }
    std::sort(sockets.begin(), sockets.end());
    QCOMPARE(sockets, (std::vector<std::string>{"A", "B"}));
    QCOMPARE(Ctl(root, {"list"}, text), 0);
    for (const RunRecordSummary& record : ListRunRecords(files))
      QVERIFY2(text.find(record.id) != std::string::npos, text.c_str());

    // Both answered: the runs end, their sockets go, their records stay.
    const QString first = box->text();
    QTest::mouseClick(Find<QPushButton>(*box, "answer_OK"), Qt::LeftButton);
    QTRY_VERIFY((box = w.findChild<QMessageBox*>("socketQuestion")) != nullptr &&
                box->isVisible() && box->text() != first);
    QTest::mouseClick(Find<QPushButton>(*box, "answer_OK"), Qt::LeftButton);
    QTRY_VERIFY(ListRunRecords(files).size() == 2 && ListRunRecords(files)[0].end &&
                ListRunRecords(files)[1].end);
    // What ctl list --all prints.
    std::FILE* out = std::tmpfile();
    QCOMPARE(ListAllRuns(files, out,
                         [&](const std::string& id) {
                           return RunAnswers(RunRecordsFolder(files) + "/" + id);
                         }),
             0);
    text.assign(static_cast<size_t>(std::ftell(out)), '\0');
    std::rewind(out);
    text.resize(std::fread(text.data(), 1, text.size(), out));
    std::fclose(out);
    for (const RunRecordSummary& record : ListRunRecords(files)) {
      QCOMPARE(record.endReason, std::string("stop"));
      QVERIFY2(text.find(record.id) != std::string::npos, text.c_str());
      QTRY_VERIFY(testFiles().info(record.folder + "/control.sock").kind == FileKind::kMissing);
      const std::string trace = ReadAll(record.folder + "/trace.jsonl");
      QVERIFY2(trace.find("\"ev\":\"prompt\"") != std::string::npos &&
                   trace.find("\"ev\":\"end\",\"reason\":\"stop\"}") != std::string::npos,
               trace.c_str());
    }
  }
#endif

  // A station of two sockets on the simulated rig, on one virtual clock:
  // each tile reaches its own verdict, Stop on one socket leaves the other
  // running, a finished socket tests its next unit, and closing the station
  // gives back the one-sequence window.
  void stationTilesRunEachSocketOnItsOwn() {
    const std::string d = dir_.path().toStdString() + "/station";
    QVERIFY(testFiles().makeFolders(d + "/data", nullptr));
    Write(d + "/details.txt",
          "TEST SEQUENCE - DETAILS\r\nTitle\tNotes\tVersion\r\nPump test\t\t1\t\t" + d +
              "/fields.txt\t" + d + "/stages.txt\t" + d + "/results\r\n");
    Write(d + "/fields.txt", "TEST SEQUENCE - FIELD NAMES\r\nField Name\r\n");
    Write(d + "/stages.txt",
          "TEST SEQUENCE - STAGE CHECKS\r\nStep Number\r\n"
          "1\tMANUAL\t\t\t\t\tSeal\t\tIs the seal fitted?\r\n");
    Write(d + "/unit.wts", "DB_DATAENTRY " + d +
                               "/details.txt\r\nDB_STAGECHECK 1\r\nSEND S1_HEATER, 5\r\n"
                               "WAITSECONDS 600\r\nSTOP\r\n");
    Write(d + "/s1.answers",
          "DATAENTRY: Accept|serial=A1\nUUTCHECK: Pass\nDATAENTRY: Accept|serial=A2\n"
          "UUTCHECK: Pass\n");
    Write(d + "/s2.answers", "DATAENTRY: Accept|serial=B1\nUUTCHECK: Fail and Continue\n");
    // S2 sees the rig's S2_ channels under the names S1 sees its own by.
    Write(d + "/bench.toml",
          "name = \"BENCH\"\nsequence = \"unit.wts\"\nsetup = \"" TAVRIX_SOURCE_DIR
          "/examples/station4.ims\"\nlink = \"sim\"\n"
          "[socket.S1]\nanswers = \"s1.answers\"\n"
          "[socket.S2]\nanswers = \"s2.answers\"\nmap = { S1_HEATER = \"S2_HEATER\" }\n");

    StationSockets::Options options;
    options.dataRoot = d + "/data";
    options.virtualTime = true;
    options.start = 1'767'225'600LL * kMicrosPerSecond;
    {
      // A station file that cannot be used is told, and the window stays as
      // it was.
      Write(d + "/bad.toml", "sequence = \"unit.wts\"\n[socket.S1]\nanswer = \"s1.answers\"\n");
      MainWindow w(TestHost(), Factory(), "");
      w.setStationOptions(options);
      w.show();
      QVERIFY(Find<QAction>(w, "mbOpenStation")->isEnabled());
      QVERIFY(!Find<QAction>(w, "mbCloseStation")->isEnabled());
      QVERIFY(!w.openStation(d + "/bad.toml"));
      QMessageBox* box = Box(w, "messageBox");
      QVERIFY2(box->text().contains("bad.toml") && box->text().contains("answer"),
               qPrintable(box->text()));
      QVERIFY(w.station() == nullptr);
      QVERIFY(Find<QLabel>(w, "sRunStatus")->isVisible());
    }
    // Named on the command line, the station opens with the window.
    MainWindow w(TestHost(), Factory(), d + "/bench.toml");
    w.setStationOptions(options);
    w.show();
    QTRY_VERIFY(w.station() != nullptr && w.station()->isVisible());
    QVERIFY(Find<QAction>(w, "mbCloseStation")->isEnabled());
    QVERIFY(!Find<QLabel>(w, "sRunStatus")->isVisible());
    auto* s1 = Find<QGroupBox>(*w.station(), "tile_S1");
    auto* s2 = Find<QGroupBox>(*w.station(), "tile_S2");
    const auto state = [](QGroupBox* tile) { return Find<QLabel>(*tile, "laSocketState")->text(); };
    const auto button = [](QGroupBox* tile, const char* name) {
      return Find<QPushButton>(*tile, name);
    };
    QTRY_VERIFY(button(s1, "pbSocketRun")->isEnabled() && button(s2, "pbSocketRun")->isEnabled());
    QCOMPARE(state(s1), QString("READY"));
    QVERIFY(!button(s1, "pbSocketStop")->isEnabled());
    QVERIFY(!Find<QPushButton>(*w.station(), "pbStopAll")->isEnabled());

    // Run all: each socket tests its unit to its own verdict.
    Click(w, "pbRunAll");
    QTRY_COMPARE(state(s1), QString("PASS"));
    QTRY_COMPARE(state(s2), QString("FAIL"));
    QCOMPARE(Find<QLabel>(*s1, "laSocketSerial")->text(), QString("Serial number: A1"));
    QCOMPARE(Find<QLabel>(*s2, "laSocketSerial")->text(), QString("Serial number: B1"));
    QVERIFY2(Find<QLabel>(*s2, "laSocketEnd")->text().contains("0 passed, 1 failed"),
             qPrintable(Find<QLabel>(*s2, "laSocketEnd")->text()));
    QCOMPARE(Find<QLabel>(*s1, "laSocketLine")->text(), QString("Line 5: STOP"));

    // Both step into their next units; Stop on S2 leaves S1 held in its run.
    QTest::mouseClick(button(s1, "pbSocketStep"), Qt::LeftButton);
    QTest::mouseClick(button(s2, "pbSocketStep"), Qt::LeftButton);
    QTRY_COMPARE(Find<QLabel>(*s1, "laSocketLine")->text(),
                 QString::fromStdString("Held at 1: DB_DATAENTRY " + d + "/details.txt"));
    QTRY_VERIFY(button(s2, "pbSocketStop")->isEnabled());
    QCOMPARE(state(s1), QString("RUNNING"));
    QCOMPARE(state(s2), QString("RUNNING"));
    QVERIFY(Find<QPushButton>(*w.station(), "pbStopAll")->isEnabled());
    QTest::mouseClick(button(s2, "pbSocketStop"), Qt::LeftButton);
    QTRY_COMPARE(state(s2), QString("STOPPED"));
    QCOMPARE(state(s1), QString("RUNNING"));
    QVERIFY(button(s1, "pbSocketStop")->isEnabled());
    QVERIFY(button(s2, "pbSocketRun")->isEnabled());
    // The window asks before it closes while a socket runs.
    QVERIFY(!w.close());
    QMessageBox* ask = Box(w, "exitQuestion");
    QTest::mouseClick(Find<QPushButton>(*ask, "answer_No"), Qt::LeftButton);

    // S1 goes on freely with its next unit.
    QTest::mouseClick(button(s1, "pbSocketRun"), Qt::LeftButton);
    QTRY_COMPARE(Find<QLabel>(*s1, "laSocketSerial")->text(), QString("Serial number: A2"));
    QTRY_COMPARE(state(s1), QString("PASS"));
    QVERIFY2(Find<QLabel>(*s1, "laSocketEnd")->text().contains("2 passed, 0 failed"),
             qPrintable(Find<QLabel>(*s1, "laSocketEnd")->text()));

    Find<QAction>(w, "mbCloseStation")->trigger();
    QVERIFY(w.station() == nullptr);
    QVERIFY(Find<QLabel>(w, "sRunStatus")->isVisible());
  }
  void runsAndStopsAWait() {
    MainWindow w(TestHost(), Factory(), Sequence("wait.wts", {"WAITSECONDS 60"}));
    w.show();
    QTRY_COMPARE(Status(w), QString("Ready"));
    QTRY_VERIFY(Find<QPushButton>(w, "pbRun")->isEnabled());
    QVERIFY(!Find<QPushButton>(w, "pbStop")->isEnabled());
    QTest::mouseClick(Find<QPushButton>(w, "pbRun"), Qt::LeftButton);
    QTRY_COMPARE(Status(w), QString("Running"));
    QTRY_VERIFY(Find<QPushButton>(w, "pbStop")->isEnabled());
    QVERIFY(!Find<QPushButton>(w, "pbRun")->isEnabled());
    QVERIFY(!Find<QCheckBox>(w, "cbSingleStep")->isEnabled());
    QElapsedTimer clock;
    clock.start();
    QTest::mouseClick(Find<QPushButton>(w, "pbStop"), Qt::LeftButton);
    QTRY_COMPARE(Status(w), QString("Stopped"));
    qInfo("Stop click to \"Stopped\": %lld ms", static_cast<long long>(clock.elapsed()));
    QVERIFY(Find<QPushButton>(w, "pbRun")->isEnabled());
    // Run and the run size: the window moved and grew.
    QCOMPARE(w.size(), QSize(TwipsToPixels(9015), TwipsToPixels(8865)));
  }

  void singleStepsWithStepAndSkip() {
    MainWindow w(TestHost(), Factory(),
                 Sequence("steps.wts", {"RESETLOOPCOUNT", "INCREMENTLOOPCOUNT", "STOP"}));
    w.show();
    QTRY_VERIFY(Find<QCheckBox>(w, "cbSingleStep")->isEnabled());
    Find<QCheckBox>(w, "cbSingleStep")->setChecked(true);
    auto* command = Find<QLineEdit>(w, "sCurrentCommand");
    QTRY_COMPARE(command->text(), QString("RESETLOOPCOUNT"));
    QTRY_VERIFY(Find<QPushButton>(w, "pbStep")->isEnabled());
    QVERIFY(Find<QPushButton>(w, "pbSkip")->isEnabled());
    QTest::mouseClick(Find<QPushButton>(w, "pbStep"), Qt::LeftButton);
    QTRY_COMPARE(command->text(), QString("INCREMENTLOOPCOUNT"));
    QTest::mouseClick(Find<QPushButton>(w, "pbSkip"), Qt::LeftButton);
    QTRY_COMPARE(command->text(), QString("STOP"));
    QTest::mouseClick(Find<QPushButton>(w, "pbStep"), Qt::LeftButton);
    QTRY_COMPARE(Status(w), QString("Stopped"));
    QTRY_VERIFY(!Find<QCheckBox>(w, "cbSingleStep")->isChecked());
    QVERIFY(!Find<QPushButton>(w, "pbStep")->isEnabled());
  }

  // The lines view: the margin and F9 set and clear line breakpoints, the
  // form adds a label with a hit count while the run waits on a question;
  // a breakpoint holds the run as single step does, the status says which
  // one, the held line is marked, and Run, Step and Clear carry on from
  // there until the run ends.
  void breakpointsOnTheLinesView() {
    MainWindow w(
        TestHost(), Factory(),
        Sequence("breaks.wts", {"CONTINUEOK Ready?", "RESETLOOPCOUNT", "TOP:", "LOOPCHECK 3, DONE",
                                "INCREMENTLOOPCOUNT", "GOTO TOP", "DONE:", "STOP"}));
    w.show();
    QVERIFY(QTest::qWaitForWindowActive(&w));
    auto* table = Find<QTableView>(w, "tvLines");
    QAbstractItemModel* lines = table->model();
    QTRY_COMPARE(lines->rowCount(), 8);
    QCOMPARE(lines->index(3, 1).data().toInt(), 4);
    QCOMPARE(lines->index(3, 2).data().toString(), QString("LOOPCHECK 3, DONE"));
    auto* tabs = Find<QTabWidget>(w, "tabs");
    tabs->setCurrentWidget(Find<QWidget>(w, "frLines"));
    auto* list = Find<QListWidget>(w, "lbBreakpoints");
    auto* hold = Find<QLabel>(w, "laHold");
    const auto margin = [&](int line) { return lines->index(line - 1, 0).data().toString(); };
    const auto clickMargin = [&](int line) {
      QTest::mouseClick(table->viewport(), Qt::LeftButton, {},
                        table->visualRect(lines->index(line - 1, 0)).center());
    };
    const QString dot = QString::fromUtf8("\u25CF");
    const QString arrow = QString::fromUtf8("\u25B6");

    // F9 on the selected line sets a breakpoint and clears it again.
    table->setFocus();
    table->setCurrentIndex(lines->index(1, 2));
    QTest::keyClick(table, Qt::Key_F9);
    QTRY_COMPARE(list->count(), 1);
    QCOMPARE(list->item(0)->text(), QString("1: line 2, hit 0 times"));
    QCOMPARE(margin(2), dot);
    QTest::keyClick(table, Qt::Key_F9);
    QTRY_COMPARE(list->count(), 0);
    QCOMPARE(margin(2), QString());
    // A click in line 5's margin.
    clickMargin(5);
    QTRY_COMPARE(list->count(), 1);
    QCOMPARE(list->item(0)->text(), QString("2: line 5, hit 0 times"));
    QCOMPARE(margin(5), dot);

    // While the run waits on its first question: a label with a hit count,
    // and a label the file lacks, which the engine refuses.
    Click(w, "pbRun");
    QTRY_VERIFY(Find<QGroupBox>(w, "frOKcancel")->isVisible());
    tabs->setCurrentWidget(Find<QWidget>(w, "frLines"));
    Find<QComboBox>(w, "cbBreakKind")->setCurrentIndex(0);
    Find<QLineEdit>(w, "ebBreakTarget")->setText("WARM");
    Click(w, "pbBreakAdd");
    auto* problem = Find<QLabel>(w, "laBreakProblem");
    QTRY_VERIFY(problem->isVisible() && problem->text().contains("label WARM does not exist"));
    Find<QLineEdit>(w, "ebBreakTarget")->setText("TOP");
    Find<QSpinBox>(w, "sbBreakHits")->setValue(2);
    Click(w, "pbBreakAdd");
    QTRY_COMPARE(list->count(), 2);
    QCOMPARE(list->item(1)->text(), QString("3: label TOP (line 4), from hit 2, hit 0 times"));
    QVERIFY(!problem->isVisible());
    QCOMPARE(margin(4), dot);
    QCOMPARE(Find<QSpinBox>(w, "sbBreakHits")->value(), 1);
    tabs->setCurrentWidget(Find<QWidget>(w, "frManual"));
    Click(w, "pbOKcancelOK");

    // Held before line 5 by its breakpoint, the lines view in front.
    QTRY_COMPARE(hold->text(), QString("Held before line 5 by breakpoint 2 (line 5, hit 1 time)"));
    QVERIFY(hold->isVisible());
    QCOMPARE(tabs->currentWidget(), Find<QWidget>(w, "frLines"));
    QCOMPARE(Status(w), QString("Running"));
    QTRY_VERIFY(Find<QPushButton>(w, "pbStep")->isEnabled());
    QVERIFY(Find<QPushButton>(w, "pbSkip")->isEnabled());
    QVERIFY(Find<QPushButton>(w, "pbRun")->isEnabled());
    QCOMPARE(Find<QLineEdit>(w, "sCurrentCommand")->text(), QString("INCREMENTLOOPCOUNT"));
    QTRY_COMPARE(margin(5), arrow + dot);
    QVERIFY(lines->index(4, 2).data(Qt::BackgroundRole).isValid());
    QVERIFY(!lines->index(3, 2).data(Qt::BackgroundRole).isValid());
    // Cleared while held; Run goes on to the label's second hit.
    clickMargin(5);
    QTRY_COMPARE(list->count(), 1);
    QCOMPARE(margin(5), arrow);
    Click(w, "pbRun");
    QTRY_COMPARE(hold->text(), QString("Held before line 4 by breakpoint 3 (label TOP (line 4), "
                                       "from hit 2, hit 2 times)"));
    QTRY_COMPARE(margin(4), arrow + dot);
    QCOMPARE(margin(5), QString());
    // Step runs the held line and holds the next, as single step does.
    Click(w, "pbStep");
    QTRY_COMPARE(hold->text(), QString("Held before line 5 (single step)"));
    // The last one cleared from the list; Run goes to the end.
    list->setCurrentRow(0);
    Click(w, "pbBreakClear");
    QTRY_COMPARE(list->count(), 0);
    Click(w, "pbRun");
    QTRY_COMPARE(Status(w), QString("Stopped"));
    QTRY_COMPARE(Find<QLabel>(w, "laRunEnd")->text(), QString("Ended: STOP in the sequence"));
    QTRY_VERIFY(!hold->isVisible());
    for (int line = 1; line <= 8; ++line) QCOMPARE(margin(line), QString());
  }

  void panelIsAnsweredByClicks() {
    MainWindow w(TestHost(), Factory(),
                 Sequence("panel.wts", {"CONTINUEOK Fit the unit", "ENTEROKCANCEL Hot?, COOL",
                                        "WAITSECONDS 60", "COOL:", "STOP"}));
    w.show();
    QTRY_VERIFY(Find<QPushButton>(w, "pbRun")->isEnabled());
    QTest::mouseClick(Find<QPushButton>(w, "pbRun"), Qt::LeftButton);
    auto* panel = Find<QGroupBox>(w, "frOKcancel");
    auto* ok = Find<QPushButton>(w, "pbOKcancelOK");
    auto* cancel = Find<QPushButton>(w, "pbOKcancelCancel");
    QTRY_VERIFY(panel->isVisible());
    QCOMPARE(Find<QLabel>(w, "laMessage")->text(), QString("Fit the unit"));
    QCOMPARE(ok->text(), QString("Continue"));
    QVERIFY(!cancel->isVisible());
    QTest::mouseClick(ok, Qt::LeftButton);
    QTRY_COMPARE(Find<QLabel>(w, "laMessage")->text(), QString("Hot?"));
    QTRY_VERIFY(panel->isVisible());
    QCOMPARE(ok->text(), QString("OK"));
    QVERIFY(cancel->isVisible());
    QTest::mouseClick(cancel, Qt::LeftButton);
    QTRY_COMPARE(Status(w), QString("Stopped"));
    QVERIFY(!panel->isVisible());
  }

  // Stop with a line held in single step ends the run without running the
  // line: the heater stays off. Skip's tooltip says the held line runs.
  void stopNeverRunsTheHeldLine() {
    const std::string file =
        Sequence("held.wts",
                 {"IMSFILESPEC " TAVRIX_SOURCE_DIR "/examples/rig.ims", "SEND HEATER, 77", "STOP"});
    MainWindow w(TestHost(), RigFactory(), file);
    w.show();
    QVERIFY(Find<QPushButton>(w, "pbSkip")->toolTip().contains("held line still runs"));
    QVERIFY(Find<QPushButton>(w, "pbStop")->text().contains("F12"));
    QTRY_VERIFY(Find<QCheckBox>(w, "cbSingleStep")->isEnabled());
    QCOMPARE(Channel(w, "HEATER"), std::string("0"));
    Find<QCheckBox>(w, "cbSingleStep")->setChecked(true);
    auto* command = Find<QLineEdit>(w, "sCurrentCommand");
    QTRY_VERIFY(command->text().startsWith("IMSFILESPEC"));
    Click(w, "pbStep");
    QTRY_COMPARE(command->text(), QString("SEND HEATER, 77"));
    QTRY_VERIFY(OnEngine<bool>(w, [](Engine& e) { return e.sequencer().flags().singleStepMode; }));
    Click(w, "pbStop");
    QTRY_VERIFY(Idle(w));
    QCOMPARE(Channel(w, "HEATER"), std::string("0"));
    QTRY_COMPARE(Find<QLabel>(w, "laRunEnd")->text(), QString("Ended: Stop"));
  }

  // Exit and the close box ask while a test runs; No leaves it running,
  // Yes stops it and closes. Enter answers No.
  void exitDuringARunAsksFirst() {
    auto* w = new MainWindow(TestHost(), Factory(), Sequence("exit.wts", {"WAITSECONDS 60"}));
    w->setAttribute(Qt::WA_DeleteOnClose);
    QPointer<MainWindow> alive(w);
    w->show();
    // Not running: Exit closes at once.
    QTRY_VERIFY(Find<QPushButton>(*w, "pbRun")->isEnabled());
    Click(*w, "pbRun");
    QTRY_COMPARE(Status(*w), QString("Running"));
    auto question = [&] {
      QMessageBox* box = nullptr;
      if (!QTest::qWaitFor(
              [&] {
                return (box = w->findChild<QMessageBox*>("exitQuestion")) != nullptr &&
                       box->isVisible();
              },
              kPatienceMs))
        qFatal("no exit question");
      return box;
    };
    Find<QAction>(*w, "mbExit")->trigger();
    QMessageBox* box = question();
    QCOMPARE(box->text(), QString("A test is running. Stop it and exit?"));
    QVERIFY(!box->isModal());
    QTest::keyClick(box, Qt::Key_Return);
    QTRY_VERIFY(w->findChild<QMessageBox*>("exitQuestion") == nullptr);
    QVERIFY(alive);
    QCOMPARE(Status(*w), QString("Running"));
    w->close();
    QTest::mouseClick(question()->findChild<QPushButton*>("answer_Yes"), Qt::LeftButton);
    QTRY_VERIFY(!alive);

    // Once the run has ended, Exit closes without a question.
    auto* idle = new MainWindow(TestHost(), Factory(), Sequence("idle.wts", {"WAITSECONDS 0"}));
    idle->setAttribute(Qt::WA_DeleteOnClose);
    QPointer<MainWindow> idleAlive(idle);
    idle->show();
    QTRY_VERIFY(Find<QPushButton>(*idle, "pbRun")->isEnabled());
    Find<QAction>(*idle, "mbExit")->trigger();
    QTRY_VERIFY(!idleAlive);
  }

  // The NONSTOP close question holds nothing: the run goes on while it is
  // open and reaches the next line.
  void theRunGoesOnWhileTheCloseQuestionIsOpen() {
    auto* w = new MainWindow(
        TestHost(), Factory(),
        Sequence("nonstop2.wts", {"NONSTOP", "WAITSECONDS 1", "CONTINUEOK Wait over"}));
    w->setAttribute(Qt::WA_DeleteOnClose);
    QPointer<MainWindow> alive(w);
    w->show();
    Click(*w, "pbRun");
    QTRY_COMPARE(Find<QLineEdit>(*w, "sCurrentCommand")->text().left(11), QString("waitseconds"));
    w->close();
    QMessageBox* box = nullptr;
    QTRY_VERIFY((box = w->findChild<QMessageBox*>("questionBox")) != nullptr && box->isVisible());
    // The wait ends and the next line asks while the close question is open.
    QTRY_VERIFY(Find<QGroupBox>(*w, "frOKcancel")->isVisible());
    QCOMPARE(Find<QLabel>(*w, "laMessage")->text(), QString("Wait over"));
    QVERIFY(box->isVisible());
    QTest::mouseClick(box->findChild<QPushButton*>("answer_Cancel"), Qt::LeftButton);
    QTRY_VERIFY(w->findChild<QMessageBox*>("questionBox") == nullptr);
    Click(*w, "pbOKcancelOK");
    QTRY_VERIFY(Idle(*w));
    QVERIFY(alive);
    delete w;
  }

  // Stop answers its key from any window of the program, and a click on it
  // works while the data entry, the about box or the report's PDF dialog is
  // open: none of them is modal.
  void stopIsInReachWhateverWindowIsOpen() {
    MainWindow w(TestHost(), Factory(), UutSequence("reach.wts"));
    w.show();
    Click(w, "pbRun");
    DataEntryDialog* entry = nullptr;
    QTRY_VERIFY((entry = w.findChild<DataEntryDialog*>()) != nullptr && entry->isVisible());
    QCOMPARE(QApplication::activeModalWidget(), nullptr);
    Click(w, "pbStop");
    QTRY_COMPARE(Status(w), QString("Stopped"));
    entry->cancel();
    QTRY_VERIFY(Idle(w));

    MainWindow other(TestHost(), Factory(), Sequence("reach2.wts", {"WAITSECONDS 60"}));
    other.show();
    Click(other, "pbRun");
    QTRY_COMPARE(Status(other), QString("Running"));
    other.openAboutBox();
    QDialog* about = nullptr;
    QTRY_VERIFY((about = other.findChild<QDialog*>("frmAbout")) != nullptr && about->isVisible());
    QCOMPARE(QApplication::activeModalWidget(), nullptr);
    QTest::keyClick(about, Qt::Key_F12);
    QTRY_COMPARE(Status(other), QString("Stopped"));
    QTRY_COMPARE(Find<QLabel>(other, "laRunEnd")->text(), QString("Ended: Stop"));
    about->close();

    Click(other, "pbRun");
    QTRY_COMPARE(Status(other), QString("Running"));
    other.openReportWindow();
    ReportDialog* report = nullptr;
    QTRY_VERIFY((report = Own<ReportDialog>(other)) != nullptr && report->isVisible());
    QTest::mouseClick(report->findChild<QPushButton*>("pbPrintPdf"), Qt::LeftButton);
    QFileDialog* pdf = nullptr;
    QTRY_VERIFY((pdf = report->findChild<QFileDialog*>("pdfDialog")) != nullptr &&
                pdf->isVisible());
    QCOMPARE(QApplication::activeModalWidget(), nullptr);
    QTest::keyClick(pdf, Qt::Key_F12);
    QTRY_COMPARE(Status(other), QString("Stopped"));
    pdf->reject();
    report->close();
  }

  // Beside the status: how the run ended; a sequence error names its line
  // and its box carries the error icon.
  void howTheRunEndedIsShown() {
    MainWindow w(TestHost(), Factory(), Sequence("error.wts", {"RESETLOOPCOUNT", "GOTO NOWHERE"}));
    w.show();
    Click(w, "pbRun");
    QMessageBox* box = Box(w, "engineMessageBox");
    QVERIFY2(box->text().contains("NOWHERE"), qPrintable(box->text()));
    QCOMPARE(box->icon(), QMessageBox::Critical);
    box->accept();
    QTRY_COMPARE(Find<QLabel>(w, "laRunEnd")->text(), QString("Ended: sequence error at line 2"));
    QTRY_VERIFY(Idle(w));

    MainWindow eof(TestHost(), Factory(), Sequence("eof.wts", {"RESETLOOPCOUNT"}));
    eof.show();
    Click(eof, "pbRun");
    QTRY_COMPARE(Find<QLabel>(eof, "laRunEnd")->text(), QString("Ended: end of file"));
  }

  // The data entry opens with the serial number's field in hand: a scanned
  // serial lands whole and the scanner's Enter moves on instead of
  // accepting. A serial number, and every field the field names file marks
  // required, must be filled in; Escape ends nothing.
  void dataEntryTakesAScannerAndItsRequiredFields() {
    Answers answers;
    auto* dialog = new DataEntryDialog({"DATAENTRY", "", "", {}}, QDate(2026, 11, 15),
                                       answers.callback(), nullptr, {true, true, true, false});
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    QPointer<QDialog> alive(dialog);
    dialog->show();
    QVERIFY(QTest::qWaitForWindowActive(dialog));
    QTRY_COMPARE(QApplication::focusWidget(), Find<QLineEdit>(*dialog, "ebSerialNum"));
    QTest::keyClicks(QApplication::focusWidget(), "SN-0042");
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Return);
    QCOMPARE(Find<QLineEdit>(*dialog, "ebSerialNum")->text(), QString("SN-0042"));
    QCOMPARE(QApplication::focusWidget(), Find<QLineEdit>(*dialog, "ebDate"));
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Return);
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Escape);
    QVERIFY(answers.given.empty());
    QVERIFY(dialog->isVisible());
    // The operator's field is required here; the description is not.
    QTest::mouseClick(Find<QPushButton>(*dialog, "pbAccept"), Qt::LeftButton);
    QMessageBox* box = Box(*dialog, "messageBox");
    QCOMPARE(box->text(), QString("Operator(s) must be filled in."));
    box->accept();
    QTRY_VERIFY(dialog->findChild<QMessageBox*>("messageBox") == nullptr);
    Find<QLineEdit>(*dialog, "ebOperator")->setText("Ann");
    Find<QLineEdit>(*dialog, "ebSerialNum")->setText("  ");
    QTest::mouseClick(Find<QPushButton>(*dialog, "pbAccept"), Qt::LeftButton);
    box = Box(*dialog, "messageBox");
    QCOMPARE(box->text(), QString("Serial Number must be filled in."));
    box->accept();
    QTRY_VERIFY(dialog->findChild<QMessageBox*>("messageBox") == nullptr);
    QVERIFY(answers.given.empty());
    Find<QLineEdit>(*dialog, "ebSerialNum")->setText("SN-0042");
    QTest::mouseClick(Find<QPushButton>(*dialog, "pbAccept"), Qt::LeftButton);
    QCOMPARE(answers.given,
             std::vector<Answer>{
                 std::string("Accept|serial=SN-0042|date=15-11-2026|operator=Ann|description=")});
    QTRY_VERIFY(!alive);

    // In a run, the field names file says which fields are required, from
    // the first unit on.
    const std::string d = dir_.path().toStdString();
    Write(d + "/rdetails.txt",
          "TEST SEQUENCE - DETAILS\r\nTitle\tNotes\tVersion\r\nPump test\t\t1\t\t" + d +
              "/rfields.txt\t" + d + "/stages.txt\t" + d + "/results\r\n");
    Write(d + "/rfields.txt",
          "TEST SEQUENCE - FIELD NAMES\r\nField Name\tRequired\r\nSerial\tTRUE\r\nDate\tTRUE\r\n"
          "Operator\tFALSE\r\nDescription\tTRUE\r\n");
    Write(d + "/stages.txt", "TEST SEQUENCE - STAGE CHECKS\r\nStep Number\r\n");
    MainWindow w(TestHost(), Factory(),
                 Sequence("required.wts", {"DB_DATAENTRY " + d + "/rdetails.txt"}));
    w.show();
    Click(w, "pbRun");
    DataEntryDialog* entry = nullptr;
    QTRY_VERIFY((entry = w.findChild<DataEntryDialog*>()) != nullptr && entry->isVisible());
    Find<QLineEdit>(*entry, "ebSerialNum")->setText("SN1");
    QTest::mouseClick(Find<QPushButton>(*entry, "pbAccept"), Qt::LeftButton);
    box = Box(*entry, "messageBox");
    QCOMPARE(box->text(), QString("Description must be filled in."));
    box->accept();
    entry->cancel();
    QTRY_VERIFY(Idle(w));
  }

  // Enter never writes an output or gives a verdict: MANUALADJUST's Up, the
  // UUT Check's Pass and the report's Print take a click (or Space on the
  // chosen button). ENTERSEND types into its entry and SELECTMENU's list
  // takes the arrow keys at once.
  void enterNeverChangesTheRigOrAVerdict() {
    MainWindow w(TestHost(), Factory(), "");
    w.show();
    QVERIFY(QTest::qWaitForWindowActive(&w));
    Answers verdicts;
    w.openQuestion(
        {"UUTCHECK", "UUT Check", "Seal fitted?", {"Pass", "Fail and Repeat", "Fail and Continue"}},
        verdicts.callback());
    QTRY_VERIFY(Find<QGroupBox>(w, "frOKcancel")->isVisible());
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Return);
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Enter);
    QVERIFY(verdicts.given.empty());
    QTest::mouseClick(Find<QPushButton>(w, "pbOKcancelOK"), Qt::LeftButton);
    QCOMPARE(verdicts.given, std::vector<Answer>{std::string("Pass")});
    // The plain panel keeps Enter on OK.
    w.openQuestion({"CONTINUEOK", "", "Fit the unit", {"Continue"}}, verdicts.callback());
    QTRY_VERIFY(Find<QPushButton>(w, "pbOKcancelOK")->hasFocus());
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Return);
    QCOMPARE(verdicts.given.size(), size_t{2});

    Answers adjust;
    w.openQuestion({"MANUALADJUST", "Manual Adjust", "HEATER", {"Up", "Down", "Continue"}},
                   adjust.callback());
    QDialog* display = nullptr;
    QTRY_VERIFY((display = w.findChild<QDialog*>("frmChannelDisplay")) != nullptr &&
                display->isVisible());
    QVERIFY(QTest::qWaitForWindowActive(display));
    QTest::keyClick(display, Qt::Key_Return);
    QTest::keyClick(display, Qt::Key_Escape);
    QVERIFY(adjust.given.empty());
    QVERIFY(display->isVisible());
    for (QPushButton* b : display->findChildren<QPushButton*>())
      QVERIFY2(!b->isDefault() && !b->autoDefault(), qPrintable(b->text()));
    QTest::mouseClick(Find<QPushButton>(*display, "answer_Continue"), Qt::LeftButton);
    QCOMPARE(adjust.given, std::vector<Answer>{std::string("Continue")});

    Answers typed;
    w.openQuestion({"ENTERSEND", "", "Heater power?", {}}, typed.callback());
    QDialog* send = nullptr;
    QTRY_VERIFY((send = w.findChild<QDialog*>("frmEnterSend")) != nullptr && send->isVisible());
    QVERIFY(QTest::qWaitForWindowActive(send));
    QTRY_COMPARE(QApplication::focusWidget(), Find<QLineEdit>(*send, "ebEntry"));
    QTest::keyClicks(QApplication::focusWidget(), "42");
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Return);
    QVERIFY(typed.given.empty());
    QTest::mouseClick(Find<QPushButton>(*send, "pbEntryOK"), Qt::LeftButton);
    QCOMPARE(typed.given, std::vector<Answer>{std::string("42")});

    Answers picked;
    w.openQuestion({"SELECTMENU", "", "Which way?", {"WARM", "COOL", "HOLD"}}, picked.callback());
    QListWidget* menu = nullptr;
    QTRY_VERIFY((menu = w.findChild<QListWidget*>("lbMenu")) != nullptr && menu->isVisible());
    QVERIFY(QTest::qWaitForWindowActive(menu->window()));
    QTRY_COMPARE(QApplication::focusWidget(), menu);
    QTest::keyClick(menu, Qt::Key_Down);
    QTest::keyClick(menu, Qt::Key_Return);
    QCOMPARE(picked.given, std::vector<Answer>{std::string("COOL")});

    auto* report = new ReportDialog({}, &w);
    report->setAttribute(Qt::WA_DeleteOnClose);
    QPointer<QDialog> reportAlive(report);
    report->show();
    QVERIFY(QTest::qWaitForWindowActive(report));
    QVERIFY(!Find<QPushButton>(*report, "pbPrint")->autoDefault());
    QVERIFY(!Find<QPushButton>(*report, "pbPrintPdf")->autoDefault());
    QVERIFY(Find<QPushButton>(*report, "pbEscape")->isDefault());
    QTest::keyClick(report, Qt::Key_Return);
    QTRY_VERIFY(!reportAlive);
    QCOMPARE(w.findChild<QPrintDialog*>("printDialog"), nullptr);
  }

  // A question is shown whichever tab is in front: the panel stands above
  // the tabs, and opening it leaves the operator's tab alone.
  void aQuestionIsShownOnEveryTab() {
    MainWindow w(TestHost(), Factory(), "");
    w.show();
    auto* tabs = Find<QTabWidget>(w, "tabs");
    tabs->setCurrentIndex(1);
    Answers answers;
    w.openQuestion({"CONTINUEOK", "", "Fit the unit", {"Continue"}}, answers.callback());
    QTRY_VERIFY(Find<QGroupBox>(w, "frOKcancel")->isVisible());
    QCOMPARE(tabs->currentIndex(), 1);
    QVERIFY(!tabs->isAncestorOf(Find<QGroupBox>(w, "frOKcancel")));
    QTest::mouseClick(Find<QPushButton>(w, "pbOKcancelOK"), Qt::LeftButton);
    QCOMPARE(answers.given, std::vector<Answer>{std::string("Continue")});

    // The report window is a window of its own, not held above the main
    // window: a question brings the main window in front of it.
    w.openReportWindow();
    ReportDialog* report = nullptr;
    QTRY_VERIFY((report = Own<ReportDialog>(w)) != nullptr && report->isVisible());
    QVERIFY(QTest::qWaitForWindowActive(report));
    QCOMPARE(report->windowHandle()->transientParent(), nullptr);
    w.openQuestion({"CONTINUEOK", "", "Fit the next unit", {"Continue"}}, answers.callback());
    QTRY_COMPARE(QGuiApplication::focusWindow(), w.windowHandle());
    QVERIFY(Find<QPushButton>(w, "pbOKcancelOK")->hasFocus());
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Return);
    QCOMPARE(answers.given.size(), size_t{2});
    report->close();
  }

  // The unit tile shows the unit under test (serial, stage n of N, TESTING)
  // and then its verdict; the verdict of the unit before is gone while the
  // next is tested, and a report before the last stage says "in progress".
  void theUnitTileAndAReportInProgress() {
    const std::string d = dir_.path().toStdString();
    Write(d + "/tdetails.txt",
          "TEST SEQUENCE - DETAILS\r\nTitle\tNotes\tVersion\r\nPump test\t\t1\t\t" + d +
              "/tfields.txt\t" + d + "/tstages.txt\t" + d + "/results\r\n");
    Write(d + "/tfields.txt", "TEST SEQUENCE - FIELD NAMES\r\nField Name\r\n");
    Write(d + "/tstages.txt",
          "TEST SEQUENCE - STAGE CHECKS\r\nStep Number\r\n"
          "1\tMANUAL\t\t\t\t\tSeal\t\tIs the seal fitted?\r\n"
          "2\tMANUAL\t\t\t\t\tPaint\t\tIs the paint dry?\r\n");
    MainWindow w(TestHost(), Factory(),
                 Sequence("tile.wts", {"NEXT:", "DB_DATAENTRY " + d + "/tdetails.txt",
                                       "DB_STAGECHECK 1", "DB_STAGECHECK 2", "GOTO NEXT"}));
    w.show();
    Click(w, "pbRun");
    auto enter = [&](const char* serial) {
      DataEntryDialog* entry = nullptr;
      QTRY_VERIFY((entry = w.findChild<DataEntryDialog*>()) != nullptr && entry->isVisible());
      Find<QLineEdit>(*entry, "ebSerialNum")->setText(serial);
      QTest::mouseClick(Find<QPushButton>(*entry, "pbAccept"), Qt::LeftButton);
    };
    auto* ok = Find<QPushButton>(w, "pbOKcancelOK");
    enter("SN1");
    QTRY_COMPARE(Find<QLabel>(w, "laMessage")->text(), QString("Is the seal fitted?"));
    QTRY_COMPARE(Find<QLabel>(w, "laUnitState")->text(), QString("TESTING"));
    QCOMPARE(Find<QLabel>(w, "laUnitSerial")->text(), QString("Serial number: SN1"));
    QTRY_COMPARE(Find<QLabel>(w, "laUnitStage")->text(), QString("Stage 1 of 2"));
    // The report while stage 1 of 2 is asked: no verdict yet.
    w.openReportWindow();
    ReportDialog* report = nullptr;
    QTRY_VERIFY((report = Own<ReportDialog>(w)) != nullptr && report->isVisible());
    QCOMPARE(Find<QLabel>(*report, "laVerdict")->text(), QString("in progress"));
    QVERIFY(report->document()->toPlainText().contains("in progress"));
    delete report;
    QTest::mouseClick(ok, Qt::LeftButton);  // Pass
    QTRY_COMPARE(Find<QLabel>(w, "laUnitStage")->text(), QString("Stage 2 of 2"));
    QTRY_COMPARE(Find<QLabel>(w, "laMessage")->text(), QString("Is the paint dry?"));
    QTest::mouseClick(ok, Qt::LeftButton);  // Pass: the unit ends
    QTRY_VERIFY(w.findChild<DataEntryDialog*>() != nullptr);
    QTRY_COMPARE(Find<QLabel>(w, "laUnitState")->text(), QString("PASS"));
    QVERIFY(w.findChild<QLabel*>("laVerdict")->isVisible());
    enter("SN2");
    QTRY_COMPARE(Find<QLabel>(w, "laUnitSerial")->text(), QString("Serial number: SN2"));
    QTRY_COMPARE(Find<QLabel>(w, "laUnitState")->text(), QString("TESTING"));
    QVERIFY(!w.findChild<QLabel*>("laVerdict")->isVisible());
    QTRY_VERIFY(Find<QGroupBox>(w, "frOKcancel")->isVisible());
    Click(w, "pbStop");
    QTest::mouseClick(ok, Qt::LeftButton);
    QTRY_VERIFY(Idle(w));
  }

  // A wait shows its time left as minutes and seconds, with a progress bar.
  void aWaitCountsDownInMinutes() {
    MainWindow w(TestHost(), Factory(), Sequence("long.wts", {"WAITSECONDS 600"}));
    w.show();
    Click(w, "pbRun");
    auto* command = Find<QLineEdit>(w, "sCurrentCommand");
    auto* bar = Find<QProgressBar>(w, "pbWait");
    QTRY_VERIFY(bar->isVisible());
    QTRY_VERIFY2(
        command->text().startsWith("waitseconds 09:") || command->text() == "waitseconds 10:00",
        qPrintable(command->text()));
    QVERIFY2(bar->text().contains("left of 10:00"), qPrintable(bar->text()));
    Click(w, "pbStop");
    QTRY_VERIFY(!bar->isVisible());

    // WAIT shows the reading it waits on beside its condition.
    MainWindow rig(TestHost(), RigFactory(), Sequence("oven.wts", {"WAIT OVEN > 5000"}));
    rig.show();
    Click(rig, "pbRun");
    auto* reading = Find<QLabel>(rig, "laWaitReading");
    static const QRegularExpression kReading(
        R"(^Waiting for OVEN > 5000: OVEN reads (\d+(\.\d+)?))");
    QTRY_VERIFY2(kReading.match(reading->text()).hasMatch(), qPrintable(reading->text()));
    QVERIFY(kReading.match(reading->text()).captured(1).toDouble() > 15);
    Click(rig, "pbStop");
    QTRY_VERIFY(!reading->isVisible());
  }

  // The report prints at a readable size, with the fields as edited: the
  // PDF's text layer holds them at body-text height, and a rendered page
  // shows ink.
  void theReportPdfIsReadableWithItsEditedFields() {
    ReportContents contents;
    contents.header.testName = "Pump test";
    contents.header.serialNumber = "SN9";
    contents.header.date = "01-02-2026";
    contents.header.engineers = "Ann";
    CheckEntry check;
    check.stage = 1;
    check.parameter = "Seal";
    check.passed = true;
    contents.checks.push_back(check);
    ReportDialog report(contents, nullptr);
    Find<QLineEdit>(report, "ebEngineers")->setText("Bobby Ray");
    Find<QLineEdit>(report, "ebDate")->setText("02-03-2026");
    const QString pdf = dir_.path() + "/readable.pdf";
    QVERIFY(report.printToPdf(pdf));

    QProcess text;
    text.start("pdftotext", {"-bbox", pdf, "-"});
    QVERIFY2(text.waitForFinished(30000) && text.exitCode() == 0, "pdftotext (poppler-utils)");
    const QString boxes = QString::fromUtf8(text.readAllStandardOutput());
    QVERIFY(boxes.contains(">Bobby<") && boxes.contains(">02-03-2026<"));
    QVERIFY(!boxes.contains(">Ann<") && !boxes.contains(">01-02-2026<"));
    static const QRegularExpression kWord(
        R"re(yMin="([\d.]+)" xMax="[\d.]+" yMax="([\d.]+)">Bobby<)re");
    const QRegularExpressionMatch word = kWord.match(boxes);
    QVERIFY(word.hasMatch());
    const double height = word.captured(2).toDouble() - word.captured(1).toDouble();
    QVERIFY2(height > 6 && height < 24, qPrintable(QString::number(height)));

    QProcess render;
    const QString png = dir_.path() + "/readable";
    render.start("pdftoppm", {"-r", "40", "-f", "1", "-l", "1", "-png", "-singlefile", pdf, png});
    QVERIFY(render.waitForFinished(30000) && render.exitCode() == 0);
    QImage page(png + ".png");
    QVERIFY(!page.isNull());
    long ink = 0;
    for (int y = 0; y < page.height(); ++y)
      for (int x = 0; x < page.width(); ++x) ink += qGray(page.pixel(x, y)) < 128;
    QVERIFY2(ink > page.width() * page.height() / 400, qPrintable(QString::number(ink)));
    QFile::remove(png + ".png");
    QFile::remove(pdf);
  }

  // A run, free or stepped, holds its file: the file items are locked, the
  // engine refuses a new file, and a file opened afterwards runs only its
  // own lines.
  void openingAFileNeverRunsAHeldLineOfAnother() {
    const std::string fileA = Sequence(
        "a.wts", {"IMSFILESPEC " TAVRIX_SOURCE_DIR "/examples/rig.ims", "SEND HEATER, 77", "STOP"});
    const std::string fileB = Sequence("b.wts", {"SEND FAN, 5", "STOP"});
    MainWindow w(TestHost(), RigFactory(), fileA);
    w.show();
    QTRY_VERIFY(Find<QCheckBox>(w, "cbSingleStep")->isEnabled());
    Find<QCheckBox>(w, "cbSingleStep")->setChecked(true);
    auto* command = Find<QLineEdit>(w, "sCurrentCommand");
    QTRY_VERIFY(command->text().startsWith("IMSFILESPEC"));
    Click(w, "pbStep");
    QTRY_COMPARE(command->text(), QString("SEND HEATER, 77"));
    for (const char* item : {"mbOpenSequence", "mbSelectSetup", "mbFileDecrypt"})
      QVERIFY2(!Find<QAction>(w, item)->isEnabled(), item);
    // Asked all the same (a queued click), the engine opens no dialog.
    w.chooseSequenceFile();
    QVERIFY(OnEngine<bool>(w, [](Engine& e) { return e.sequencer().flags().running; }));
    QCOMPARE(w.findChild<QFileDialog*>("engineFileDialog"), nullptr);

    Click(w, "pbStop");
    QTRY_COMPARE(Status(w), QString("Stopped"));
    QTRY_VERIFY(Find<QAction>(w, "mbOpenSequence")->isEnabled());
    QTRY_VERIFY(Idle(w));
    w.host().post([](Engine& e) { e.instrument()->channels().WriteChannel("HEATER", "0"); });
    Find<QAction>(w, "mbOpenSequence")->trigger();
    QFileDialog* dialog = nullptr;
    QTRY_VERIFY((dialog = w.findChild<QFileDialog*>("engineFileDialog")) != nullptr &&
                dialog->isVisible());
    // Typed into the dialog's file name box, as an operator would.
    auto* name = dialog->findChild<QLineEdit*>();
    QVERIFY(name != nullptr);
    name->setText(QString::fromStdString(fileB));
    static_cast<QDialog*>(dialog)->accept();
    QTRY_COMPARE(Find<QLineEdit>(w, "sDataFileSpec")->text(), QString::fromStdString(fileB));
    QTRY_COMPARE(Status(w), QString("Ready"));
    Click(w, "pbRun");
    QTRY_COMPARE(Status(w), QString("Stopped"));
    QCOMPARE(Channel(w, "FAN"), std::string("5"));
    QCOMPARE(std::stod(Channel(w, "HEATER")), 0.0);
  }

  // Whatever tab is in front, a question comes into view with its default
  // button focused, and Enter or Space answers it; a failure alert stands
  // out from the panel's usual green.
  void aQuestionComesIntoViewAndTheKeyboardAnswersIt() {
    MainWindow w(TestHost(), Factory(),
                 Sequence("ask.wts", {"CONTINUEOK Fit the unit", "ENTEROKCANCEL Hot?, COOL", "STOP",
                                      "COOL:", "WAITSECONDS 60"}));
    w.show();
    QVERIFY(QTest::qWaitForWindowActive(&w));
    auto* tabs = Find<QTabWidget>(w, "tabs");
    tabs->setCurrentWidget(Find<QWidget>(w, "frManual"));
    auto* panel = Find<QGroupBox>(w, "frOKcancel");
    auto* ok = Find<QPushButton>(w, "pbOKcancelOK");
    Click(w, "pbRun");
    QTRY_VERIFY(panel->isVisible());
    QTRY_COMPARE(QApplication::focusWidget(), static_cast<QWidget*>(ok));
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Return);
    QTRY_COMPARE(Find<QLabel>(w, "laMessage")->text(), QString("Hot?"));
    QTRY_VERIFY(panel->isVisible());
    QTRY_COMPARE(QApplication::focusWidget(), static_cast<QWidget*>(ok));
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Space);
    QTRY_COMPARE(Status(w), QString("Stopped"));  // OK: STOP, not the jump to COOL

    Answers answers;
    w.openQuestion({"ALERT", "Alert Message", "Value: 3.00  Min: 1  Max: 2", {"Accept", "Cancel"}},
                   answers.callback());
    const QColor alert = panel->palette().color(QPalette::Window);
    QVERIFY(alert != QColor(192, 255, 192));
    QVERIFY2(alert.red() > alert.green(), qPrintable(alert.name()));
    QTest::mouseClick(ok, Qt::LeftButton);
    QCOMPARE(answers.given, std::vector<Answer>{std::string("Accept")});
    QCOMPARE(panel->palette().color(QPalette::Window), QColor(192, 255, 192));
  }

  // The dialogs of SELECTMENU, ENTERSEND, DOWITHSHOW and MANUALADJUST leave
  // Stop within reach, and Stop ends the command without acting on it.
  void stopEndsTheCommandsThatAskInDialogs() {
    const std::pair<const char*, const char*> commands[] = {
        {"SELECTMENU Which way?, SET, OTHER", "frmSelectMenu"},
        {"ENTERSEND Heater power?, HEATER", "frmEnterSend"},
        {"DOWITHSHOW Watch the oven, OVEN", "frmChannelDisplay"},
        {"MANUALADJUST HEATER, 5", "frmChannelDisplay"}};
    for (const auto& [line, dialogName] : commands) {
      MainWindow w(TestHost(), RigFactory(),
                   Sequence("dialog.wts", {line, "SET:", "SEND HEATER, 40", "OTHER:"}));
      w.show();
      Click(w, "pbRun");
      QDialog* dialog = nullptr;
      QTRY_VERIFY((dialog = w.findChild<QDialog*>(dialogName)) != nullptr && dialog->isVisible());
      QVERIFY2(QApplication::activeModalWidget() == nullptr, line);
      QVERIFY(Find<QPushButton>(w, "pbStop")->isEnabled());
      QTest::mouseClick(Find<QPushButton>(w, "pbStop"), Qt::LeftButton);
      QTRY_COMPARE(Status(w), QString("Stopped"));
      QTRY_VERIFY2(w.findChild<QDialog*>(dialogName) == nullptr ||
                       !w.findChild<QDialog*>(dialogName)->isVisible(),
                   line);
      // The run unwinds once the engine has taken the stop and the withdrawn answer.
      QTRY_VERIFY(Idle(w));
      QVERIFY2(
          OnEngine<bool>(w, [](Engine& e) { return e.sequencer().lastSequenceError().empty(); }),
          line);
      QCOMPARE(std::stod(Channel(w, "HEATER")), 0.0);
    }
  }

  // A box or file dialog the engine waits for never holds the engine's
  // thread: its timers keep running while the dialog is open.
  void theEngineRunsWhileItsDialogsAreOpen() {
    MainWindow w(TestHost(), Factory(), "");
    w.show();
    auto ticks = std::make_shared<std::atomic<int>>(0);
    auto timer = std::make_shared<std::unique_ptr<Timer>>();
    w.host().post([ticks, timer](Engine& e) {
      *timer = std::make_unique<Timer>(e.events(), 10 * 1000, [ticks] { ++*ticks; });
      (*timer)->setEnabled(true);
    });
    w.host().post([](Engine& e) {
      FileChoice dialog;
      dialog.title = "Load Test Sequence File";
      e.sequencer().operatorPort().chooseFile(dialog);
    });
    QFileDialog* files = nullptr;
    QTRY_VERIFY((files = w.findChild<QFileDialog*>("engineFileDialog")) != nullptr &&
                files->isVisible());
    QVERIFY(!files->isModal());
    int before = *ticks;
    QTRY_VERIFY(*ticks >= before + 3);
    files->reject();
    QTRY_VERIFY(w.findChild<QFileDialog*>("engineFileDialog") == nullptr);

    w.host().post([](Engine& e) { e.sequencer().showMessage("Fit the seal"); });
    QMessageBox* box = Box(w, "engineMessageBox");
    before = *ticks;
    QTRY_VERIFY(*ticks >= before + 3);
    box->accept();
    QVERIFY(OnEngine<bool>(w, [timer](Engine&) {
      timer->reset();
      return true;
    }));
  }

  // The status reads "Running" whenever the engine runs, stepped or free,
  // and the Single Step box shows what the engine does.
  void statusAndSingleStepBoxTellTheTruth() {
    MainWindow w(TestHost(), Factory(),
                 Sequence("truth.wts", {"RESETLOOPCOUNT", "WAITSECONDS 60", "STOP"}));
    w.show();
    auto* box = Find<QCheckBox>(w, "cbSingleStep");
    QTRY_VERIFY(box->isEnabled());
    QCOMPARE(Status(w), QString("Ready"));
    box->setChecked(true);
    QTRY_COMPARE(Find<QLineEdit>(w, "sCurrentCommand")->text(), QString("RESETLOOPCOUNT"));
    QTRY_COMPARE(Status(w), QString("Running"));
    QTRY_VERIFY(box->isChecked() && !box->isEnabled());
    Click(w, "pbStep");
    QTRY_COMPARE(Find<QLineEdit>(w, "sCurrentCommand")->text(), QString("WAITSECONDS 60"));
    QCOMPARE(Status(w), QString("Running"));
    Click(w, "pbRun");  // the stepped run goes on freely
    QTRY_VERIFY(!box->isChecked());
    QCOMPARE(Status(w), QString("Running"));
    QVERIFY(!box->isEnabled());
    QVERIFY(!Find<QPushButton>(w, "pbStep")->isEnabled() &&
            !Find<QPushButton>(w, "pbSkip")->isEnabled());
    QVERIFY(!Find<QPushButton>(w, "pbRun")->isEnabled());
    Click(w, "pbStop");
    QTRY_COMPARE(Status(w), QString("Stopped"));
    QTRY_VERIFY(box->isEnabled() && !box->isChecked());
  }

  // After each unit the verdict shows on the main window; the report is a
  // table with its failed rows marked, and prints from its data.
  void theVerdictAndTheReportTable() {
    MainWindow w(TestHost(), Factory(), UutSequence("uut.wts"));
    w.show();
    Click(w, "pbRun");
    QDialog* entry = nullptr;
    QTRY_VERIFY((entry = w.findChild<QDialog*>("frmDataEntry")) != nullptr && entry->isVisible());
    QTest::keyClicks(Find<QLineEdit>(*entry, "ebSerialNum"), "SN7");
    QTest::mouseClick(Find<QPushButton>(*entry, "pbAccept"), Qt::LeftButton);
    auto* third = Find<QPushButton>(w, "pbShutdown");
    QTRY_VERIFY(third->isVisible());
    QCOMPARE(third->text(), QString("Fail and Continue"));
    QTest::mouseClick(third, Qt::LeftButton);
    QTRY_COMPARE(Status(w), QString("Stopped"));
    auto* verdict = Find<QLabel>(w, "laVerdict");
    QTRY_VERIFY(verdict->isVisible());
    QVERIFY2(verdict->text().contains("SN7") && verdict->text().contains("Fail"),
             qPrintable(verdict->text()));

    Find<QAction>(w, "mbReport")->trigger();
    ReportDialog* report = nullptr;
    QTRY_VERIFY((report = Own<ReportDialog>(w)) != nullptr && report->isVisible());
    auto* table = Find<QTableWidget>(*report, "ebSequenceList");
    QStringList headings;
    for (int c = 0; c < table->columnCount(); ++c)
      headings << table->horizontalHeaderItem(c)->text();
    QCOMPARE(headings,
             QStringList({"Stage", "Check", "Channel", "Value", "Units", "Min", "Max", "Result"}));
    QCOMPARE(table->rowCount(), 1);
    QCOMPARE(table->item(0, 1)->text(), QString("Seal"));
    QVERIFY2(table->item(0, 7)->text().startsWith("Fail"), qPrintable(table->item(0, 7)->text()));
    QVERIFY(table->item(0, 0)->background().color() != table->palette().color(QPalette::Base));
    QCOMPARE(Find<QLabel>(*report, "laVerdict")->text(), QString("Fail"));
    const auto document = report->document();
    const QString printed = document->toPlainText();
    QVERIFY2(printed.contains("Fail") && printed.contains("SN7") && printed.contains("Result"),
             qPrintable(printed));
    QVERIFY(report->printToPdf(dir_.path() + "/report.pdf"));

    // Another file: no verdict and no unit of the file before.
    delete report;
    QTRY_VERIFY(Idle(w));
    w.host().post([path = Sequence("next.wts", {"STOP"})](Engine& e) {
      std::string error;
      e.sequencer().prepareFile(path, &error);
    });
    QTRY_VERIFY(!verdict->isVisible());
    Find<QAction>(w, "mbReport")->trigger();
    QTRY_VERIFY((report = Own<ReportDialog>(w)) != nullptr && report->isVisible());
    QCOMPARE(Find<QTableWidget>(*report, "ebSequenceList")->rowCount(), 0);
  }

  // At start-up the window offers a run of an earlier session that did not
  // end, with its sequence and the gap; Discard puts it aside.
  void anInterruptedRunIsOfferedAtStartUp() {
    const std::string root = dir_.path().toStdString() + "/interrupted data";
    QVERIFY(testFiles().makeFolders(root, nullptr));
    const std::string soak = Sequence("soak.wts", {"RESETLOOPCOUNT 0", "WAITSECONDS 600", "STOP"});
    std::string checkpoint;
    {
      // The earlier session, killed inside its wait: its checkpoint is what
      // it leaves.
      RecordingOperator op;
      EngineConfig config;
      config.clock = std::make_unique<VirtualClock>(1'767'225'600LL * kMicrosPerSecond);
      config.files = std::make_unique<LocalFileSystem>(root);
      config.op = &op;
      auto engine = BuildEngine(std::move(config));
      engine->keepCheckpoints().setLeastRealGap({});
      std::string error;
      QVERIFY(engine->sequencer().prepareFile(soak, &error));
      std::string bytes;
      Timer kill(engine->events(), kMicrosPerSecond, [&] {
        checkpoint = engine->keepCheckpoints().path();
        testFiles().readFile(checkpoint, bytes, nullptr);
        engine->sequencer().stop();
      });
      kill.setDue(engine->clock().now() + 100 * kMicrosPerSecond);
      engine->run();
      QVERIFY(!bytes.empty());
      QVERIFY(testFiles().writeAtomically(checkpoint, bytes, nullptr));
    }
    MainWindow w(
        TestHost(), [root](Operator& op) { return MakeWindowEngine(op, root); }, "");
    w.show();
    QMessageBox* box = nullptr;
    QTRY_VERIFY((box = w.findChild<QMessageBox*>("questionBox")) != nullptr && box->isVisible());
    QCOMPARE(box->windowTitle(), QString("Interrupted run"));
    QVERIFY2(box->text().startsWith(
                 QString::fromStdString("The run of " + soak + " did not end: it was at line 1")),
             qPrintable(box->text()));
    QTest::mouseClick(Find<QPushButton>(*box, "answer_Discard"), Qt::LeftButton);
    const std::string name = checkpoint.substr(checkpoint.rfind('/') + 1);
    // The discard copies the checkpoint and then removes it, off the window's
    // thread: both are waited for.
    QTRY_VERIFY(testFiles().isFile(root + "/runs/discarded/" + name));
    QTRY_VERIFY(!testFiles().isFile(checkpoint));
  }

  // The window feeds the results store as tavrix-cli run does: the UUT that
  // ends goes through the journal in the data root to the database file
  // there, with its serial number, verdict and checks.
  void theWindowFeedsTheResultsStore() {
    const std::string root = dir_.path().toStdString() + "/window data";
    QVERIFY(testFiles().makeFolders(root, nullptr));
    MainWindow w(
        TestHost(), [root](Operator& op) { return MakeWindowEngine(op, root); },
        UutSequence("stored.wts"));
    w.show();
    Click(w, "pbRun");
    QDialog* entry = nullptr;
    QTRY_VERIFY((entry = w.findChild<QDialog*>("frmDataEntry")) != nullptr && entry->isVisible());
    QTest::keyClicks(Find<QLineEdit>(*entry, "ebSerialNum"), "SN8");
    QTest::mouseClick(Find<QPushButton>(*entry, "pbAccept"), Qt::LeftButton);
    auto* third = Find<QPushButton>(w, "pbShutdown");
    QTRY_VERIFY(third->isVisible());
    QTest::mouseClick(third, Qt::LeftButton);
    QTRY_COMPARE(Status(w), QString("Stopped"));

    const StoreSpec spec{StoreSpec::Kind::kSqlite, root + "/results.sqlite"};
    std::vector<StoredUut> stored;
    const auto read = [&] {
      stored.clear();
      std::string error;
      auto store = OpenResultsStore(spec, &error);
      return store != nullptr && store->fetch(UutFilter{}, stored, &error) && !stored.empty();
    };
    QTRY_VERIFY(read());
    QCOMPARE(stored.size(), size_t{1});
    QCOMPARE(stored[0].serial, std::string("SN8"));
    QVERIFY(!stored[0].passed);
    QCOMPARE(stored[0].checks.size(), size_t{1});
    QCOMPARE(stored[0].checks[0].parameter, std::string("Seal"));
    QTRY_VERIFY(ReadAll(root + "/results-queue.journal").empty());

    // The run left its record in the data root, ended, with its trace.
    const LocalFileSystem files(root);
    QTRY_VERIFY(ListRunRecords(files).size() == 1 && ListRunRecords(files)[0].end.has_value());
    const RunRecordSummary record = ListRunRecords(files)[0];
    QCOMPARE(record.frontEnd, std::string("window"));
    QVERIFY(!record.endReason.empty());
    const std::string trace = ReadAll(record.folder + "/trace.jsonl");
    QVERIFY(trace.find("\"ev\":\"prompt\"") != std::string::npos);
    QVERIFY(trace.find("\"ev\":\"end\",\"reason\":\"" + record.endReason + "\"}") !=
            std::string::npos);
  }

#ifndef _WIN32
  // A run started in the window listens on a control socket in its record's
  // folder, as a run of tavrix-cli does: ctl lists it, tells its status and
  // stops it, and the socket goes with the run. The next run has its own.
  void ctlReachesTheWindowsRuns() {
    const std::string root = dir_.path().toStdString() + "/ctl data";
    QVERIFY(testFiles().makeFolders(root, nullptr));
    MainWindow w(
        TestHost(), [root](Operator& op) { return MakeWindowEngine(op, root); },
        Sequence("held.wts", {"WAITSECONDS 600"}));
    w.show();
    const auto ctl = [&](const std::vector<std::string>& words, std::string& text) {
      return Ctl(root, words, text);
    };
    const LocalFileSystem files(root);
    std::vector<std::string> seen;
    for (int run = 0; run < 2; ++run) {
      QTRY_VERIFY(Find<QPushButton>(w, "pbRun")->isEnabled());
      Click(w, "pbRun");
      QTRY_COMPARE(Status(w), QString("Running"));
      QTRY_VERIFY(ListRunRecords(files).size() == seen.size() + 1);
      const RunRecordSummary record = ListRunRecords(files).back();
      QVERIFY(std::find(seen.begin(), seen.end(), record.id) == seen.end());
      seen.push_back(record.id);
      QTRY_VERIFY(RunAnswers(record.folder));
      std::string text;
      QCOMPARE(ctl({"list"}, text), 0);
      QVERIFY2(
          text.find(record.id) != std::string::npos && text.find("held.wts") != std::string::npos,
          text.c_str());
      QCOMPARE(ctl({record.id, "status"}, text), 0);
      QVERIFY2((text.find("WAITSECONDS") != std::string::npos ||
                text.find("\"line\":1") != std::string::npos) &&
                   text.find("\"state\":\"running\"") != std::string::npos,
               text.c_str());
      QCOMPARE(ctl({record.id, "stop"}, text), 0);
      QTRY_COMPARE(Status(w), QString("Stopped"));
      QTRY_VERIFY(!RunAnswers(record.folder));
      QTRY_VERIFY(testFiles().info(record.folder + "/control.sock").kind == FileKind::kMissing);
    }
  }
#endif

  // Window sizes from 1280x1024 to 1920x1080 and 150 % scaling; Run keeps a
  // maximised window; a new file starts with clean displays; the lists are
  // headed.
  void layoutSizesAndCleanDisplays() {
    const std::string first =
        Sequence("help.wts", {"[HELPTEXT]", "Fit the pump first", "[END]", "ONTIMEOUT 30, LATE",
                              "WAITRANDOM 50, 60", "LATE:"});
    MainWindow w(TestHost(), Factory(), first);
    // 1280x1024 at 150 % is 853x682 in the window's own pixels.
    const QSize smallest = w.minimumSizeHint();
    QVERIFY2(smallest.width() <= 853 && smallest.height() <= 682,
             qPrintable(QString("%1x%2").arg(smallest.width()).arg(smallest.height())));
    for (const char* name : {"lbAlarmLabels", "lbAlarmCommands", "lbDDElabels", "lbDDEcommands"}) {
      bool headed = false;
      for (QLabel* label : w.findChildren<QLabel*>())
        headed =
            headed || (label->buddy() == Find<QListWidget>(w, name) && !label->text().isEmpty());
      QVERIFY2(headed, name);
    }
    w.showMaximized();
    QTRY_VERIFY(w.isMaximized() && w.width() >= w.screen()->availableGeometry().width() - 20);
    const QSize maximised = w.size();
    Click(w, "pbRun");
    QTRY_VERIFY(Find<QLabel>(w, "sTimeout")->text().toInt() > 0);
    QVERIFY(!Find<QTextEdit>(w, "ebHelp")->toPlainText().isEmpty());
    QVERIFY(w.isMaximized());
    QCOMPARE(w.size(), maximised);
    QCOMPARE(w.findChild<QWidget*>("ebHelp")->height() > 100, true);
    Click(w, "pbStop");
    QTRY_COMPARE(Status(w), QString("Stopped"));
    QTRY_VERIFY(Idle(w));
    w.host().post([path = Sequence("plain.wts", {"STOP"})](Engine& e) {
      std::string error;
      e.sequencer().prepareFile(path, &error);
    });
    QTRY_COMPARE(Status(w), QString("Ready"));
    QCOMPARE(Find<QTextEdit>(w, "ebHelp")->toPlainText(), QString());
    QCOMPARE(Find<QLabel>(w, "sTimeout")->text(), QString("0"));
    QCOMPARE(Find<QLineEdit>(w, "sCurrentCommand")->text(), QString());
  }

  // Start-up makes the link's setups folder the working folder.
  void startUpEntersTheSetupsFolder() {
    const QString before = QDir::currentPath();
    const QByteArray home = qgetenv("TAVRIX_HOME");
    qputenv("TAVRIX_HOME", dir_.path().toLocal8Bit());
    const std::string setups = dir_.path().toStdString() + "/c/corvane/setups";
    std::filesystem::create_directories(setups);
    {
      MainWindow w(TestHost(), RigFactory(), "");
      QTRY_COMPARE(QFileInfo(QDir::currentPath()).canonicalFilePath(),
                   QFileInfo(QString::fromStdString(setups)).canonicalFilePath());
    }
    QDir::setCurrent(before);
    if (home.isNull())
      qunsetenv("TAVRIX_HOME");
    else
      qputenv("TAVRIX_HOME", home);
  }

  void closeAsksWhileTheRunMustNotBeStopped() {
    auto* w = new MainWindow(TestHost(), Factory(),
                             Sequence("nonstop.wts", {"NONSTOP", "WAITSECONDS 60"}));
    w->setAttribute(Qt::WA_DeleteOnClose);
    QPointer<MainWindow> alive(w);
    w->show();
    QTRY_VERIFY(Find<QPushButton>(*w, "pbRun")->isEnabled());
    QTest::mouseClick(Find<QPushButton>(*w, "pbRun"), Qt::LeftButton);
    QTRY_COMPARE(Find<QLineEdit>(*w, "sCurrentCommand")->text().left(11), QString("waitseconds"));
    QVERIFY(!Find<QPushButton>(*w, "pbStop")->isEnabled());
    auto answer = [&](const char* caption) {
      QMessageBox* box = nullptr;
      QTRY_VERIFY((box = w->findChild<QMessageBox*>("questionBox")) != nullptr && box->isVisible());
      QCOMPARE(box->text(),
               QString("This application should not be  stopped\nDo you want to stop it ?"));
      QTest::mouseClick(box->findChild<QPushButton*>(QString("answer_") + caption), Qt::LeftButton);
    };
    w->close();
    answer("No");
    QTRY_VERIFY(w->findChild<QMessageBox*>("questionBox") == nullptr);
    QVERIFY(alive);
    QCOMPARE(Status(*w), QString("Running"));
    w->close();
    answer("Yes");
    QTRY_VERIFY(!alive);
  }

  void panelTakesTheStageCheckForms() {
    MainWindow w(TestHost(), Factory(), "");
    w.show();
    auto* panel = Find<QGroupBox>(w, "frOKcancel");
    auto* ok = Find<QPushButton>(w, "pbOKcancelOK");
    auto* cancel = Find<QPushButton>(w, "pbOKcancelCancel");
    auto* third = Find<QPushButton>(w, "pbShutdown");
    Answers answers;
    w.openQuestion(
        {"UUTCHECK", "UUT Check", "Seal fitted?", {"Pass", "Fail and Repeat", "Fail and Continue"}},
        answers.callback());
    QVERIFY(panel->isVisible());
    QCOMPARE(panel->title(), QString("UUT Check"));
    QCOMPARE(ok->text() + "/" + cancel->text() + "/" + third->text(),
             QString("Pass/Fail and Repeat/Fail and Continue"));
    QVERIFY(cancel->isVisible() && third->isVisible());
    QTRY_VERIFY(third->height() > 0);  // laid out
    QTest::mouseClick(third, Qt::LeftButton);
    QCOMPARE(answers.given, std::vector<Answer>{std::string("Fail and Continue")});
    // Restored to the design form, light green.
    QVERIFY(!panel->isVisible());
    QCOMPARE(panel->title(), QString("Operator Message"));
    QCOMPARE(ok->text() + "/" + cancel->text() + "/" + third->text(),
             QString("OK/Cancel/Shutdown"));
    QCOMPARE(panel->palette().color(QPalette::Window), QColor(192, 255, 192));

    w.openQuestion({"ALERT", "Alert Message", "Value: 3.00  Min: 1  Max: 2", {"Accept", "Cancel"}},
                   answers.callback());
    QCOMPARE(panel->title(), QString("Alert Message"));
    QCOMPARE(Find<QLabel>(w, "laMessage")->text(), QString("Value: 3.00  Min: 1  Max: 2"));
    QVERIFY(cancel->isVisible() && !third->isVisible());
    QTest::mouseClick(cancel, Qt::LeftButton);
    QCOMPARE(answers.given.back(), Answer("Cancel"));
  }

  void dataEntryValidatesTheDate() {
    Answers answers;
    auto* dialog = new DataEntryDialog({"DATAENTRY", "", "", {}}, QDate(2026, 11, 15),
                                       answers.callback(), nullptr);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    QPointer<QDialog> alive(dialog);
    dialog->show();
    auto* date = Find<QLineEdit>(*dialog, "ebDate");
    QCOMPARE(date->text(), QString("15-11-2026"));
    QTest::keyClicks(Find<QLineEdit>(*dialog, "ebSerialNum"), "SN 42");
    QTest::keyClicks(Find<QLineEdit>(*dialog, "ebOperator"), "  Ann Lee ");
    QTest::keyClicks(Find<QLineEdit>(*dialog, "ebDescription"), "Pump, 2 kW ");
    for (const char* wrong : {"31-02-2026", "2026-11-15", ""}) {
      date->setText(wrong);
      QTest::mouseClick(Find<QPushButton>(*dialog, "pbAccept"), Qt::LeftButton);
      Box(*dialog, "messageBox")->accept();
      QTRY_VERIFY(dialog->findChild<QMessageBox*>("messageBox") == nullptr);
    }
    date->setText("31-02-2026");
    QTest::mouseClick(Find<QPushButton>(*dialog, "pbAccept"), Qt::LeftButton);
    QMessageBox* box = Box(*dialog, "messageBox");
    QCOMPARE(box->text(), QString("You have not entered a valid date for the test date"));
    box->accept();
    QVERIFY(answers.given.empty());
    QVERIFY(dialog->isVisible());
    date->setText("1-2-2026");
    QTest::mouseClick(Find<QPushButton>(*dialog, "pbAccept"), Qt::LeftButton);
    QCOMPARE(answers.given,
             std::vector<Answer>{std::string(
                 "Accept|serial=SN 42|date=01-02-2026|operator=Ann Lee|description=Pump, 2 kW ")});
    QTRY_VERIFY(!alive);

    // Cancel stores nothing; the engine's own date fills the box when it gives one.
    DataEntryDialog cancelled(
        {"DATAENTRY", "", "Serial Number, Test Date: (dd-mm-yyyy) 03-04-2031, Operator(s)", {}},
        QDate(2026, 11, 15), answers.callback(), nullptr);
    QCOMPARE(Find<QLineEdit>(cancelled, "ebDate")->text(), QString("03-04-2031"));
    QTest::mouseClick(Find<QPushButton>(cancelled, "pbCancel"), Qt::LeftButton);
    QCOMPARE(answers.given.back(), Answer("Cancel"));
  }

  void checkFailureWindowTakesItsKeys() {
    Answers answers;
    CheckFailureDialog byKey(
        {"CHECKFAILURE",
         "Check Failure",
         "Stage 3\rFlow  Value: 3.00  Min: 1  Max: 2\rF1: Ignore  F2 Repeat  F3: Fail and Abandon",
         {"Ignore", "Repeat", "Fail and Abandon"}},
        answers.callback(), nullptr);
    byKey.show();
    QVERIFY(QTest::qWaitForWindowActive(&byKey));
    QCOMPARE(Find<QLabel>(byKey, "laStage")->text(), QString("Stage 3"));
    QCOMPARE(Find<QLabel>(byKey, "laFailures")->text(),
             QString("Flow  Value: 3.00  Min: 1  Max: 2"));
    QStringList line;
    for (const char* name : {"laKey1", "laKey2", "laKey3"})
      line << Find<QLabel>(byKey, name)->text();
    QCOMPARE(line.join("  "), QString("F1: Ignore  F2 Repeat  F3: Fail and Abandon"));
    QCOMPARE(byKey.findChild<QMenu*>("mbKeys")->title(), QString("&Keys"));
    QTest::keyClick(&byKey, Qt::Key_Escape);
    QVERIFY(byKey.isVisible());
    QVERIFY(answers.given.empty());
    QTest::keyClick(&byKey, Qt::Key_F2);
    QCOMPARE(answers.given, std::vector<Answer>{std::string("Repeat")});
    QVERIFY(!byKey.isVisible());

    CheckFailureDialog byLabel({"CHECKFAILURE", "", "4", {}}, answers.callback(), nullptr);
    byLabel.show();
    QTest::mouseClick(Find<QLabel>(byLabel, "laKey3"), Qt::LeftButton);
    QCOMPARE(answers.given.back(), Answer("Fail and Abandon"));
    CheckFailureDialog byMenu({"CHECKFAILURE", "", "5", {}}, answers.callback(), nullptr);
    byMenu.findChild<QAction*>("mbIgnore")->trigger();
    QCOMPARE(answers.given.back(), Answer("Ignore"));
    QCOMPARE(byMenu.findChild<QAction*>("mbFailAbandon")->shortcut(), QKeySequence(Qt::Key_F3));
    QCOMPARE(answers.given.size(), size_t{3});
  }

  void decryptionWindowNamesAndAsksBeforeOverwriting() {
    QCOMPARE(NameFilter(kBrowseFilter), QString("Encrypted files (*.wte *.txe *.xme *.wle)"));
    // Names relative to the test's folder: the name is split at its first
    // dot, so a dot in the temporary folder's path must not come into it.
    const QString before = QDir::currentPath();
    QDir::setCurrent(dir_.path());
    const std::string base = "PUMP";
    const std::string plainText = "WAITSECONDS 5\r\nSTOP\r\n";
    Write(base + ".wts", plainText);
    QVERIFY(encryptFile(testFiles(), base + ".wts", "", kDefaultUtilityKey, nullptr));
    std::filesystem::rename(base + ".wte", base + ".WTE");
    Write(base + ".wts", "old");

    DecryptDialog dialog(testFiles(), nullptr);
    dialog.show();
    auto* source = Find<QLineEdit>(dialog, "ebSrcFileSpec");
    auto* destination = Find<QLineEdit>(dialog, "ebDestFileSpec");
    auto* decrypt = Find<QPushButton>(dialog, "pbDecrypt");
    QVERIFY(!decrypt->isEnabled());
    source->setText("data.wle");
    QCOMPARE(destination->text(), QString("data.wl"));
    QVERIFY(decrypt->isEnabled());
    source->clear();
    QVERIFY(!decrypt->isEnabled());
    // The name is checked as it is typed, in the window's message line: no
    // box takes the keyboard away.
    auto* message = Find<QLabel>(dialog, "laDecryptMessage");
    source->clear();
    source->setFocus();
    QTest::keyClicks(source, "notes.doc");
    QCOMPARE(source->text(), QString("notes.doc"));
    QCOMPARE(message->text(),
             QString("File extension not recognised by encrypt software: notes.doc"));
    QCOMPARE(dialog.findChild<QMessageBox*>(), nullptr);
    QVERIFY(!decrypt->isEnabled());

    // The name stays as chosen: upper case names are other files here.
    source->setText(QString::fromStdString(base + ".WTE"));
    QCOMPARE(source->text(), QString::fromStdString(base + ".WTE"));
    QCOMPARE(destination->text(), QString::fromStdString(base + ".wts"));
    QVERIFY(message->text().isEmpty());
    auto overwrite = [&](QMessageBox::StandardButton answer) {
      QTest::mouseClick(decrypt, Qt::LeftButton);
      QMessageBox* question = Box(dialog, "overwriteBox");
      QCOMPARE(question->windowTitle(), QString("File encryption"));
      QCOMPARE(question->text(),
               QString::fromStdString("File " + base + ".wts already exists - overwrite"));
      QCOMPARE(question->defaultButton(), question->button(QMessageBox::No));
      QTest::mouseClick(question->button(answer), Qt::LeftButton);
      QTRY_VERIFY(dialog.findChild<QMessageBox*>("overwriteBox") == nullptr);
    };
    overwrite(QMessageBox::No);
    QCOMPARE(ReadAll(base + ".wts"), std::string("old"));
    overwrite(QMessageBox::Yes);
    QCOMPARE(ReadAll(base + ".wts"), plainText);
    QVERIFY2(message->text().startsWith("Decrypted"), qPrintable(message->text()));

    // A damaged file: the frame check fails.
    Write(base + ".wts", "old");
    Write("BAD.txe", "not a frame at all");
    source->setText("BAD.txe");
    QTest::mouseClick(decrypt, Qt::LeftButton);
    QCOMPARE(Box(dialog, "messageBox")->text(), QString("Failed to decrypt BAD.txe"));
    QDir::setCurrent(before);
  }

  void manualTabReadsAndWritesTheRig() {
    MainWindow w(TestHost(), RigFactory(), "");
    w.show();
    w.findChild<QTabWidget*>()->setCurrentWidget(Find<QWidget>(w, "frManual"));
    auto* channel = Find<QLineEdit>(w, "ebManualChannel");
    auto* value = Find<QLineEdit>(w, "ebManualValue");
    auto* reading = Find<QLabel>(w, "laManualReading");
    auto read = [&](const char* name) -> QString {
      channel->setText(name);
      reading->clear();
      QTest::mouseClick(Find<QPushButton>(w, "pbManualRead"), Qt::LeftButton);
      if (!QTest::qWaitFor([&] { return !reading->text().isEmpty(); }, kPatienceMs))
        return "(no reading)";
      return reading->text();
    };
    bool number = false;
    const double oven = read("OVEN").toDouble(&number);
    QVERIFY2(number && oven > 15 && oven < 25, qPrintable(reading->text()));
    channel->setText("HEATER");
    value->setText("50");
    QTest::mouseClick(Find<QPushButton>(w, "pbManualWrite"), Qt::LeftButton);
    QTRY_COMPARE(reading->text(), QString("Sent 50 to HEATER"));
    QCOMPARE(read("HEATER").toDouble(), 50.0);
    QVERIFY2(read("SPARE").startsWith("Unable to read from channel: SPARE"),
             qPrintable(reading->text()));
    QVERIFY2(read("NOSUCH").contains("does not exist"), qPrintable(reading->text()));
  }

  void pulseShowsItsStatusAndAlarmDefinitionsAreListed() {
    MainWindow w(TestHost(), RigFactory(),
                 Sequence("pulse.wts", {"ALARMDEFINE OVENHOT, GOTO COOL",
                                        "PULSEOUTPUT HEATER, HI, 800", "WAITSECONDS 60", "COOL:"}));
    w.show();
    QTRY_VERIFY(Find<QPushButton>(w, "pbRun")->isEnabled());
    QTest::mouseClick(Find<QPushButton>(w, "pbRun"), Qt::LeftButton);
    auto* status = Find<QLabel>(w, "sRunStatus");
    QTRY_COMPARE(status->text(), QString("Pulse Timing"));
    QCOMPARE(status->palette().color(QPalette::Window), QColor(255, 128, 0));
    QTRY_COMPARE(status->text(), QString("Running"));
    QVERIFY(status->palette().color(QPalette::Window) != QColor(255, 128, 0));
    auto* labels = Find<QListWidget>(w, "lbAlarmLabels");
    QTRY_COMPARE(labels->count(), 1);
    QCOMPARE(labels->item(0)->text(), QString("OVENHOT"));
    QCOMPARE(Find<QListWidget>(w, "lbAlarmCommands")->item(0)->text(), QString("GOTO COOL"));
    QTest::mouseClick(Find<QPushButton>(w, "pbStop"), Qt::LeftButton);
    QTRY_COMPARE(status->text(), QString("Stopped"));
  }

  void sequenceMenuAndChannelDisplayAnswerTheSequence() {
    MainWindow w(TestHost(), RigFactory(),
                 Sequence("menu.wts", {"SELECTMENU Which way?, WARM, COOL",
                                       "WARM:", "DOWITHSHOW Watch the oven, OVEN", "STOP",
                                       "COOL:", "CONTINUEOK Cooling", "STOP"}));
    w.show();
    QTRY_VERIFY(Find<QPushButton>(w, "pbRun")->isEnabled());
    QTest::mouseClick(Find<QPushButton>(w, "pbRun"), Qt::LeftButton);
    QListWidget* menu = nullptr;
    QTRY_VERIFY((menu = w.findChild<QListWidget*>("lbMenu")) != nullptr && menu->isVisible());
    QCOMPARE(menu->count(), 2);
    QCOMPARE(menu->item(1)->text(), QString("COOL"));
    menu->setCurrentRow(0);
    QTest::mouseClick(Find<QPushButton>(*menu->window(), "pbMenuOK"), Qt::LeftButton);
    QLabel* value = nullptr;
    QTRY_VERIFY((value = w.findChild<QLabel*>("ladwsChannelValue")) != nullptr &&
                value->isVisible());
    QTRY_VERIFY(!value->text().isEmpty());
    QVERIFY2(value->text().toDouble() > 15, qPrintable(value->text()));
    QCOMPARE(Find<QLabel>(*value->window(), "laDwsChannel")->text(), QString("OVEN:"));
    QCOMPARE(Find<QLabel>(*value->window(), "laDwsMessage")->text(), QString("Watch the oven"));
    QTest::mouseClick(Find<QPushButton>(*value->window(), "answer_Continue"), Qt::LeftButton);
    QTRY_COMPARE(Status(w), QString("Stopped"));
    QVERIFY(!Find<QGroupBox>(w, "frOKcancel")->isVisible());  // COOL was not taken
  }

#ifdef TAVRIX_HAVE_CHARTS
  void chartPlotsChannelsWhileTheSequenceRuns() {
    MainWindow w(TestHost(), RigFactory(),
                 Sequence("chart.wts", {"SEND HEATER, 80", "WAITSECONDS 60"}));
    w.show();
    Find<QAction>(w, "mbChart")->trigger();
    ChartWindow* chart = nullptr;
    QTRY_VERIFY((chart = Own<ChartWindow>(w)) != nullptr);
    QVERIFY(chart->isVisible());
    QTRY_VERIFY(Find<QListWidget>(*chart, "lbChartChannels")->count() >=
                5);  // the rig's enabled channels
    QVERIFY(Find<QListWidget>(*chart, "lbChartChannels")
                ->findItems("SPARE", Qt::MatchExactly)
                .isEmpty());
    chart->setSampleInterval(20);
    chart->plot("OVEN");
    chart->plot("HEATER");
    QTRY_VERIFY(Find<QPushButton>(w, "pbRun")->isEnabled());
    QCOMPARE(chart->pointCount("OVEN"), 0);  // nothing runs: nothing sampled
    QTest::mouseClick(Find<QPushButton>(w, "pbRun"), Qt::LeftButton);
    QTRY_VERIFY(chart->pointCount("OVEN") >= 3 && chart->pointCount("HEATER") >= 3);
    QTest::mouseClick(Find<QPushButton>(w, "pbStop"), Qt::LeftButton);
    QTRY_COMPARE(Status(w), QString("Stopped"));

    QStringList axes = chart->axisTitles();
    axes.sort();
    QCOMPARE(axes, QStringList({"%", "degC"}));
    const QString pdf = dir_.path() + "/chart.pdf";
    QPrinter printer(QPrinter::HighResolution);
    printer.setOutputFormat(QPrinter::PdfFormat);
    printer.setOutputFileName(pdf);
    chart->print(printer);
    QVERIFY(QFileInfo(pdf).size() > 1000);
  }

  // On a small screen the chart fits it, and its ticks fall on round values.
  void chartFitsTheScreenWithRoundTicks() {
    MainWindow w(TestHost(), RigFactory(),
                 Sequence("ticks.wts", {"SEND HEATER, 80", "WAITSECONDS 60"}));
    w.show();
    Find<QAction>(w, "mbChart")->trigger();
    ChartWindow* chart = nullptr;
    QTRY_VERIFY((chart = Own<ChartWindow>(w)) != nullptr);
    chart->hide();
    chart->resize(3000, 2000);
    chart->show();
    const QRect free = chart->screen()->availableGeometry();
    QVERIFY2(free.contains(chart->frameGeometry()),
             qPrintable(QString("%1x%2").arg(chart->width()).arg(chart->height())));
    chart->setSampleInterval(20);
    chart->plot("OVEN");
    chart->plot("HEATER");
    Click(w, "pbRun");
    QTRY_VERIFY(chart->pointCount("OVEN") >= 3 && chart->pointCount("HEATER") >= 3);
    Click(w, "pbStop");
    QTRY_COMPARE(Status(w), QString("Stopped"));
    const auto axes = Find<QChartView>(*chart, "cvChart")->chart()->axes();
    QVERIFY(axes.size() >= 3);
    for (QAbstractAxis* a : axes) {
      auto* axis = qobject_cast<QValueAxis*>(a);
      QVERIFY(axis != nullptr);
      const double step = (axis->max() - axis->min()) / (axis->tickCount() - 1);
      const double power = std::pow(10.0, std::floor(std::log10(step)));
      const double mantissa = step / power;
      QVERIFY2(std::abs(mantissa - 1) < 1e-6 || std::abs(mantissa - 2) < 1e-6 ||
                   std::abs(mantissa - 2.5) < 1e-6 || std::abs(mantissa - 5) < 1e-6 ||
                   std::abs(mantissa - 10) < 1e-6,
               qPrintable(QString("step %1").arg(step)));
      const double ticks = axis->min() / step;
      QVERIFY2(std::abs(ticks - std::round(ticks)) < 1e-6,
               qPrintable(QString::number(axis->min())));
    }
  }

  // The list follows the setup loaded now; each unit gets its own axis.
  void chartFollowsTheSetupAndGivesEachUnitAnAxis() {
    const std::string other = dir_.path().toStdString() + "/other.ims";
    Write(other, "D 1\n  10001 E=1 M=A N=MOTOR U=rpm V=1200\n  10002 E=1 M=A N=KILN U=degC V=30\n");
    MainWindow w(TestHost(), RigFactory(),
                 Sequence("swap.wts", {"IMSFILESPEC " + other, "WAITSECONDS 60"}));
    w.show();
    Find<QAction>(w, "mbChart")->trigger();
    ChartWindow* chart = nullptr;
    QTRY_VERIFY((chart = Own<ChartWindow>(w)) != nullptr);
    QTRY_VERIFY(chart->channels().contains("OVEN"));
    chart->setSampleInterval(20);
    Click(w, "pbRun");
    QTRY_COMPARE(chart->channels(), QStringList({"MOTOR", "KILN"}));
    chart->plot("MOTOR");
    chart->plot("KILN");
    QTRY_VERIFY(chart->pointCount("MOTOR") >= 2 && chart->pointCount("KILN") >= 2);
    QStringList axes = chart->axisTitles();
    axes.sort();
    QCOMPARE(axes, QStringList({"degC", "rpm"}));
    Click(w, "pbStop");
    QTRY_COMPARE(Status(w), QString("Stopped"));
  }

#endif

  void reportTableShowsEveryColumnAndAnEmptyList() {
    CheckEntry flow{"Flow", "FLOW", "2.50", "l/min", "1", "3", 1, true, ""};
    ReportContents contents{{"15-11-2026", "Ann Lee", "Pump test", "3", "SN 42", {}}, {flow}};
    ReportDialog report(contents, nullptr);
    auto* table = Find<QTableWidget>(report, "ebSequenceList");
    QStringList row;
    for (int c = 0; c < table->columnCount(); ++c) row << table->item(0, c)->text();
    QCOMPARE(row, QStringList({"1", "Flow", "FLOW", "2.50", "l/min", "1", "3", "Pass"}));
    QCOMPARE(Find<QLabel>(report, "laVerdict")->text(), QString("Pass"));
    QCOMPARE(Find<QLineEdit>(report, "ebDate")->text(), QString("15-11-2026"));
    QCOMPARE(Find<QLabel>(report, "laSerialNumber")->text(), QString("SN 42"));
    report.show();
    QTest::mouseClick(Find<QPushButton>(report, "pbEscape"), Qt::LeftButton);
    QVERIFY(!report.isVisible());

    ReportDialog empty(ReportContents{}, nullptr);
    QCOMPARE(Find<QTableWidget>(empty, "ebSequenceList")->rowCount(), 0);
  }

  void menusOpenTheirWindows() {
    MainWindow w(TestHost(), Factory(), "");
    w.show();
    Find<QAction>(w, "mbFileDecrypt")->trigger();
    QTRY_VERIFY(Find<QDialog>(w, "frmDecrypt")->isVisible());
    Find<QAction>(w, "mbAbout")->trigger();
    QTRY_VERIFY(Find<QDialog>(w, "frmAbout")->isVisible());
    QCOMPARE(Find<QLabel>(w, "laProduct")->text(), w.windowTitle());
    QVERIFY(Find<QLabel>(w, "laVersion")
                ->text()
                .startsWith("Version " TAVRIX_EXPECTED_VERSION ", commit "));
  }

  void endTavrixClosesTheWindowAfterTheRun() {
    auto* w =
        new MainWindow(TestHost(), Factory(), Sequence("end.wts", {"ENDTAVRIX", "RESETLOOPCOUNT"}));
    w->setAttribute(Qt::WA_DeleteOnClose);
    QPointer<MainWindow> alive(w);
    w->show();
    QTRY_VERIFY(Find<QPushButton>(*w, "pbRun")->isEnabled());
    QTest::mouseClick(Find<QPushButton>(*w, "pbRun"), Qt::LeftButton);
    QTRY_VERIFY(!alive);
  }
};

}  // namespace tavrix

// Without a runtime folder Qt makes one in the temporary folder and leaves it
// there; the tests give it one of their own and remove it afterwards. The
// window keeps a record of each run in its data root: the tests' records go
// into a data root of their own as well, not the user's.
int main(int argc, char** argv) {
  QTemporaryDir runtime;
  if (qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR") && runtime.isValid()) {
    QFile::setPermissions(runtime.path(),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    qputenv("XDG_RUNTIME_DIR", runtime.path().toLocal8Bit());
  }
  QTemporaryDir dataRoot;
  if (dataRoot.isValid()) qputenv("TAVRIX_HOME", dataRoot.path().toLocal8Bit());
  int status = 0;
  {
    QApplication app(argc, argv);
    QTEST_SET_MAIN_SOURCE_PATH
    tavrix::MainWindowTest test;
    status = QTest::qExec(&test, argc, argv);
  }
  return status;
}
#include "main_window_test.moc"
