#include "ui/StatusPage.h"

#include "ui/Theme.h"

namespace vantro {

namespace {

constexpr int kAutoRetrySeconds = 30;

const char* const kPageTemplate = R"(<!DOCTYPE html>
<html lang="lt"><head><meta charset="utf-8">
<meta http-equiv="refresh" content="%1;url=%2">
<title>%3</title>
<style>
html, body { height: 100%; margin: 0; }
body { display: flex; align-items: center; justify-content: center; background: %6; color: %7;
       font-family: "Segoe UI", "Noto Sans", sans-serif; }
main { max-width: 34em; padding: 2em; text-align: center; }
h1 { font-size: 1.4em; font-weight: 600; }
p { line-height: 1.5; }
a.retry { display: inline-block; margin-top: 1em; padding: 0.6em 1.4em; border-radius: 6px;
          background: %8; color: #ffffff; text-decoration: none; }
small { display: block; margin-top: 2em; opacity: 0.6; }
</style></head>
<body><main>
<h1>%3</h1>
<p>%4</p>
<a class="retry" id="retry" href="%2">Bandyti dar kartą</a>
<small>%5</small>
</main></body></html>
)";

} // namespace

StatusPageTexts statusPageTexts(StatusKind kind)
{
    switch (kind) {
    case StatusKind::Unreachable:
        return {
            QStringLiteral("Nepavyko prisijungti prie Vantro Sign"),
            QStringLiteral("Vantro Sign paslauga šiuo metu nepasiekiama. Patikrinkite interneto "
                           "ryšį ir bandykite dar kartą.")};
    case StatusKind::CertificateError:
        return {QStringLiteral("Nepavyko saugiai prisijungti"),
                QStringLiteral("Paslaugos saugumo sertifikatas netinkamas, todėl ryšys nutrauktas. "
                               "Patikrinkite kompiuterio datą ir laiką bei tinklo nustatymus ir "
                               "bandykite dar kartą.")};
    case StatusKind::ServiceError:
        return {
            QStringLiteral("Paslauga laikinai nepasiekiama"),
            QStringLiteral("Vantro Sign paslauga laikinai neatsako. Bandykite dar kartą po kelių "
                           "minučių.")};
    case StatusKind::Crashed:
        return {QStringLiteral("Puslapis netikėtai užsidarė"),
                QStringLiteral("Vantro Sign puslapio procesas netikėtai baigė darbą. Įkelkite "
                               "puslapį iš naujo.")};
    }
    return {};
}

QString statusPageHtml(StatusKind kind, const QUrl& retryUrl, const QString& detail, bool dark)
{
    const StatusPageTexts texts = statusPageTexts(kind);
    const ThemeColors colors = themeColors(dark);
    const QString retry = retryUrl.toString(QUrl::FullyEncoded).toHtmlEscaped();
    const QString detailLine =
        detail.isEmpty() ? QString() : QStringLiteral("Klaidos informacija: ") + detail;
    return QString::fromUtf8(kPageTemplate)
        .arg(QString::number(kAutoRetrySeconds), retry, texts.title.toHtmlEscaped(),
             texts.message.toHtmlEscaped(), detailLine.toHtmlEscaped(), colors.background.name(),
             colors.text.name(), colors.accent.name());
}

} // namespace vantro
