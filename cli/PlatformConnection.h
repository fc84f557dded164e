// PlatformConnection: the platform URL and API key a command works with, taken from
// --url / --credentials / --credentials-file over the "QX_PLATFORM_CONFIG" document, and the
// API object made from them.
#pragma once

#include "Arguments.h"

#include <TolvaCore/QxPlatformApi.h>

#include <memory>
#include <string>

namespace tolva {

class PlatformConnection {
  public:
    // Resolves the URL and the key. Throws UsageError when either is missing, the URL is not
    // an http:// or https:// URL, the credentials file cannot be read, or QX_PLATFORM_CONFIG
    // is not a valid configuration document.
    explicit PlatformConnection(const Arguments& arguments);

    const std::string& url() const { return url_; }

    // Makes the API object, which obtains its first token. Throws std::runtime_error with
    // the library's reason when no token could be obtained.
    std::shared_ptr<Varkel::Tolva::Rest::QxPlatformApi> connect() const;

    // connect() for the commands that keep the object running (listen, register): it
    // recovers from ordinary outages itself (RecoveryMode::Resilient) instead of dropping a
    // mailbox or a service, whatever TOLVA_RECOVERY says.
    std::shared_ptr<Varkel::Tolva::Rest::QxPlatformApi> connectResilient() const;

    // Remembers the text of the library's latest error record, so that a failure the library
    // only logs can be reported (the records of its event log, "TolvaCore.Events", are left
    // out: they restate a failure already logged). Call once at start.
    static void watchLibraryErrors();
    // The latest error record's text ("" when none).
    static std::string lastLibraryError();

  private:
    std::string url_;
    std::string key_;
};

}  // namespace tolva
