#include "platform/key_string.h"

#include <gtest/gtest.h>

namespace tavrix::platform {
namespace {

std::vector<KeyStroke> Strokes(std::string_view keys) {
  std::vector<KeyStroke> strokes;
  std::string error;
  EXPECT_TRUE(parseKeyString(keys, strokes, &error)) << keys << ": " << error;
  return strokes;
}

std::string Fault(std::string_view keys) {
  std::vector<KeyStroke> strokes{KeyStroke{}};
  std::string error;
  EXPECT_FALSE(parseKeyString(keys, strokes, &error)) << keys;
  EXPECT_EQ(strokes.size(), 1u) << "nothing is handed out from a faulty string";
  return error;
}

KeyStroke Char(char32_t c, bool shift = false, bool ctrl = false, bool alt = false) {
  return {NamedKey::kNone, c, shift, ctrl, alt};
}

KeyStroke Key(NamedKey key, bool shift = false, bool ctrl = false, bool alt = false) {
  return {key, 0, shift, ctrl, alt};
}

TEST(KeyString, ModifiersHoldForTheNextKeyOrGroup) {
  // The logger's new-file window: Alt+D, Alt+N, Delete, the name, Enter.
  EXPECT_EQ(Strokes("%D%N{DEL}R7~"),
            (std::vector<KeyStroke>{Char('D', false, false, true), Char('N', false, false, true),
                                    Key(NamedKey::kDelete), Char('R'), Char('7'),
                                    Key(NamedKey::kEnter)}));
  EXPECT_EQ(Strokes("^+s"), (std::vector<KeyStroke>{Char('s', true, true)}));
  EXPECT_EQ(Strokes("+(ab)c"),
            (std::vector<KeyStroke>{Char('a', true), Char('b', true), Char('c')}));
  EXPECT_EQ(Strokes("%(+x)"), (std::vector<KeyStroke>{Char('x', true, false, true)}));
  EXPECT_TRUE(Strokes("").empty());
}

TEST(KeyString, BracesNameKeysRepeatThemAndQuoteCharacters) {
  EXPECT_EQ(
      Strokes("{LEFT 3}{f12}{Tab}{BS}{PGDN}{ESC}"),
      (std::vector<KeyStroke>{Key(NamedKey::kLeft), Key(NamedKey::kLeft), Key(NamedKey::kLeft),
                              Key(static_cast<NamedKey>(static_cast<int>(NamedKey::kF1) + 11)),
                              Key(NamedKey::kTab), Key(NamedKey::kBackspace),
                              Key(NamedKey::kPageDown), Key(NamedKey::kEscape)}));
  EXPECT_EQ(Strokes("{+}{^}{%}{~}{(}{)}{{}{}}"),
            (std::vector<KeyStroke>{Char('+'), Char('^'), Char('%'), Char('~'), Char('('),
                                    Char(')'), Char('{'), Char('}')}));
  EXPECT_EQ(Strokes("{x 2}{ENTER 0}"), (std::vector<KeyStroke>{Char('x'), Char('x')}));
  // Text is UTF-8; a byte that starts no character stands for itself.
  EXPECT_EQ(Strokes("\xC2\xB0"
                    "C {\xE2\x82\xAC}\xFF"),
            (std::vector<KeyStroke>{Char(0xB0), Char('C'), Char(' '), Char(0x20AC), Char(0xFF)}));
}

TEST(KeyString, MalformedStringsAreRefusedWithTheReason) {
  EXPECT_EQ(Fault("%D{DELL}"), "the key string \"%D{DELL}\" names no key DELL");
  EXPECT_EQ(Fault("{DEL"), "the key string \"{DEL\" has a \"{\" without its \"}\"");
  EXPECT_EQ(Fault("a}"), "the key string \"a}\" has a \"}\" without its \"{\"");
  EXPECT_EQ(Fault("{F17}"), "the key string \"{F17}\" names no key F17");
  EXPECT_EQ(Fault("{LEFT x}"), "the key string \"{LEFT x}\" repeats a key \"x\" times");
  EXPECT_EQ(Fault("{LEFT 100000}"),
            "the key string \"{LEFT 100000}\" repeats a key \"100000\" times");
  EXPECT_EQ(Fault("abc%"), "the key string \"abc%\" holds Shift, Ctrl or Alt down for no key");
  EXPECT_EQ(Fault("+(a^)"), "the key string \"+(a^)\" holds Shift, Ctrl or Alt down for no key");
  EXPECT_EQ(Fault("+(ab"), "the key string \"+(ab\" leaves a group open");
  EXPECT_EQ(Fault("ab)"), "the key string \"ab)\" closes a group it never opened");
  EXPECT_EQ(Fault("((a))"), "the key string \"((a))\" opens a group inside a group");
}

}  // namespace
}  // namespace tavrix::platform
