#include "platform/local_endpoint.h"

// clang-format off
#include <windows.h>
#include <aclapi.h>
#include <bcrypt.h>
// clang-format on

#include <algorithm>
#include <atomic>
#include <cwchar>
#include <map>
#include <vector>

#include "platform/private_file.h"
#include "platform/windows/wide.h"

namespace tavrix::platform {

namespace {

// Each way, what the pipe holds before a writer waits; and the most one
// write hands over.
constexpr DWORD kPipeBuffer = 64 * 1024;
constexpr size_t kReadChunk = 16 * 1024;
constexpr wchar_t kPipePrefix[] = L"\\\\.\\pipe\\";

std::string WindowsError(DWORD error) {
  wchar_t* text = nullptr;
  const DWORD n = FormatMessageW(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, error, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  std::string message;
  if (n > 0 && text != nullptr) {
    message = narrow(std::wstring(text, n));
    while (!message.empty() && (message.back() == '\n' || message.back() == '\r' ||
                                message.back() == ' ' || message.back() == '.'))
      message.pop_back();
  }
  if (text != nullptr) LocalFree(text);
  return (message.empty() ? "Windows error" : message) + " (" + std::to_string(error) + ")";
}

// The security identifier of the user this program runs as.
bool CurrentUser(std::vector<unsigned char>& sid, std::string* error) {
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) {
    *error = "cannot read this program's user: " + WindowsError(GetLastError());
    return false;
  }
  DWORD size = 0;
  GetTokenInformation(token, TokenUser, nullptr, 0, &size);
  std::vector<unsigned char> buffer(size);
  const bool read = size > 0 && GetTokenInformation(token, TokenUser, buffer.data(), size, &size);
  const DWORD failure = GetLastError();
  CloseHandle(token);
  if (!read) {
    *error = "cannot read this program's user: " + WindowsError(failure);
    return false;
  }
  const PSID user = reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid;
  sid.resize(GetLengthSid(user));
  return CopySid(static_cast<DWORD>(sid.size()), sid.data(), user) != 0;
}

// A security descriptor that lets this program's user, and nobody else, in.
class OwnerOnly {
 public:
  bool make(std::string* error) {
    if (!CurrentUser(sid_, error)) return false;
    acl_.resize(sizeof(ACL) + sizeof(ACCESS_ALLOWED_ACE) - sizeof(DWORD) + sid_.size());
    auto* acl = reinterpret_cast<ACL*>(acl_.data());
    if (!InitializeAcl(acl, static_cast<DWORD>(acl_.size()), ACL_REVISION) ||
        !AddAccessAllowedAce(acl, ACL_REVISION, FILE_ALL_ACCESS, sid_.data()) ||
        !InitializeSecurityDescriptor(&descriptor_, SECURITY_DESCRIPTOR_REVISION) ||
        !SetSecurityDescriptorOwner(&descriptor_, sid_.data(), FALSE) ||
        !SetSecurityDescriptorDacl(&descriptor_, TRUE, acl, FALSE)) {
      *error = "cannot make an owner-only security descriptor: " + WindowsError(GetLastError());
      return false;
    }
    attributes_.nLength = sizeof attributes_;
    attributes_.lpSecurityDescriptor = &descriptor_;
    attributes_.bInheritHandle = FALSE;
    return true;
  }
  SECURITY_ATTRIBUTES* attributes() { return &attributes_; }
  PSID user() const { return const_cast<unsigned char*>(sid_.data()); }

 private:
  std::vector<unsigned char> sid_;
  std::vector<unsigned char> acl_;
  SECURITY_DESCRIPTOR descriptor_{};
  SECURITY_ATTRIBUTES attributes_{};
};

// A pipe name nobody can guess, so that nobody can make it first.
bool NewPipeName(std::wstring& name, std::string* error) {
  unsigned char random[16];
  if (BCryptGenRandom(nullptr, random, sizeof random, BCRYPT_USE_SYSTEM_PREFERRED_RNG) != 0) {
    *error = "cannot draw a random pipe name";
    return false;
  }
  name = std::wstring(kPipePrefix) + L"tavrix-control-";
  const wchar_t* digits = L"0123456789abcdef";
  for (unsigned char b : random) {
    name += digits[b >> 4];
    name += digits[b & 15];
  }
  return true;
}

struct Pipe;

enum class OpKind { kConnect, kRead, kWrite };

// One overlapped operation of a pipe; its completion comes through the
// server's completion port.
struct Op {
  OVERLAPPED overlapped{};
  Pipe* pipe = nullptr;
  OpKind kind = OpKind::kRead;
  bool pending = false;
};

struct Pipe {
  Pipe() {
    connect.pipe = read.pipe = write.pipe = this;
    connect.kind = OpKind::kConnect;
    read.kind = OpKind::kRead;
    write.kind = OpKind::kWrite;
  }
  bool busy() const { return connect.pending || read.pending || write.pending; }

