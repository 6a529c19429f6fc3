#include "sequence_lines_view.h"

#include <QAbstractTableModel>
#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QFont>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeySequence>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QPointer>
#include <QPushButton>
#include <QSpinBox>
#include <QTableView>
#include <QVBoxLayout>

#include "qt_text.h"

namespace tavrix {

namespace {

const QColor kCurrentColour(255, 240, 160);
const QColor kHeldColour(255, 176, 144);
const QColor kBreakColour(200, 0, 0);

enum Column { kMargin, kNumber, kText, kColumns };

}  // namespace

LinesSnapshot LinesSnapshot::Take(Engine& engine, const Breakpoints& breakpoints,
                                  const RunEvent& event) {
  LinesSnapshot snapshot;
  switch (event.kind) {
    case RunEventKind::kPrepared: {
      std::vector<std::string> lines;
      if (!SequenceView::ReadLines(engine.files(), event.text, lines, &snapshot.problem))
        lines.clear();
      snapshot.lines = std::move(lines);
      snapshot.breakpoints = breakpoints.list();
      break;
    }
    case RunEventKind::kStarted:
    case RunEventKind::kHold:
    case RunEventKind::kEnd:
      snapshot.breakpoints = breakpoints.list();
      break;
    default:
      break;
  }
  return snapshot;
}

// The lines as a table of three columns: the margin (a breakpoint's mark),
// the line number and the line.
class SequenceLinesModel : public QAbstractTableModel {
 public:
  explicit SequenceLinesModel(const SequenceView& view, QObject* parent)
      : QAbstractTableModel(parent), view_(view) {}

  int rowCount(const QModelIndex& parent) const override {
    return parent.isValid() ? 0 : view_.lineCount();
  }
  int columnCount(const QModelIndex& parent) const override {
    return parent.isValid() ? 0 : kColumns;
  }

  QVariant data(const QModelIndex& index, int role) const override {
    if (!index.isValid()) return {};
    const SequenceView::Line line = view_.line(index.row() + 1);
    switch (role) {
      case Qt::DisplayRole:
        if (index.column() == kMargin) {
          QString mark = line.current ? QStringLiteral("\u25B6") : QString();
          if (!line.breakpoints.empty()) mark += QStringLiteral("\u25CF");
          return mark;
        }
        if (index.column() == kNumber) return line.number;
        return Text(line.text);
      case Qt::ToolTipRole: {
        if (index.column() != kMargin) return {};
        QStringList ids;
        for (const int64_t id : line.breakpoints) ids << QString::number(id);
        return ids.isEmpty() ? tr("Click to hold the run before this line")
                             : tr("Breakpoint %1; click to clear").arg(ids.join(", "));
      }
      case Qt::BackgroundRole:
        if (line.held) return kHeldColour;
        if (line.current) return kCurrentColour;
        return {};
      case Qt::ForegroundRole:
        if (index.column() == kMargin) return kBreakColour;
        return {};
      case Qt::FontRole:
        if (line.current) {
          QFont bold;
          bold.setBold(true);
          return bold;
        }
        return {};
      case Qt::TextAlignmentRole:
        if (index.column() == kNumber) return int(Qt::AlignRight | Qt::AlignVCenter);
        return {};
      default:
        return {};
    }
  }

  QVariant headerData(int section, Qt::Orientation orientation, int role) const override {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
    if (section == kNumber) return tr("Line");
    if (section == kText) return tr("Command");
    return QString();
  }

  void reload() {
    beginResetModel();
    endResetModel();
  }
  void changed() {
    if (rowCount({}) > 0) emit dataChanged(index(0, 0), index(rowCount({}) - 1, kColumns - 1));
  }

