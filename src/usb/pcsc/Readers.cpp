#include "usb/pcsc/Readers.h"

#include "usb/pcsc/CardProfiles.h"
#include "usb/pcsc/Logging.h"
#include "usb/pcsc/PcscApi.h"

#include <QByteArray>

#include <memory>

namespace vantro::pcsc {

namespace {

constexpr DWORD kReaderNameBuffer = 512;
constexpr DWORD kAtrBuffer = 64;

void check(LONG status, const char* function)
{
    if (status != SCARD_S_SUCCESS)
        throw PcscError(QString::fromLatin1(function), quint32(status));
}

// A connected card, disconnected (left as it was) on destruction.
class CardHandle
{
public:
    CardHandle(const Context& context, const QByteArray& reader, LONG* status)
    {
        DWORD protocol = 0;
        *status = VANTRO_SCardConnect(context.handle(), reader.constData(), SCARD_SHARE_SHARED,
                                      SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, &m_handle, &protocol);
        m_connected = *status == SCARD_S_SUCCESS;
    }
    ~CardHandle()
    {
        if (m_connected)
            SCardDisconnect(m_handle, SCARD_LEAVE_CARD);
    }
    CardHandle(const CardHandle&) = delete;
    CardHandle& operator=(const CardHandle&) = delete;
    SCARDHANDLE handle() const { return m_handle; }

private:
    SCARDHANDLE m_handle = 0;
    bool m_connected = false;
};

QByteArray readAtr(const CardHandle& card)
{
    char name[kReaderNameBuffer];
    DWORD nameLength = kReaderNameBuffer;
    DWORD state = 0;
    DWORD protocol = 0;
    BYTE atr[kAtrBuffer];
    DWORD atrLength = kAtrBuffer;
    check(VANTRO_SCardStatus(card.handle(), name, &nameLength, &state, &protocol, atr, &atrLength),
          "SCardStatus");
    return QByteArray(reinterpret_cast<const char*>(atr), int(qMin(atrLength, kAtrBuffer)));
}

bool isNoCard(LONG status)
{
    return status == LONG(SCARD_E_NO_SMARTCARD) || status == LONG(SCARD_W_REMOVED_CARD);
}

// The card in one reader; a failure is recorded on the reader instead of ending the scan.
ReaderInfo readReader(const Context& context, const QString& name,
                      const QList<CardProfile>& profiles)
{
    ReaderInfo info;
    info.name = name;
    try {
        LONG status = SCARD_S_SUCCESS;
        const CardHandle card(context, name.toUtf8(), &status);
        if (isNoCard(status))
            return info;
        check(status, "SCardConnect");
        info.cardPresent = true;
        info.atrHex = atrToHex(readAtr(card));
        if (const auto profile = findProfileByAtr(profiles, info.atrHex))
            info.profileLabel = profile->label;
        else
            info.atrListDescriptions = describeAtrFromList(info.atrHex);
    } catch (const PcscError& failure) {
        qCInfo(lcPcsc).noquote() << "skipped reader" << name << failure.what();
        info.error = QString::fromUtf8(failure.what());
    }
    return info;
}

} // namespace

PcscError::PcscError(const QString& function, quint32 code)
    : std::runtime_error(
          QStringLiteral("%1 failed with PC/SC code %2").arg(function).arg(code).toStdString())
    , m_function(function)
    , m_code(code)
{
}

Context::Context()
{
    check(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &m_handle),
          "SCardEstablishContext");
}

Context::~Context()
{
    SCardReleaseContext(m_handle);
}

QStringList listReaders(const Context& context)
{
    DWORD length = 0;
    LONG status = VANTRO_SCardListReaders(context.handle(), nullptr, nullptr, &length);
    if (status == LONG(SCARD_E_NO_READERS_AVAILABLE))
        return {};
    check(status, "SCardListReaders(length)");
    QByteArray names(int(length), '\0');
    status = VANTRO_SCardListReaders(context.handle(), nullptr, names.data(), &length);
    // The list may have emptied between the two calls.
    if (status == LONG(SCARD_E_NO_READERS_AVAILABLE))
        return {};
    check(status, "SCardListReaders");
    QStringList readers;
    for (const QByteArray& name : names.left(int(length)).split('\0')) {
        if (!name.isEmpty())
            readers.append(QString::fromUtf8(name));
    }
    return readers;
}

ReaderScan scanReaders()
{
    ReaderScan scan;
    try {
        const Context context;
        const QList<CardProfile> profiles = cardProfiles();
        for (const QString& name : listReaders(context))
            scan.readers.append(readReader(context, name, profiles));
    } catch (const PcscError& failure) {
        scan.serviceError = QString::fromUtf8(failure.what());
    }
    return scan;
}

DetectedCards detectCards()
{
    std::unique_ptr<Context> context;
    try {
        context = std::make_unique<Context>();
    } catch (const PcscError& failure) {
        qCInfo(lcPcsc).noquote() << "no PC/SC context:" << failure.what();
        return {};
    }
    DetectedCards found;
    const QList<CardProfile> profiles = cardProfiles();
    for (const QString& name : listReaders(*context)) {
        const ReaderInfo reader = readReader(*context, name, profiles);
        const auto profile = findProfileByAtr(profiles, reader.atrHex);
        if (!profile)
            continue;
        found.bit4idToken |= profile->id == QLatin1String("rc-bit4id-tokenme-evo-ii");
        found.lithuanianEid |= profile->id == QLatin1String("lt-eid-mtcos-masktech");
    }
    return found;
}

} // namespace vantro::pcsc
