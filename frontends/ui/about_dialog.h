// The About box: the program's caption, what it is, and the Qt it runs on.
#pragma once

#include <QDialog>

namespace tavrix {

class AboutDialog : public QDialog {
 public:
  explicit AboutDialog(QWidget* parent);
};

}  // namespace tavrix
