// Shared pieces of the facade tests: a fixture that gives every test case a process without
// a facade singleton, and a probe that can see the facade's protected state.
#pragma once

#include <TolvaCore/CTolvaPlatform.h>
#include <TolvaCore/TolvaPlatformEntry.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace FacadeTest {

// An API key just long enough (101 characters) and one just too short (100) for the facade
// to make an API object.
inline std::string longEnoughKey() {
    return std::string(101, 'k');
}
inline std::string tooShortKey() {
    return std::string(100, 'k');
}

// A copy of the facade that exposes what the interface does not hand out. Being a copy it
// shares the original's API object and clients, so its pointers are the original's.
class FacadeProbe : public CTolvaPlatform {
  public:
    explicit FacadeProbe(const CTolvaPlatform& original) : CTolvaPlatform(original) {}

    using CTolvaPlatform::countHexDigits;
    using CTolvaPlatform::m_directClient;
    using CTolvaPlatform::m_platformClient;
    using CTolvaPlatform::m_platformClientLong;
    using CTolvaPlatform::m_prevDirectClient;
    using CTolvaPlatform::m_prevPlatformClient;
    using CTolvaPlatform::m_prevPlatformClientLong;
};

// Clears the environment the facade reads, and deletes the singleton after each test case,
// so that test cases also stay independent when the whole executable runs in one process.
class FacadeFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        ::unsetenv("QXCLUSTER_WORKLOADID");
        ::unsetenv("QXCLUSTER_WORKLOADNAME");
        ::unsetenv("QX_PLATFORM_CONFIG");
        ::unsetenv("http_proxy");
        ASSERT_EQ(CTolvaPlatform::getInstance(), nullptr);
    }

    void TearDown() override {
        delete static_cast<CTolvaPlatformIF*>(CTolvaPlatform::getInstance());
        EXPECT_EQ(CTolvaPlatform::getInstance(), nullptr);
    }

    // The facade made from the given key, with every other setting empty.
    static CTolvaPlatformIF* initialize(const std::string& apiKey) {
        return InitializeQXPlatform("", "", apiKey, "", "", "", "");
    }
};

}  // namespace FacadeTest
