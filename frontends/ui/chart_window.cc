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
#include <QSplitter>
#include <QValueAxis>
#include <QVBoxLayout>

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
  valueAxis_ = new QValueAxis;
  valueAxis_->setTitleText(tr("Value"));
  valueAxis_->setRange(0, 1);
  chart_->addAxis(timeAxis_, Qt::AlignBottom);
  chart_->addAxis(valueAxis_, Qt::AlignLeft);
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
  QWidget::showEvent(event);
  if (lbChartChannels_->count() == 0) refreshChannels();
  sampler_.start();
}

void ChartWindow::hideEvent(QHideEvent* event) {
  sampler_.stop();
  QWidget::hideEvent(event);
}

void ChartWindow::refreshChannels() {
  QPointer<ChartWindow> self(this);
  post_([self](Engine& engine) {
    std::vector<std::string> names;
    if (Instrument* instrument = engine.instrument()) {
      for (const auto& record : instrument->channels().records())
        if (record.enabled) names.push_back(record.name);
    }
    QMetaObject::invokeMethod(qApp, [self, names] {
      if (self) self->setChannels(names);
    }, Qt::QueuedConnection);
  });
}

void ChartWindow::setChannels(const std::vector<std::string>& names) {
  for (const auto& name : names) {
    const QString channel = Text(name).trimmed();
    if (!lbChartChannels_->findItems(channel, Qt::MatchExactly).isEmpty()) continue;
    auto* item = new QListWidgetItem(channel, lbChartChannels_);
    item->setFlags(item->flags() | Qt::ItemIsUserCheckable);
    item->setCheckState(Qt::Unchecked);
  }
}

void ChartWindow::plot(const QString& channel) {
  setChannels({Std(channel)});
  for (QListWidgetItem* item : lbChartChannels_->findItems(channel, Qt::MatchExactly))
    item->setCheckState(Qt::Checked);
}

void ChartWindow::sample() {
  if (sampling_) return;
  std::vector<std::string> channels;
  for (int i = 0; i < lbChartChannels_->count(); ++i) {
    const QListWidgetItem* item = lbChartChannels_->item(i);
    if (item->checkState() == Qt::Checked) channels.push_back(Std(item->text()));
  }
  if (channels.empty()) return;
  sampling_ = true;
  QPointer<ChartWindow> self(this);
  post_([self, channels](Engine& engine) {
    Sample sample{static_cast<double>(engine.clock().now()) / kMicrosPerSecond, {}};
    Instrument* instrument = engine.instrument();
    if (instrument != nullptr && engine.sequencer().flags().running) {
      for (const auto& channel : channels) {
        std::string value;
        if (instrument->channels().ReadChannel(channel, value))
          sample.values.emplace_back(channel, leadingNumber(value));
      }
    }
    QMetaObject::invokeMethod(qApp, [self, sample] {
      if (!self) return;
      self->sampling_ = false;
      self->add(sample);
    }, Qt::QueuedConnection);
  });
}

void ChartWindow::add(const Sample& sample) {
  if (sample.values.empty()) return;
  if (!origin_) {
    origin_ = sample.seconds;
    low_ = high_ = sample.values.front().second;
  }
  last_ = sample.seconds - *origin_;
  for (const auto& [name, value] : sample.values) {
    const QString channel = Text(name);
    QLineSeries*& series = series_[channel];
    if (series == nullptr) {
      series = new QLineSeries;
      series->setName(channel);
      chart_->addSeries(series);
      series->attachAxis(timeAxis_);
      series->attachAxis(valueAxis_);
    }
    series->append(last_, value);
    low_ = std::min(low_, value);
    high_ = std::max(high_, value);
  }
  const double margin = high_ > low_ ? (high_ - low_) * 0.05 : 1.0;
  valueAxis_->setRange(low_ - margin, high_ + margin);
  timeAxis_->setRange(0, std::max(10.0, last_));
}

int ChartWindow::pointCount(const QString& channel) const {
  const auto it = series_.find(channel);
  return it == series_.end() ? 0 : static_cast<int>((*it)->count());
}

void ChartWindow::clear() {
  for (QLineSeries* series : series_) chart_->removeSeries(series), delete series;
  series_.clear();
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
  dialog->open();
}

}  // namespace tavrix
