/// @file
/// The host's entry points into the platform facade: InitializeQXPlatform makes (or returns)
/// the process-wide CTolvaPlatform, GetQXInstance checks the environment configuration.
#pragma once

#include <TolvaCore/CTolvaPlatformIF.h>
#include <TolvaCore/TolvaExport.h>

#include <string>

/// Makes the facade singleton from the seven settings on the first call (see
/// CTolvaPlatform::CreateInstance) and returns it; later calls ignore their arguments and
/// return the same object. Either way it then runs GetQXInstance. Throws what GetQXInstance
/// throws (the singleton exists by then). Call it from one thread.
TOLVA_EXPORT CTolvaPlatformIF* InitializeQXPlatform(std::string platformUrl, std::string directUrl,
                                                    std::string apiKey, std::string fabricId,
                                                    std::string sharedDirectory,
                                                    std::string parentGUID, std::string parentName);

/// Makes an API object from the environment variable "QX_PLATFORM_CONFIG" and, if one was
/// made, prints "Api gotten!" to standard output (no line end); the object is then released
/// again, nothing is kept. Prints nothing when the variable is unset or empty. Blocks for the
/// API object's first token request. Throws what QxPlatformApi::createFromEnvVar throws
/// (web::json::json_exception for a malformed configuration).
TOLVA_EXPORT void GetQXInstance();
