#include <TolvaCore/TolvaPlatformEntry.h>

#include <TolvaCore/CTolvaPlatform.h>
#include <TolvaCore/QxPlatformApi.h>

#include <cstdio>
#include <utility>

CTolvaPlatformIF* InitializeQXPlatform(std::string platformUrl, std::string directUrl,
                                       std::string apiKey, std::string fabricId,
                                       std::string sharedDirectory, std::string parentGUID,
                                       std::string parentName) {
    CTolvaPlatform* platform = CTolvaPlatform::CreateInstance(
        std::move(platformUrl), std::move(directUrl), std::move(apiKey), std::move(fabricId),
        std::move(sharedDirectory), std::move(parentGUID), std::move(parentName));
    GetQXInstance();
    return platform;
}

void GetQXInstance() {
    // Held until the end of the function so that the message is printed before the API
    // object is torn down again (a temporary in the condition would be released first).
    const auto api = Varkel::Tolva::Rest::QxPlatformApi::createFromEnvVar();
    if (api) {
        std::printf("Api gotten!");
    }
}
