#include "check_failure_dialog.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QMouseEvent>
#include <QVBoxLayout>

#include "testdb/stage_checks.h"

namespace tavrix {

namespace {

struct KeyItem {
  const char* menuText;
  const char* labelText;  // the three parts of kCheckFailureKeys
  const char* caption;
  Qt::Key key;
  const char* name;
};

constexpr std::array<KeyItem, 3> kItems{{
    {"&Ignore", "F1: Ignore", "Ignore", Qt::Key_F1, "mbIgnore"},
    {"&Repeat", "F2 Repeat", "Repeat", Qt::Key_F2, "mbRepeat"},
    {"&Fail and Abandon", "F3: Fail and Abandon", "Fail and Abandon", Qt::Key_F3, "mbFailAbandon"},
}};

}  // namespace

CheckFailureDialog::CheckFailureDialog(const Question& question,
                                       std::function<void(Answer)> answered, QWidget* parent)
    : QDialog(parent), answered_(std::move(answered)) {
  setObjectName("frmCheckFailure");
  setWindowTitle(question.title.empty() ? tr("Check Failure") : Text(question.title));
  for (size_t i = 0; i < kItems.size(); ++i)
    captions_[i] =
        question.choices.size() == kItems.size() ? question.choices[i] : kItems[i].caption;

  auto* layout = new QVBoxLayout(this);
  auto* menuBar = new QMenuBar(this);
  QMenu* keys = menuBar->addMenu(tr("&Keys"));
  keys->setObjectName("mbKeys");
  layout->setMenuBar(menuBar);

  QStringList lines = Text(question.text).split('\n');
  if (!lines.isEmpty() && lines.back() == Text(kCheckFailureKeys)) lines.removeLast();
  auto* laStage = new QLabel(lines.isEmpty() ? QString() : lines.takeFirst());
  laStage->setObjectName("laStage");
  QFont big = laStage->font();
  big.setPointSize(big.pointSize() * 2);
  big.setBold(true);
  laStage->setFont(big);
  laStage->setAlignment(Qt::AlignCenter);
  layout->addWidget(laStage);
  auto* laFailures = new QLabel(lines.join('\n'));
  laFailures->setObjectName("laFailures");
  laFailures->setWordWrap(true);
  layout->addWidget(laFailures);

  auto* line = new QHBoxLayout;
  line->setSpacing(QFontMetrics(font()).horizontalAdvance("  "));
  for (size_t i = 0; i < kItems.size(); ++i) {
    QAction* action = keys->addAction(tr(kItems[i].menuText));
    action->setObjectName(kItems[i].name);
    action->setShortcut(QKeySequence(kItems[i].key));
    action->setShortcutContext(Qt::WindowShortcut);
    addAction(action);
    connect(action, &QAction::triggered, this, [this, i] { choose(i); });
    keyLabels_[i] = new QLabel(kItems[i].labelText);
    keyLabels_[i]->setObjectName(QString("laKey%1").arg(i + 1));
    keyLabels_[i]->setCursor(Qt::PointingHandCursor);
    keyLabels_[i]->installEventFilter(this);
    line->addWidget(keyLabels_[i]);
  }
  layout->addLayout(line);
}

CheckFailureDialog::~CheckFailureDialog() { answered_(std::nullopt); }

bool CheckFailureDialog::eventFilter(QObject* watched, QEvent* event) {
  if (event->type() == QEvent::MouseButtonRelease) {
    for (size_t i = 0; i < keyLabels_.size(); ++i) {
      if (watched == keyLabels_[i]) {
        choose(i);
        return true;
      }
    }
  }
  return QDialog::eventFilter(watched, event);
}

void CheckFailureDialog::choose(size_t item) {
  if (!answered_.pending()) return;
  answered_(captions_[item]);
  QDialog::accept();
}

}  // namespace tavrix
