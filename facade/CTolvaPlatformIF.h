/// @class CTolvaPlatformIF
/// CTolvaPlatformIF: the abstract interface through which a host application uses the
/// platform facade. The host obtains the one implementation, the process-wide CTolvaPlatform,
/// from InitializeQXPlatform (TolvaCore/TolvaPlatformEntry.h) and keeps working with it
/// through this interface: connection settings go in as narrow (UTF-8) strings, the facade
/// keeps them wide, creates the platform API object once the settings allow it and hands out
/// HTTP clients for the platform URL.
///
/// The order of the virtual operations is part of the binary interface that hosts are built
/// against; new operations go at the end.
///
/// The facade has no lock: the host calls it from one thread, or serialises the calls itself.
#pragma once

#include <TolvaCore/TolvaExport.h>

#include <string>

namespace web {
namespace http {
namespace client {
class http_client;
}  // namespace client
}  // namespace http
}  // namespace web

class TOLVA_EXPORT CTolvaPlatformIF {
  public:
    /// Makes the interface part of an implementation. Never throws.
    CTolvaPlatformIF();

    /// The interface holds no data; copying it copies nothing. Never throw.
    CTolvaPlatformIF(const CTolvaPlatformIF& other);
    /// Copies nothing; the interface holds no data.
    CTolvaPlatformIF& operator=(const CTolvaPlatformIF& other);

    /// Destroys the implementation through the interface.
    virtual ~CTolvaPlatformIF();

    /// Prepares the facade for use. The interface's own version does nothing and returns true;
    /// CTolvaPlatform clears the platform URL and the direct URL it holds. Never throws.
    virtual bool TolvaPlatformInit();

    /// Stores the platform base URL (UTF-8) and makes a new pair of platform HTTP clients for
    /// it; creates the API object when there is none yet and the URL and key allow it (which
    /// blocks the caller for 7 seconds). Throws what making the API object throws.
    virtual void setPlatformUrl(std::string url) = 0;

    /// Stores the direct (local discovery) URL when it differs from the current one and makes
    /// a direct client for it. Never throws; client failures are printed.
    virtual void setDirectUrl(std::string url) = 0;

    /// Stores the API key (the client credential) and hands it to the API object if there is
    /// one. Never throws.
    virtual void setTolvaApiKey(std::string key) = 0;

    /// Stores the fabric identifier when it differs from the current one; not validated.
    virtual void setTolvaFabricId(std::string id) = 0;

    /// Stores the shared directory path as given, without conversion.
    virtual void setSharedDirectory(std::string dir) = 0;

    /// The API object's platform URL; empty while there is no API object.
    virtual std::wstring getPlatformUrl() = 0;

    /// getPlatformUrl narrowed to one byte per character (the low 8 bits).
    virtual std::string getStringPlatformUrl() = 0;

    /// The direct URL as stored.
    virtual std::wstring getDirectUrl() = 0;

    /// getDirectUrl narrowed to one byte per character (the low 8 bits).
    virtual std::string getStringDirectUrl() = 0;

    /// The API object's API key; empty while there is no API object.
    virtual std::wstring getTolvaApiKey() = 0;

    /// getTolvaApiKey narrowed to one byte per character (the low 8 bits).
    virtual std::string getStringTolvaApiKey() = 0;

    /// The fabric identifier as stored.
    virtual std::wstring getFabricId() = 0;

    /// getFabricId narrowed to one byte per character (the low 8 bits).
    virtual std::string getStringFabricId() = 0;

    /// "Bearer " followed by the access token the API object currently holds, without
    /// requesting or renewing one; empty while there is no API object.
    virtual std::wstring getCurrentToken() = 0;

    /// The shared directory path as stored.
    virtual std::string getSharedDirectory() = 0;

    /// The identifier of the parent workload.
    virtual std::string getParentGUID() = 0;

    /// The name of the parent workload.
    virtual std::string getParentName() = 0;

    /// True when `identifier` is 36 bytes with "-" at positions 8, 13, 18 and 23 and a
    /// hexadecimal digit (either case) everywhere else. Never throws.
    virtual bool isIdentifierValid(const std::string& identifier) const = 0;

    /// Posts a notification through the API object and waits for the platform's answer; does
    /// nothing while there is no API object. Throws what the API object's postNotification
    /// throws.
    virtual void postNotification(const std::wstring& topic, const std::wstring& content,
                                  unsigned int ttl) = 0;

    /// The platform client with the 2.5 s time-out when `longTimeout` is true, else the one
    /// with the 250 ms time-out; null while none has been made. The facade keeps ownership;
    /// a client stays valid until the second setPlatformUrl after the one that made it.
    virtual web::http::client::http_client* getPlatformClient(bool longTimeout) = 0;
};
