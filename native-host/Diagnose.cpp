#include "Diagnose.h"

#include "app/Errors.h"
#include "Token.h"
#include "usb/pcsc/Readers.h"

#include <QJsonArray>

namespace vantro::host {

namespace {

QJsonObject certificateJson(const TokenCertificate& certificate)
{
    const CertificateInfo& info = certificate.info;
    const char* keyType = info.keyType == KeyType::Ec    ? "EC"
                          : info.keyType == KeyType::Rsa ? "RSA"
                                                         : "unknown";
    return {{QStringLiteral("label"), certificate.label},
            {QStringLiteral("id"), QString::fromLatin1(certificate.id.toHex())},
            {QStringLiteral("subject"), info.subject},
            {QStringLiteral("issuer"), info.issuer},
            {QStringLiteral("notBefore"), info.notBefore},
            {QStringLiteral("notAfter"), info.notAfter},
            {QStringLiteral("keyUsage"), QJsonArray::fromStringList(info.keyUsage)},
            {QStringLiteral("extendedKeyUsage"), QJsonArray::fromStringList(info.extendedKeyUsage)},
            {QStringLiteral("keyType"), QLatin1String(keyType)},
            {QStringLiteral("keyBits"), info.keyBits}};
}

QJsonObject tokenJson(const Pkcs11Module& module, ck_slot_id_t slot)
{
    const struct ck_token_info info = module.tokenInfo(slot);
    const auto flag = [&info](unsigned long bit) {
        return bool(info.flags & bit);
    };
    QJsonObject token{{QStringLiteral("label"), fieldText(info.label)},
                      {QStringLiteral("manufacturer"), fieldText(info.manufacturer_id)},
                      {QStringLiteral("model"), fieldText(info.model)},
                      {QStringLiteral("serialNumber"), fieldText(info.serial_number)},
                      {QStringLiteral("initialized"), flag(CKF_TOKEN_INITIALIZED)},
                      {QStringLiteral("loginRequired"), flag(CKF_LOGIN_REQUIRED)},
                      {QStringLiteral("pinPad"), flag(CKF_PROTECTED_AUTHENTICATION_PATH)},
                      {QStringLiteral("pinCountLow"), flag(CKF_USER_PIN_COUNT_LOW)},
                      {QStringLiteral("pinFinalTry"), flag(CKF_USER_PIN_FINAL_TRY)},
                      {QStringLiteral("pinLocked"), flag(CKF_USER_PIN_LOCKED)}};
    if (!flag(CKF_TOKEN_INITIALIZED))
        return token;
    QJsonArray certificates;
    TokenSession session(module, slot);
    for (const TokenCertificate& certificate : session.certificates())
        certificates.append(certificateJson(certificate));
    token.insert(QStringLiteral("certificates"), certificates);
    return token;
}

QJsonObject slotJson(const Pkcs11Module& module, ck_slot_id_t slot)
{
    struct ck_slot_info info = {};
    check(module.api()->C_GetSlotInfo(slot, &info), "C_GetSlotInfo");
    QJsonObject out{{QStringLiteral("id"), qint64(slot)},
                    {QStringLiteral("description"), fieldText(info.slot_description)},
                    {QStringLiteral("tokenPresent"), bool(info.flags & CKF_TOKEN_PRESENT)}};
    if (info.flags & CKF_TOKEN_PRESENT) {
        try {
            out.insert(QStringLiteral("token"), tokenJson(module, slot));
        } catch (const CodedError& error) {
            out.insert(QStringLiteral("error"), error.message());
        }
    }
    return out;
}

QJsonObject moduleJson(const ModuleCandidate& candidate)
{
    QJsonObject out{{QStringLiteral("path"), candidate.path},
                    {QStringLiteral("source"), candidate.source}};
    try {
        const Pkcs11Module module(candidate.path);
        const struct ck_info info = module.info();
        out.insert(QStringLiteral("manufacturer"), fieldText(info.manufacturer_id));
        out.insert(QStringLiteral("description"), fieldText(info.library_description));
        out.insert(QStringLiteral("version"), QStringLiteral("%1.%2")
                                                  .arg(info.library_version.major)
                                                  .arg(info.library_version.minor));
        QJsonArray slotList;
        for (ck_slot_id_t slot : module.allSlots())
            slotList.append(slotJson(module, slot));
        out.insert(QStringLiteral("slots"), slotList);
        out.insert(QStringLiteral("loaded"), true);
    } catch (const CodedError& error) {
        out.insert(QStringLiteral("loaded"), false);
        out.insert(QStringLiteral("error"), error.message());
    }
    return out;
}

QJsonObject readersJson()
{
    const pcsc::ReaderScan scan = pcsc::scanReaders();
    QJsonArray readers;
    for (const pcsc::ReaderInfo& reader : scan.readers)
        readers.append(QJsonObject{{QStringLiteral("name"), reader.name},
                                   {QStringLiteral("cardPresent"), reader.cardPresent},
                                   {QStringLiteral("atr"), reader.atrHex},
                                   {QStringLiteral("profile"), reader.profileLabel},
                                   {QStringLiteral("error"), reader.error}});
    QJsonObject out{{QStringLiteral("readers"), readers}};
    if (!scan.serviceAvailable())
        out.insert(QStringLiteral("serviceError"), scan.serviceError);
    return out;
}

} // namespace

QJsonObject diagnose()
{
    QJsonArray modules;
    for (const ModuleCandidate& candidate : moduleCandidates())
        modules.append(moduleJson(candidate));
    return {{QStringLiteral("modules"), modules},
            {QStringLiteral("middlewareFound"), !modules.isEmpty()},
            {QStringLiteral("pcsc"), readersJson()}};
}

} // namespace vantro::host
