#include <ZuCore/Named.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

using Varkel::Zu::Named;

namespace {
class Renamed : public Named {
  public:
    using Named::Named;
    std::wstring getName() const override { return L"[" + Named::getName() + L"]"; }
};
}  // namespace

TEST(NamedTest, HoldsItsName) {
    EXPECT_EQ(Named().getName(), L"");
    Named named(L"worker");
    EXPECT_EQ(named.getName(), L"worker");
    named.setName(L"renamed");
    EXPECT_EQ(named.getName(), L"renamed");
}

TEST(NamedTest, CopiesTheName) {
    const Named original(L"original");
    Named copy(original);
    EXPECT_EQ(copy.getName(), L"original");
    Named assigned;
    assigned = original;
    EXPECT_EQ(assigned.getName(), L"original");
}

TEST(NamedTest, AccessorsAreVirtual) {
    Renamed renamed(L"x");
    const Named& base = renamed;
    EXPECT_EQ(base.getName(), L"[x]");
}

TEST(NamedTest, ConcurrentReadsAndWritesAreSafe) {
    Named named(L"start");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&named, t] {
            for (int i = 0; i < 500; ++i) {
                if (t % 2 == 0) {
                    named.setName(L"name " + std::to_wstring(i));
                } else {
                    const std::wstring name = named.getName();
                    EXPECT_TRUE(name == L"start" || name.rfind(L"name ", 0) == 0);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(named.getName(), L"name 499");
}