  HANDLE handle = INVALID_HANDLE_VALUE;
  Op connect, read, write;
  char readBuffer[kReadChunk];
  std::string readData;   // read, not yet taken
  std::string writeData;  // held while it is written
  bool eof = false;       // the client closed its end
  bool broken = false;
  bool stopped = false;  // nothing more is read
};

class PipeServer final : public LocalServer {
 public:
  ~PipeServer() override {
    std::vector<Pipe*> all;
    if (listening_) all.push_back(listening_.get());
    for (auto& [id, pipe] : pipes_) all.push_back(pipe.get());
    for (auto& pipe : closing_) all.push_back(pipe.get());
    for (Pipe* pipe : all) {
      CancelIoEx(pipe->handle, nullptr);
      CloseHandle(pipe->handle);
      pipe->handle = INVALID_HANDLE_VALUE;
    }
    // The operations' buffers stay until the system is done with them.
    const ULONGLONG until = GetTickCount64() + 5000;
    while (std::any_of(all.begin(), all.end(), [](Pipe* p) { return p->busy(); }) &&
           GetTickCount64() < until) {
      OVERLAPPED_ENTRY entries[16];
      ULONG got = 0;
      if (!GetQueuedCompletionStatusEx(port_, entries, 16, &got, 100, FALSE)) continue;
      for (ULONG i = 0; i < got; ++i)
        if (entries[i].lpOverlapped != nullptr)
          CONTAINING_RECORD(entries[i].lpOverlapped, Op, overlapped)->pending = false;
    }
    if (std::any_of(all.begin(), all.end(), [](Pipe* p) { return p->busy(); })) {
      // Never freed while the system may still write into them.
      listening_.release();
      for (auto& [id, pipe] : pipes_) pipe.release();
      for (auto& pipe : closing_) pipe.release();
    }
    CloseHandle(port_);
  }

  bool open(const std::string& path, std::string* error) {
    if (!security_.make(error) || !NewPipeName(name_, error)) return false;
    port_ = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1);
    if (port_ == nullptr) {
      *error = "cannot make a completion port: " + WindowsError(GetLastError());
      return false;
    }
    if (!listen(true, error)) return false;
    const std::string why = writeNewPrivateFile(path, narrow(name_));
    if (!why.empty()) {
      *error = "cannot write " + path + ": " + why;
      return false;
    }
    return true;
  }

  // One wake-up waits in the port at most: a run's events come far faster
  // than the server needs to hear of each.
  void wake() override {
    if (!woken_.exchange(true)) PostQueuedCompletionStatus(port_, 0, 0, nullptr);
  }

  bool wait(bool accept, const std::vector<Interest>& interests, int timeoutMs,
            std::vector<int>& accepted, std::vector<Ready>& ready) override {
    for (int round = 0; round < 2; ++round) {
      for (const Interest& interest : interests) {
        Pipe* pipe = find(interest.id);
        if (pipe != nullptr && interest.read && pipe->readData.empty()) startRead(*pipe);
      }
      for (const Interest& interest : interests) {
        Pipe* pipe = find(interest.id);
        if (pipe == nullptr) continue;
        Ready r;
        r.id = interest.id;
        r.hangup = pipe->eof || pipe->broken;
        r.readable = interest.read && (!pipe->readData.empty() || r.hangup);
        r.writable = interest.write && !pipe->write.pending && !r.hangup;
        if (r.readable || r.writable || r.hangup) ready.push_back(r);
      }
      if (accept && !connected_.empty()) {
        accepted.insert(accepted.end(), connected_.begin(), connected_.end());
        connected_.clear();
      }
      if (!ready.empty() || !accepted.empty() || round == 1) return true;
      // Nothing is ready: wait for the system to finish something.
      OVERLAPPED_ENTRY entries[16];
      ULONG got = 0;
      if (!GetQueuedCompletionStatusEx(port_, entries, 16, &got,
                                       timeoutMs < 0 ? INFINITE : static_cast<DWORD>(timeoutMs),
                                       FALSE))
        return GetLastError() == WAIT_TIMEOUT;
      for (ULONG i = 0; i < got; ++i) {
        if (entries[i].lpOverlapped == nullptr) {
          woken_ = false;
        } else {
          completed(*CONTAINING_RECORD(entries[i].lpOverlapped, Op, overlapped));
        }
      }
    }
    return true;
  }

