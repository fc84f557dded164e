#include "TlsTrust.h"

#include <ZuCore/Env.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/Logger.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ThrowException.h>

#include <mutex>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace Varkel {
namespace Tolva {
namespace TlsTrust {

namespace {

using Varkel::Zu::narrow;
using Varkel::Zu::widen;

const std::shared_ptr<Varkel::Zu::Logger>& webUtilLogger() {
    static const std::shared_ptr<Varkel::Zu::Logger> logger =
        Varkel::Zu::Logger::getLogger("TolvaCore.WebUtil");
    return logger;
}

struct StoreFree {
    void operator()(X509_STORE* store) const { X509_STORE_free(store); }
};
using StorePtr = std::unique_ptr<X509_STORE, StoreFree>;

// The process's trust: built on first use, rebuilt when the host names another CA file.
// Never destroyed: connections may still be opened while the process exits.
struct Trust {
    std::mutex mutex;
    bool environmentRead = false;
    std::string caFile;
    StorePtr store;
};

Trust& trust() {
    static Trust* const made = new Trust;
    return *made;
}

// The system's trust store plus the certificates of caFile; empty when caFile cannot be
// read or holds no certificate.
StorePtr buildStore(const std::string& caFile) {
    StorePtr store(X509_STORE_new());
    if (!store || X509_STORE_set_default_paths(store.get()) != 1) {
        ERR_clear_error();
        return nullptr;
    }
    if (!caFile.empty() && X509_STORE_load_file(store.get(), caFile.c_str()) != 1) {
        ERR_clear_error();
        return nullptr;
    }
    ERR_clear_error();
    return store;
}

// Reads "TOLVA_CA_FILE" once, unless the host named a file first. Called with the lock held.
void readEnvironmentLocked(Trust& state) {
    if (state.environmentRead) {
        return;
    }
    state.environmentRead = true;
    const std::string fromEnvironment =
        narrow(Varkel::Zu::Env::getVar(std::wstring(L"TOLVA_CA_FILE"), L""));
    if (fromEnvironment.empty()) {
        return;
    }
    if (StorePtr store = buildStore(fromEnvironment)) {
        state.caFile = fromEnvironment;
        state.store = std::move(store);
        return;
    }
    ZU_LOG_ERROR(webUtilLogger(), L"TOLVA_CA_FILE names no readable file of PEM certificates (" +
                                      widen(fromEnvironment) +
                                      L"); HTTPS connections trust the system's store only.");
}

// Hands ctx the shared store (counted by reference, so it outlives a later rebuild).
void shareStore(SSL_CTX* ctx) {
    Trust& state = trust();
    std::lock_guard<std::mutex> lock(state.mutex);
    readEnvironmentLocked(state);
    if (!state.store) {
        state.store = buildStore("");
    }
    if (state.store) {
        SSL_CTX_set1_cert_store(ctx, state.store.get());
    }
}

// Why the last certificate check of one client's connections failed; empty after a check
// that passed.
class FailureNote {
  public:
    FailureNote(std::string host, std::string hostAndPort)
        : host_(std::move(host)), hostAndPort_(std::move(hostAndPort)) {}

    const std::string& host() const { return host_; }
    const std::string& hostAndPort() const { return hostAndPort_; }

    void set(std::string text) {
        std::lock_guard<std::mutex> lock(mutex_);
        text_ = std::move(text);
    }

    std::string get() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return text_;
    }

