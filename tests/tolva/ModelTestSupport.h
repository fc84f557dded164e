// Shared pieces of the model tests: a complete service record and a check for the throw line
// that the library's exceptions write on the root logger.
#pragma once

#include "RestTestSupport.h"

#include <TolvaCore/ModelServiceHealth.h>
#include <TolvaCore/ModelServiceInfo.h>

#include <ZuCore/MakeShared.h>
#include <ZuCore/ZuUUID.h>

#include <memory>
#include <string>

namespace TolvaRestTest {

using Varkel::Tolva::Rest::Model::HealthState;
using Varkel::Tolva::Rest::Model::ModelServiceHealth;
using Varkel::Tolva::Rest::Model::ModelServiceInfo;

// A record that passes validate(), with a fresh random id.
inline std::shared_ptr<ModelServiceInfo> completeServiceInfo() {
    auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
    info->serviceId = std::make_shared<Varkel::Zu::ZuUUID>(Varkel::Zu::ZuUUID::generateRandom());
    info->serviceType = L"render";
    info->serviceInstance = L"render-01";
    info->serviceAddress = L"10.1.2.3";
    info->reverseProxyPathRule = L"/render/";
    info->servicePort = 8443;
    info->serviceHealth = Varkel::Zu::MakeShared::create<ModelServiceHealth>();
    return info;
}

// Whether the root logger got "THROWING EXCEPTION with message : " + message + " in " ...
// " (" + sourcePath + "(" line "))" at error level.
inline bool hasThrowLine(const LogRecords& records, const std::wstring& message,
                         const std::wstring& sourcePath) {
    const std::wstring start = L"THROWING EXCEPTION with message : " + message + L" in ";
    const std::wstring pathPart = L" (" + sourcePath + L"(";
    for (const auto& record : records.records()) {
        if (record.logger == "root" && record.level == "error" &&
            record.message.rfind(start, 0) == 0 &&
            record.message.find(pathPart, start.size()) != std::wstring::npos &&
            record.message.size() > 2 &&
            record.message.compare(record.message.size() - 2, 2, L"))") == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace TolvaRestTest
