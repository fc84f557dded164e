#include <TolvaCore/CTolvaPlatform.h>

#include <TolvaCore/QxPlatformApi.h>
#include <TolvaCore/WebUtils.h>
#include <TolvaCore/private/TlsTrust.h>

#include <ZuCore/Env.h>
#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>

#include <cpprest/http_client.h>

using Varkel::Tolva::Rest::QxPlatformApi;
using web::http::client::http_client;
using web::http::client::http_client_config;

namespace {

// Time-outs of the clients handed to the host.
constexpr std::chrono::microseconds kShortClientTimeout{250000};
constexpr std::chrono::microseconds kLongClientTimeout{2500000};

// How long setPlatformUrl pauses after making the API object.
constexpr std::chrono::milliseconds kApiStartPause{7000};

// Shortest platform URL and API key that can make an API object.
constexpr std::size_t kMinPlatformUrlLength = 8;
constexpr std::size_t kMinApiKeyLength = 101;

// The narrow getters hand each character's low 8 bits to the host as one byte, not UTF-8:
// that is what hosts written against this interface receive, so U+00E9 comes out as the
// single byte 0xE9 and characters above U+00FF lose their high bits.
std::string keepLowBytes(const std::wstring& text) {
    std::string bytes;
    bytes.reserve(text.size());
    for (wchar_t c : text) {
        bytes.push_back(static_cast<char>(static_cast<unsigned char>(c & 0xFF)));
    }
    return bytes;
}

// Whether `text` begins with the first `count` characters of `prefix`; case-sensitive.
bool beginsWith(const std::wstring& text, const wchar_t* prefix, std::size_t count) {
    return text.compare(0, count, prefix, count) == 0;
}

int hexDigitCount(const std::string& text) {
    int count = 0;
    for (char c : text) {
        if (std::isxdigit(static_cast<unsigned char>(c)) != 0) {
            ++count;
        }
    }
    return count;
}

// The clients' URI: the HTTP library's text type is UTF-8.
web::uri toUri(const std::wstring& url) {
    return web::uri(Varkel::Zu::narrow(url));
}

}  // namespace

CTolvaPlatform* CTolvaPlatform::m_pTolvaPlatform = nullptr;

CTolvaPlatform* CTolvaPlatform::CreateInstance(std::string platformUrl, std::string directUrl,
                                               std::string apiKey, std::string fabricId,
                                               std::string sharedDirectory, std::string parentGUID,
                                               std::string parentName) {
    if (m_pTolvaPlatform == nullptr) {
        try {
            m_pTolvaPlatform =
                new CTolvaPlatform(std::move(platformUrl), std::move(directUrl), std::move(apiKey),
                                   std::move(fabricId), std::move(sharedDirectory),
                                   std::move(parentGUID), std::move(parentName));
        } catch (...) {
            // The constructor publishes itself before it completes; never leave the
            // pointer designating an object that failed to construct.
            m_pTolvaPlatform = nullptr;
            throw;
        }
    }
    return m_pTolvaPlatform;
}

CTolvaPlatform* CTolvaPlatform::getInstance() {
    return m_pTolvaPlatform;
}

CTolvaPlatform::CTolvaPlatform(std::string platformUrl, std::string directUrl, std::string apiKey,
                               std::string /*fabricId*/, std::string /*sharedDirectory*/,
                               std::string parentGUID, std::string parentName) {
    m_platformUrl = Varkel::Zu::widen(platformUrl);
    m_apiKey = Varkel::Zu::widen(apiKey);
    m_pTolvaPlatform = this;
    // Clears the platform URL again: the API object is made only by an explicit
    // setPlatformUrl, so the URL given here is deliberately discarded and the
    // InitQXPlatform below returns at once.
    CTolvaPlatform::TolvaPlatformInit();
    InitQXPlatform();

    // The raw bytes of the environment, unconverted, like the arguments they stand in for.
    m_parentGUID = !parentGUID.empty()
                       ? parentGUID
                       : Varkel::Zu::Env::getVar(std::string("QXCLUSTER_WORKLOADID"));
    m_parentName = !parentName.empty()
                       ? parentName
                       : Varkel::Zu::Env::getVar(std::string("QXCLUSTER_WORKLOADNAME"));

    CTolvaPlatform::setDirectUrl(std::move(directUrl));
    // The fabric identifier and the shared directory are accepted and dropped: hosts set
    // them through setTolvaFabricId and setSharedDirectory.
}

