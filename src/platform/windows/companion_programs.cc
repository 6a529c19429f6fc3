#include "platform/companion_programs.h"

// clang-format off
#include <windows.h>
#include <ddeml.h>  // needs windows.h first
// clang-format on

#include <cstdio>
#include <vector>

#include "platform/key_string.h"
#include "platform/windows/wide.h"

namespace tavrix::platform {

namespace {

std::string systemErrorText(DWORD err) {
  wchar_t* text = nullptr;
  FormatMessageW(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, err, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  std::string out = text != nullptr ? narrow(text) : std::string();
  if (text != nullptr) LocalFree(text);
  while (!out.empty() &&
         (out.back() == '\n' || out.back() == '\r' || out.back() == ' ' || out.back() == '.')) {
    out.pop_back();
  }
  return out.empty() ? "Windows error " + std::to_string(err) : out;
}

std::string hex(unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", value);
  return text;
}

// Text in the code page of programs that do not speak UTF-16, and back.
std::string toAnsi(std::string_view utf8) {
  const std::wstring wide = widen(std::string(utf8));
  if (wide.empty()) return {};
  const int n = WideCharToMultiByte(CP_ACP, 0, wide.data(), static_cast<int>(wide.size()), nullptr,
                                    0, nullptr, nullptr);
  std::string out(static_cast<size_t>(n), '\0');
  WideCharToMultiByte(CP_ACP, 0, wide.data(), static_cast<int>(wide.size()), out.data(), n, nullptr,
                      nullptr);
  return out;
}

std::string fromAnsi(const std::string& ansi) {
  if (ansi.empty()) return {};
  const int n =
      MultiByteToWideChar(CP_ACP, 0, ansi.data(), static_cast<int>(ansi.size()), nullptr, 0);
  std::wstring wide(static_cast<size_t>(n), L'\0');
  MultiByteToWideChar(CP_ACP, 0, ansi.data(), static_cast<int>(ansi.size()), wide.data(), n);
  return narrow(wide);
}

HDDEDATA CALLBACK clientCallback(UINT, UINT, HCONV, HSZ, HSZ, HDDEDATA, ULONG_PTR, ULONG_PTR) {
  return nullptr;
}

std::string linkName(std::string_view service, std::string_view topic) {
  return std::string(service) + "|" + std::string(topic);
}

}  // namespace

bool hasCompanionPrograms() { return true; }

// The DDE instance of the thread that uses the client, made on first use.
struct DdeClient::Instance {
  DWORD id = 0;
  ~Instance() { DdeUninitialize(id); }
};

namespace {

// A string handle that frees itself.
class Name {
 public:
  Name(DWORD instance, std::string_view text)
      : instance_(instance),
        handle_(DdeCreateStringHandleW(instance, widen(std::string(text)).c_str(), CP_WINUNICODE)) {
  }
  ~Name() {
    if (handle_ != nullptr) DdeFreeStringHandle(instance_, handle_);
  }
  Name(const Name&) = delete;
  Name& operator=(const Name&) = delete;
  HSZ get() const { return handle_; }