  long read(int id, char* buffer, size_t size) override {
    Pipe* pipe = find(id);
    if (pipe == nullptr || (pipe->broken && pipe->readData.empty())) return kBroken;
    if (!pipe->readData.empty()) {
      const size_t n = std::min(size, pipe->readData.size());
      pipe->readData.copy(buffer, n);
      pipe->readData.erase(0, n);
      return static_cast<long>(n);
    }
    return pipe->eof ? 0 : kWouldBlock;
  }

  long write(int id, const char* data, size_t size) override {
    Pipe* pipe = find(id);
    if (pipe == nullptr || pipe->broken || pipe->eof) return kBroken;
    if (pipe->write.pending || size == 0) return kWouldBlock;
    pipe->writeData.assign(data, std::min(size, static_cast<size_t>(kPipeBuffer)));
    pipe->write.overlapped = OVERLAPPED{};
    pipe->write.pending = true;
    if (!WriteFile(pipe->handle, pipe->writeData.data(), static_cast<DWORD>(pipe->writeData.size()),
                   nullptr, &pipe->write.overlapped) &&
        GetLastError() != ERROR_IO_PENDING) {
      pipe->write.pending = false;
      pipe->broken = true;
      return kBroken;
    }
    return static_cast<long>(pipe->writeData.size());
  }

  void stopReading(int id) override {
    if (Pipe* pipe = find(id)) {
      pipe->stopped = true;
      pipe->readData.clear();
    }
  }

  void close(int id) override {
    const auto it = pipes_.find(id);
    if (it == pipes_.end()) return;
    std::unique_ptr<Pipe> pipe = std::move(it->second);
    pipes_.erase(it);
    pipe->stopped = true;
    if (pipe->read.pending) CancelIoEx(pipe->handle, &pipe->read.overlapped);
    // A write under way finishes first: the client reads it before it sees
    // the end.
    if (pipe->write.pending && !pipe->broken) {
      closing_.push_back(std::move(pipe));
      return;
    }
    closeHandle(std::move(pipe));
  }

  bool onlyOwnerMayConnect(std::string* why) const override {
    PACL dacl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const DWORD got =
        GetSecurityInfo(listening_ ? listening_->handle : INVALID_HANDLE_VALUE, SE_KERNEL_OBJECT,
                        DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl, nullptr, &descriptor);
    if (got != ERROR_SUCCESS) {
      *why = "cannot read the pipe's security: " + WindowsError(got);
      return false;
    }
    bool ok = true;
    int allowed = 0;
    if (dacl == nullptr) {
      *why = "the pipe has no access list: everybody may open it";
      ok = false;
    }
    for (DWORD i = 0; ok && i < dacl->AceCount; ++i) {
      void* ace = nullptr;
      if (!GetAce(dacl, i, &ace)) {
        *why = "cannot read the pipe's access list: " + WindowsError(GetLastError());
        ok = false;
        break;
      }
      const auto* header = static_cast<ACE_HEADER*>(ace);
      if (header->AceType == ACCESS_DENIED_ACE_TYPE) continue;
      if (header->AceType != ACCESS_ALLOWED_ACE_TYPE) {
        *why = "the pipe's access list has an entry of type " + std::to_string(header->AceType);
        ok = false;
        break;
      }
      auto* entry = static_cast<ACCESS_ALLOWED_ACE*>(ace);
      if (!EqualSid(reinterpret_cast<PSID>(&entry->SidStart), security_.user())) {
        *why = "the pipe's access list lets another user in";
        ok = false;
        break;
      }
      ++allowed;
    }
    if (ok && allowed == 0) {
      *why = "the pipe's access list lets nobody in";
      ok = false;
    }
    LocalFree(descriptor);
    return ok;
  }

 private:
  Pipe* find(int id) {
    const auto it = pipes_.find(id);
    return it == pipes_.end() ? nullptr : it->second.get();
  }

