#pragma once

#include <QJsonObject>

namespace vantro::host {

// What the middleware diagnostics program prints: the PKCS#11 modules found, with their slots,
// tokens and certificates, and the PC/SC readers with their cards' ATRs. It reports failures
// in place and never throws.
QJsonObject diagnose();

} // namespace vantro::host
