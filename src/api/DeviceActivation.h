#pragma once

#include "app/AppState.h"

#include <QJsonObject>
#include <QString>

namespace vantro {

class SignApiClient;

// Device activation: the service trades an activation code for a device identity.
//
//   POST <base>/sign/api/v1/devices/activate
//   {"activation_code": "...", "device_name": "...", "app_version": "0.2.5", "platform": "..."}
//
//   200 {"device_id", "device_secret", "workspace_id", "license": {}, "signer_profile": {},
//        "app_url": "/sign/app/documents/", "api_base": "/sign/api/v1/"}
//   400/404 {"error": {"code": "ACTIVATION_CODE_INVALID", ...}}
//   410     {"error": {"code": "ACTIVATION_CODE_EXPIRED", ...}}
//
// The request carries no device credentials. Every failure throws a CodedError whose message is
// a Lithuanian text for the activation screen; nothing is written then.
namespace activation {

// The grant in the answer, checked whole: an answer missing any field is refused. `base` is the
// service base the call went to; the web application address is made absolute on it.
AppState::Activation parseGrant(const QJsonObject& answer, const QString& base);

// Calls the service at `base` (already allowed; see resolveActivationBase) and answers the grant.
AppState::Activation request(SignApiClient& api, const QString& base, const QString& code,
                             const QString& deviceName);

// The base an activation goes to: a link's own base when the rules allow it (an unusable one
// throws VANTRO_SIGN_ACTIVATION_BASE_NOT_ALLOWED), else the client's current base.
QString resolveActivationBase(const QString& linkBase, const QString& currentBase);

// What a link carries: "vantrosign://activate?code=...&base=..." (also "vantrosign:CODE" and
// "vantrosign://activate/CODE").
struct LinkRequest
{
    QString code;
    QString base;
};
LinkRequest parseActivationLink(const QString& link);

// Codes are typed with spaces and in any case; the service gets them trimmed and upper-cased.
QString normalizeCode(const QString& code);

} // namespace activation
} // namespace vantro
