// The window's view of an open station: one tile per test socket (its name,
// the serial number of its unit, the current line, the time left in a wait
// and a large READY / RUNNING / PASS / FAIL / STOPPED), with Run, Stop and
// Step per socket and for all. Each socket's engine runs on a thread of its
// own (StationSockets); what a tile shows and which buttons may be pressed
// is the StationPanel's. Object names: the tile of socket S1 is "tile_S1",
// holding laSocketState, laSocketSerial, laSocketLine, laSocketWait,
// laSocketEnd, laSocketMessage, pbSocketRun, pbSocketStop and pbSocketStep.
#pragma once

#include <QTimer>
#include <QWidget>
#include <memory>
#include <string>
#include <vector>

#include "panel/station_panel.h"
#include "station_sockets.h"

class QGroupBox;
class QLabel;
class QPushButton;

namespace tavrix {

class StationView : public QWidget {
 public:
  explicit StationView(QWidget* parent = nullptr);
  // Stops whatever runs and ends the sockets' threads.
  ~StationView() override;

  // Opens the station file; false with a message when it cannot be used
  // (nothing runs then).
  bool open(const std::string& path, const StationSockets::Options& options,
            StationSockets::PersonFactory person, std::string* error);

  void runAll();
  void stopAll();
  void stepAll();
  bool anyRunning() const { return panel_ && panel_->anyRunning(); }
  StationSockets* sockets() { return sockets_.get(); }
  const StationPanel* panel() const { return panel_.get(); }

 private:
  struct Tile {
    QGroupBox* box = nullptr;
    QLabel* state = nullptr;
    QLabel* serial = nullptr;
    QLabel* line = nullptr;
    QLabel* wait = nullptr;
    QLabel* end = nullptr;
    QLabel* message = nullptr;
    QPushButton* run = nullptr;
    QPushButton* stop = nullptr;
    QPushButton* step = nullptr;
  };
  QGroupBox* buildTile(size_t socket, const std::string& name);
  // On the window's thread.
  void take(size_t socket, const RunEvent& event, const SocketUnit& unit);
  void showMessage(size_t socket, const QString& title, const QString& text);
  void showTile(size_t socket);
  void showAllButtons();

  std::unique_ptr<StationPanel> panel_;
  std::vector<Tile> tiles_;
  QLabel* title_ = nullptr;
  QPushButton* runAll_ = nullptr;
  QPushButton* stopAll_ = nullptr;
  QPushButton* stepAll_ = nullptr;
  QWidget* grid_ = nullptr;
  // Counts a wait's time left down between the socket's events.
  QTimer countDown_;
  // Last: its threads end before the widgets go.
  std::unique_ptr<StationSockets> sockets_;
};

}  // namespace tavrix
