#include <ZuCore/Env.h>

#include <gtest/gtest.h>

#include <cstdlib>

using Varkel::Zu::Env;

namespace {
class EnvTest : public ::testing::Test {
  protected:
    void TearDown() override { ::unsetenv("ZU_ENV_TEST"); }
};
}  // namespace

TEST_F(EnvTest, UnsetVariableGivesTheDefault) {
    ::unsetenv("ZU_ENV_TEST");
    EXPECT_EQ(Env::getVar(std::wstring(L"ZU_ENV_TEST")), L"");
    EXPECT_EQ(Env::getVar(std::wstring(L"ZU_ENV_TEST"), L"fallback"), L"fallback");
    EXPECT_EQ(Env::getVar(std::string("ZU_ENV_TEST"), "fallback"), "fallback");
    EXPECT_FALSE(Env::hasVar(L"ZU_ENV_TEST"));
}

TEST_F(EnvTest, SetVariableGivesItsValueDecodedAsUtf8) {
    ::setenv("ZU_ENV_TEST", "{\"url\":\"caf\xc3\xa9\"}", 1);
    EXPECT_EQ(Env::getVar(std::wstring(L"ZU_ENV_TEST"), L"fallback"), L"{\"url\":\"caf\u00e9\"}");
    EXPECT_EQ(Env::getVar(std::string("ZU_ENV_TEST")), "{\"url\":\"caf\xc3\xa9\"}");
    EXPECT_TRUE(Env::hasVar(L"ZU_ENV_TEST"));
}

TEST_F(EnvTest, EmptyValueIsNotTheDefault) {
    ::setenv("ZU_ENV_TEST", "", 1);
    EXPECT_EQ(Env::getVar(std::wstring(L"ZU_ENV_TEST"), L"fallback"), L"");
    EXPECT_TRUE(Env::hasVar(L"ZU_ENV_TEST"));
}
