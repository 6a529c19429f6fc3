#include "platform/serial_port.h"

#include <windows.h>

#include <atomic>
#include <chrono>

#include "platform/windows/wide.h"

namespace tavrix::platform {
namespace {

std::string lastErrorText() {
  wchar_t* text = nullptr;
  const DWORD error = GetLastError();
  FormatMessageW(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, error, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  std::string out = text != nullptr ? narrow(text) : "error " + std::to_string(error);
  if (text != nullptr) LocalFree(text);
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r' || out.back() == '.'))
    out.pop_back();
  return out;
}

class WindowsSerialPort final : public SerialPort {
 public:
  explicit WindowsSerialPort(HANDLE port) : port_(port) {}
  ~WindowsSerialPort() override { CloseHandle(port_); }

  bool write(std::string_view bytes, int waitMs) override {
    COMMTIMEOUTS t{};
    GetCommTimeouts(port_, &t);
    t.WriteTotalTimeoutConstant = static_cast<DWORD>(waitMs);
    t.WriteTotalTimeoutMultiplier = 0;
    SetCommTimeouts(port_, &t);
    DWORD written = 0;
    return WriteFile(port_, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
           written == bytes.size();
  }

  int read(std::string& into, int waitMs) override {
    // In short steps, so that interrupt() is seen soon.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
    for (;;) {
      if (interrupted_) return -1;
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      COMMTIMEOUTS t{};
      GetCommTimeouts(port_, &t);
      t.ReadIntervalTimeout = MAXDWORD;
      t.ReadTotalTimeoutMultiplier = MAXDWORD;
      t.ReadTotalTimeoutConstant =
          static_cast<DWORD>(std::min<int64_t>(std::max<int64_t>(left.count(), 1), 50));
      SetCommTimeouts(port_, &t);
      char chunk[1024];
      DWORD got = 0;
      if (!ReadFile(port_, chunk, sizeof chunk, &got, nullptr)) return -1;
      if (got > 0) {
        into.append(chunk, got);
        return static_cast<int>(got);
      }
      if (left.count() <= 0) return 0;
    }
  }

  void interrupt() override { interrupted_ = true; }

 private:
  HANDLE port_;
  std::atomic<bool> interrupted_{false};
};

}  // namespace

std::unique_ptr<SerialPort> openSerialPort(const SerialSettings& s, std::string* problem) {
  // COM10 and above are reached only through the device namespace.
  const std::string name = s.path.rfind("\\\\.\\", 0) == 0 ? s.path : "\\\\.\\" + s.path;
  HANDLE port = CreateFileW(widen(name).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                            OPEN_EXISTING, 0, nullptr);
  if (port == INVALID_HANDLE_VALUE) {
    if (problem) *problem = "cannot open " + s.path + ": " + lastErrorText();
    return nullptr;
  }
  DCB dcb{};
  dcb.DCBlength = sizeof dcb;
  if (!GetCommState(port, &dcb)) {
    if (problem) *problem = s.path + " is not a serial port: " + lastErrorText();
    CloseHandle(port);
    return nullptr;
  }
  dcb.BaudRate = static_cast<DWORD>(s.baud);
  dcb.ByteSize = static_cast<BYTE>(s.dataBits);
  dcb.Parity = s.parity == 'E' ? EVENPARITY : s.parity == 'O' ? ODDPARITY : NOPARITY;
  dcb.StopBits = s.stopBits == 2 ? TWOSTOPBITS : ONESTOPBIT;
  dcb.fBinary = TRUE;
  dcb.fParity = s.parity != 'N';
  dcb.fOutxCtsFlow = FALSE;
  dcb.fOutxDsrFlow = FALSE;
  dcb.fDtrControl = DTR_CONTROL_ENABLE;
  dcb.fRtsControl = RTS_CONTROL_ENABLE;
  dcb.fOutX = FALSE;
  dcb.fInX = FALSE;
  if (!SetCommState(port, &dcb)) {
    if (problem) *problem = "cannot set up " + s.path + ": " + lastErrorText();
    CloseHandle(port);
    return nullptr;
  }
  PurgeComm(port, PURGE_RXCLEAR | PURGE_TXCLEAR);
  return std::make_unique<WindowsSerialPort>(port);
}

}  // namespace tavrix::platform
