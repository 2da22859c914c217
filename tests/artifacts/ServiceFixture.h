#pragma once

// The main-thread component set of an activated device in a fresh profile, talking to a loopback
// stand-in of the service, with one imported document.
#include "bridge/BridgeTestSupport.h"
#include "store/LocalStore.h"
#include "support/ServiceStandIn.h"

namespace vantro::test {

struct ServiceFixture
{
    ServiceFixture()
    {
        qunsetenv("DBUS_SESSION_BUS_ADDRESS"); // no keyring: the secret takes the plain form
        if (!service.listen() || !fx.state.setDeviceIdentity("dev-1", "s3cret", "ws-1"))
            qFatal("cannot prepare the service fixture");
        fx.api.setBaseUrl(service.origin());
        QFile source(fx.path("Sutartis.pdf"));
        if (!source.open(QIODevice::WriteOnly) || source.write("%PDF-1.7 sutartis") <= 0)
            qFatal("cannot write the document");
        source.close();
        const QJsonObject imported = store().importFiles({source.fileName()}).first().toObject();
        documentId = imported["documentId"].toString();
        versionId = imported["versionId"].toString();
        path = store().getVersion(versionId)["path"].toString();
    }
    LocalStore& store() { return *fx.bridge.localStore(); }
    QString root() { return store().localRoot(); }
    QVariant call(const QString& method, const QVariantList& args = {})
    {
        return fx.bridge.handle(method, args, fx.api.webAppUrl().toString()).toVariant();
    }
    static QVariant valueOf(const QVariant& result) { return variantMember(result, "value"); }

    BridgeFixture fx;
    testing::ServiceStandIn service;
    QString documentId, versionId, path;
};

} // namespace vantro::test
