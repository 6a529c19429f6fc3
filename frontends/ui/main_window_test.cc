// The desktop window driven by clicks on the offscreen platform, against a
// real engine thread. Waits are for conditions (QTRY_*), never fixed sleeps.

#include <QAction>
#include <QCheckBox>
#include <QElapsedTimer>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QListWidget>
#include <QMenu>
#include <QPrinter>
#include <QPushButton>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QtTest>
#include <QFileInfo>
#include <iterator>

#ifdef TAVRIX_HAVE_CHARTS
#include "chart_window.h"
#endif
#include "check_failure_dialog.h"
#include "common/file_system.h"
#include "common/text_file.h"
#include "crypto/encrypted_files.h"
#include "data_entry_dialog.h"
#include "decrypt_dialog.h"
#include "main_window.h"
#include "qt_text.h"
#include "report_dialog.h"

namespace tavrix {

class MainWindowTest : public QObject {
  Q_OBJECT

 private:
  QTemporaryDir dir_;

  std::string Sequence(const char* name, const std::vector<std::string>& lines) {
    const std::string path = dir_.path().toStdString() + "/" + name;
    writeTextFileAtomically(localFiles(), path, lines, nullptr);
    return path;
  }

  static MainWindow::EngineFactory Factory() {
    return [](Operator& op) { return std::make_unique<Engine>(std::make_unique<SystemClock>(), op); };
  }

