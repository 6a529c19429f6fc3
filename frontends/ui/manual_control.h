// The manual control tab: the operator reads and writes a channel by name.
// Each read or write is a task posted to the engine; its outcome comes back
// to the tab's label (laManualReading), so the window never waits for the
// link.
#pragma once

#include <QWidget>

#include "engine_host.h"

class QLabel;
class QLineEdit;

namespace tavrix {

class ManualControl : public QWidget {
 public:
  ManualControl(EngineTasks post, QWidget* parent);

 private:
  void read();
  void write();
  void show(const QString& text);

  EngineTasks post_;
  QLineEdit* ebManualChannel_;
  QLineEdit* ebManualValue_;
  QLabel* laManualReading_;
};

}  // namespace tavrix
