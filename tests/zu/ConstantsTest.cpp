#include <ZuCore/Constants.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <type_traits>

static_assert(std::is_same_v<std::remove_cv_t<decltype(ZU_TIMEOUT_INFINITE)>, std::uint32_t>);
static_assert(std::is_same_v<std::remove_cv_t<decltype(ZU_MAXUINT32)>, std::uint32_t>);

TEST(ConstantsTest, ValuesAreTheLargestUnsigned32BitValue) {
    EXPECT_EQ(ZU_TIMEOUT_INFINITE, std::numeric_limits<std::uint32_t>::max());
    EXPECT_EQ(ZU_MAXUINT32, std::numeric_limits<std::uint32_t>::max());
    EXPECT_EQ(Varkel::Zu::ZU_TIMEOUT_INFINITE, ZU_TIMEOUT_INFINITE);
    EXPECT_EQ(Varkel::Zu::ZU_MAXUINT32, ZU_MAXUINT32);
}
