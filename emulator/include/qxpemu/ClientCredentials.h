// An OAuth2 client that the emulator's identity service knows.
#pragma once

#include <string>

namespace qxpemu {

// The token endpoint accepts "Authorization: Basic " + base64(clientId + ":" + secret)
// and issues tokens whose "acc" claim is `account` and whose "sub" is `clientId`.
struct ClientCredentials {
    std::string clientId;
    std::string secret;
    std::string account;
};

}  // namespace qxpemu
