#include "vorn/effects/parameter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace vorn {
namespace {

TEST(ParameterTest, SetValueClampsAndReportsChanges) {
  Parameter amount("amount", -100, 100, 0, false);
  EXPECT_TRUE(amount.setValue(150));
  EXPECT_EQ(amount.value(), 100);
  EXPECT_TRUE(amount.isNonDefault());
  EXPECT_FALSE(amount.setValue(150));
  EXPECT_TRUE(amount.setValue(0));
  EXPECT_EQ(amount.value(), 0);
  EXPECT_FALSE(amount.isNonDefault());
  EXPECT_TRUE(amount.setValue(-1e30f));
  EXPECT_EQ(amount.value(), -100);
  EXPECT_TRUE(amount.setValue(std::numeric_limits<float>::infinity()));
  EXPECT_EQ(amount.value(), 100);
}

TEST(ParameterTest, NaNBecomesMin) {
  Parameter amount("amount", -100, 100, 0, false);
  EXPECT_TRUE(amount.setValue(std::nanf("")));
  EXPECT_EQ(amount.value(), -100);
  EXPECT_TRUE(amount.isNonDefault());
}

TEST(ParameterTest, DefaultValueWithOtherOptionalDataStaysNonDefault) {
  Parameter curve("RGB", 0, 100, 50, false);
  EXPECT_TRUE(curve.setOptionalData(std::vector<float>{0, 0, 1, 1}));
  EXPECT_TRUE(curve.isNonDefault());
  EXPECT_FALSE(curve.setValue(50));
  EXPECT_TRUE(curve.isNonDefault());
  EXPECT_FALSE(curve.setOptionalData(std::vector<float>{0, 0, 1, 1}));

  // Back to the default data with the default value: default again.
  EXPECT_TRUE(curve.setOptionalData(std::vector<float>{}));
  EXPECT_FALSE(curve.isNonDefault());

  curve.setValue(70);
  curve.setOptionalData(std::string("look.cube"));
  curve.setToDefault();
  EXPECT_EQ(curve.value(), 50);
  EXPECT_FALSE(curve.isNonDefault());
  EXPECT_TRUE(curve.optionalData() == ParameterOptionalData());
}

TEST(ParameterTest, IsSameTypeIgnoresStateButNotDeclaration) {
  Parameter a("amount", -100, 100, 0, false);
  Parameter b("amount", -100, 100, 0, true);
  b.setValue(42);
  b.setOptionalData(std::string("x"));
  EXPECT_TRUE(a.isSameType(b));
  EXPECT_FALSE(a.isSameType(Parameter("amount", -100, 100, 5, false)));
  EXPECT_FALSE(a.isSameType(Parameter("Amount", -100, 100, 0, false)));
  EXPECT_FALSE(a.isSameType(Parameter("amount", -50, 100, 0, false)));
  const ParameterOptionalData groups =
      std::vector<std::pair<std::string, std::map<std::string, float>>>{{"sky", {{"hue", 200}}}};
  EXPECT_FALSE(a.isSameType(Parameter("amount", -100, 100, 0, groups, groups, false)));
}

TEST(ParameterTest, EqualityOperatorIsAlwaysTrue) {
  const Parameter a("amount", -100, 100, 0, false);
  const Parameter b("other", 0, 1, 1, true);
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
}

TEST(ParameterTest, ConstructorWithOptionalDataStartsAtDefaults) {
  const Parameter p("LUT", 0, 100, 100, std::string(), std::string("film.cube"), false);
  EXPECT_EQ(p.value(), 100);
  EXPECT_FALSE(p.isNonDefault());
  EXPECT_EQ(boost::get<std::string>(p.optionalData()), "film.cube");
  EXPECT_EQ(p.name(), "LUT");
  EXPECT_EQ(p.minValue(), 0);
  EXPECT_EQ(p.maxValue(), 100);
  EXPECT_EQ(p.defaultValue(), 100);
}

}  // namespace
}  // namespace vorn
