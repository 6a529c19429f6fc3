#include "decrypt_dialog.h"

#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>

#include "common/file_system.h"
#include "crypto/encrypted_files.h"
#include "qt_text.h"

namespace tavrix {

DecryptDialog::DecryptDialog(FileSystem& files, QWidget* parent) : QDialog(parent), files_(files) {
  setObjectName("frmDecrypt");
  setWindowTitle(tr("Decrypt File"));
  ebSrcFileSpec_ = new QLineEdit;
  ebSrcFileSpec_->setObjectName("ebSrcFileSpec");
  ebDestFileSpec_ = new QLineEdit;
  ebDestFileSpec_->setObjectName("ebDestFileSpec");
  ebDestFileSpec_->setReadOnly(true);
  auto* pbBrowse = new QPushButton(tr("&Browse..."));
  pbBrowse->setObjectName("pbBrowse");
  pbDecrypt_ = new QPushButton(tr("&Decrypt"));
  pbDecrypt_->setObjectName("pbDecrypt");
  pbDecrypt_->setEnabled(false);
  auto* pbClose = new QPushButton(tr("&Close"));
  pbClose->setObjectName("pbClose");

  auto* source = new QHBoxLayout;
  source->addWidget(ebSrcFileSpec_, 1);
  source->addWidget(pbBrowse);
  auto* form = new QFormLayout;
  form->addRow(tr("Encrypted file:"), source);
  form->addRow(tr("Decrypted file:"), ebDestFileSpec_);
  auto* buttons = new QHBoxLayout;
  buttons->addStretch();
  buttons->addWidget(pbDecrypt_);
  buttons->addWidget(pbClose);
  laMessage_ = new QLabel;
  laMessage_->setObjectName("laDecryptMessage");
  laMessage_->setWordWrap(true);
  laMessage_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(form);
  layout->addWidget(laMessage_);
  layout->addLayout(buttons);
  resize(520, sizeHint().height());

  connect(ebSrcFileSpec_, &QLineEdit::textChanged, this, &DecryptDialog::sourceChanged);
  connect(pbBrowse, &QPushButton::clicked, this, &DecryptDialog::browse);
  connect(pbDecrypt_, &QPushButton::clicked, this, &DecryptDialog::decrypt);
  connect(pbClose, &QPushButton::clicked, this, &QDialog::close);
}

void DecryptDialog::sourceChanged(const QString& text) {
  const CounterpartName name = plainCounterpart(Std(text));
  switch (name.outcome) {
    case CounterpartName::Outcome::kEmpty:
      laMessage_->clear();
      pbDecrypt_->setEnabled(false);
      return;
    case CounterpartName::Outcome::kNoExtension:
      laMessage_->clear();
      return;
    case CounterpartName::Outcome::kNotRecognised:
      laMessage_->setText(Text(name.message));
      return;
    case CounterpartName::Outcome::kRecognised:
      break;
  }
  laMessage_->clear();
  ebDestFileSpec_->setText(Text(name.destination));
  pbDecrypt_->setEnabled(true);
}

void DecryptDialog::browse() {
  auto* dialog = new QFileDialog(this, Text(kBrowseTitle), QString(), NameFilter(kBrowseFilter));
  dialog->setObjectName("browseDialog");
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  dialog->setFileMode(QFileDialog::ExistingFile);
  dialog->setDefaultSuffix(Text(kBrowseDefaultExtension));
  connect(dialog, &QFileDialog::fileSelected, this,
          [this](const QString& file) { ebSrcFileSpec_->setText(file); });
  dialog->open();
}

void DecryptDialog::decrypt() {
  const QString source = ebSrcFileSpec_->text();
  const QString destination = ebDestFileSpec_->text();
  if (files_.info(Std(destination)).kind == FileKind::kMissing) {
    decryptNow(source, destination);
    return;
  }
  auto* box = new QMessageBox(QMessageBox::Question, Text(kOverwriteTitle),
                              Text(overwriteQuestion(Std(destination))),
                              QMessageBox::Yes | QMessageBox::No, this);
  box->setObjectName("overwriteBox");
  box->setDefaultButton(QMessageBox::No);
  box->setAttribute(Qt::WA_DeleteOnClose);
  connect(box, &QMessageBox::finished, this, [this, box, source, destination] {
    if (box->clickedButton() != box->button(QMessageBox::Yes)) return;
    files_.remove(Std(destination), nullptr);
    decryptNow(source, destination);
  });
  box->open();
}

void DecryptDialog::decryptNow(const QString& source, const QString& destination) {
  if (!decryptFile(files_, Std(source), Std(destination), kDefaultUtilityKey, nullptr)) {
    laMessage_->clear();
    message(Text(kMsgFailedToDecrypt) + source);
    return;
  }
  laMessage_->setText(tr("Decrypted %1 into %2").arg(source, destination));
}

void DecryptDialog::message(const QString& text) {
  auto* box = new QMessageBox(QMessageBox::Information, windowTitle(), text, QMessageBox::Ok, this);
  box->setObjectName("messageBox");
  box->setAttribute(Qt::WA_DeleteOnClose);
  box->open();
}

}  // namespace tavrix
