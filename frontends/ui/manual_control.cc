#include "manual_control.h"

#include <QApplication>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPointer>
#include <QPushButton>

#include "qt_text.h"

namespace tavrix {

namespace {

constexpr std::string_view kNoInstrument = "No instrument is attached";

// The link's last error, for a failed read or write.
std::string LinkError(Instrument& instrument) {
  const std::string& text = instrument.link().lastErrorText();
  return text.empty() ? std::string() : " (" + text + ")";
}

}  // namespace

ManualControl::ManualControl(EngineTasks post, QWidget* parent)
    : QWidget(parent), post_(std::move(post)) {
  ebManualChannel_ = new QLineEdit;
  ebManualChannel_->setObjectName("ebManualChannel");
  ebManualChannel_->setMaxLength(13);
  ebManualValue_ = new QLineEdit;
  ebManualValue_->setObjectName("ebManualValue");
  auto* pbRead = new QPushButton(tr("&Read"));
  pbRead->setObjectName("pbManualRead");
  auto* pbWrite = new QPushButton(tr("&Write"));
  pbWrite->setObjectName("pbManualWrite");
  laManualReading_ = new QLabel;
  laManualReading_->setObjectName("laManualReading");
  laManualReading_->setFrameShape(QFrame::Panel);
  laManualReading_->setFrameShadow(QFrame::Sunken);
  laManualReading_->setWordWrap(true);

  auto* channelRow = new QHBoxLayout;
  channelRow->addWidget(ebManualChannel_, 1);
  channelRow->addWidget(pbRead);
  auto* valueRow = new QHBoxLayout;
  valueRow->addWidget(ebManualValue_, 1);
  valueRow->addWidget(pbWrite);
  auto* form = new QFormLayout(this);
  form->addRow(tr("Channel:"), channelRow);
  form->addRow(tr("Value:"), valueRow);
  form->addRow(tr("Reading:"), laManualReading_);

  connect(pbRead, &QPushButton::clicked, this, &ManualControl::read);
  connect(ebManualChannel_, &QLineEdit::returnPressed, this, &ManualControl::read);
  connect(pbWrite, &QPushButton::clicked, this, &ManualControl::write);
  connect(ebManualValue_, &QLineEdit::returnPressed, this, &ManualControl::write);
}

void ManualControl::read() {
  const std::string channel = Std(ebManualChannel_->text().trimmed());
  QPointer<ManualControl> self(this);
  post_([self, channel](Engine& engine) {
    std::string text;
    Instrument* instrument = engine.instrument();
    if (instrument == nullptr) {
      text = kNoInstrument;
    } else if (std::string value; instrument->channels().ReadChannel(channel, value)) {
      text = value;
    } else {
      text = std::string(kTextUnableToRead) + channel + LinkError(*instrument);
    }
    QMetaObject::invokeMethod(
        qApp,
        [self, text] {
          if (self) self->show(Text(text));
        },
        Qt::QueuedConnection);
  });
}

void ManualControl::write() {
  const std::string channel = Std(ebManualChannel_->text().trimmed());
  const std::string value = Std(ebManualValue_->text().trimmed());
  QPointer<ManualControl> self(this);
  post_([self, channel, value](Engine& engine) {
    std::string text;
    Instrument* instrument = engine.instrument();
    if (instrument == nullptr) {
      text = kNoInstrument;
    } else if (instrument->channels().WriteChannel(channel, value)) {
      text = "Sent " + value + " to " + channel;
    } else {
      text = "Unable to write to channel: " + channel + LinkError(*instrument);
    }
    QMetaObject::invokeMethod(
        qApp,
        [self, text] {
          if (self) self->show(Text(text));
        },
        Qt::QueuedConnection);
  });
}

void ManualControl::show(const QString& text) { laManualReading_->setText(text); }

}  // namespace tavrix
