// A companion program for tests: a DDE server that answers as the streamer
// and the logging programs do, and optionally a window that records the
// keys typed into it. Every DDE transaction and key is written as one line
// to the log file before the client gets its answer, so a test reads the
// log as soon as its call returns.
//
//   dde_test_server --log FILE [--service NAME]... [--status TEXT]
//                   [--window TITLE] [--ready EVENT] [--stop EVENT]
//                   [--hold EVENT] [--typed EVENT] [--signal EVENT]
//
// --service   a DDE service to serve (any topic); repeatable
// --status    what the item "Status" answers at first (default READY); a
//             poke of "Status" changes it
// --window    opens a window with this title; its keys are logged
// --ready     a named event set once every service is registered
// --stop      a named event that ends the program when set
// --signal    sets this named event and ends at once (a program to start)
//
// --hold      a named event that an execute of "Hold" waits for, two
//             seconds at most, before it answers (a program slow to answer)
// --typed     a named event set when Enter is typed into the window
//
// Log lines: "execute SERVICE|TOPIC COMMAND", "poke SERVICE|TOPIC ITEM=VALUE",
// "request SERVICE|TOPIC ITEM", "char C", "key VK" (hex). An execute of
// "Refuse" and a poke of the item "Locked" are refused; a request of any
// item but "Status" has no answer.

// clang-format off
#include <windows.h>
#include <ddeml.h>  // needs windows.h first
// clang-format on

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

std::wstring logFile;
std::wstring status = L"READY";
HANDLE hold = nullptr;
HANDLE typed = nullptr;
DWORD instance = 0;
std::map<HCONV, std::wstring> links;  // conversation -> "SERVICE|TOPIC"

std::string utf8(const std::wstring& text) {
  if (text.empty()) return {};
  const int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr,
                                    0, nullptr, nullptr);
  std::string out(static_cast<size_t>(n), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n,
                      nullptr, nullptr);
  return out;
}

std::wstring fromCodePage(const std::string& text, UINT codePage) {
  if (text.empty()) return {};
  const int n =
      MultiByteToWideChar(codePage, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring out(static_cast<size_t>(n), L'\0');
  MultiByteToWideChar(codePage, 0, text.data(), static_cast<int>(text.size()), out.data(), n);
  return out;
}

void log(const std::wstring& line) {
  FILE* file = _wfopen(logFile.c_str(), L"ab");
  if (file == nullptr) return;
  const std::string text = utf8(line) + "\n";
  std::fwrite(text.data(), 1, text.size(), file);
  std::fclose(file);
}

std::wstring nameOf(HSZ handle) {
  wchar_t text[256] = {};
  DdeQueryStringW(instance, handle, text, 256, CP_WINUNICODE);
  return text;
}

// The text a client sent: UTF-16 for executes between wide programs and
// for CF_UNICODETEXT, the code page for CF_TEXT.
std::wstring textOf(HDDEDATA data, UINT format) {
  const DWORD size = DdeGetData(data, nullptr, 0, 0);
  std::string bytes(size, '\0');
  if (size > 0) DdeGetData(data, reinterpret_cast<BYTE*>(bytes.data()), size, 0);
  if (format == CF_TEXT) return fromCodePage(bytes.substr(0, bytes.find('\0')), CP_ACP);
  std::wstring wide(bytes.size() / sizeof(wchar_t), L'\0');
  if (!wide.empty()) memcpy(wide.data(), bytes.data(), wide.size() * sizeof(wchar_t));
  return wide.substr(0, wide.find(L'\0'));
}

HDDEDATA CALLBACK serve(UINT type, UINT format, HCONV conversation, HSZ hsz1, HSZ hsz2,
                        HDDEDATA data, ULONG_PTR, ULONG_PTR) {
  switch (type) {
    case XTYP_CONNECT:
      return reinterpret_cast<HDDEDATA>(TRUE);
    case XTYP_CONNECT_CONFIRM:
      links[conversation] = nameOf(hsz2) + L"|" + nameOf(hsz1);
      return nullptr;
    case XTYP_DISCONNECT:
      links.erase(conversation);
      return nullptr;
    case XTYP_EXECUTE: {
      const std::wstring command = textOf(data, CF_UNICODETEXT);
      log(L"execute " + links[conversation] + L" " + command);
      if (command == L"Hold" && hold != nullptr) WaitForSingleObject(hold, 2000);
      return reinterpret_cast<HDDEDATA>(command == L"Refuse" ? DDE_FNOTPROCESSED : DDE_FACK);
    }
    case XTYP_POKE: {
      const std::wstring item = nameOf(hsz2);
      const std::wstring value = textOf(data, format);
      log(L"poke " + links[conversation] + L" " + item + L"=" + value);
      if (item == L"Locked") return reinterpret_cast<HDDEDATA>(DDE_FNOTPROCESSED);
      if (item == L"Status") status = value;
      return reinterpret_cast<HDDEDATA>(DDE_FACK);
    }
    case XTYP_REQUEST: {
      const std::wstring item = nameOf(hsz2);
      log(L"request " + links[conversation] + L" " + item);
      if (item != L"Status") return nullptr;
      if (format == CF_UNICODETEXT) {
        return DdeCreateDataHandle(instance, reinterpret_cast<BYTE*>(status.data()),
                                   static_cast<DWORD>((status.size() + 1) * sizeof(wchar_t)), 0,
                                   hsz2, format, 0);
      }
      std::string text(static_cast<size_t>(WideCharToMultiByte(CP_ACP, 0, status.c_str(), -1,
                                                               nullptr, 0, nullptr, nullptr)),
                       '\0');
      WideCharToMultiByte(CP_ACP, 0, status.c_str(), -1, text.data(), static_cast<int>(text.size()),
                          nullptr, nullptr);
      return DdeCreateDataHandle(instance, reinterpret_cast<BYTE*>(text.data()),
                                 static_cast<DWORD>(text.size()), 0, hsz2, CF_TEXT, 0);
    }
    default:
      return nullptr;
  }
}

LRESULT CALLBACK windowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  switch (message) {
    case WM_CHAR:
      log(L"char " + std::wstring(1, static_cast<wchar_t>(wParam)));
      if (wParam == L'\r' && typed != nullptr) SetEvent(typed);
      return 0;
    case WM_KEYDOWN:
    case WM_SYSKEYDOWN: {
      wchar_t text[16];
      swprintf(text, 16, L"key %02x", static_cast<unsigned>(wParam));
      log(text);
      return 0;
    }
    case WM_SYSCHAR:
      return 0;  // no menu to open
    default:
      return DefWindowProcW(window, message, wParam, lParam);
  }
}

