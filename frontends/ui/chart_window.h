// The X-Y chart window: the channels the operator ticks are plotted against
// time while a sequence runs, and the chart can be printed.
//
// A timer in the window's thread posts one sampling task per tick; the task
// reads the ticked channels on the engine thread, with the engine's clock,
// and sends the readings back. A tick is skipped while the last sample is
// still on its way, so a busy link never piles tasks up. Nothing is sampled
// while no sequence runs.
#pragma once

#include <QElapsedTimer>
#include <QMap>
#include <QTimer>
#include <QWidget>

#include "engine_host.h"

class QChart;
class QChartView;
class QLineSeries;
class QListWidget;
class QPrinter;
class QValueAxis;

namespace tavrix {

class ChartWindow : public QWidget {
 public:
  ChartWindow(EngineTasks post, QWidget* parent);

  void setSampleInterval(int ms) { sampler_.setInterval(ms); }
  // Ticks a channel (adding it to the list if the engine did not name it).
  void plot(const QString& channel);
  // Asks the engine for the channel table's enabled channels.
  void refreshChannels();
  // The value axes' titles (the units), in the order they were made.
  QStringList axisTitles() const;
  QStringList channels() const;
  // Draws the chart on `printer`'s page.
  void print(QPrinter& printer);
  int pointCount(const QString& channel) const;

 protected:
  void showEvent(QShowEvent* event) override;
  void hideEvent(QHideEvent* event) override;

 private:
  struct Channel {
    std::string name;
    std::string units;
  };
  struct Sample {
    double seconds;
    std::vector<std::pair<std::string, double>> values;
    std::vector<Channel> channels;  // the setup's enabled channels now
  };
  static std::vector<Channel> EnabledChannels(Engine& engine);
  QValueAxis* axisFor(const QString& units);
  void fitScreen();
  void sample();
  void add(const Sample& sample);
  void setChannels(const std::vector<Channel>& channels);
  void printDialog();
  void clear();

  EngineTasks post_;
  QListWidget* lbChartChannels_;
  QChart* chart_;
  QChartView* view_;
  QValueAxis* timeAxis_;
  struct Axis {
    QValueAxis* axis = nullptr;
    double low = 0, high = 0;
    bool empty = true;
  };
  QMap<QString, Axis> axes_;  // by units
  QStringList axisOrder_;
  QMap<QString, QString> units_;  // by channel
  QMap<QString, QLineSeries*> series_;
  QTimer sampler_;
  bool sampling_ = false;         // a sample is on its way
  std::optional<double> origin_;  // engine seconds of the first sample
  double last_ = 0;
};

}  // namespace tavrix
