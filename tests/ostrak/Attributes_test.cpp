#include "ostrak/Attributes.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

TEST(Attributes, ValuesKeepTheirTypeAndNamesReplace) {
  Ostrak::SaveableAttributes attributes;
  attributes.setAttribute("count", 3);  // an int is stored as an integer, not a double
  attributes.setAttribute("scale", 2.5f);
  attributes.setAttribute("unit", "metre");
  attributes.setAttribute("levels", std::vector<double>{1.0, 2.0});
  attributes.setAttribute("count", 4);

  EXPECT_EQ(attributes.numberOfAttributes(), 4u);
  EXPECT_EQ(attributes.getAttributeAs<int64_t>("count"), 4);
  EXPECT_FALSE(attributes.getAttributeAs<double>("count"));
  EXPECT_EQ(attributes.getAttributeAs<double>("scale"), 2.5);
  EXPECT_EQ(attributes.getAttributeAs<std::string>("unit"), "metre");
  EXPECT_EQ(attributes.getAttributeAs<std::vector<double>>("levels"),
            (std::vector<double>{1.0, 2.0}));
  EXPECT_FALSE(attributes.getAttribute("missing"));
  EXPECT_FALSE(attributes.getAttributeAs<int64_t>("missing"));

  Ostrak::Attributes copy = attributes;
  copy.setAttribute("count", 9);
  EXPECT_TRUE(copy.removeAttribute("unit"));
  EXPECT_FALSE(copy.removeAttribute("unit"));
  EXPECT_EQ(attributes.getAttributeAs<int64_t>("count"), 4);
  EXPECT_TRUE(attributes.hasAttribute("unit"));
}
