// Services registered and unregistered from several threads while the heartbeat task runs
// its passes and the services' health changes: nothing lost, nothing left behind, and (under
// ThreadSanitizer) no data race.
#include "ModelTestSupport.h"

#include <ZuCore/InvalidArgumentException.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace TolvaRestTest {
namespace {

class ServiceConcurrencyTest : public RestTest {};

TEST_F(ServiceConcurrencyTest, RegistrationUnregistrationAndHealthChangesDuringHeartbeats) {
    const auto api = makeApi();
    // One service stays registered throughout, so every pass sends at least one beat.
    const auto resident = completeServiceInfo();
    api->registerService(resident);
    emulator_.clearRequests();

    std::atomic<bool> stop{false};
    std::atomic<int> registered{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            while (!stop) {
                const auto info = completeServiceInfo();
                // Copies share the live health object the health thread changes.
                info->serviceHealth = resident->serviceHealth;
                try {
                    api->registerService(info);
                    ++registered;
                    if (info->serviceSecret.empty()) {
                        ++failures;
                    }
                    api->unregisterService(info->serviceId->toWString());
                } catch (const std::exception&) {
                    ++failures;
                }
            }
        });
    }
    threads.emplace_back([&] {
        for (unsigned i = 0; !stop; ++i) {
            if (i % 2 == 0) {
                resident->serviceHealth->setHealth(HealthState::Warning, L"busy");
            } else {
                resident->serviceHealth->setToHealthy();
            }
            std::this_thread::yield();
        }
    });

    // Run until two passes have gone out while the others churn.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    std::size_t beats = 0;
    while (beats < 2 && std::chrono::steady_clock::now() < deadline) {
        const auto seen = emulator_.waitForRequests(emulator_.requests().size() + 1,
                                                    std::chrono::milliseconds(500));
        beats = 0;
        for (const auto& request : seen) {
            beats += request.method == "PUT" ? 1 : 0;
        }
    }
    stop = true;
    for (auto& thread : threads) {
        thread.join();
    }

    EXPECT_GE(beats, 2u);
    EXPECT_GT(registered.load(), 0);
    EXPECT_EQ(failures.load(), 0);
    // Only the resident service is left, on the platform and in the table.
    api->unregisterAllServices();
    EXPECT_THROW(api->unregisterService(resident->serviceId->toWString()),
                 Varkel::Zu::InvalidArgumentException);
    EXPECT_EQ(web::json::value::parse(emulator_.state()).at("services").size(), 0u);
}

}  // namespace
}  // namespace TolvaRestTest
