// VerifiedTokenCache: entries by digest within a context, the least recently used going beyond
// the bound, and a new key set or new rules dropping every entry.
#include "RestTestSupport.h"

#include <TolvaCore/private/VerifiedTokenCache.h>

#include <memory>
#include <string>

namespace TolvaRestTest {
namespace {

using Varkel::Tolva::JwtProfile;
using Varkel::Tolva::VerifiedTokenCache;
using web::json::value;

void noIndex(VerifiedTokenCache::Context& /*context*/) {}

value keySetWith(const std::string& kid) {
    return value::parse(R"({"keys":[{"kid":")" + kid + R"(","use":"sig"}]})");
}

VerifiedTokenCache::Entry entryExpiringAt(std::int64_t expiry) {
    VerifiedTokenCache::Entry entry;
    entry.claims = std::make_shared<const value>(value::parse(R"({"acc":"a"})"));
    entry.expiry = expiry;
    return entry;
}

TEST(VerifiedTokenCacheTest, AnEntryIsFoundByTheDigestOfItsTextInItsContext) {
    VerifiedTokenCache cache;
    const auto context = cache.contextFor(keySetWith("k1"), JwtProfile::Platform, "", "", noIndex);
    const auto digest = VerifiedTokenCache::digestOf("a.b.c");
    cache.insert(digest, context->generation, entryExpiringAt(42));
    VerifiedTokenCache::Entry found;
    ASSERT_TRUE(cache.find(digest, context->generation, found));
    EXPECT_EQ(found.expiry, 42);
    EXPECT_EQ(found.claims->at("acc").as_string(), "a");
    EXPECT_FALSE(cache.find(VerifiedTokenCache::digestOf("a.b.d"), context->generation, found));
    EXPECT_NE(VerifiedTokenCache::digestOf("a.b.c"), VerifiedTokenCache::digestOf("a.b.d"));
}

TEST(VerifiedTokenCacheTest, AnEqualKeySetKeepsTheContextAndAnyOtherDropsEveryEntry) {
    VerifiedTokenCache cache;
    const auto first = cache.contextFor(keySetWith("k1"), JwtProfile::Platform, "", "", noIndex);
    const auto digest = VerifiedTokenCache::digestOf("a.b.c");
    cache.insert(digest, first->generation, entryExpiringAt(1));
    EXPECT_EQ(cache.contextFor(keySetWith("k1"), JwtProfile::Platform, "", "", noIndex), first);
    EXPECT_EQ(cache.size(), 1u);

    const auto rotated = cache.contextFor(keySetWith("k2"), JwtProfile::Platform, "", "", noIndex);
    EXPECT_NE(rotated->generation, first->generation);
    EXPECT_EQ(cache.size(), 0u);
    VerifiedTokenCache::Entry found;
    EXPECT_FALSE(cache.find(digest, rotated->generation, found));
    // A verification that began under the old key set neither finds nor adds.
    EXPECT_FALSE(cache.find(digest, first->generation, found));
    cache.insert(digest, first->generation, entryExpiringAt(1));
    EXPECT_EQ(cache.size(), 0u);

    cache.insert(digest, rotated->generation, entryExpiringAt(1));
    for (const auto& rules : {std::make_pair(JwtProfile::Rfc9068, std::string()),
                              std::make_pair(JwtProfile::Platform, std::string("issuer"))}) {
        cache.contextFor(keySetWith("k2"), rules.first, rules.second, "", noIndex);
        EXPECT_EQ(cache.size(), 0u);
    }
}

TEST(VerifiedTokenCacheTest, TheLeastRecentlyUsedEntryGoesBeyondTheBound) {
    VerifiedTokenCache cache(3);
    const auto context = cache.contextFor(keySetWith("k1"), JwtProfile::Platform, "", "", noIndex);
    const auto digestOf = [](int i) { return VerifiedTokenCache::digestOf(std::to_string(i)); };
    for (int i = 0; i < 3; ++i) {
        cache.insert(digestOf(i), context->generation, entryExpiringAt(i));
    }
    VerifiedTokenCache::Entry found;
    // 0 used again: 1 is now the least recently used.
    ASSERT_TRUE(cache.find(digestOf(0), context->generation, found));
    cache.insert(digestOf(3), context->generation, entryExpiringAt(3));
    EXPECT_EQ(cache.size(), 3u);
    EXPECT_FALSE(cache.find(digestOf(1), context->generation, found));
    for (const int kept : {0, 2, 3}) {
        ASSERT_TRUE(cache.find(digestOf(kept), context->generation, found)) << kept;
        EXPECT_EQ(found.expiry, kept);
    }
    EXPECT_EQ(VerifiedTokenCache::kCapacity, 1024u);
}

}  // namespace
}  // namespace TolvaRestTest
