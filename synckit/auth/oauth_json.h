#pragma once

#include "synckit/auth/auth_server_metadata.h"
#include "synckit/auth/client_registration.h"
#include "synckit/auth/oauth_error.h"
#include "synckit/auth/oauth_token_response.h"
#include "synckit/auth/registration_body.h"
#include "synckit/base/bytes.h"

namespace synckit {

// JSON coding of the OAuth records: snake_case keys, no dates, unknown
// members ignored. Decoders throw DecodingError naming the key at fault; a
// null optional member counts as absent. Encoding throws EncodingError for
// text that is not valid UTF-8. Safe from any thread.
namespace OAuthJSON {

AuthServerMetadata decodeAuthServerMetadata(const Bytes& json);
ClientRegistration decodeClientRegistration(const Bytes& json);
OAuthTokenResponse decodeTokenResponse(const Bytes& json);
OAuthError::Body decodeErrorBody(const Bytes& json);

Bytes encode(const RegistrationBody& body);

}  // namespace OAuthJSON
}  // namespace synckit