  // An engine on the simulated rig of the examples.
  static MainWindow::EngineFactory RigFactory() {
    return [](Operator& op) {
      auto engine = std::make_unique<Engine>(std::make_unique<SystemClock>(), op);
      std::string error;
      if (!engine->attachInstrument({}, "sim", &error)) qFatal("%s", error.c_str());
      if (!engine->instrument()->selectSetupFile(TAVRIX_SOURCE_DIR "/examples/rig.ims"))
        qFatal("rig.ims: %s", engine->instrument()->link().lastErrorText.c_str());
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
    localFiles().readFile(path, text, nullptr);
    return text;
  }

  static void Write(const std::string& path, const std::string& text) {
    localFiles().writeAtomically(path, text, nullptr);
  }

  // The message box a window opened, once it is shown.
  static QMessageBox* Box(QWidget& w, const char* name) {
    QMessageBox* box = nullptr;
    if (!QTest::qWaitFor([&] { return (box = w.findChild<QMessageBox*>(name)) && box->isVisible(); }))
      qFatal("no message box %s", name);
    return box;
  }

  template <typename T>
  static T* Find(QWidget& w, const char* name) {
    T* child = w.findChild<T*>(name);
    if (child == nullptr) qFatal("no control %s", name);
    return child;
  }

  static QString Status(MainWindow& w) { return Find<QLabel>(w, "sRunStatus")->text(); }

 private slots:
  void runsAndStopsAWait() {
    MainWindow w(Factory(), Sequence("wait.wts", {"WAITSECONDS 60"}));
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
    QTRY_COMPARE_WITH_TIMEOUT(Status(w), QString("Stopped"), 2000);
    qInfo("Stop click to \"Stopped\": %lld ms", static_cast<long long>(clock.elapsed()));
    QVERIFY(Find<QPushButton>(w, "pbRun")->isEnabled());
    // Run and the run size: the window moved and grew.
    QCOMPARE(w.size(), QSize(TwipsToPixels(9015), TwipsToPixels(8865)));
  }

  void singleStepsWithStepAndSkip() {
    MainWindow w(Factory(), Sequence("steps.wts", {"RESETLOOPCOUNT", "INCREMENTLOOPCOUNT", "STOP"}));
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

  void panelIsAnsweredByClicks() {
    MainWindow w(Factory(), Sequence("panel.wts", {"CONTINUEOK Fit the unit", "ENTEROKCANCEL Hot?, COOL",
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

  void closeAsksWhileTheRunMustNotBeStopped() {
    auto* w = new MainWindow(Factory(), Sequence("nonstop.wts", {"NONSTOP", "WAITSECONDS 60"}));
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
      QCOMPARE(box->text(), QString("This application should not be  stopped\nDo you want to stop it ?"));
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
    MainWindow w(Factory(), "");
    w.show();
    auto* panel = Find<QGroupBox>(w, "frOKcancel");
    auto* ok = Find<QPushButton>(w, "pbOKcancelOK");
    auto* cancel = Find<QPushButton>(w, "pbOKcancelCancel");
    auto* third = Find<QPushButton>(w, "pbShutdown");
    Answers answers;
    w.openQuestion({"UUTCHECK", "UUT Check", "Seal fitted?", {"Pass", "Fail and Repeat", "Fail and Continue"}},
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
    QCOMPARE(ok->text() + "/" + cancel->text() + "/" + third->text(), QString("OK/Cancel/Shutdown"));
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
    auto* dialog = new DataEntryDialog({"DATAENTRY", "", "", {}}, QDate(2026, 11, 15), answers.callback(), nullptr);
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
             std::vector<Answer>{std::string("Accept|serial=SN 42|date=01-02-2026|operator=Ann Lee|description=Pump, 2 kW ")});
    QTRY_VERIFY(!alive);

    // Cancel stores nothing; the engine's own date fills the box when it gives one.
    DataEntryDialog cancelled({"DATAENTRY", "", "Serial Number, Test Date: (dd-mm-yyyy) 03-04-2031, Operator(s)", {}}, QDate(2026, 11, 15), answers.callback(), nullptr);
    QCOMPARE(Find<QLineEdit>(cancelled, "ebDate")->text(), QString("03-04-2031"));
    QTest::mouseClick(Find<QPushButton>(cancelled, "pbCancel"), Qt::LeftButton);
    QCOMPARE(answers.given.back(), Answer("Cancel"));
  }

  void checkFailureWindowTakesItsKeys() {
    Answers answers;
    CheckFailureDialog byKey({"CHECKFAILURE", "Check Failure",
                              "Stage 3\rFlow  Value: 3.00  Min: 1  Max: 2\rF1: Ignore  F2 Repeat  F3: Fail and Abandon",
                              {"Ignore", "Repeat", "Fail and Abandon"}},
                             answers.callback(), nullptr);
    byKey.show();
    QVERIFY(QTest::qWaitForWindowActive(&byKey));
    QCOMPARE(Find<QLabel>(byKey, "laStage")->text(), QString("Stage 3"));
    QCOMPARE(Find<QLabel>(byKey, "laFailures")->text(), QString("Flow  Value: 3.00  Min: 1  Max: 2"));
    QStringList line;
    for (const char* name : {"laKey1", "laKey2", "laKey3"}) line << Find<QLabel>(byKey, name)->text();
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
    const std::string base = dir_.path().toStdString() + "/PUMP";
    const std::string plainText = "WAITSECONDS 5\r\nSTOP\r\n";
    Write(base + ".wts", plainText);
    QVERIFY(encryptFile(base + ".wts", "", kDefaultUtilityKey, nullptr));
    Write(base + ".wts", "old");

    DecryptDialog dialog(nullptr);
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
    source->setText("notes.doc");
    QMessageBox* box = Box(dialog, "messageBox");
    QCOMPARE(box->text(), QString("File extension not recognised by encrypt software: notes.doc"));
    box->accept();
    QVERIFY(!decrypt->isEnabled());

    source->setText(QString::fromStdString(base + ".WTE"));
    QCOMPARE(source->text(), QString::fromStdString(base + ".wte"));
    QCOMPARE(destination->text(), QString::fromStdString(base + ".wts"));
    auto overwrite = [&](QMessageBox::StandardButton answer) {
      QTest::mouseClick(decrypt, Qt::LeftButton);
      QMessageBox* question = Box(dialog, "overwriteBox");
      QCOMPARE(question->windowTitle(), QString("File encryption"));
      QCOMPARE(question->text(), QString::fromStdString("File " + base + ".wts already exists - overwrite"));
      QCOMPARE(question->defaultButton(), question->button(QMessageBox::No));
      QTest::mouseClick(question->button(answer), Qt::LeftButton);
      QTRY_VERIFY(dialog.findChild<QMessageBox*>("overwriteBox") == nullptr);
    };
    overwrite(QMessageBox::No);
    QCOMPARE(ReadAll(base + ".wts"), std::string("old"));
    overwrite(QMessageBox::Yes);
    QCOMPARE(ReadAll(base + ".wts"), plainText);

    // A damaged file: the frame check fails.
    Write(base + ".wts", "old");
    Write(dir_.path().toStdString() + "/BAD.txe", "not a frame at all");
    source->setText(dir_.path() + "/BAD.txe");
    QTest::mouseClick(decrypt, Qt::LeftButton);
    QCOMPARE(Box(dialog, "messageBox")->text(), "Failed to decrypt " + dir_.path() + "/BAD.txe");
  }

  void manualTabReadsAndWritesTheRig() {
    MainWindow w(RigFactory(), "");
    w.show();
    w.findChild<QTabWidget*>()->setCurrentWidget(Find<QWidget>(w, "frManual"));
    auto* channel = Find<QLineEdit>(w, "ebManualChannel");
    auto* value = Find<QLineEdit>(w, "ebManualValue");
    auto* reading = Find<QLabel>(w, "laManualReading");
    auto read = [&](const char* name) -> QString {
      channel->setText(name);
      reading->clear();
      QTest::mouseClick(Find<QPushButton>(w, "pbManualRead"), Qt::LeftButton);
      if (!QTest::qWaitFor([&] { return !reading->text().isEmpty(); })) return "(no reading)";
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
    QVERIFY2(read("SPARE").startsWith("Unable to read from channel: SPARE"), qPrintable(reading->text()));
    QVERIFY2(read("NOSUCH").contains("does not exist"), qPrintable(reading->text()));
  }

  void pulseShowsItsStatusAndAlarmDefinitionsAreListed() {
    MainWindow w(RigFactory(), Sequence("pulse.wts", {"ALARMDEFINE OVENHOT, GOTO COOL",
                                                       "PULSEOUTPUT HEATER, HI, 800", "WAITSECONDS 60",
                                                       "COOL:"}));
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
    MainWindow w(RigFactory(), Sequence("menu.wts", {"SELECTMENU Which way?, WARM, COOL", "WARM:",
                                                      "DOWITHSHOW Watch the oven, OVEN", "STOP", "COOL:",
                                                      "CONTINUEOK Cooling", "STOP"}));
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
    QTRY_VERIFY((value = w.findChild<QLabel*>("ladwsChannelValue")) != nullptr && value->isVisible());
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
    MainWindow w(RigFactory(), Sequence("chart.wts", {"SEND HEATER, 80", "WAITSECONDS 60"}));
    w.show();
    Find<QAction>(w, "mbChart")->trigger();
    auto* chart = Find<ChartWindow>(w, "frmChart");
    QVERIFY(chart->isVisible());
    QTRY_VERIFY(Find<QListWidget>(*chart, "lbChartChannels")->count() >= 5);  // the rig's enabled channels
    QVERIFY(Find<QListWidget>(*chart, "lbChartChannels")->findItems("SPARE", Qt::MatchExactly).isEmpty());
    chart->setSampleInterval(20);
    chart->plot("OVEN");
    chart->plot("HEATER");
    QTRY_VERIFY(Find<QPushButton>(w, "pbRun")->isEnabled());
    QCOMPARE(chart->pointCount("OVEN"), 0);  // nothing runs: nothing sampled
    QTest::mouseClick(Find<QPushButton>(w, "pbRun"), Qt::LeftButton);
    QTRY_VERIFY(chart->pointCount("OVEN") >= 3 && chart->pointCount("HEATER") >= 3);
    QTest::mouseClick(Find<QPushButton>(w, "pbStop"), Qt::LeftButton);
    QTRY_COMPARE(Status(w), QString("Stopped"));

    const QString pdf = dir_.path() + "/chart.pdf";
    QPrinter printer(QPrinter::HighResolution);
    printer.setOutputFormat(QPrinter::PdfFormat);
    printer.setOutputFileName(pdf);
    chart->print(printer);
    QVERIFY(QFileInfo(pdf).size() > 1000);
  }

#endif

  void reportListsTheChecksAndPrints() {
    ReportView contents{"15-11-2026", "Ann Lee", "Pump test", "3", "SN 42",
                            {"1: Flow, FLOW, 2.50, l/min, 1, 3, Pass", "2: Seal, , , , , , Fail Op Fail"}};
    ReportDialog report(contents, nullptr);
    report.show();
    auto* list = Find<QListWidget>(report, "ebSequenceList");
    QCOMPARE(list->count(), 2);
    QCOMPARE(list->item(1)->text(), QString("2: Seal, , , , , , Fail Op Fail"));
    QCOMPARE(Find<QLineEdit>(report, "ebDate")->text(), QString("15-11-2026"));
    QCOMPARE(Find<QLabel>(report, "laSerialNumber")->text(), QString("SN 42"));
    const QString pdf = dir_.path() + "/report.pdf";
    QVERIFY(report.printToPdf(pdf));
    QVERIFY(Find<QPushButton>(report, "pbPrint")->isVisible());
    QVERIFY(Find<QPushButton>(report, "pbEscape")->isVisible());
    QTest::mouseClick(Find<QPushButton>(report, "pbEscape"), Qt::LeftButton);
    QVERIFY(!report.isVisible());

    ReportDialog empty(ReportView{}, nullptr);
    QCOMPARE(Find<QListWidget>(empty, "ebSequenceList")->count(), 0);
  }

  void menusOpenTheirWindows() {
    MainWindow w(Factory(), "");
    w.show();
    Find<QAction>(w, "mbFileDecrypt")->trigger();
    QTRY_VERIFY(Find<QDialog>(w, "frmDecrypt")->isVisible());
    Find<QAction>(w, "mbAbout")->trigger();
    QTRY_VERIFY(Find<QDialog>(w, "frmAbout")->isVisible());
    QCOMPARE(Find<QLabel>(w, "laProduct")->text(), w.windowTitle());
  }

  void endTavrixClosesTheWindowAfterTheRun() {
    auto* w = new MainWindow(Factory(), Sequence("end.wts", {"ENDTAVRIX", "RESETLOOPCOUNT"}));
    w->setAttribute(Qt::WA_DeleteOnClose);
    QPointer<MainWindow> alive(w);
    w->show();
    QTRY_VERIFY(Find<QPushButton>(*w, "pbRun")->isEnabled());
    QTest::mouseClick(Find<QPushButton>(*w, "pbRun"), Qt::LeftButton);
    QTRY_VERIFY(!alive);
  }
};

}  // namespace tavrix

QTEST_MAIN(tavrix::MainWindowTest)
#include "main_window_test.moc"
