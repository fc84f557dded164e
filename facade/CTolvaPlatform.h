/// @class CTolvaPlatform
/// CTolvaPlatform: the one implementation of CTolvaPlatformIF, a process-wide singleton made
/// by CreateInstance (normally through InitializeQXPlatform). It keeps the connection
/// settings the host gives it, owns the platform API object once the platform URL and the API
/// key allow it to be made, and owns the HTTP clients it hands out to the host: two on the
/// platform URL (250 ms and 2.5 s time-outs), one on the direct (local discovery) URL, and
/// the previous generation of each.
///
/// Lifetime: the singleton is meant to live until the process ends; the library offers no
/// release entry point. Deleting it through the interface is nevertheless well defined: it
/// releases its API object and clients and clears the singleton pointer, so that a later
/// CreateInstance makes a new one.
///
/// Threads: no lock and no thread of its own. The host calls every operation from one thread
/// or serialises the calls itself.
#pragma once

#include <TolvaCore/CTolvaPlatformIF.h>
#include <TolvaCore/TolvaExport.h>

#include <memory>
#include <string>

namespace Varkel {
namespace Tolva {
namespace Rest {
class QxPlatformApi;
}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel

class TOLVA_EXPORT CTolvaPlatform : public CTolvaPlatformIF {
  public:
    /// Makes the singleton from the seven settings on the first call and returns it; later
    /// calls ignore their arguments and return the same object. Of the arguments only the API
    /// key, the direct URL and the parent workload identity are kept: the platform URL takes
    /// effect through setPlatformUrl, the fabric identifier and shared directory through their
    /// setters. Prints a message (and carries on) when the direct client cannot be made.
    /// Not synchronised: call it from one thread.
    static CTolvaPlatform* CreateInstance(std::string platformUrl, std::string directUrl,
                                          std::string apiKey, std::string fabricId,
                                          std::string sharedDirectory, std::string parentGUID,
                                          std::string parentName);

    /// The singleton, or null before the first CreateInstance. Never throws.
    static CTolvaPlatform* getInstance();

    /// A copy takes the same settings and shares the API object and the HTTP clients with the
    /// original: the pointers it hands out are the original's. Destroying a copy never
    /// releases what the original still uses, and never touches the singleton pointer.
    CTolvaPlatform(const CTolvaPlatform& other);
    /// Takes the other's settings and shares its API object and HTTP clients.
    CTolvaPlatform& operator=(const CTolvaPlatform& other);

    /// Releases this object's share of the API object (whose own teardown runs here if this
    /// was its last owner) and of the HTTP clients, and clears the singleton pointer if it
    /// designates this object. Never throws.
    ~CTolvaPlatform() override;

    /// Clears the platform URL and the direct URL held here (the clients and the API object
    /// are kept). Returns true. Never throws.
    bool TolvaPlatformInit() override;

    /// Stores the URL (always, even when unchanged). While there is no API object, makes one
    /// if the URL is longer than 7 characters and begins with "http://" or "https://" and the
    /// key is longer than 100 characters; then pauses the caller for 7000 ms. Then always
    /// makes a new pair of platform clients, keeping the previous pair alive one more
    /// generation; a client failure is printed as "Failed to create KOVA platform client: ..."
    /// and not thrown. An existing API object keeps its own URL. Throws what making the API
    /// object throws.
    void setPlatformUrl(std::string url) override;

    /// Stores the URL and makes a new direct client when the URL differs from the current
    /// one; a client is attempted only for URLs beginning with "http://" or "https:/".
    /// A failure is printed as "Failed to create KOVA local discovery client: ...." and not
    /// thrown.
    void setDirectUrl(std::string url) override;

    /// Stores the key; if there is an API object, passes the key on to it (which forgets its
    /// token). Never makes the API object: call setPlatformUrl afterwards for that.
    void setTolvaApiKey(std::string key) override;

    /// The remaining overrides behave as documented on CTolvaPlatformIF; none of them throws
    /// except postNotification (what the API object's postNotification throws). The getters
    /// of the platform URL and the API key read the API object, not the values stored here,
    /// so they stay empty until setPlatformUrl has made it; the narrow getters keep the low
    /// 8 bits of each character.
    void setTolvaFabricId(std::string id) override;
    void setSharedDirectory(std::string dir) override;
    std::wstring getPlatformUrl() override;
    std::string getStringPlatformUrl() override;
    std::wstring getDirectUrl() override;
    std::string getStringDirectUrl() override;
    std::wstring getTolvaApiKey() override;
    std::string getStringTolvaApiKey() override;
    std::wstring getFabricId() override;
    std::string getStringFabricId() override;
    std::wstring getCurrentToken() override;
    std::string getSharedDirectory() override;
    std::string getParentGUID() override;
    std::string getParentName() override;
    bool isIdentifierValid(const std::string& identifier) const override;
    void postNotification(const std::wstring& topic, const std::wstring& content,
                          unsigned int ttl) override;
    web::http::client::http_client* getPlatformClient(bool longTimeout) override;

    /// The API object, shared with the caller; empty until setPlatformUrl has made it. Include
    /// <TolvaCore/QxPlatformApi.h> to use it. Never throws.
    std::shared_ptr<Varkel::Tolva::Rest::QxPlatformApi> getQxAPI();

    /// The singleton; set from inside the constructor, before it completes.
    static CTolvaPlatform* m_pTolvaPlatform;

  protected:
    /// The number of bytes of `text` that are hexadecimal digits (isxdigit of the unsigned
    /// byte). Never throws.
    int countHexDigits(const std::string& text) const;

    /// The clients are held through shared ownership although the host only ever sees raw
    /// pointers: a copy of the facade shares them with the original, and after a failed
    /// client creation the same client sits in both the current and the previous slot.
    /// With plain owning pointers either case ends in a double delete.
    using HttpClientPtr = std::shared_ptr<web::http::client::http_client>;

    /// The API object; null until setPlatformUrl could make it.
    std::shared_ptr<Varkel::Tolva::Rest::QxPlatformApi> m_api;
    std::wstring m_platformUrl;              ///< the platform URL as given
    std::wstring m_directUrl;                ///< the direct (local discovery) URL
    std::wstring m_fabricId;                 ///< the fabric id
    std::wstring m_apiKey;                   ///< the API key (a secret; never logged)
    std::string m_sharedDirectory;           ///< the shared directory
    std::string m_parentGUID;                ///< the parent GUID
    std::string m_parentName;                ///< the parent name
    HttpClientPtr m_prevPlatformClient;      ///< the previous 250 ms platform client
    HttpClientPtr m_prevDirectClient;        ///< the previous direct client
    HttpClientPtr m_prevPlatformClientLong;  ///< the previous 2.5 s platform client
    HttpClientPtr m_platformClient;          ///< time-out 250 ms
    HttpClientPtr m_platformClientLong;      ///< time-out 2.5 s
    HttpClientPtr m_directClient;            ///< time-out 250 ms

  private:
    CTolvaPlatform(std::string platformUrl, std::string directUrl, std::string apiKey,
                   std::string fabricId, std::string sharedDirectory, std::string parentGUID,
                   std::string parentName);

    void InitQXPlatform();
    void createNewPlatformClient();
    void createNewDirectClient();
};
