// Files built in by zu_embed() come out byte for byte.
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "embedded.h"

namespace {

std::string fileText(const std::string& name) {
  std::ifstream in(std::string(ZU_EMBED_FILES) + "/" + name, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(Embed, TextsAreTheFilesByteForByte) {
  EXPECT_EQ(std::string(zutest::kEmpty), "");
  const std::string expected = fileText("long.txt");
  ASSERT_GT(expected.size(), 16000u * 3);  // split into several literals
  EXPECT_EQ(std::string(zutest::kLong), expected);
}

}  // namespace
