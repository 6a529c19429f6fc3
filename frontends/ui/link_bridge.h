// The window and the rig PC's 32-bit link libraries. A 64-bit window cannot
// load them, so when the settings ask for the "dll" link it finds, or
// starts, the 32-bit tavrix-cli serving them on a loopback port (`tavrix-cli
// rig --link dll`) and uses the "tcp://" link to it. The bridge it started
// ends with the window.
#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <memory>
#include <string>

#include "instrument/link/instrument_settings.h"

namespace tavrix {

class FileSystem;

// What the window does about its link.
struct LinkPlan {
  std::string link;  // the link the window's instrument uses
  bool bridge = false;
  // With a bridge: the program, its arguments and the port it listens on.
  QString program;
  QStringList arguments;
  int port = 0;
};

// The plan for `settings` (read from `settingsFile`, "" when none):
// `dllInProcess` tells whether this window can load the libraries itself
// (a 32-bit Windows build whose libraries load). `windowFolder` is where the
// default bridge program lies.
LinkPlan PlanLink(const InstrumentSettings& settings, const std::string& settingsFile,
                  bool dllInProcess, const QString& windowFolder);

// True when this build of the window is one that can load the rig PC's
// 32-bit libraries and they do load with `settings`.
bool DllLoadsInProcess(const InstrumentSettings& settings, const FileSystem& files);

// A bridge found on its port or started by the window.
class LinkBridge {
 public:
  ~LinkBridge();
  LinkBridge(const LinkBridge&) = delete;
  LinkBridge& operator=(const LinkBridge&) = delete;

  // Uses a rig server that already answers on the plan's port, else starts
  // the plan's program and waits (at most `startMs`) until it says that it
  // serves. nullptr with a message when neither works. The key, when the
  // settings name one, is the link's; its file is read from `files`.
  static std::unique_ptr<LinkBridge> findOrStart(const FileSystem& files, const LinkPlan& plan,
                                                 const std::string& keyFile, std::string* error,
                                                 int startMs = 15000);

  // The link to the bridge: "tcp://127.0.0.1:PORT".
  const std::string& link() const { return link_; }
  // Whether this window started the bridge (and so ends it).
  bool started() const { return process_ != nullptr; }

 private:
  LinkBridge() = default;
  std::unique_ptr<QProcess> process_;
  std::string link_;
};

}  // namespace tavrix
