#include "crypto/vbtavrix.h"

#include <gtest/gtest.h>

namespace tavrix::vbtavrix {
namespace {

TEST(VbtavrixHelpers, PassPathsAndTextThroughUnchanged) {
  const std::string binary("a\0b\xff\x80 c", 7);
  for (const std::string& text :
       {std::string(), std::string("c:\\corvane\\data\\RESULTS.TXT"), binary}) {
    EXPECT_EQ(EncryptString(text), text);
    EXPECT_EQ(DecryptString(text), text);
    EXPECT_EQ(EncryptString(text, "OTHER"), text);
    EXPECT_EQ(DecryptString(text, "OTHER"), text);
  }
}

TEST(VbtavrixHelpers, KeyDefaultsToVeldranUnlessOneIsGiven) {
  EXPECT_EQ(helperKey(""), "VELDRAN");
  EXPECT_EQ(helperKey("OTHER"), "OTHER");
}

}  // namespace
}  // namespace tavrix::vbtavrix