  private:
    const std::string host_;
    const std::string hostAndPort_;
    mutable std::mutex mutex_;
    std::string text_;
};

// Each TLS context carries a heap copy of its client's note; OpenSSL frees it with the
// context, which the connection may keep after the client is gone.
void freeNote(void*, void* note, CRYPTO_EX_DATA*, int, long, void*) {
    delete static_cast<std::shared_ptr<FailureNote>*>(note);
}

int noteIndex() {
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, freeNote);
    return index;
}

bool certificateNamesHost(X509* leaf, const std::string& host) {
    if (leaf == nullptr) {
        return false;
    }
    // An address in brackets (IPv6) is checked without them.
    std::string bare = host;
    if (bare.size() > 2 && bare.front() == '[' && bare.back() == ']') {
        bare = bare.substr(1, bare.size() - 2);
    }
    if (X509_check_ip_asc(leaf, bare.c_str(), 0) == 1) {
        return true;
    }
    return X509_check_host(leaf, bare.c_str(), bare.size(), 0, nullptr) == 1;
}

// The whole chain check, as OpenSSL would run it (the HTTP library's host-name check runs
// inside it), with its outcome noted for the connection's client.
int verifyChain(X509_STORE_CTX* storeContext, void*) {
    const int verified = X509_verify_cert(storeContext);
    auto* ssl = static_cast<SSL*>(
        X509_STORE_CTX_get_ex_data(storeContext, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto* note = ssl == nullptr ? nullptr
                                : static_cast<std::shared_ptr<FailureNote>*>(
                                      SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), noteIndex()));
    if (note == nullptr) {
        return verified;
    }
    if (verified > 0) {
        (*note)->set("");
        return verified;
    }
    const int error = X509_STORE_CTX_get_error(storeContext);
    X509* leaf = X509_STORE_CTX_get0_cert(storeContext);
    if ((error == X509_V_OK || error == X509_V_ERR_UNSPECIFIED ||
         error == X509_V_ERR_HOSTNAME_MISMATCH || error == X509_V_ERR_IP_ADDRESS_MISMATCH) &&
        !certificateNamesHost(leaf, (*note)->host())) {
        (*note)->set("the server's certificate is not valid for the host name " + (*note)->host());
    } else {
        (*note)->set(std::string("the server's certificate is not trusted (") +
                     X509_verify_cert_error_string(error) + ")");
    }
    return verified;
}

std::string explainHandshakeFailure(const FailureNote& note, const web::http::http_exception& e) {
    std::string reason = note.get();
    if (reason.empty()) {
        // No certificate check failed: a protocol or transport failure. The error code is
        // OpenSSL's when it names an OpenSSL library; otherwise it is a system error.
        const auto code = static_cast<unsigned long>(e.error_code().value());
        const char* openSslReason =
            ERR_GET_LIB(code) != 0 ? ERR_reason_error_string(code) : nullptr;
        reason = openSslReason != nullptr ? openSslReason : e.what();
    }
    return "TLS handshake with " + note.hostAndPort() + " failed: " + reason;
}

}  // namespace

std::shared_ptr<web::http::client::http_client> makeClient(
    const web::uri& uri, web::http::client::http_client_config config) {
    if (uri.scheme() != "https") {
        return std::make_shared<web::http::client::http_client>(uri, config);
    }
    auto note = std::make_shared<FailureNote>(
        uri.host(), uri.host() + ":" + std::to_string(uri.port() > 0 ? uri.port() : 443));
    config.set_ssl_context_callback([note](boost::asio::ssl::context& context) {
        SSL_CTX* ctx = context.native_handle();
        shareStore(ctx);
        // A long-polling connection is idle most of the time: its record buffers are given
        // back meanwhile.
        SSL_CTX_set_mode(ctx, SSL_MODE_RELEASE_BUFFERS);
        auto* held = new std::shared_ptr<FailureNote>(note);
        if (SSL_CTX_set_ex_data(ctx, noteIndex(), held) != 1) {
            delete held;
            return;
        }
        SSL_CTX_set_cert_verify_callback(ctx, verifyChain, nullptr);
    });
    auto client = std::make_shared<web::http::client::http_client>(uri, config);
    client->add_handler([note](web::http::http_request request,
                               std::shared_ptr<web::http::http_pipeline_stage> next) {
        // The continuation takes the finished task, so it never waits.
        return next->propagate(request).then(
            [note](pplx::task<web::http::http_response> sent) -> web::http::http_response {
                try {
                    return sent.get();
                } catch (const web::http::http_exception& e) {
                    if (std::string(e.what()).find("SSL handshake") == std::string::npos) {
                        throw;
                    }
                    throw web::http::http_exception(e.error_code().value(),
                                                    explainHandshakeFailure(*note, e));
                }
            });
    });
    return client;
}

void setCaFile(const std::string& path) {
    StorePtr store = buildStore(path);
    if (!store) {
        ZU_THROW(Varkel::Zu::InvalidArgumentException,
                 L"The CA file " + widen(path) +
                     L" cannot be read or holds no PEM certificate; the trusted CAs are "
                     L"left as they were.");
    }
    Trust& state = trust();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.environmentRead = true;
    state.caFile = path;
    state.store = std::move(store);
}

std::string caFile() {
    Trust& state = trust();
    std::lock_guard<std::mutex> lock(state.mutex);
    readEnvironmentLocked(state);
    return state.caFile;
}

}  // namespace TlsTrust
}  // namespace Tolva
}  // namespace Varkel