  // A new instance of the pipe, waiting for its client.
  bool listen(bool first, std::string* error) {
    for (int attempt = 0; attempt < 100; ++attempt) {
      auto pipe = std::make_unique<Pipe>();
      pipe->handle = CreateNamedPipeW(
          name_.c_str(),
          PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | (first ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0),
          PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
          PIPE_UNLIMITED_INSTANCES, kPipeBuffer, kPipeBuffer, 0, security_.attributes());
      if (pipe->handle == INVALID_HANDLE_VALUE) {
        *error = "cannot make the pipe " + narrow(name_) + ": " + WindowsError(GetLastError());
        return false;
      }
      if (CreateIoCompletionPort(pipe->handle, port_, 0, 0) == nullptr) {
        *error = "cannot follow the pipe " + narrow(name_) + ": " + WindowsError(GetLastError());
        CloseHandle(pipe->handle);
        return false;
      }
      pipe->connect.pending = true;
      if (ConnectNamedPipe(pipe->handle, &pipe->connect.overlapped) ||
          GetLastError() == ERROR_IO_PENDING) {
        listening_ = std::move(pipe);
        return true;
      }
      pipe->connect.pending = false;
      if (GetLastError() == ERROR_PIPE_CONNECTED) {
        // A client came between the making and the waiting.
        listening_ = std::move(pipe);
        return connectedNow(error);
      }
      // A client that came and went already: another instance.
      closeHandle(std::move(pipe));
    }
    *error = "cannot wait for clients on the pipe " + narrow(name_);
    return false;
  }

  bool connectedNow(std::string* error) {
    const int id = next_++;
    pipes_[id] = std::move(listening_);
    connected_.push_back(id);
    return listen(false, error);
  }

  void startRead(Pipe& pipe) {
    if (pipe.read.pending || pipe.eof || pipe.broken || pipe.stopped) return;
    pipe.read.overlapped = OVERLAPPED{};
    pipe.read.pending = true;
    if (!ReadFile(pipe.handle, pipe.readBuffer, sizeof pipe.readBuffer, nullptr,
                  &pipe.read.overlapped)) {
      const DWORD failure = GetLastError();
      if (failure == ERROR_IO_PENDING) return;
      pipe.read.pending = false;
      (failure == ERROR_BROKEN_PIPE ? pipe.eof : pipe.broken) = true;
    }
  }

  void completed(Op& op) {
    Pipe& pipe = *op.pipe;
    DWORD bytes = 0;
    const bool done = GetOverlappedResult(pipe.handle, &op.overlapped, &bytes, FALSE) != 0;
    const DWORD failure = done ? ERROR_SUCCESS : GetLastError();
    op.pending = false;
    if (const auto it = std::find_if(closing_.begin(), closing_.end(),
                                     [&](const auto& p) { return p.get() == &pipe; });
        it != closing_.end()) {
      if (!pipe.busy()) {
        std::unique_ptr<Pipe> gone = std::move(*it);
        closing_.erase(it);
        closeHandle(std::move(gone));
      }
      return;
    }
    switch (op.kind) {
      case OpKind::kConnect:
        if (listening_.get() != &pipe) return;
        if (done || failure == ERROR_PIPE_CONNECTED) {
          std::string ignored;
          connectedNow(&ignored);
        } else {
          closeHandle(std::move(listening_));
          std::string ignored;
          listen(false, &ignored);
        }
        return;
      case OpKind::kRead:
        if (done && !pipe.stopped) pipe.readData.append(pipe.readBuffer, bytes);
        if (!done && failure == ERROR_BROKEN_PIPE) pipe.eof = true;
        if (!done && failure != ERROR_BROKEN_PIPE && failure != ERROR_OPERATION_ABORTED)
          pipe.broken = true;
        return;
      case OpKind::kWrite:
        if (done) {
          pipe.writeData.clear();
        } else {
          pipe.broken = true;
        }
        return;
    }
  }

  void closeHandle(std::unique_ptr<Pipe> pipe) {
    if (pipe->busy()) {
      // Its buffers are freed once its operations are done.
      CancelIoEx(pipe->handle, nullptr);
      closing_.push_back(std::move(pipe));
      return;
    }
    CloseHandle(pipe->handle);
  }

