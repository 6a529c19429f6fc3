#include "station_view.h"

#include <QFileInfo>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <QVBoxLayout>

#include "qt_text.h"

namespace tavrix {

namespace {

QColor StateColour(SocketState state) {
  switch (state) {
    case SocketState::kRunning:
      return QColor(255, 240, 160);
    case SocketState::kPass:
      return QColor(192, 255, 192);
    case SocketState::kFail:
      return QColor(255, 128, 128);
    case SocketState::kStopped:
      return QColor(208, 208, 208);
    case SocketState::kReady:
      break;
  }
  return QColor(240, 240, 240);
}

}  // namespace

StationView::StationView(QWidget* parent) : QWidget(parent) {
  setObjectName("frStation");
  auto* layout = new QVBoxLayout(this);
  auto* top = new QHBoxLayout;
  title_ = Named(new QLabel, "laStation");
  QFont bold = title_->font();
  bold.setBold(true);
  title_->setFont(bold);
  top->addWidget(title_, 1);
  runAll_ = Named(new QPushButton(tr("Run all")), "pbRunAll");
  stopAll_ = Named(new QPushButton(tr("Stop all")), "pbStopAll");
  stepAll_ = Named(new QPushButton(tr("Step all")), "pbStepAll");
  for (QPushButton* b : {runAll_, stopAll_, stepAll_}) {
    b->setEnabled(false);
    top->addWidget(b);
  }
  layout->addLayout(top);
  grid_ = new QWidget;
  layout->addWidget(grid_, 1);
  connect(runAll_, &QPushButton::clicked, this, &StationView::runAll);
  connect(stopAll_, &QPushButton::clicked, this, &StationView::stopAll);
  connect(stepAll_, &QPushButton::clicked, this, &StationView::stepAll);
  countDown_.setInterval(250);
  connect(&countDown_, &QTimer::timeout, this, [this] {
    for (size_t i = 0; i < tiles_.size(); ++i) showTile(i);
  });
}

StationView::~StationView() { sockets_.reset(); }

bool StationView::open(const std::string& path, const StationSockets::Options& options,
                       StationSockets::PersonFactory person, std::string* error) {
  QPointer<StationView> self(this);
  auto events = [self](size_t socket, const RunEvent& event, const SocketUnit& unit) {
    QMetaObject::invokeMethod(
        self.data(),
        [self, socket, event, unit] {
          if (self) self->take(socket, event, unit);
        },
        Qt::QueuedConnection);
  };
  auto messages = [self](size_t socket, const std::string& title, const std::string& text) {
    QMetaObject::invokeMethod(
        self.data(),
        [self, socket, title = Text(title), text = Text(text)] {
          if (self) self->showMessage(socket, title, text);
        },
        Qt::QueuedConnection);
  };
  sockets_ = StationSockets::Open(path, options, events, messages, std::move(person), error);
  if (!sockets_) return false;
  // The sockets' first events (their files prepared) are queued for this
  // thread: the panel and the tiles are there before they are taken.
  const std::vector<std::string> names = sockets_->names();
  panel_ = std::make_unique<StationPanel>(names);
  auto* grid = new QGridLayout(grid_);
  const int columns = names.size() <= 2   ? static_cast<int>(names.size())
                      : names.size() <= 4 ? 2
                                          : 4;
  for (size_t i = 0; i < names.size(); ++i) {
    grid->addWidget(buildTile(i, names[i]), static_cast<int>(i) / columns,
                    static_cast<int>(i) % columns);
  }
  const std::string& name = sockets_->station().name;
  title_->setText(tr("Station %1: %2 sockets (%3)")
                      .arg(Text(name.empty() ? std::string("-") : name))
                      .arg(names.size())
                      .arg(QFileInfo(Text(path)).fileName()));
  for (size_t i = 0; i < tiles_.size(); ++i) showTile(i);
  showAllButtons();
  return true;
}

QGroupBox* StationView::buildTile(size_t socket, const std::string& name) {
  Tile tile;
  tile.box = new QGroupBox(Text(name));
  tile.box->setObjectName(QString("tile_") + Text(name));
  auto* layout = new QVBoxLayout(tile.box);
  tile.state = Named(new QLabel, "laSocketState");
  QFont big = tile.state->font();
  big.setPointSize(big.pointSize() * 2);
  big.setBold(true);
  tile.state->setFont(big);
  tile.state->setAlignment(Qt::AlignCenter);
  tile.state->setMinimumSize(160, 48);
  tile.state->setAutoFillBackground(true);
  layout->addWidget(tile.state);
  tile.serial = Named(new QLabel, "laSocketSerial");
  tile.line = Named(new QLabel, "laSocketLine");
  tile.wait = Named(new QLabel, "laSocketWait");
  tile.end = Named(new QLabel, "laSocketEnd");
  tile.message = Named(new QLabel, "laSocketMessage");
  tile.message->setWordWrap(true);
  for (QLabel* label : {tile.serial, tile.line, tile.wait, tile.end, tile.message})
    layout->addWidget(label);
  auto* buttons = new QHBoxLayout;
  tile.run = Named(new QPushButton(tr("Run")), "pbSocketRun");
  tile.stop = Named(new QPushButton(tr("Stop")), "pbSocketStop");
  tile.step = Named(new QPushButton(tr("Step")), "pbSocketStep");
  for (QPushButton* b : {tile.run, tile.stop, tile.step}) {
    b->setEnabled(false);
    buttons->addWidget(b);
  }
  layout->addLayout(buttons);
  layout->addStretch();
  connect(tile.run, &QPushButton::clicked, this, [this, socket] { sockets_->run(socket); });
  connect(tile.stop, &QPushButton::clicked, this, [this, socket] { sockets_->stop(socket); });
  connect(tile.step, &QPushButton::clicked, this, [this, socket] { sockets_->step(socket); });
  tiles_.push_back(tile);
  return tile.box;
}

void StationView::take(size_t socket, const RunEvent& event, const SocketUnit& unit) {
  if (!panel_->apply(socket, event, unit)) return;
  showTile(socket);
  showAllButtons();
}

void StationView::showMessage(size_t socket, const QString& title, const QString& text) {
  QString body = text;
  body.replace('\r', '\n');
  tiles_[socket].message->setText(title.isEmpty() ? body : QString("[%1] %2").arg(title, body));
}

void StationView::showTile(size_t socket) {
  const std::optional<Micros> now =
      sockets_ ? std::optional<Micros>(sockets_->now()) : std::nullopt;
  const SocketTile t = panel_->tile(socket, now);
  Tile& tile = tiles_[socket];
  tile.state->setText(SocketStateText(t.state));
  QPalette palette = tile.state->palette();
  palette.setColor(QPalette::Window, StateColour(t.state));
  tile.state->setPalette(palette);
  tile.serial->setText(t.serial.empty() ? tr("Serial number: (none)")
                                        : tr("Serial number: %1").arg(Text(t.serial)));
  tile.line->setText(
      t.line.empty() ? QString() : (t.held ? tr("Held at %1") : tr("Line %1")).arg(Text(t.line)));
  tile.wait->setText(t.waitLeft.empty() ? QString() : tr("Time left: %1").arg(Text(t.waitLeft)));
  tile.wait->setVisible(!t.waitLeft.empty());
  QString end = Text(t.endText);
  if (t.passed + t.failed > 0) {
    end +=
        (end.isEmpty() ? "" : "; ") + tr("units: %1 passed, %2 failed").arg(t.passed).arg(t.failed);
  }
  tile.end->setText(end);
  tile.run->setEnabled(t.runEnabled);
  tile.stop->setEnabled(t.stopEnabled);
  tile.step->setEnabled(t.stepEnabled);
}

void StationView::showAllButtons() {
  runAll_->setEnabled(!panel_->runnable().empty());
  stopAll_->setEnabled(!panel_->stoppable().empty());
  stepAll_->setEnabled(!panel_->steppable().empty());
  bool waiting = false;
  for (size_t i = 0; i < tiles_.size(); ++i) waiting = waiting || !panel_->tile(i).waitLeft.empty();
  if (waiting && !countDown_.isActive()) countDown_.start();
  if (!waiting) countDown_.stop();
}

void StationView::runAll() {
  if (!panel_ || !sockets_) return;
  for (size_t socket : panel_->runnable()) sockets_->run(socket);
}

void StationView::stopAll() {
  if (!panel_ || !sockets_) return;
  for (size_t socket : panel_->stoppable()) sockets_->stop(socket);
}

void StationView::stepAll() {
  if (!panel_ || !sockets_) return;
  for (size_t socket : panel_->steppable()) sockets_->step(socket);
}

}  // namespace tavrix
