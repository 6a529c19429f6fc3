#include "platform/key_string.h"

#include <array>
#include <cctype>
#include <charconv>
#include <utility>

namespace tavrix::platform {

namespace {

constexpr std::array<std::pair<std::string_view, NamedKey>, 32> kKeyNames{{
    {"BACKSPACE", NamedKey::kBackspace},
    {"BS", NamedKey::kBackspace},
    {"BKSP", NamedKey::kBackspace},
    {"BREAK", NamedKey::kBreak},
    {"CAPSLOCK", NamedKey::kCapsLock},
    {"DELETE", NamedKey::kDelete},
    {"DEL", NamedKey::kDelete},
    {"DOWN", NamedKey::kDown},
    {"END", NamedKey::kEnd},
    {"ENTER", NamedKey::kEnter},
    {"ESC", NamedKey::kEscape},
    {"ESCAPE", NamedKey::kEscape},
    {"HELP", NamedKey::kHelp},
    {"HOME", NamedKey::kHome},
    {"INSERT", NamedKey::kInsert},
    {"INS", NamedKey::kInsert},
    {"LEFT", NamedKey::kLeft},
    {"NUMLOCK", NamedKey::kNumLock},
    {"PGDN", NamedKey::kPageDown},
    {"PGUP", NamedKey::kPageUp},
    {"PRTSC", NamedKey::kPrintScreen},
    {"RIGHT", NamedKey::kRight},
    {"SCROLLLOCK", NamedKey::kScrollLock},
    {"TAB", NamedKey::kTab},
    {"UP", NamedKey::kUp},
    {"ADD", NamedKey::kAdd},
    {"SUBTRACT", NamedKey::kSubtract},
    {"MULTIPLY", NamedKey::kMultiply},
    {"DIVIDE", NamedKey::kDivide},
    {"RETURN", NamedKey::kEnter},
    {"PGDOWN", NamedKey::kPageDown},
    {"PAGEUP", NamedKey::kPageUp},
}};

// More presses than this in one brace is a typing error, not a request.
constexpr int kMostRepeats = 1000;

std::string upper(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

NamedKey keyNamed(std::string_view name) {
  const std::string wanted = upper(name);
  for (const auto& [text, key] : kKeyNames) {
    if (text == wanted) return key;
  }
  if (wanted.size() >= 2 && wanted.size() <= 3 && wanted[0] == 'F') {
    int number = 0;
    const auto [end, ec] =
        std::from_chars(wanted.data() + 1, wanted.data() + wanted.size(), number);
    if (ec == std::errc() && end == wanted.data() + wanted.size() && number >= 1 && number <= 16) {
      return static_cast<NamedKey>(static_cast<int>(NamedKey::kF1) + number - 1);
    }
  }
  return NamedKey::kNone;
}

// One character of UTF-8 text at `at`, moving `at` past it; a byte that
// starts no valid sequence stands for itself.
char32_t nextCharacter(std::string_view text, size_t& at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  const int length = lead < 0x80         ? 1
                     : (lead >> 5) == 6  ? 2
                     : (lead >> 4) == 14 ? 3
                     : (lead >> 3) == 30 ? 4
                                         : 0;
  if (length > 1 && at + length <= text.size()) {
    char32_t value = lead & (0x7F >> length);
    bool valid = true;
    for (int i = 1; i < length; ++i) {
      const auto next = static_cast<unsigned char>(text[at + i]);
      valid = valid && (next >> 6) == 2;
      value = (value << 6) | (next & 0x3F);
    }
    if (valid) {
      at += length;
      return value;
    }
  }
  ++at;
  return lead;
}

struct Modifiers {
  bool shift = false;
  bool ctrl = false;
  bool alt = false;
  bool any() const { return shift || ctrl || alt; }
};

// The inside of a "{...}": a key's name or one character, and how many
// times it is pressed ("{TAB 3}").
bool parseBraced(std::string_view inside, const std::string& quoted, NamedKey& key,
                 char32_t& character, int& times, std::string* error) {
  const size_t blank = inside.find(' ');
  if (blank != std::string_view::npos && blank > 0) {
    const std::string_view count = inside.substr(blank + 1);
    const auto [end, ec] = std::from_chars(count.data(), count.data() + count.size(), times);
    if (ec != std::errc() || end != count.data() + count.size() || times < 0 ||
        times > kMostRepeats) {
      if (error) *error = quoted + " repeats a key \"" + std::string(count) + "\" times";
      return false;
    }
    inside = inside.substr(0, blank);
  }
  size_t first = 0;
  character = nextCharacter(inside, first);
  if (first == inside.size()) {
    key = NamedKey::kNone;
    return true;
  }
  character = 0;
  key = keyNamed(inside);
  if (key == NamedKey::kNone) {
    if (error) *error = quoted + " names no key " + std::string(inside);
    return false;
  }
  return true;
}

}  // namespace

bool parseKeyString(std::string_view keys, std::vector<KeyStroke>& strokes, std::string* error) {
  std::vector<KeyStroke> out;
  const std::string quoted = "the key string \"" + std::string(keys) + "\"";
  Modifiers pending;  // held for the next key or group
  Modifiers group;    // held for the whole open group
  bool inGroup = false;
  auto add = [&](NamedKey key, char32_t character, int times) {
    for (int i = 0; i < times; ++i) {
      out.push_back({key, character, pending.shift || group.shift, pending.ctrl || group.ctrl,
                     pending.alt || group.alt});
    }
    pending = {};
  };
  size_t at = 0;
  while (at < keys.size()) {
    const char c = keys[at];
    if (c == '+' || c == '^' || c == '%') {
      (c == '+' ? pending.shift : c == '^' ? pending.ctrl : pending.alt) = true;
      ++at;
    } else if (c == '~') {
      add(NamedKey::kEnter, 0, 1);
      ++at;
    } else if (c == '(') {
      if (inGroup) {
        if (error) *error = quoted + " opens a group inside a group";
        return false;
      }
      inGroup = true;
      group = pending;
      pending = {};
      ++at;
    } else if (c == ')') {
      if (!inGroup) {
        if (error) *error = quoted + " closes a group it never opened";
        return false;
      }
      if (pending.any()) {
        if (error) *error = quoted + " holds Shift, Ctrl or Alt down for no key";
        return false;
      }
      inGroup = false;
      group = {};
      ++at;
    } else if (c == '{') {
      // "{}}" quotes a closing brace: the name is never empty.
      const size_t close = keys.find('}', at + 2);
      if (close == std::string_view::npos) {
        if (error) *error = quoted + " has a \"{\" without its \"}\"";
        return false;
      }
      NamedKey key = NamedKey::kNone;
      char32_t character = 0;
      int times = 1;
      if (!parseBraced(keys.substr(at + 1, close - at - 1), quoted, key, character, times, error))
        return false;
      add(key, character, times);
      at = close + 1;
    } else if (c == '}') {
      if (error) *error = quoted + " has a \"}\" without its \"{\"";
      return false;
    } else {
      add(NamedKey::kNone, nextCharacter(keys, at), 1);
    }
  }
  if (pending.any()) {
    if (error) *error = quoted + " holds Shift, Ctrl or Alt down for no key";
    return false;
  }
  if (inGroup) {
    if (error) *error = quoted + " leaves a group open";
    return false;
  }
  strokes = std::move(out);
  return true;
}

}  // namespace tavrix::platform