 private:
  DWORD instance_;
  HSZ handle_;
};

}  // namespace

DdeClient::DdeClient(int timeoutMs) : timeoutMs_(timeoutMs) {}

DdeClient::~DdeClient() = default;

bool DdeClient::transact(std::string_view service, std::string_view topic, unsigned type,
                         std::string_view item, const std::string& data, unsigned format,
                         std::string* answer) {
  lastDdeError_ = 0;
  if (instance_ == nullptr) {
    DWORD id = 0;
    const UINT result = DdeInitializeW(&id, clientCallback, APPCMD_CLIENTONLY, 0);
    if (result != DMLERR_NO_ERROR) {
      lastDdeError_ = result;
      return false;
    }
    instance_ = std::make_unique<Instance>();
    instance_->id = id;
  }
  const DWORD id = instance_->id;
  const Name serviceName(id, service);
  const Name topicName(id, topic);
  const Name itemName(id, item);
  // A missing service or topic handle would reach any program at all.
  if (serviceName.get() == nullptr || topicName.get() == nullptr ||
      (!item.empty() && itemName.get() == nullptr)) {
    lastDdeError_ = DMLERR_INVALIDPARAMETER;
    return false;
  }
  HCONV conversation = DdeConnect(id, serviceName.get(), topicName.get(), nullptr);
  if (conversation == nullptr) {
    lastDdeError_ = DdeGetLastError(id);
    if (lastDdeError_ == DMLERR_NO_ERROR) lastDdeError_ = DMLERR_NO_CONV_ESTABLISHED;
    return false;
  }
  DWORD status = 0;
  auto* bytes = reinterpret_cast<BYTE*>(const_cast<char*>(data.data()));
  HDDEDATA result =
      DdeClientTransaction(data.empty() ? nullptr : bytes, static_cast<DWORD>(data.size()),
                           conversation, item.empty() ? nullptr : itemName.get(), format, type,
                           static_cast<DWORD>(timeoutMs_), &status);
  if (result == nullptr) {
    lastDdeError_ = DdeGetLastError(id);
    if (lastDdeError_ == DMLERR_NO_ERROR) lastDdeError_ = DMLERR_NOTPROCESSED;
  } else if (answer != nullptr) {
    const DWORD size = DdeGetData(result, nullptr, 0, 0);
    std::string text(size, '\0');
    if (size > 0) DdeGetData(result, reinterpret_cast<BYTE*>(text.data()), size, 0);
    const size_t end = text.find('\0');
    if (end != std::string::npos) text.resize(end);
    *answer = std::move(text);
  }
  if (result != nullptr && type == XTYP_REQUEST) DdeFreeDataHandle(result);
  DdeDisconnect(conversation);
  return result != nullptr;
}

std::string DdeClient::failure(std::string_view service, std::string_view topic,
                               std::string_view refused) const {
  const std::string link = linkName(service, topic);
  switch (lastDdeError_) {
    case DMLERR_NO_CONV_ESTABLISHED:
      return "no program answers the DDE topic " + link + " on this computer";
    case DMLERR_BUSY:
      return link + " is busy";
    case DMLERR_NOTPROCESSED:
      return link + " " + std::string(refused);
    case DMLERR_EXECACKTIMEOUT:
    case DMLERR_POKEACKTIMEOUT:
    case DMLERR_DATAACKTIMEOUT:
      return link + " did not answer within " + std::to_string(timeoutMs_) + " ms";
    case DMLERR_INVALIDPARAMETER:
      return "a DDE name of " + link + " is empty or longer than 255 characters";
    case DMLERR_DLL_NOT_INITIALIZED:
    case DMLERR_SYS_ERROR:
      return "DDE cannot start on this computer (DDE error " + hex(lastDdeError_) + ")";
    default:
      return "DDE error " + hex(lastDdeError_) + " talking to " + link;
  }
}

bool DdeClient::execute(std::string_view service, std::string_view topic, std::string_view command,
                        std::string* error) {
  // Executes travel as UTF-16 between wide instances; the DDE layer turns
  // them into the code page for a server that is not.
  const std::wstring wide = widen(std::string(command));
  const std::string data(reinterpret_cast<const char*>(wide.c_str()),
                         (wide.size() + 1) * sizeof(wchar_t));
  if (transact(service, topic, XTYP_EXECUTE, {}, data, 0, nullptr)) return true;
  if (error)
    *error = failure(service, topic,
                     "did not carry out the DDE command \"" + std::string(command) + "\"");
  return false;
}

bool DdeClient::poke(std::string_view service, std::string_view topic, std::string_view item,
                     std::string_view value, std::string* error) {
  std::string data = toAnsi(value);
  data.push_back('\0');
  if (transact(service, topic, XTYP_POKE, item, data, CF_TEXT, nullptr)) return true;
  if (error) *error = failure(service, topic, "did not take the DDE item " + std::string(item));
  return false;
}

std::optional<std::string> DdeClient::request(std::string_view service, std::string_view topic,
                                              std::string_view item, std::string* error) {
  std::string answer;
  if (transact(service, topic, XTYP_REQUEST, item, {}, CF_TEXT, &answer)) return fromAnsi(answer);
  if (lastDdeError_ == DMLERR_NO_CONV_ESTABLISHED || lastDdeError_ == DMLERR_NOTPROCESSED) {
    if (error)
      *error = "no program answers the DDE item " + std::string(item) + " of " +
               linkName(service, topic) + " on this computer";
  } else {
    if (error) *error = failure(service, topic, {});
  }
  return std::nullopt;
}

namespace {

struct VirtualKey {
  WORD code;
  bool extended;
};

VirtualKey virtualKey(NamedKey key) {
  switch (key) {
    case NamedKey::kBackspace:
      return {VK_BACK, false};
    case NamedKey::kBreak:
      return {VK_CANCEL, false};
    case NamedKey::kCapsLock:
      return {VK_CAPITAL, false};
    case NamedKey::kDelete:
      return {VK_DELETE, true};
    case NamedKey::kDown:
      return {VK_DOWN, true};
    case NamedKey::kEnd:
      return {VK_END, true};
    case NamedKey::kEnter:
      return {VK_RETURN, false};
    case NamedKey::kEscape:
      return {VK_ESCAPE, false};
    case NamedKey::kHelp:
      return {VK_HELP, false};
    case NamedKey::kHome:
      return {VK_HOME, true};
    case NamedKey::kInsert:
      return {VK_INSERT, true};
    case NamedKey::kLeft:
      return {VK_LEFT, true};
    case NamedKey::kNumLock:
      return {VK_NUMLOCK, false};
    case NamedKey::kPageDown:
      return {VK_NEXT, true};
    case NamedKey::kPageUp:
      return {VK_PRIOR, true};
    case NamedKey::kPrintScreen:
      return {VK_SNAPSHOT, false};
    case NamedKey::kRight:
      return {VK_RIGHT, true};
    case NamedKey::kScrollLock:
      return {VK_SCROLL, false};
    case NamedKey::kTab:
      return {VK_TAB, false};
    case NamedKey::kUp:
      return {VK_UP, true};
    case NamedKey::kAdd:
      return {VK_ADD, false};
    case NamedKey::kSubtract:
      return {VK_SUBTRACT, false};
    case NamedKey::kMultiply:
      return {VK_MULTIPLY, false};
    case NamedKey::kDivide:
      return {VK_DIVIDE, true};
    case NamedKey::kNone:
      return {0, false};
    default:
      return {static_cast<WORD>(VK_F1 + (static_cast<int>(key) - static_cast<int>(NamedKey::kF1))),
              false};
  }
}

INPUT keyInput(WORD code, bool up, bool extended) {
  INPUT input{};
  input.type = INPUT_KEYBOARD;
  input.ki.wVk = code;
  input.ki.dwFlags = (up ? KEYEVENTF_KEYUP : 0) | (extended ? KEYEVENTF_EXTENDEDKEY : 0);
  return input;
}

INPUT unicodeInput(wchar_t unit, bool up) {
  INPUT input{};
  input.type = INPUT_KEYBOARD;
  input.ki.wScan = unit;
  input.ki.dwFlags = KEYEVENTF_UNICODE | (up ? KEYEVENTF_KEYUP : 0);
  return input;
}

void appendStroke(const KeyStroke& stroke, std::vector<INPUT>& inputs) {
  bool shift = stroke.shift;
  bool ctrl = stroke.ctrl;
  bool alt = stroke.alt;
  VirtualKey key = virtualKey(stroke.key);
  std::wstring units;
  if (stroke.key == NamedKey::kNone) {
    const char32_t c = stroke.character;
    if (c >= 0x10000) {
      units.push_back(static_cast<wchar_t>(0xD800 + ((c - 0x10000) >> 10)));
      units.push_back(static_cast<wchar_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
    } else {
      units.push_back(static_cast<wchar_t>(c));
    }
    // A character under Shift, Ctrl or Alt is a key press (Alt+F opens the
    // File menu); a plain character is typed as itself, whatever the
    // keyboard layout.
    const SHORT scan = units.size() == 1 && (shift || ctrl || alt) ? VkKeyScanW(units[0]) : -1;
    if (scan != -1) {
      key = {static_cast<WORD>(LOBYTE(scan)), false};
      shift = shift || (HIBYTE(scan) & 1) != 0;
      ctrl = ctrl || (HIBYTE(scan) & 2) != 0;
      alt = alt || (HIBYTE(scan) & 4) != 0;
      units.clear();
    }
  }
  const WORD modifiers[] = {static_cast<WORD>(shift ? VK_SHIFT : 0),
                            static_cast<WORD>(ctrl ? VK_CONTROL : 0),
                            static_cast<WORD>(alt ? VK_MENU : 0)};
  for (WORD m : modifiers) {
    if (m != 0) inputs.push_back(keyInput(m, false, false));
  }
  if (units.empty()) {
    inputs.push_back(keyInput(key.code, false, key.extended));
    inputs.push_back(keyInput(key.code, true, key.extended));
  } else {
    for (wchar_t unit : units) inputs.push_back(unicodeInput(unit, false));
    for (wchar_t unit : units) inputs.push_back(unicodeInput(unit, true));
  }
  for (int i = 2; i >= 0; --i) {
    if (modifiers[i] != 0) inputs.push_back(keyInput(modifiers[i], true, false));
  }
}

}  // namespace

bool sendKeysToWindow(std::string_view windowTitle, std::string_view keys, std::string* error) {
  std::vector<KeyStroke> strokes;
  if (!parseKeyString(keys, strokes, error)) return false;
  const std::string title(windowTitle);
  HWND window = FindWindowW(nullptr, widen(title).c_str());
  if (window == nullptr) {
    if (error) *error = "no window is titled \"" + title + "\"";
    return false;
  }
  if (IsIconic(window)) ShowWindow(window, SW_RESTORE);
  SetForegroundWindow(window);
  if (GetForegroundWindow() != window) {
    // Windows lets the thread that owns the front window hand the front on;
    // share its input state for the moment it takes.
    const DWORD front = GetWindowThreadProcessId(GetForegroundWindow(), nullptr);
    const DWORD self = GetCurrentThreadId();
    if (front != 0 && front != self && AttachThreadInput(self, front, TRUE)) {
      BringWindowToTop(window);
      SetForegroundWindow(window);
      AttachThreadInput(self, front, FALSE);
    }
  }
  if (GetForegroundWindow() != window) {
    if (error) *error = "the window \"" + title + "\" cannot be brought to the front";
    return false;
  }
  std::vector<INPUT> inputs;
  for (const KeyStroke& stroke : strokes) appendStroke(stroke, inputs);
  if (inputs.empty()) return true;
  const UINT sent = SendInput(static_cast<UINT>(inputs.size()), inputs.data(), sizeof(INPUT));
  if (sent != inputs.size()) {
    if (error)
      *error = "typing into \"" + title + "\" was blocked: " + systemErrorText(GetLastError());
    return false;
  }
  return true;
}

bool startProgram(std::string_view commandLine, std::string* error) {
  std::wstring line = widen(std::string(commandLine));
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  // The command line buffer must be writable.
  if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                      &process)) {
    if (error) *error = systemErrorText(GetLastError());
    return false;
  }
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return true;
}

}  // namespace tavrix::platform