CTolvaPlatform::CTolvaPlatform(const CTolvaPlatform& other) = default;

CTolvaPlatform& CTolvaPlatform::operator=(const CTolvaPlatform& other) = default;

CTolvaPlatform::~CTolvaPlatform() {
    m_api.reset();
    // Only the singleton itself clears the pointer, and it never deletes through it: the
    // object designated is the one being destroyed (or another one that a copy must not
    // take down), so deleting it here would re-enter this destructor.
    if (m_pTolvaPlatform == this) {
        m_pTolvaPlatform = nullptr;
    }
    // Released in the facade's usual order; a client a copy still holds lives on with it.
    m_prevPlatformClient.reset();
    m_prevDirectClient.reset();
    m_platformClient.reset();
    m_directClient.reset();
    m_prevPlatformClientLong.reset();
    m_platformClientLong.reset();
}

bool CTolvaPlatform::TolvaPlatformInit() {
    m_platformUrl.clear();
    m_directUrl.clear();
    return true;
}

void CTolvaPlatform::setPlatformUrl(std::string url) {
    m_platformUrl = Varkel::Zu::widen(url);
    if (!m_api) {
        InitQXPlatform();
    }
    createNewPlatformClient();
}

void CTolvaPlatform::setDirectUrl(std::string url) {
    std::wstring wide = Varkel::Zu::widen(url);
    if (wide != m_directUrl) {
        m_directUrl = std::move(wide);
        createNewDirectClient();
    }
}

void CTolvaPlatform::setTolvaApiKey(std::string key) {
    m_apiKey = Varkel::Zu::widen(key);
    if (m_api) {
        m_api->setPlatformApiKey(m_apiKey);
    }
}

void CTolvaPlatform::setTolvaFabricId(std::string id) {
    std::wstring wide = Varkel::Zu::widen(id);
    if (wide != m_fabricId) {
        m_fabricId = std::move(wide);
    }
}

void CTolvaPlatform::setSharedDirectory(std::string dir) {
    m_sharedDirectory = std::move(dir);
}

std::wstring CTolvaPlatform::getPlatformUrl() {
    return m_api ? m_api->getPlatformUrl() : std::wstring();
}

std::string CTolvaPlatform::getStringPlatformUrl() {
    return m_api ? keepLowBytes(m_api->getPlatformUrl()) : std::string();
}

std::wstring CTolvaPlatform::getDirectUrl() {
    return m_directUrl;
}

std::string CTolvaPlatform::getStringDirectUrl() {
    return keepLowBytes(getDirectUrl());
}

std::wstring CTolvaPlatform::getTolvaApiKey() {
    return m_api ? m_api->getPlatformApiKey() : std::wstring();
}

std::string CTolvaPlatform::getStringTolvaApiKey() {
    return m_api ? keepLowBytes(m_api->getPlatformApiKey()) : std::string();
}

std::wstring CTolvaPlatform::getFabricId() {
    return m_fabricId;
}

std::string CTolvaPlatform::getStringFabricId() {
    return keepLowBytes(getFabricId());
}

std::wstring CTolvaPlatform::getCurrentToken() {
    if (!m_api) {
        return std::wstring();
    }
    // The heartbeat task may renew the token at any moment: read a locked copy of its text.
    return L"Bearer " + m_api->getCurrentAccessToken();
}

std::string CTolvaPlatform::getSharedDirectory() {
    return m_sharedDirectory;
}

std::string CTolvaPlatform::getParentGUID() {
    return m_parentGUID;
}

std::string CTolvaPlatform::getParentName() {
    return m_parentName;
}

bool CTolvaPlatform::isIdentifierValid(const std::string& identifier) const {
    if (identifier.size() != 36) {
        return false;
    }
    for (std::size_t dash : {8, 13, 18, 23}) {
        if (identifier[dash] != '-') {
            return false;
        }
    }
    return hexDigitCount(identifier) == 32;
}

