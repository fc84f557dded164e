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
    if (Varkel::Tolva::Rest::QxPlatformApi::createFromEnvVar()) {
        std::printf("Api gotten!");
    }
}
