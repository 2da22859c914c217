#pragma once

#include <QByteArray>
#include <QList>

namespace vantro::dev {

// One part of a multipart/form-data body, as it came.
struct FormPart
{
    QByteArray disposition; // the Content-Disposition value
    QByteArray name;        // its name parameter
    QByteArray body;
};

// The parts of a form body in their order; none when the content type names no boundary.
QList<FormPart> parseFormData(const QByteArray& contentType, const QByteArray& body);

} // namespace vantro::dev
