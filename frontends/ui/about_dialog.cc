#include "about_dialog.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "build_version.h"
#include "panel/run_panel.h"
#include "qt_text.h"
#include "sequencer/sequencer.h"

namespace tavrix {

AboutDialog::AboutDialog(QWidget* parent) : QDialog(parent) {
  setObjectName("frmAbout");
  setWindowTitle(tr("About"));
  auto* laProduct = new QLabel(Text(kCaption));
  laProduct->setObjectName("laProduct");
  QFont big = laProduct->font();
  big.setPointSize(big.pointSize() * 4 / 3);
  big.setBold(true);
  laProduct->setFont(big);
  auto* laDescription = new QLabel(
      tr("Test sequencer: runs test sequence files against the rig's acquisition devices,\n"
         "records the results of each unit under test and decrypts the rig's data files."));
  laDescription->setObjectName("laDescription");
  auto* laVersion =
      new QLabel(tr("Version %1, commit %2")
                     .arg(QString::fromLatin1(BuildVersion()), QString::fromLatin1(BuildCommit())));
  laVersion->setObjectName("laVersion");
  laVersion->setTextInteractionFlags(Qt::TextSelectableByMouse);
  auto* laToolkit = new QLabel(tr("Desktop window on Qt %1").arg(QString::fromLatin1(qVersion())));
  laToolkit->setObjectName("laToolkit");
  auto* ok = new QPushButton(tr("OK"));
  ok->setObjectName("pbAboutOK");
  ok->setDefault(true);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(laProduct);
  layout->addWidget(laDescription);
  layout->addWidget(laVersion);
  layout->addWidget(laToolkit);
  layout->addWidget(ok, 0, Qt::AlignRight);
  connect(ok, &QPushButton::clicked, this, &QDialog::accept);
}

}  // namespace tavrix
