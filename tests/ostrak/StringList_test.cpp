#include "ostrak/StringList.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

TEST(StringList, ContainsAnswersExactlyForEveryEntry) {
  Ostrak::StringList list{"alpha", "beta", "alpha", ""};
  EXPECT_EQ(list.size(), 4u);
  EXPECT_EQ(std::vector<std::string>(list.begin(), list.end()),
            (std::vector<std::string>{"alpha", "beta", "alpha", ""}));
  EXPECT_TRUE(list.contains("alpha"));
  EXPECT_TRUE(list.contains(""));
  EXPECT_FALSE(list.contains("Alpha"));
  EXPECT_FALSE(list.contains("alph"));
  list.push_back("gamma");
  EXPECT_TRUE(list.contains("gamma"));
  EXPECT_EQ(list[4], "gamma");

  Ostrak::StringList fromVector(std::vector<std::string>{"x"});
  EXPECT_TRUE(fromVector.contains("x"));
  EXPECT_FALSE(Ostrak::StringList().contains(""));
}
