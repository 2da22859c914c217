#pragma once

#include "app/OrderedJson.h"

#include <QJsonObject>
#include <QString>

namespace vantro {

class LocalStore;
class SignApiClient;

// Puts local files on the service and remembers what the service made of them: the version's
// service id, the document's service id and state, and where the uploaded file lies. A failed
// upload records nothing.
class DocumentUpload
{
public:
    DocumentUpload(LocalStore& store, SignApiClient& api);

    // Uploads the file behind `handle` (a local version id or a local file handle). Answers the
    // service's response with the file's `sha256`, `name` and `path`, the `latest_version` and
    // the `artifactId` it was recorded under.
    OrderedObject queueUpload(const QString& handle, const QJsonObject& intent);
    // Uploads the document's current version under the document's title.
    OrderedObject uploadLocalDocument(const QString& documentId);
    // The document's record, uploaded first when the service does not know it yet.
    QJsonObject ensureServerDocument(const QString& documentId);

private:
    struct Source
    {
        QString versionId; // empty for a plain file handle
        QString path;
        QString name;
        QString sha256;
    };
    Source resolve(const QString& handle);

    LocalStore& m_store;
    SignApiClient& m_api;
};

} // namespace vantro
