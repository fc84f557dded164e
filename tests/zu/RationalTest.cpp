#include <ZuCore/Rational.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include <ZuCore/InvalidArgumentException.h>

#include "ZuTestSupport.h"

using Varkel::Zu::InvalidArgumentException;
using Varkel::Zu::Rational;

TEST(RationalTest, KeepsNumeratorAndDenominatorAsGiven) {
    const Rational r(2, 2);
    EXPECT_EQ(r.getNumerator(), 2);
    EXPECT_EQ(r.getDenominator(), 2);
    const Rational big(std::numeric_limits<std::int64_t>::min(),
                       std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(big.getNumerator(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(big.getDenominator(), std::numeric_limits<std::int64_t>::max());
}

TEST(RationalTest, DefaultIsZeroOverOne) {
    const Rational r;
    EXPECT_EQ(r.getNumerator(), 0);
    EXPECT_EQ(r.getDenominator(), 1);
}

TEST(RationalTest, ZeroDenominatorThrowsInvalidArgument) {
    ZuTest::LoggingConfigGuard guard;
    EXPECT_THROW(Rational(1, 0), InvalidArgumentException);
}

TEST(RationalTest, ComparesValuesExactly) {
    EXPECT_EQ(Rational(1, 2), Rational(2, 4));
    EXPECT_EQ(Rational(-1, 2), Rational(1, -2));
    EXPECT_NE(Rational(1, 3), Rational(1, 2));
    EXPECT_TRUE(Rational(1, 3) < Rational(1, 2));
    EXPECT_TRUE(Rational(1, -2) < Rational(1, 3));
    EXPECT_FALSE(Rational(1, 2) < Rational(2, 4));
    // Products beyond 64 bits still compare exactly.
    const std::int64_t max = std::numeric_limits<std::int64_t>::max();
    EXPECT_TRUE(Rational(max - 1, max) < Rational(max, max));
    EXPECT_EQ(Rational(max, max), Rational(1, 1));
}

TEST(RationalTest, ConvertsToTextAndDouble) {
    EXPECT_EQ(Rational(3, 4).toString(), "3/4");
    EXPECT_EQ(Rational(-3, 4).toWString(), L"-3/4");
    EXPECT_DOUBLE_EQ(Rational(3, 4).toDouble(), 0.75);
}
