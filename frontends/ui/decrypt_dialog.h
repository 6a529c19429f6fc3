// The decryption window: the operator picks an encrypted file (".wte",
// ".txe", ".xme", ".wle"); its plain counterpart next to it is named as the
// source box changes, and the decrypt button writes it with the default
// utility key, asking first before an existing file is overwritten. The
// source keeps the name as chosen (file names differ by case here). What the
// name check finds is shown in the window's message line as the text is
// typed, so no box takes the keyboard away; a finished decryption is
// confirmed there too.
//
// Decryption is file work of its own (crypto/encrypted_files.h) and touches
// no engine state, so it runs on the window's thread.
#pragma once

#include <QDialog>

class QLabel;
class QLineEdit;
class QPushButton;

namespace tavrix {

class FileSystem;

class DecryptDialog : public QDialog {
 public:
  // Decrypts files of `files`.
  DecryptDialog(FileSystem& files, QWidget* parent);

 private:
  void sourceChanged(const QString& text);
  void browse();
  void decrypt();
  void decryptNow(const QString& source, const QString& destination);
  void message(const QString& text);

  FileSystem& files_;
  QLineEdit* ebSrcFileSpec_;
  QLineEdit* ebDestFileSpec_;
  QPushButton* pbDecrypt_;
  QLabel* laMessage_;
};

}  // namespace tavrix