HANDLE openEvent(const std::wstring& name) {
  return name.empty() ? nullptr : OpenEventW(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, name.c_str());
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  std::vector<std::wstring> services;
  std::wstring windowTitle, ready, stop;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::wstring option = argv[i];
    const std::wstring value = argv[i + 1];
    if (option == L"--log") {
      logFile = value;
    } else if (option == L"--service") {
      services.push_back(value);
    } else if (option == L"--status") {
      status = value;
    } else if (option == L"--window") {
      windowTitle = value;
    } else if (option == L"--ready") {
      ready = value;
    } else if (option == L"--stop") {
      stop = value;
    } else if (option == L"--hold") {
      hold = openEvent(value);
    } else if (option == L"--typed") {
      typed = openEvent(value);
    } else if (option == L"--signal") {
      HANDLE event = openEvent(value);
      if (event == nullptr) return 2;
      SetEvent(event);
      CloseHandle(event);
      return 0;
    } else {
      return 2;
    }
  }
  if (DdeInitializeW(&instance, serve,
                     APPCLASS_STANDARD | CBF_SKIP_REGISTRATIONS | CBF_SKIP_UNREGISTRATIONS,
                     0) != DMLERR_NO_ERROR) {
    return 3;
  }
  std::vector<HSZ> names;
  for (const auto& service : services) {
    names.push_back(DdeCreateStringHandleW(instance, service.c_str(), CP_WINUNICODE));
    if (DdeNameService(instance, names.back(), nullptr, DNS_REGISTER) == nullptr) return 4;
  }
  if (!windowTitle.empty()) {
    WNDCLASSW windowClass{};
    windowClass.lpfnWndProc = windowProc;
    windowClass.hInstance = GetModuleHandleW(nullptr);
    windowClass.lpszClassName = L"TavrixKeyTarget";
    RegisterClassW(&windowClass);
    HWND window = CreateWindowExW(0, windowClass.lpszClassName, windowTitle.c_str(),
                                  WS_OVERLAPPEDWINDOW | WS_VISIBLE, 0, 0, 200, 100, nullptr,
                                  nullptr, windowClass.hInstance, nullptr);
    if (window == nullptr) return 5;
  }
  HANDLE stopEvent = openEvent(stop);
  if (HANDLE readyEvent = openEvent(ready)) {
    SetEvent(readyEvent);
    CloseHandle(readyEvent);
  }
  for (;;) {
    const DWORD woke = MsgWaitForMultipleObjects(stopEvent != nullptr ? 1 : 0, &stopEvent, FALSE,
                                                 INFINITE, QS_ALLINPUT);
    if (stopEvent != nullptr && woke == WAIT_OBJECT_0) break;
    MSG message;
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
      if (message.message == WM_QUIT) break;
      TranslateMessage(&message);
      DispatchMessageW(&message);
    }
  }
  for (HSZ name : names) {
    DdeNameService(instance, name, nullptr, DNS_UNREGISTER);
    DdeFreeStringHandle(instance, name);
  }
  DdeUninitialize(instance);
  return 0;
}
