#include "crypt_commands.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <future>
#include <memory>
#include <thread>

#include "console_operators.h"
#include "crypto/encrypted_files.h"
#include "platform/console.h"

namespace tavrix {

namespace {

// Files from this size on show a progress bar, when the error stream is a
// terminal.
constexpr uintmax_t kProgressFrom = 1024 * 1024;
constexpr int kBarWidth = 40;

class ProgressBar {
 public:
  ProgressBar(const FileSystem& files, std::FILE* err, std::string_view verb,
              const std::string& path)
      : err_(err), verb_(verb) {
    const FileInfo info = files.info(path);
    shown_ = info.kind == FileKind::kFile && info.size >= kProgressFrom && err != nullptr &&
             platform::isTerminal(err);
  }
  std::function<void(int)> callback() {
    if (!shown_) return {};
    return [this](int percent) {
      const int filled = percent * kBarWidth / 100;
      std::fprintf(err_, "\r%s [%s%s] %3d%%", verb_.c_str(), std::string(filled, '#').c_str(),
                   std::string(kBarWidth - filled, '.').c_str(), percent);
      std::fflush(err_);
      drawn_ = true;
    };
  }
  ~ProgressBar() {
    if (drawn_) std::fputc('\n', err_);
  }

 private:
  std::FILE* err_;
  std::string verb_;
  bool shown_ = false;
  bool drawn_ = false;
};

// While a file is being decrypted or encrypted, SIGINT, SIGTERM and SIGHUP
// remove the unfinished target's temporary file and end the program with
// the signal's status; the source and any old target stay as they were.
class InterruptGuard {
 public:
  explicit InterruptGuard(std::FILE* err)
      : requests_([err](int exitStatus) {
          removeUnfinishedRewrites();
          std::fprintf(err, "\ntavrix-cli: interrupted; nothing was changed\n");
          std::fflush(err);
          std::_Exit(exitStatus);
        }) {}

 private:
  platform::StopRequests requests_;
};

// Asks the overwrite question; true for Yes.
bool ConfirmOverwrite(FileSystem& files, const CryptOptions& options,
                      const std::string& destination, std::FILE* in, std::FILE* err) {
  if (options.yes) return true;
  std::string operatorError;
  std::unique_ptr<Operator> op =
      MakeConsoleOperator(files, options.answers, in, err, &operatorError);
  if (!op) {
    std::fprintf(err, "tavrix-cli: %s\n", operatorError.c_str());
    return false;
  }
  Question question;
  question.kind = kOverwriteKind;
  question.title = kOverwriteTitle;
  question.text = overwriteQuestion(destination);
  question.choices = {"Yes", "No"};
  std::promise<Answer> promise;
  std::future<Answer> answer = promise.get_future();
  op->ask(question, [&promise](Answer a) { promise.set_value(std::move(a)); });
  const Answer got = answer.get();
  if (!got) {
    std::fprintf(err,
                 "tavrix-cli: no answer to \"%s\" - %s; nothing was changed (--yes replaces)\n",
                 question.text.c_str(), op->unansweredReason().c_str());
    return false;
  }
  return *got == "Yes";
}

int RunCrypt(FileSystem& files, const CryptOptions& options, std::FILE* in, std::FILE* out,
             std::FILE* err, bool decrypt) {
  const CounterpartName name =
      decrypt ? plainCounterpart(options.file) : encryptedCounterpart(options.file);
  if (name.outcome == CounterpartName::Outcome::kNotRecognised) {
    std::fprintf(err, "tavrix-cli: %s\n", name.message.c_str());
    return kCryptUsage;
  }
  if (name.outcome != CounterpartName::Outcome::kRecognised) {
    std::fprintf(err, "tavrix-cli: %s%s (the name has no extension)\n",
                 std::string(kMsgNotRecognised).c_str(), options.file.c_str());
    return kCryptUsage;
  }
  if (files.info(name.destination).kind != FileKind::kMissing &&
      !ConfirmOverwrite(files, options, name.destination, in, err)) {
    return kCryptDeclined;
  }
  const InterruptGuard interrupts(err);
  ProgressBar bar(files, err, decrypt ? "Decrypting" : "Encrypting", options.file);
  std::string error;
  const std::string_view key = options.key ? std::string_view(*options.key) : kDefaultUtilityKey;
  const bool ok =
      decrypt ? decryptFile(files, options.file, name.destination, key, &error, bar.callback())
              : encryptFile(files, options.file, name.destination, key, &error, bar.callback());
  if (!ok) {
    std::fprintf(err, "tavrix-cli: %s\n", error.c_str());
    return kCryptFailed;
  }
  std::fprintf(out, "%s\n", name.destination.c_str());
  return kCryptDone;
}

}  // namespace

int DecryptCommand(FileSystem& files, const CryptOptions& options, std::FILE* in, std::FILE* out,
                   std::FILE* err) {
  CryptOptions withUtilityKey = options;
  withUtilityKey.key.reset();
  return RunCrypt(files, withUtilityKey, in, out, err, true);
}

int EncryptCommand(FileSystem& files, const CryptOptions& options, std::FILE* in, std::FILE* out,
                   std::FILE* err) {
  return RunCrypt(files, options, in, out, err, false);
}

CryptCommands::CryptCommands(CLI::App& app) {
  decrypt_ = app.add_subcommand(
      "decrypt", "Decrypt an encrypted file (.wte, .txe, .xme, .wle) into its plain counterpart");
  decrypt_->add_flag("--yes", decryptOptions_.yes,
                     "Replace an existing destination without asking");
  decrypt_->add_option("--answers", decryptOptions_.answers, "File of scripted operator answers");
  decrypt_->add_option("FILE", decryptOptions_.file, "The encrypted file")->required();

  encrypt_ = app.add_subcommand(
      "encrypt", "Encrypt a plain file (.wts, .txt, .xml, .wl) into its encrypted counterpart");
  encrypt_->add_option("--key", encryptOptions_.key, "Key text (default: the utility key)");
  encrypt_->add_flag("--yes", encryptOptions_.yes,
                     "Replace an existing destination without asking");
  encrypt_->add_option("--answers", encryptOptions_.answers, "File of scripted operator answers");
  encrypt_->add_option("FILE", encryptOptions_.file, "The plain file")->required();
}

std::optional<int> CryptCommands::run(const Host& host, std::FILE* in, std::FILE* out,
                                      std::FILE* err) const {
  if (decrypt_->parsed()) return DecryptCommand(host.files, decryptOptions_, in, out, err);
  if (encrypt_->parsed()) return EncryptCommand(host.files, encryptOptions_, in, out, err);
  return std::nullopt;
}

}  // namespace tavrix
