// The desktop window driven by clicks on the offscreen platform, against a
// real engine thread. Waits are for conditions (QTRY_*), never fixed sleeps.

#include <QCheckBox>
#include <QElapsedTimer>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QTemporaryDir>
#include <QtTest>
#include <fstream>

#include "main_window.h"

namespace tavrix {

class MainWindowTest : public QObject {
  Q_OBJECT

 private:
  QTemporaryDir dir_;

  std::string Sequence(const char* name, const std::vector<std::string>& lines) {
    const std::string path = dir_.path().toStdString() + "/" + name;
    std::ofstream out(path, std::ios::binary);
    for (const auto& line : lines) out << line << "\r\n";
    return path;
  }

  static MainWindow::EngineFactory Factory() {
    return [](Operator& op) { return std::make_unique<Engine>(std::make_unique<SystemClock>(), op); };
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
};

}  // namespace tavrix

QTEST_MAIN(tavrix::MainWindowTest)
#include "main_window_test.moc"
