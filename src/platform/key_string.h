// Key strings: the notation in which a sequence writes what is typed into
// another program's window. Characters type themselves; "+", "^" and "%"
// hold Shift, Ctrl and Alt down for the next key or for a group in
// parentheses ("+(abc)"); "~" is Enter; braces name a key ("{DEL}",
// "{F2}", "{LEFT 3}" for three presses) or quote a character that has a
// meaning of its own ("{+}", "{~}", "{{}").
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tavrix::platform {

enum class NamedKey {
  kNone,  // the stroke types a character
  kBackspace,
  kBreak,
  kCapsLock,
  kDelete,
  kDown,
  kEnd,
  kEnter,
  kEscape,
  kHelp,
  kHome,
  kInsert,
  kLeft,
  kNumLock,
  kPageDown,
  kPageUp,
  kPrintScreen,
  kRight,
  kScrollLock,
  kTab,
  kUp,
  kAdd,
  kSubtract,
  kMultiply,
  kDivide,
  kF1,  // kF1 + n - 1 is Fn, up to F16
};

struct KeyStroke {
  NamedKey key = NamedKey::kNone;
  char32_t character = 0;  // when key is kNone
  bool shift = false;
  bool ctrl = false;
  bool alt = false;
  bool operator==(const KeyStroke&) const = default;
};

// The strokes `keys` stands for, in order; false, with a message naming the
// fault, when the string is not well formed (nothing is typed then).
bool parseKeyString(std::string_view keys, std::vector<KeyStroke>& strokes, std::string* error);

}  // namespace tavrix::platform
