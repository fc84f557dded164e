// ModelServiceInfo::fromJson and ModelServiceHealth::fromJson on fuzzed JSON. Both may throw
// (a missing or mistyped member, a port out of range, a malformed id) but must never crash,
// and a record that reads back must survive a JSON round trip.
#include "FuzzSupport.h"

#include <TolvaCore/ModelServiceHealth.h>
#include <TolvaCore/ModelServiceInfo.h>

#include <ZuCore/MakeShared.h>

#include <cpprest/json.h>

#include <cstdlib>
#include <exception>

using namespace Varkel::Tolva::Rest::Model;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    TolvaFuzz::quietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    web::json::value in;
    try {
        in = web::json::value::parse(TolvaFuzz::bytes(data, size));
    } catch (const std::exception&) {
        // Not JSON (the parser also throws std::range_error, for a lone surrogate escape).
        return 0;
    }
    try {
        auto health = Varkel::Zu::MakeShared::create<ModelServiceHealth>();
        health->fromJson(in);
        auto again = Varkel::Zu::MakeShared::create<ModelServiceHealth>();
        again->fromJson(health->toJson());
        if (!(*again == *health)) {
            std::abort();
        }
    } catch (const std::exception&) {
    }
    try {
        auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
        info->fromJson(in);
        info->validate();
        auto again = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
        again->fromJson(info->toJson());
        if (!(*again == *info)) {
            std::abort();
        }
        info->clone(true);
        info->clone(false);
    } catch (const std::exception&) {
    }
    return 0;
}
