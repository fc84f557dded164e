// Verifications per second of RS256 tokens (RSA-2048) from 1 and 2 threads:
// - raw OpenSSL: EVP_DigestVerify with the public key parsed once (the ceiling);
// - raw OpenSSL parsing the certificate for every token (what a verifier without a cache pays);
// - JWTUtils::verify (header and payload decoded and parsed, key looked up, certificate
//   public key from its cache);
// - JWTUtils::verify under the RFC 9068 profile: the same token and key set, and an at+jwt
//   access token with the claims that profile checks against a key without a certificate;
// - JWTUtils::verify of a token seen for the first time (a new token each call, from a pool
//   larger than any cache of verified tokens) and of the same token again, against a key set
//   of 1 and of 10 keys (the signing key last).
//
//   jwt_bench [--seconds S] [--only TEXT]
//
// --only runs the rows whose name contains TEXT, and the raw OpenSSL ceiling.
//
// Prints a Markdown table.
#include "JwtTestSigner.h"

#include <TolvaCore/JWTUtils.h>

#include <ZuCore/Base64.h>
#include <ZuCore/Logger.h>
#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <openssl/x509.h>

namespace {

using Clock = std::chrono::steady_clock;

// Runs `verifyOnce` on `threads` threads for `seconds`; returns verifications per second.
double rate(unsigned threads, double seconds, const std::function<bool()>& verifyOnce) {
    std::atomic<bool> stop{false};
    std::atomic<long> done{0};
    std::atomic<long> failed{0};
    std::vector<std::thread> workers;
    const auto start = Clock::now();
    for (unsigned t = 0; t < threads; ++t) {
        workers.emplace_back([&] {
            long mine = 0;
            while (!stop.load(std::memory_order_relaxed)) {
                if (!verifyOnce()) {
                    ++failed;
                }
                ++mine;
            }
            done += mine;
        });
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (auto& worker : workers) {
        worker.join();
    }
    if (failed > 0) {
        throw std::runtime_error("a verification failed");
    }
    return static_cast<double>(done) / std::chrono::duration<double>(Clock::now() - start).count();
}

std::shared_ptr<EVP_PKEY> keyOf(const std::string& certificateText) {
    const auto der = Varkel::Zu::Base64::decode(certificateText);
    const unsigned char* bytes = der->getData();
    std::unique_ptr<X509, void (*)(X509*)> certificate(
        d2i_X509(nullptr, &bytes, static_cast<long>(der->getSize())), X509_free);
    return std::shared_ptr<EVP_PKEY>(X509_get_pubkey(certificate.get()), EVP_PKEY_free);
}

bool rawVerify(EVP_PKEY* key, const std::string& signedText, const std::string& signature) {
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    return EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
           EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature.data()),
                            signature.size(),
                            reinterpret_cast<const unsigned char*>(signedText.data()),
                            signedText.size()) == 1;
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 3;
    std::string only;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::string(argv[i]) == "--seconds") {
            seconds = std::atof(argv[i + 1]);
        } else if (std::string(argv[i]) == "--only") {
            only = argv[i + 1];
        }
    }
    Varkel::Zu::Logger::setStderrEnabled(false);

    const TolvaRestTest::JwtTestSigner signer;
    const auto keySet = TolvaRestTest::JwtTestSigner::keySet({signer.key("k1")});
    const std::string token = signer.token(
        R"({"alg":"RS256","kid":"k1","typ":"JWT"})",
        R"({"acc":"acc-bench","sub":"svc","scope":"platform cluster","iat":1800000000,"exp":4000000000})");
    const std::wstring wideToken = Varkel::Zu::widen(token);
    const std::string signedText = token.substr(0, token.rfind('.'));
    const std::string signature =
        Varkel::Zu::Base64::decode_url(token.substr(token.rfind('.') + 1))->toString();
    const auto parsedOnce = keyOf(signer.certificateText());
    const auto verifier = Varkel::Zu::MakeShared::create<Varkel::Tolva::JWTUtils>();

    std::printf("| verification | 1 thread, per s | 2 threads, per s |\n|---|---:|---:|\n");
    const std::function<bool()> raw = [&] {
        return rawVerify(parsedOnce.get(), signedText, signature);
    };
    const std::function<bool()> rawParsing = [&] {
        const auto key = keyOf(signer.certificateText());
        return rawVerify(key.get(), signedText, signature);
    };
    const std::function<bool()> library = [&] {
        web::json::value claims;
        return verifier->verify(keySet, wideToken, claims, 1800000000) == Varkel::Tolva::Verified;
    };
    const auto profiled = Varkel::Zu::MakeShared::create<Varkel::Tolva::JWTUtils>();
    profiled->setProfile(Varkel::Tolva::JwtProfile::Rfc9068);
    const std::function<bool()> profile = [&] {
        web::json::value claims;
        return profiled->verify(keySet, wideToken, claims, 1800000000) == Varkel::Tolva::Verified;
    };
    const auto parameterKeySet = TolvaRestTest::JwtTestSigner::keySet({signer.rsaKey("k1")});
    const std::wstring accessToken = Varkel::Zu::widen(signer.token(
        R"({"alg":"RS256","kid":"k1","typ":"at+jwt"})",
        R"({"iss":"https://id.example.test","sub":"svc","aud":"qx-platform","client_id":"svc",)"
        R"("jti":"j-1","acc":"acc-bench","scope":"platform cluster","iat":1800000000,)"
        R"("exp":4000000000})"));
    profiled->setExpectedIssuer(L"https://id.example.test");
    profiled->setExpectedAudience(L"qx-platform");
    // The same claims as a "JWT" with the certificate key: what the default verifies of that size.
    const std::wstring sameClaims = Varkel::Zu::widen(signer.token(
        R"({"alg":"RS256","kid":"k1","typ":"JWT"})",
        R"({"iss":"https://id.example.test","sub":"svc","aud":"qx-platform","client_id":"svc",)"
        R"("jti":"j-1","acc":"acc-bench","scope":"platform cluster","iat":1800000000,)"
        R"("exp":4000000000})"));
    const std::function<bool()> librarySameClaims = [&] {
        web::json::value claims;
        return verifier->verify(keySet, sameClaims, claims, 1800000000) == Varkel::Tolva::Verified;
    };
    const std::function<bool()> profileAccess = [&] {
        web::json::value claims;
        return profiled->verify(parameterKeySet, accessToken, claims, 1800000000) ==
               Varkel::Tolva::Verified;
    };
    // Tokens told apart by their "jti", all signed with the last key of either key set.
    constexpr std::size_t kDistinctTokens = 2500;
    std::vector<std::wstring> distinct;
    distinct.reserve(kDistinctTokens);
    for (std::size_t i = 0; i < kDistinctTokens; ++i) {
        distinct.push_back(Varkel::Zu::widen(
            signer.token(R"({"alg":"RS256","kid":"k9","typ":"JWT"})",
                         R"({"acc":"acc-bench","sub":"svc","scope":"platform cluster","jti":"t-)" +
                             std::to_string(i) + R"(","iat":1800000000,"exp":4000000000})")));
    }
    const auto oneKey = TolvaRestTest::JwtTestSigner::keySet({signer.key("k9")});
    std::vector<web::json::value> tenKeys;
    for (int i = 0; i < 10; ++i) {
        tenKeys.push_back(signer.key("k" + std::to_string(i)));
    }
    const auto tenKeySet = TolvaRestTest::JwtTestSigner::keySet(tenKeys);
    std::atomic<std::size_t> nextToken{0};
    const auto firstVerification = [&](const web::json::value& set) {
        return std::function<bool()>([&] {
            web::json::value claims;
            const std::size_t i = nextToken.fetch_add(1, std::memory_order_relaxed);
            return verifier->verify(set, distinct[i % kDistinctTokens], claims, 1800000000) ==
                   Varkel::Tolva::Verified;
        });
    };
    const auto repeatedVerification = [&](const web::json::value& set) {
        return std::function<bool()>([&] {
            web::json::value claims;
            return verifier->verify(set, distinct[0], claims, 1800000000) ==
                   Varkel::Tolva::Verified;
        });
    };
    const std::function<bool()> firstOne = firstVerification(oneKey);
    const std::function<bool()> againOne = repeatedVerification(oneKey);
    const std::function<bool()> firstTen = firstVerification(tenKeySet);
    const std::function<bool()> againTen = repeatedVerification(tenKeySet);

    const std::pair<const char*, const std::function<bool()>*> rows[] = {
        {"raw OpenSSL, key parsed once", &raw},
        {"raw OpenSSL, certificate parsed every time", &rawParsing},
        {"JWTUtils::verify", &library},
        {"JWTUtils::verify, rfc9068 profile, same token", &profile},
        {"JWTUtils::verify, default, the at+jwt claims as a JWT", &librarySameClaims},
        {"JWTUtils::verify, rfc9068 profile, at+jwt with n/e key", &profileAccess},
        {"JWTUtils::verify, first verification, 1 key", &firstOne},
        {"JWTUtils::verify, same token again, 1 key", &againOne},
        {"JWTUtils::verify, first verification, 10 keys", &firstTen},
        {"JWTUtils::verify, same token again, 10 keys", &againTen}};
    for (const auto& row : rows) {
        if (row.second != &raw && std::string(row.first).find(only) == std::string::npos) {
            continue;
        }
        const double one = rate(1, seconds, *row.second);
        const double two = rate(2, seconds, *row.second);
        std::printf("| %s | %.0f | %.0f |\n", row.first, one, two);
        std::fflush(stdout);
    }
    return 0;
}
