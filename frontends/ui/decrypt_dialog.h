// The decryption window: the operator picks an encrypted file (".wte",
// ".txe", ".xme", ".wle"); its plain counterpart next to it is named as the
// source box changes, and the decrypt button writes it with the default
// utility key, asking first before an existing file is overwritten.
//
// Decryption is file work of its own (crypto/encrypted_files.h) and touches
// no engine state, so it runs on the window's thread.
#pragma once

#include <QDialog>

class QLineEdit;
class QPushButton;

namespace tavrix {

class DecryptDialog : public QDialog {
 public:
  explicit DecryptDialog(QWidget* parent);

 private:
  void sourceChanged(const QString& text);
  void browse();
  void decrypt();
  void decryptNow(const QString& source, const QString& destination);
  void message(const QString& text);

  QLineEdit* ebSrcFileSpec_;
  QLineEdit* ebDestFileSpec_;
  QPushButton* pbDecrypt_;
  bool normalising_ = false;
};

}  // namespace tavrix
