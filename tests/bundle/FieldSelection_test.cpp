#include "bundle/FieldSelection.hpp"

#include <gtest/gtest.h>

#include <cstdint>

namespace QuarilTest {
namespace {

using Quaril::FieldSelection;
using Quaril::QuarilTypeBase;
using Quaril::TypeList;

const QuarilTypeBase& doubles = QuarilTypeBase::getType<double>();
const QuarilTypeBase& floats = QuarilTypeBase::getType<float>();

TEST(FieldSelection, singleFieldAccessorsAnswerOnlyForAUniqueSelection) {
  FieldSelection selection;
  EXPECT_EQ(selection.getFieldName(), "");
  EXPECT_TRUE(selection.getFieldType().empty());
  EXPECT_TRUE(selection.requiresType(typeid(FieldSelection)));  // nothing is required

  selection.setFieldType("a", doubles, false);
  selection.setFieldType("b", floats, false);
  EXPECT_EQ(selection.getNumberOfFields(), 2);
  EXPECT_EQ(selection.getFieldName(), "");
  EXPECT_TRUE(selection.getFieldType().empty());
  EXPECT_EQ(selection.getFieldType("a"), TypeList::of<double>());

  selection.setUniqueField("c", TypeList::of<int32_t>());
  EXPECT_EQ(selection.getNumberOfFields(), 1);
  EXPECT_EQ(selection.getFieldName(), "c");
  EXPECT_EQ(selection.getFieldType(), TypeList::of<int32_t>());
  EXPECT_TRUE(selection.getFieldType("a").empty());
}

TEST(FieldSelection, appendKeepsOneCopyAndEmptyNamesAreRefusedExceptByUniqueField) {
  FieldSelection selection;
  selection.setFieldType("a", doubles, true);
  selection.setFieldType("a", doubles, true);
  selection.setFieldType("a", floats, true);
  EXPECT_EQ(selection.getFieldType("a"), (TypeList::of<double, float>()));
  selection.setFieldType("a", floats, false);
  EXPECT_EQ(selection.getFieldType("a"), TypeList::of<float>());

  EXPECT_FALSE(selection.setFieldType("", floats, true));
  EXPECT_FALSE(selection.setFieldType("", TypeList::of<float>()));
  EXPECT_EQ(selection.getFieldName(), "a");
  selection.setUniqueField("", TypeList::of<double>());
  EXPECT_EQ(selection.getNumberOfFields(), 1);
  EXPECT_EQ(selection.getFieldType(""), TypeList::of<double>());
}

TEST(FieldSelection, equalityFollowsThePrefixRule) {
  FieldSelection empty, a, ab, aFloat, b, aa;
  a.setFieldType("a", doubles, false);
  ab.setFieldType("a", doubles, false);
  ab.setFieldType("b", floats, false);
  aFloat.setFieldType("a", floats, false);
  b.setFieldType("b", floats, false);
  aa.setFieldType("aa", doubles, false);

  EXPECT_TRUE(empty == ab);
  EXPECT_TRUE(a == ab);  // a leading part matches
  EXPECT_TRUE(ab == a);
  EXPECT_FALSE(a == aFloat);
  EXPECT_FALSE(ab == b);
  EXPECT_FALSE(a == aa);  // names must agree in length too
  aFloat.setFieldType("a", doubles, true);
  EXPECT_FALSE(a == aFloat);  // type counts differ
}

}  // namespace
}  // namespace QuarilTest