  OwnerOnly security_;
  std::wstring name_;
  HANDLE port_ = nullptr;
  std::atomic<bool> woken_{false};
  std::unique_ptr<Pipe> listening_;
  std::map<int, std::unique_ptr<Pipe>> pipes_;
  std::vector<std::unique_ptr<Pipe>> closing_;
  std::vector<int> connected_;  // not yet told to wait()
  int next_ = 1;
};

class PipeConnection final : public LocalConnection {
 public:
  explicit PipeConnection(HANDLE pipe) : pipe_(pipe) {
    event_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  }
  ~PipeConnection() override {
    CloseHandle(pipe_);
    if (event_ != nullptr) CloseHandle(event_);
  }

  bool send(const char* data, size_t size) override {
    while (size > 0) {
      const DWORD chunk = static_cast<DWORD>(std::min(size, static_cast<size_t>(kPipeBuffer)));
      DWORD written = 0;
      if (!io(false, const_cast<char*>(data), chunk, INFINITE, written) || written == 0)
        return false;
      data += written;
      size -= written;
    }
    return true;
  }

  long receive(char* buffer, size_t size, int timeoutMs) override {
    DWORD got = 0;
    const DWORD chunk = static_cast<DWORD>(std::min(size, static_cast<size_t>(kPipeBuffer)));
    if (!io(true, buffer, chunk, timeoutMs < 0 ? INFINITE : static_cast<DWORD>(timeoutMs), got))
      return 0;
    return static_cast<long>(got);
  }

 private:
  // One read or write, waiting at most `wait` ms.
  bool io(bool reading, char* data, DWORD size, DWORD wait, DWORD& done) {
    OVERLAPPED overlapped{};
    overlapped.hEvent = event_;
    ResetEvent(event_);
    const BOOL started = reading ? ReadFile(pipe_, data, size, nullptr, &overlapped)
                                 : WriteFile(pipe_, data, size, nullptr, &overlapped);
    if (!started && GetLastError() != ERROR_IO_PENDING) return false;
    if (WaitForSingleObject(event_, wait) != WAIT_OBJECT_0) CancelIoEx(pipe_, &overlapped);
    return GetOverlappedResult(pipe_, &overlapped, &done, TRUE) != 0;
  }

  HANDLE pipe_;
  HANDLE event_ = nullptr;
};

}  // namespace

std::unique_ptr<LocalServer> LocalServer::Listen(const std::string& path, std::string* error) {
  auto server = std::make_unique<PipeServer>();
  if (!server->open(path, error)) return nullptr;
  return server;
}

LocalConnection::Outcome LocalConnection::Connect(const std::string& path,
                                                  std::unique_ptr<LocalConnection>& connection,
                                                  std::string* error) {
  const auto fail = [&](Outcome outcome, const std::string& why) {
    if (error != nullptr) *error = "cannot reach " + path + ": " + why;
    return outcome;
  };
  // The file names the pipe.
  const HANDLE file = CreateFileW(widen(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    const DWORD failure = GetLastError();
    return fail(failure == ERROR_FILE_NOT_FOUND || failure == ERROR_PATH_NOT_FOUND
                    ? Outcome::kGone
                    : Outcome::kFailed,
                WindowsError(failure));
  }
  char text[512];
  DWORD got = 0;
  const bool read = ReadFile(file, text, sizeof text, &got, nullptr) != 0;
  CloseHandle(file);
  const std::wstring name = widen(std::string(text, read ? got : 0));
  if (name.rfind(kPipePrefix, 0) != 0 || name.size() <= wcslen(kPipePrefix))
    return fail(Outcome::kFailed, "it does not name a pipe");
  for (int attempt = 0;; ++attempt) {
    // Identification only: a server may tell who connects, never act as it.
    const HANDLE pipe = CreateFileW(
        name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
        FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr);
    if (pipe != INVALID_HANDLE_VALUE) {
      connection = std::make_unique<PipeConnection>(pipe);
      return Outcome::kConnected;
    }
    const DWORD failure = GetLastError();
    if (failure == ERROR_FILE_NOT_FOUND) return fail(Outcome::kGone, "nobody listens there");
    // Every instance is taken for a moment, while the server makes the next.
    if (failure != ERROR_PIPE_BUSY || attempt >= 10)
      return fail(Outcome::kFailed, WindowsError(failure));
    if (!WaitNamedPipeW(name.c_str(), 500) && GetLastError() == ERROR_FILE_NOT_FOUND)
      return fail(Outcome::kGone, "nobody listens there");
  }
}

}  // namespace tavrix::platform