void CTolvaPlatform::postNotification(const std::wstring& topic, const std::wstring& content,
                                      unsigned int ttl) {
    if (m_api) {
        m_api->postNotification(topic, content, ttl);
    }
}

http_client* CTolvaPlatform::getPlatformClient(bool longTimeout) {
    return longTimeout ? m_platformClientLong.get() : m_platformClient.get();
}

std::shared_ptr<QxPlatformApi> CTolvaPlatform::getQxAPI() {
    return m_api;
}

int CTolvaPlatform::countHexDigits(const std::string& text) const {
    return hexDigitCount(text);
}

void CTolvaPlatform::InitQXPlatform() {
    if (m_platformUrl.size() < kMinPlatformUrlLength) {
        return;
    }
    if (m_apiKey.size() < kMinApiKeyLength) {
        return;
    }
    if (!beginsWith(m_platformUrl, L"http://", 7) && !beginsWith(m_platformUrl, L"https://", 8)) {
        return;
    }
    m_api = Varkel::Zu::MakeShared::create<QxPlatformApi>(m_platformUrl, m_apiKey);

    // The singleton is never destroyed, so nothing would stop the API object's heartbeat
    // task, and the HTTP library's task pool waits for its tasks when the process exits:
    // without this the process would never end. Registered after the API object (and with
    // it the task pool and the loggers) exists, so it runs before their teardown.
    // A lambda rather than a member function, so that the exported class gains no symbol.
    void (*const releaseApiAtExit)() = [] {
        if (m_pTolvaPlatform != nullptr) {
            m_pTolvaPlatform->m_api.reset();
        }
    };
    static const bool releaseAtExitRegistered = std::atexit(releaseApiAtExit) == 0;
    static_cast<void>(releaseAtExitRegistered);

    std::this_thread::sleep_for(kApiStartPause);
}

void CTolvaPlatform::createNewPlatformClient() {
    // The current pair stays alive one more generation because the host may still use the
    // raw pointers it got; assigning over the previous pair releases the one before it.
    m_prevPlatformClient = m_platformClient;
    m_prevPlatformClientLong = m_platformClientLong;
    // The current slots are deliberately left as they are: if the new clients cannot be
    // made, getPlatformClient keeps returning the last working pair, now held by both the
    // current and the previous slot. Shared ownership makes that safe; it stays valid for as
    // long as either slot holds it.
    //
    // No scheme check here: any text goes to the URI parser. The HTTP library itself only
    // accepts http and https URLs with a host, so an ftp URL (or one without a host) ends in
    // the printed message rather than in a client.
    Varkel::Tolva::WebUtils::settleHttpThreadPool();
    try {
        http_client_config shortConfig;
        shortConfig.set_timeout(kShortClientTimeout);
        m_platformClient = Varkel::Tolva::TlsTrust::makeClient(toUri(m_platformUrl), shortConfig);

        http_client_config longConfig;
        longConfig.set_timeout(kLongClientTimeout);
        m_platformClientLong =
            Varkel::Tolva::TlsTrust::makeClient(toUri(m_platformUrl), longConfig);
    } catch (const std::exception& e) {
        std::printf("Failed to create KOVA platform client: %s\n", e.what());
    }
}

void CTolvaPlatform::createNewDirectClient() {
    m_prevDirectClient = std::move(m_directClient);
    m_directClient.reset();
    Varkel::Tolva::WebUtils::settleHttpThreadPool();
    try {
        http_client_config config;
        config.set_timeout(kShortClientTimeout);
        // "https://" is compared over its first 7 characters only, so "https:/" followed by
        // anything still gets a client attempt; this acceptance is kept as hosts know it,
        // stricter than the one for the API object.
        if (beginsWith(m_directUrl, L"http://", 7) || beginsWith(m_directUrl, L"https://", 7)) {
            m_directClient = Varkel::Tolva::TlsTrust::makeClient(toUri(m_directUrl), config);
        }
    } catch (const std::exception& e) {
        std::printf("Failed to create KOVA local discovery client: %s.\n", e.what());
    }
}
