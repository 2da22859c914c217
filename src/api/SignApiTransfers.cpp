// The file transfers of the service client: the multipart upload and the fenced download.
#include "api/Endpoints.h"
#include "api/Logging.h"
#include "api/ReplyText.h"
#include "api/SignApiClient.h"
#include "app/Errors.h"

#include <QFile>
#include <QHttpMultiPart>
#include <QNetworkReply>

#include <memory>

namespace vantro {

namespace {

// A file name inside a quoted header parameter, encoded the way browsers send form uploads.
QString quotedFileName(const QString& name)
{
    QString out = name;
    out.replace(QLatin1Char('"'), QStringLiteral("%22"))
        .replace(QLatin1Char('\r'), QStringLiteral("%0D"))
        .replace(QLatin1Char('\n'), QStringLiteral("%0A"));
    return out;
}

QHttpPart textPart(const QString& name, const QString& value)
{
    QHttpPart part;
    part.setRawHeader("Content-Disposition",
                      QStringLiteral("form-data; name=\"%1\"").arg(name).toUtf8());
    part.setBody(value.toUtf8());
    return part;
}

// The open file becomes the form's: it is read while the request streams and closed with it.
std::unique_ptr<QHttpMultiPart> uploadForm(std::unique_ptr<QFile> file, const QString& fileName,
                                           const QString& sha256, const QJsonObject& intent)
{
    auto form = std::make_unique<QHttpMultiPart>(QHttpMultiPart::FormDataType);
    QHttpPart filePart;
    filePart.setRawHeader("Content-Disposition",
                          QStringLiteral("form-data; name=\"file\"; filename=\"%1\"")
                              .arg(quotedFileName(fileName))
                              .toUtf8());
    filePart.setBodyDevice(file.get());
    file.release()->setParent(form.get());
    form->append(filePart);
    form->append(textPart(QStringLiteral("sha256"), sha256));
    for (const char* key : {"title", "category"}) {
        const QString value = intent.value(QLatin1String(key)).toString().trimmed();
        if (!value.isEmpty())
            form->append(textPart(QLatin1String(key), value));
    }
    return form;
}

} // namespace

QJsonObject SignApiClient::uploadFile(const QString& path, const QString& fileName,
                                      const QString& sha256, const QJsonObject& intent,
                                      int timeoutMs)
{
    auto file = std::make_unique<QFile>(path);
    if (!file->open(QIODevice::ReadOnly))
        fail(QStringLiteral("VANTRO_SIGN_UPLOAD_FILE_READ_FAILED"),
             QStringLiteral("%1: %2").arg(path, file->errorString()));
    const QString name =
        fileName.isEmpty() ? QString::fromLatin1(replytext::kDefaultFileName) : fileName;
    std::unique_ptr<QHttpMultiPart> form = uploadForm(std::move(file), name, sha256, intent);
    const QNetworkRequest request =
        buildRequest(endpoints::apiUrl(m_baseUrl, QStringLiteral("/documents/uploads")), false);
    QNetworkReply* reply = m_network.post(request, form.get());
    form.release()->setParent(reply);
    qCInfo(lcApi) << "uploading" << name;

    int status = 0;
    const QByteArray body = sendAndWait(reply, timeoutMs, &status);
    const QString failed = QStringLiteral("VANTRO_SIGN_UPLOAD_FAILED_%1").arg(status);
    const QJsonObject answer = replytext::expectObject(body, failed);
    // Unlike the JSON calls, an upload counts only when the service says so.
    if (replytext::isSuccessStatus(status) && answer.value(QLatin1String("ok")).toBool(false) &&
        answer.value(QLatin1String("document")).isObject())
        return answer;
    throw VantroError(replytext::backendErrorMessage(answer, failed));
}

QByteArray SignApiClient::downloadFile(const QString& value, int timeoutMs, QString* fileName,
                                       const CancelPredicate& cancel)
{
    const QUrl url = endpoints::downloadUrl(m_baseUrl, value);
    int status = 0;
    QString header;
    const QByteArray body = sendAndWait(m_network.get(buildRequest(url, false)), timeoutMs, &status,
                                        nullptr, &header, cancel);
    if (!replytext::isSuccessStatus(status))
        fail(QStringLiteral("VANTRO_SIGN_DOWNLOAD_FAILED_%1").arg(status));
    if (body.isEmpty())
        fail(QStringLiteral("VANTRO_SIGN_DOWNLOAD_EMPTY_FILE"));
    if (fileName)
        *fileName = replytext::fileNameFromContentDisposition(header);
    return body;
}

} // namespace vantro
