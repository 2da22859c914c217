#pragma once

#include "store/LocalStore.h"

#include <QDate>
#include <QString>

// File-system work on the local root that import, reconciliation and the mirror share.
namespace vantro::localfiles {

// Absolute path, root-relative path, name, title, size, SHA-256 and MIME type of a file in the
// root. `knownSha256` is used when the caller has just hashed the bytes it wrote; otherwise the
// file is hashed anew.
LocalFileDescriptor describe(const QString& root, const QString& path,
                             const QString& knownSha256 = {});

struct CopiedFile
{
    QString path;
    QString sha256; // of the bytes written to `path`
};

// Copies `source` into root/Originalai/yyyy-MM under its cleaned, unique name. The source is only
// read, and read once: the copy is hashed as it is written. Throws VANTRO_SIGN_IMPORT_COPY_FAILED
// and then leaves no partial file behind.
CopiedFile copyIntoOriginals(const QString& root, const QString& source, const QDate& localDate);

// Writes `bytes` as the new file `target` all at once, creating its folder: through a hidden
// ".partial" file beside it (never taken for a document), synced to disk and renamed into place. A
// crash or a full disk leaves no file at `target`, and an existing file there is never replaced.
// Throws VANTRO_SIGN_LOCAL_FILE_WRITE_FAILED with the file system's error text.
void writeNewFile(const QString& target, const QByteArray& bytes);

} // namespace vantro::localfiles
