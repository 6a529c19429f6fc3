#include "chart_window.h"

#include <QApplication>
#include <QChart>
#include <QChartView>
#include <QHBoxLayout>
#include <QLineSeries>
#include <QListWidget>
#include <QPainter>
#include <QPointer>
#include <QPrintDialog>
#include <QPrinter>
#include <QPushButton>
#include <QScreen>
#include <QSplitter>
#include <QVBoxLayout>
#include <QValueAxis>
#include <algorithm>

#include "common/civil_time.h"
#include "common/text_conventions.h"
#include "qt_text.h"

namespace tavrix {

namespace {
constexpr int kSampleIntervalMs = 1000;
}

ChartWindow::ChartWindow(EngineTasks post, QWidget* parent)
    : QWidget(parent, Qt::Window), post_(std::move(post)) {
  setObjectName("frmChart");
  setWindowTitle(tr("X-Y Chart"));
  lbChartChannels_ = new QListWidget;
  lbChartChannels_->setObjectName("lbChartChannels");
  lbChartChannels_->setMaximumWidth(160);

  chart_ = new QChart;
  chart_->setTitle(tr("Channels against time"));
  timeAxis_ = new QValueAxis;
  timeAxis_->setTitleText(tr("Time (s)"));
  timeAxis_->setRange(0, 10);
  timeAxis_->setLabelFormat("%.6g");
  chart_->addAxis(timeAxis_, Qt::AlignBottom);
  view_ = new QChartView(chart_);
  view_->setObjectName("cvChart");
  view_->setRenderHint(QPainter::Antialiasing);

  auto* pbPrint = new QPushButton(tr("&Print..."));
  pbPrint->setObjectName("pbChartPrint");
  auto* pbClear = new QPushButton(tr("C&lear"));
  pbClear->setObjectName("pbChartClear");
  auto* pbClose = new QPushButton(tr("&Close"));
  pbClose->setObjectName("pbChartClose");
  auto* buttons = new QHBoxLayout;
  buttons->addStretch();
  buttons->addWidget(pbClear);
  buttons->addWidget(pbPrint);
  buttons->addWidget(pbClose);

  auto* body = new QHBoxLayout;
  body->addWidget(lbChartChannels_);
  body->addWidget(view_, 1);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(body, 1);
  layout->addLayout(buttons);
  resize(720, 420);

  sampler_.setInterval(kSampleIntervalMs);
  connect(&sampler_, &QTimer::timeout, this, &ChartWindow::sample);
  connect(pbPrint, &QPushButton::clicked, this, &ChartWindow::printDialog);
  connect(pbClear, &QPushButton::clicked, this, &ChartWindow::clear);
  connect(pbClose, &QPushButton::clicked, this, &QWidget::close);
}

void ChartWindow::showEvent(QShowEvent* event) {
  fitScreen();
  QWidget::showEvent(event);
  refreshChannels();
  sampler_.start();
}

// The window never runs off its screen (1024 x 768 included): it shrinks
// to the screen's free area and moves inside it.
void ChartWindow::fitScreen() {
  const QScreen* on = screen();
  if (on == nullptr) return;
  const QRect free = on->availableGeometry();
  const QRect frame = frameGeometry();
  const QSize decoration(frame.width() - width(), frame.height() - height());
  const QSize fits(std::min(width(), free.width() - decoration.width()),
                   std::min(height(), free.height() - decoration.height()));
  if (fits != size()) resize(fits);
  QPoint at = frameGeometry().topLeft();
  at.setX(std::clamp(at.x(), free.left(),
                     std::max(free.left(), free.right() + 1 - frameGeometry().width())));
  at.setY(std::clamp(at.y(), free.top(),
                     std::max(free.top(), free.bottom() + 1 - frameGeometry().height())));
  if (at != frameGeometry().topLeft()) move(at);
}

void ChartWindow::hideEvent(QHideEvent* event) {
  sampler_.stop();
  QWidget::hideEvent(event);
}

std::vector<ChartWindow::Channel> ChartWindow::EnabledChannels(Engine& engine) {
  std::vector<Channel> channels;
  if (Instrument* instrument = engine.instrument()) {
    for (const auto& record : instrument->channels().records())
      if (record.enabled) channels.push_back({record.name, record.units});
  }
  return channels;
}

void ChartWindow::refreshChannels() {
  QPointer<ChartWindow> self(this);
  post_([self](Engine& engine) {
    const std::vector<Channel> channels = EnabledChannels(engine);
    QMetaObject::invokeMethod(
        qApp,
        [self, channels] {
          if (self) self->setChannels(channels);
        },
        Qt::QueuedConnection);
  });
}

// The list follows the setup: channels it no longer has go, new ones come
// unticked, and ticks of channels that stay are kept.
void ChartWindow::setChannels(const std::vector<Channel>& channels) {
  QStringList names;
  for (const auto& channel : channels) {
    const QString name = Text(channel.name).trimmed();
    names << name;
    units_[name] = Text(channel.units).trimmed();
  }
  for (int i = lbChartChannels_->count() - 1; i >= 0; --i) {
    if (!names.contains(lbChartChannels_->item(i)->text())) delete lbChartChannels_->takeItem(i);
  }
  for (const QString& name : names) {
    if (!lbChartChannels_->findItems(name, Qt::MatchExactly).isEmpty()) continue;
    auto* item = new QListWidgetItem(name, lbChartChannels_);
    item->setFlags(item->flags() | Qt::ItemIsUserCheckable);
    item->setCheckState(Qt::Unchecked);
  }
}

QStringList ChartWindow::channels() const {
  QStringList names;
  for (int i = 0; i < lbChartChannels_->count(); ++i) names << lbChartChannels_->item(i)->text();
  return names;
}

QStringList ChartWindow::axisTitles() const {
  QStringList titles;
  for (const QString& units : axisOrder_) titles << axes_[units].axis->titleText();
  return titles;
}

void ChartWindow::plot(const QString& channel) {
  for (QListWidgetItem* item : lbChartChannels_->findItems(channel, Qt::MatchExactly))
    item->setCheckState(Qt::Checked);
  if (!lbChartChannels_->findItems(channel, Qt::MatchExactly).isEmpty()) return;
  auto* item = new QListWidgetItem(channel, lbChartChannels_);
  item->setFlags(item->flags() | Qt::ItemIsUserCheckable);
  item->setCheckState(Qt::Checked);
}

void ChartWindow::sample() {
  if (sampling_) return;
  std::vector<std::string> channels;
  for (int i = 0; i < lbChartChannels_->count(); ++i) {
    const QListWidgetItem* item = lbChartChannels_->item(i);
    if (item->checkState() == Qt::Checked) channels.push_back(Std(item->text()));
  }
  sampling_ = true;
  QPointer<ChartWindow> self(this);
  post_([self, channels](Engine& engine) {
    Sample sample{
        static_cast<double>(engine.clock().now()) / kMicrosPerSecond, {}, EnabledChannels(engine)};
    Instrument* instrument = engine.instrument();
    if (instrument != nullptr && engine.sequencer().flags().running) {
      for (const auto& channel : channels) {
        std::string value;
        if (instrument->channels().ReadChannel(channel, value))
          sample.values.emplace_back(channel, leadingNumber(value));
      }
    }
    QMetaObject::invokeMethod(
        qApp,
        [self, sample] {
          if (!self) return;
          self->sampling_ = false;
          self->setChannels(sample.channels);
          self->add(sample);
        },
        Qt::QueuedConnection);
  });
}

QValueAxis* ChartWindow::axisFor(const QString& units) {
  Axis& entry = axes_[units];
  if (entry.axis == nullptr) {
    entry.axis = new QValueAxis;
    entry.axis->setTitleText(units.isEmpty() ? tr("Value") : units);
    // Short labels: no tick label is cut off.
    entry.axis->setLabelFormat("%.6g");
    // The first unit's axis on the left, the others alternate sides.
    chart_->addAxis(entry.axis, axisOrder_.size() % 2 == 0 ? Qt::AlignLeft : Qt::AlignRight);
    axisOrder_ << units;
  }
  return entry.axis;
}

void ChartWindow::add(const Sample& sample) {
  if (sample.values.empty()) return;
  if (!origin_) origin_ = sample.seconds;
  last_ = sample.seconds - *origin_;
  for (const auto& [name, value] : sample.values) {
    const QString channel = Text(name);
    const QString units = units_.value(channel);
    QValueAxis* axis = axisFor(units);
    QLineSeries*& series = series_[channel];
    if (series == nullptr) {
      series = new QLineSeries;
      series->setName(units.isEmpty() ? channel : channel + " (" + units + ")");
      chart_->addSeries(series);
      series->attachAxis(timeAxis_);
      series->attachAxis(axis);
    }
    series->append(last_, value);
    Axis& range = axes_[units];
    range.low = range.empty ? value : std::min(range.low, value);
    range.high = range.empty ? value : std::max(range.high, value);
    range.empty = false;
    const double margin = range.high > range.low ? (range.high - range.low) * 0.05 : 1.0;
    axis->setRange(range.low - margin, range.high + margin);
    // Ticks at round values (1, 2 or 5 times a power of ten).
    axis->applyNiceNumbers();
  }
  timeAxis_->setRange(0, std::max(10.0, last_));
  timeAxis_->applyNiceNumbers();
}

int ChartWindow::pointCount(const QString& channel) const {
  const auto it = series_.find(channel);
  return it == series_.end() ? 0 : static_cast<int>((*it)->count());
}

void ChartWindow::clear() {
  for (QLineSeries* series : series_) chart_->removeSeries(series), delete series;
  series_.clear();
  for (const Axis& entry : axes_) chart_->removeAxis(entry.axis), delete entry.axis;
  axes_.clear();
  axisOrder_.clear();
  origin_.reset();
  timeAxis_->setRange(0, 10);
}

void ChartWindow::print(QPrinter& printer) {
  QPainter painter(&printer);
  const QRect page = painter.viewport();
  QSize size = view_->size();
  size.scale(page.size(), Qt::KeepAspectRatio);
  view_->render(&painter, QRectF(page.topLeft(), size));
}

void ChartWindow::printDialog() {
  auto printer = std::make_shared<QPrinter>(QPrinter::HighResolution);
  printer->setPageOrientation(QPageLayout::Landscape);
  auto* dialog = new QPrintDialog(printer.get(), this);
  dialog->setObjectName("printDialog");
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  connect(dialog, &QDialog::accepted, this, [this, printer] { print(*printer); });
  dialog->setWindowModality(Qt::NonModal);
  dialog->show();
}

}  // namespace tavrix