 private:
  const SequenceView& view_;
};

SequenceLinesView::SequenceLinesView(BreakpointTasks tasks, QWidget* parent)
    : QWidget(parent), tasks_(std::move(tasks)) {
  setObjectName("frLines");
  auto* layout = new QVBoxLayout(this);
  model_ = new SequenceLinesModel(view_, this);
  lines_ = Named(new QTableView, "tvLines");
  lines_->setModel(model_);
  lines_->verticalHeader()->hide();
  lines_->setShowGrid(false);
  lines_->setSelectionBehavior(QAbstractItemView::SelectRows);
  lines_->setSelectionMode(QAbstractItemView::SingleSelection);
  lines_->setEditTriggers(QAbstractItemView::NoEditTriggers);
  lines_->horizontalHeader()->setSectionResizeMode(kMargin, QHeaderView::Fixed);
  lines_->horizontalHeader()->resizeSection(kMargin, 28);
  lines_->horizontalHeader()->setSectionResizeMode(kNumber, QHeaderView::ResizeToContents);
  lines_->horizontalHeader()->setStretchLastSection(true);
  lines_->setContextMenuPolicy(Qt::CustomContextMenu);
  layout->addWidget(lines_, 3);

  layout->addLayout(buildBreakpointForm());
  problem_ = Named(new QLabel, "laBreakProblem");
  problem_->setWordWrap(true);
  QPalette palette = problem_->palette();
  palette.setColor(QPalette::WindowText, Qt::darkRed);
  problem_->setPalette(palette);
  problem_->hide();
  layout->addWidget(problem_);

  auto* listRow = new QHBoxLayout;
  list_ = Named(new QListWidget, "lbBreakpoints");
  list_->setMinimumHeight(48);
  clear_ = Named(new QPushButton(tr("Clear")), "pbBreakClear");
  clear_->setEnabled(false);
  listRow->addWidget(list_, 1);
  auto* listButtons = new QVBoxLayout;
  listButtons->addWidget(clear_);
  listButtons->addStretch();
  listRow->addLayout(listButtons);
  layout->addLayout(listRow, 1);

  toggleFromLines();
  connect(add_, &QPushButton::clicked, this, &SequenceLinesView::addFromForm);
  connect(target_, &QLineEdit::returnPressed, this, &SequenceLinesView::addFromForm);
  connect(clear_, &QPushButton::clicked, this, &SequenceLinesView::clearSelected);
  connect(list_, &QListWidget::currentRowChanged, this,
          [this](int row) { clear_->setEnabled(row >= 0); });
  auto* clearKey = new QAction(list_);
  clearKey->setShortcut(QKeySequence::Delete);
  clearKey->setShortcutContext(Qt::WidgetShortcut);
  list_->addAction(clearKey);
  connect(clearKey, &QAction::triggered, this, &SequenceLinesView::clearSelected);

  redraw_.setSingleShot(true);
  redraw_.setInterval(100);
  connect(&redraw_, &QTimer::timeout, this, &SequenceLinesView::redraw);
}

SequenceLinesView::~SequenceLinesView() = default;

QHBoxLayout* SequenceLinesView::buildBreakpointForm() {
  auto* form = new QHBoxLayout;
  kind_ = Named(new QComboBox, "cbBreakKind");
  kind_->addItems({tr("Label"), tr("Condition")});
  target_ = Named(new QLineEdit, "ebBreakTarget");
  target_->setPlaceholderText(tr("TOP, or T1 > 80"));
  hits_ = Named(new QSpinBox, "sbBreakHits");
  hits_->setRange(1, 1'000'000);
  hits_->setPrefix(tr("from hit "));
  add_ = Named(new QPushButton(tr("Add Breakpoint")), "pbBreakAdd");
  form->addWidget(kind_);
  form->addWidget(target_, 1);
  form->addWidget(hits_);
  form->addWidget(add_);
  return form;
}

void SequenceLinesView::toggleFromLines() {
  connect(lines_, &QTableView::clicked, this, [this](const QModelIndex& index) {
    if (index.column() == kMargin) toggle(index.row() + 1);
  });
  auto* toggleKey = new QAction(tr("Toggle Breakpoint"), lines_);
  toggleKey->setShortcut(QKeySequence(Qt::Key_F9));
  toggleKey->setShortcutContext(Qt::WidgetWithChildrenShortcut);
  lines_->addAction(toggleKey);
  connect(toggleKey, &QAction::triggered, this, [this] {
    if (lines_->currentIndex().isValid()) toggle(lines_->currentIndex().row() + 1);
  });
  connect(lines_, &QWidget::customContextMenuRequested, this, [this, toggleKey](const QPoint& at) {
    const QModelIndex index = lines_->indexAt(at);
    QMenu menu(this);
    QAction* toggleLine = menu.addAction(toggleKey->text());
    toggleLine->setShortcut(toggleKey->shortcut());
    toggleLine->setEnabled(index.isValid());
    QAction* clearAll = menu.addAction(tr("Clear All Breakpoints"));
    clearAll->setEnabled(!view_.breakpoints().empty());
    QAction* chosen = menu.exec(lines_->viewport()->mapToGlobal(at));
    if (chosen == toggleLine) toggle(index.row() + 1);
    if (chosen == clearAll) carryOut(view_.clearAll());
  });
}

void SequenceLinesView::take(const RunEvent& event, const LinesSnapshot& snapshot) {
  const bool changed = view_.apply(event);
  if (snapshot.lines) {
    view_.load(event.text, *snapshot.lines);
    model_->reload();
    shownLine_ = 0;
    problem_->setVisible(!snapshot.problem.empty());
    problem_->setText(Text(snapshot.problem));
  }
  if (snapshot.breakpoints) showBreakpoints(*snapshot.breakpoints);
  if (!changed) return;
  // A hold, and the end of one, show at once; lines a few times a second.
  if (event.kind == RunEventKind::kLine) {
    redrawSoon();
  } else {
    redraw();
  }
  if (holdChanged_ && event.kind != RunEventKind::kLine) holdChanged_();
}

void SequenceLinesView::toggle(int number) { carryOut(view_.toggle(number)); }

void SequenceLinesView::carryOut(const SequenceView::Change& change) {
  if (change.clear.empty() && change.add.empty()) return;
  QPointer<SequenceLinesView> self(this);
  tasks_([self, change](Engine&, Breakpoints& breakpoints) {
    for (const int64_t id : change.clear) breakpoints.remove(id);
    std::string error;
    if (!change.add.empty()) breakpoints.add(change.add, change.condition, &error);
    QMetaObject::invokeMethod(
        qApp,
        [self, list = breakpoints.list(), error] {
          if (!self) return;
          self->problem_->setText(Text(error));
          self->problem_->setVisible(!error.empty());
          self->showBreakpoints(list);
        },
        Qt::QueuedConnection);
  });
}

void SequenceLinesView::addFromForm() {
  std::string error;
  const bool condition = kind_->currentIndex() == 1;
  const auto change =
      SequenceView::Addition(Std(target_->text()), condition, hits_->value(), &error);
  if (!change) {
    problem_->setText(Text(error));
    problem_->show();
    return;
  }
  target_->clear();
  hits_->setValue(1);
  carryOut(*change);
}

void SequenceLinesView::clearSelected() {
  QListWidgetItem* item = list_->currentItem();
  if (item == nullptr) return;
  SequenceView::Change change;
  change.clear.push_back(item->data(Qt::UserRole).toLongLong());
  carryOut(change);
}

void SequenceLinesView::showBreakpoints(std::vector<Breakpoint> list) {
  view_.setBreakpoints(std::move(list));
  const int row = list_->currentRow();
  list_->clear();
  for (const Breakpoint& b : view_.breakpoints()) {
    auto* item = new QListWidgetItem(Text(SequenceView::Row(b)), list_);
    item->setData(Qt::UserRole, static_cast<qlonglong>(b.id));
  }
  if (row >= 0 && row < list_->count()) list_->setCurrentRow(row);
  clear_->setEnabled(list_->currentRow() >= 0);
  model_->changed();
  if (holdChanged_) holdChanged_();
}

void SequenceLinesView::redrawSoon() {
  if (!redraw_.isActive()) redraw_.start();
}

void SequenceLinesView::redraw() {
  redraw_.stop();
  model_->changed();
  const int current = view_.currentLine();
  if (current != 0 && current != shownLine_)
    lines_->scrollTo(model_->index(current - 1, kText), QAbstractItemView::EnsureVisible);
  shownLine_ = current;
}

}  // namespace tavrix
