// The page API of the desktop companion: window.vantroSign and window.vantroUsbBridge.
// Injected at document creation into the main frame, after the chrome.webview shim. The native
// side fills in the numbered placeholders once: the web application's origin, the production
// service origin and the account portal origin as JSON string literals, and the version.
(function () {
    'use strict';

    if (window.__vantroStage2ABridgeInstalled)
        return;

    var APP_ORIGIN = %1;
    var VERSION = '%2';
    var ALLOWED_ORIGINS = [%3, %4, 'http://localhost:8000', 'http://127.0.0.1:8000', APP_ORIGIN];

    var path = window.location.pathname;
    if (ALLOWED_ORIGINS.indexOf(window.location.origin) < 0)
        return;
    if (path !== '/sign/app' && path.indexOf('/sign/app/') !== 0)
        return;
    window.__vantroStage2ABridgeInstalled = true;

    var pending = Object.create(null);
    var listeningOn = null;

    function webview() {
        return window.chrome && window.chrome.webview;
    }

    function onAnswer(event) {
        var data = event && event.data;
        if (!data || !data.vantroSignBridgeResult || !data.id)
            return;
        var entry = pending[data.id];
        if (!entry)
            return;
        delete pending[data.id];
        var result = data.result || {};
        if (result.ok === false) {
            var failure = result.error || {};
            var error = new Error(failure.message || 'VANTRO_SIGN_BRIDGE_ERROR');
            error.code = failure.code;
            entry.reject(error);
        } else {
            entry.resolve(result.value);
        }
    }

    // The channel may appear after this script ran; listen as soon as it is there.
    function listen() {
        var channel = webview();
        if (channel && listeningOn !== channel) {
            channel.addEventListener('message', onAnswer);
            listeningOn = channel;
        }
        return channel;
    }

    function newId() {
        return 'vantro-' + Date.now().toString(36) + '-' + Math.random().toString(36).slice(2);
    }

    function invoke(method, args) {
        var channel = listen();
        if (!channel)
            return Promise.reject(new Error('VANTRO_SIGN_WEBVIEW2_UNAVAILABLE'));
        return new Promise(function (resolve, reject) {
            var id = newId();
            pending[id] = { resolve: resolve, reject: reject };
            channel.postMessage({
                vantroSignBridge: true,
                id: id,
                method: method,
                args: args || [],
                href: window.location.href
            });
        });
    }

    // A function calling `method` with the list its `build` makes of the page's arguments.
    function call(method, build) {
        return function () {
            return invoke(method, build ? build.apply(null, arguments) : []);
        };
    }

    function orObject(value) {
        return value || {};
    }

    function orText(value) {
        return value || '';
    }

    function sign(name, build) {
        return call('sign:' + name, build);
    }

    function usb(name, build) {
        return call('usb:' + name, build);
    }

    function withInput(input) {
        return [orObject(input)];
    }

    function withText(text) {
        return [orText(text)];
    }

    function withValue(value) {
        return [value];
    }

    var CAPABILITIES = [
        'local_file_handles', 'explorer_drag_drop_import', 'local_root_watch',
        'local_root_selection', 'mirror_queue', 'signed_artifact_mirror', 'artifact_reveal_exact',
        'artifact_reveal_v2', 'artifact_reveal_cancel', 'windows_default_preview',
        'native_windows_preview', 'native_windows_child_preview', 'msoffice_wysiwyg_preview',
        'msoffice_preview_cache', 'adoc_local_extract', 'usb_bridge', 'usb_sign_batch_native',
        'qt_bridge', 'native_desktop_bridge', 'native_updates'
    ];

    function capabilities() {
        var result = {};
        CAPABILITIES.forEach(function (name) {
            result[name] = true;
        });
        return result;
    }

    window.vantroSign = {
        version: VERSION,
        capabilities: capabilities(),
        activate: sign('activate', withInput),
        getStatus: sign('getStatus'),
        getTheme: sign('getTheme'),
        setTheme: sign('setTheme', withValue),
        getLocalDeleteSettings: sign('getLocalDeleteSettings'),
        setLocalDeleteSettings: sign('setLocalDeleteSettings', withInput),
        setQesVisualPosition: sign('setQesVisualPosition', withValue),
        getLocalRoot: sign('getLocalRoot'),
        setLocalRoot: sign('setLocalRoot'),
        pickFiles: sign('pickFiles'),
        reconcileLocalRoot: sign('reconcileLocalRoot'),
        listDocuments: sign('listDocuments', withInput),
        listJobs: sign('listJobs', withText),
        deleteLocalDocument: sign('deleteLocalDocument', withValue),
        uploadLocalDocument: sign('uploadLocalDocument', withValue),
        runPdfTool: sign('runPdfTool', function (documentId, tool, input) {
            return [documentId, tool, orObject(input)];
        }),
        listExternalInvitations: sign('listExternalInvitations', withText),
        createExternalInvitation: sign('createExternalInvitation', function (documentId, input) {
            return [documentId, orObject(input)];
        }),
        cancelExternalInvitation: sign('cancelExternalInvitation', withValue),
        remindExternalInvitation: sign('remindExternalInvitation', withValue),
        hashFile: sign('hashFile', withValue),
        queueUpload: sign('queueUpload', function (localFileHandle, uploadIntent) {
            return [localFileHandle, orObject(uploadIntent)];
        }),
        mirrorArtifact: sign('mirrorArtifact', withInput),
        ensureLocalArtifactAndReveal: sign('ensureLocalArtifactAndReveal', withInput),
        cancelArtifactReveal: sign('cancelArtifactReveal', withText),
        getMirrorStatus: sign('getMirrorStatus', withValue),
        retryMirrorQueue: sign('retryMirrorQueue'),
        openServerDocument: sign('openServerDocument', withInput),
        renderServerDocumentPreview: sign('renderServerDocumentPreview', withInput),
        warmServerDocumentPreview: sign('warmServerDocumentPreview', withInput),
        showNativePreview: sign('showNativePreview', withInput),
        closeNativePreview: sign('closeNativePreview'),
        openLocalRoot: sign('openLocalRoot'),
        openLocalFolder: sign('openLocalFolder', withText),
        openLocalArtifactFolder: sign('openLocalArtifactFolder',
            function (localArtifactId, fallbackRelativePath, serverDocumentId) {
                return [localArtifactId, orText(fallbackRelativePath), orText(serverDocumentId)];
            }),
        getLocalArtifactStatus: sign('getLocalArtifactStatus',
            function (localArtifactId, expectedRelativePath, serverDocumentId) {
                return [localArtifactId, orText(expectedRelativePath), orText(serverDocumentId)];
            }),
        removeLocalArtifact: sign('removeLocalArtifact', withValue),
        removeLocalDocumentArtifacts: sign('removeLocalDocumentArtifacts',
            function (documentId, fallbackArtifactId) {
                return [documentId, orText(fallbackArtifactId)];
            }),
        extractAdocFiles: sign('extractAdocFiles', function (input) {
            return [input || { files: [] }];
        }),
        openLocalFile: sign('openLocalFile', withValue),
        revealLocalFile: sign('revealLocalFile', withValue),
        getUpdateStatus: sign('getUpdateStatus'),
        checkForUpdates: sign('checkForUpdates'),
        startUpdate: sign('startUpdate'),
        cancelUpdate: sign('cancelUpdate'),
        applyUpdate: sign('applyUpdate')
    };

    // Card error codes and middleware texts to what the user reads; the first match wins, so
    // specific codes come before their common prefixes.
    var LT_MESSAGES = [
        [function (t) { return t.has('VANTRO_USB_HELPER_UNAVAILABLE'); },
            'Vantro Sign USB/eID modulis šiame diegime nepasiekiamas.'],
        [function (t) { return t.has('ERR_VANTRO_ORIGIN_FORBIDDEN'); },
            'Vantro Sign USB/eID modulis atmetė pasirašymo užklausą. Įdiekite naujausią Vantro Sign versiją ir bandykite dar kartą.'],
        [function (t) { return t.lowerHas('mcard-pkcs11.dll') || t.lowerHas('\\mcard\\') || t.lowerHas('/mcard/'); },
            'Nepavyko įkelti LT ID kortelės MaskTech/mCard komponento. Įdiekite MaskTech kortelės programinę įrangą, atjunkite ir vėl prijunkite kortelę, tada bandykite dar kartą.'],
        [function (t) {
            return t.has('ERR_WEBEID_USER_CANCELLED')
                && (t.has('SMART_CARD_CHANGE_REQUIRED') || t.lowerHas('user cancelled'));
        }, 'Kortelė aptikta, bet pasirašymo sertifikatai nepasiekiami. Jei naudojate Lietuvos MaskTech ID kortelę, užregistruokite ją mCard įrankiuose ir prijunkite iš naujo.'],
        [function (t) { return t.has('ERR_WEBEID_USER_CANCELLED'); },
            'USB/eID veiksmas atšauktas. Bandykite dar kartą.'],
        [function (t) { return t.has('SMART_CARD_CHANGE_REQUIRED'); },
            'Kortelė arba USB raktas neparuoštas pasirašymui. Jei naudojate Lietuvos MaskTech ID kortelę, užregistruokite ją mCard įrankiuose ir prijunkite iš naujo.'],
        [function (t) { return t.has('PKCS11_TOKEN_NOT_PRESENT') || t.lowerHas('no card or token detected'); },
            'Kortelė arba USB raktas neaptiktas. Prijunkite priemonę ir bandykite dar kartą.'],
        [function (t) { return t.has('PKCS11_TOKEN_REMOVED') || t.lowerHas('was removed'); },
            'Kortelė arba USB raktas buvo atjungtas. Prijunkite priemonę ir bandykite dar kartą.'],
        [function (t) { return t.has('VANTRO_USB_HELPER_TIMEOUT_get-signing-certificate'); },
            'USB/eID sertifikato skaitymas užstrigo. Patikrinkite, ar PIN langas nėra pasislėpęs už kitų langų, ar kortelė/tokenas prijungtas, ir bandykite dar kartą.'],
        [function (t) { return t.has('VANTRO_USB_HELPER_TIMEOUT_sign'); },
            'USB/eID PIN pasirašymo veiksmas negrįžo laiku. Patikrinkite, ar PIN langas nėra pasislėpęs už kitų langų, ir bandykite dar kartą.'],
        [function (t) { return t.has('VANTRO_USB_HELPER_TIMEOUT'); },
            'Vantro Sign USB/eID modulis neatsakė laiku.'],
        [function (t) { return t.has('ERR_VANTRO_MIDDLEWARE_MISSING'); },
            'Nerasta reikiama kortelės tvarkyklė. Įdiekite kortelės ar USB rakto gamintojo programinę įrangą.'],
        [function (t) { return t.has('ERR_VANTRO_NO_SIGNING_CERTIFICATE'); },
            'Kortelėje nerastas pasirašymo sertifikatas.'],
        [function (t) { return t.has('ERR_VANTRO_NO_AUTHENTICATION_CERTIFICATE'); },
            'Kortelėje nerastas prisijungimo sertifikatas.'],
        [function (t) { return t.has('ERR_VANTRO_CARD_UNSUPPORTED'); },
            'Kortelė aptikta, bet Vantro Sign jos dar nepalaiko.'],
        [function (t) { return t.has('ERR_VANTRO_TIMEOUT'); },
            'Pasirašymo programa neatsako. Bandykite dar kartą.']
    ];
    var LT_FALLBACK = 'USB/eID kortelės veiksmas nepavyko. Patikrinkite kortelę arba USB raktą ir bandykite dar kartą.';

    function errorText(error) {
        if (error && error.message !== undefined && error.message !== null)
            return String(error.message);
        return error === undefined || error === null ? '' : String(error);
    }

    function ltMessage(error) {
        var text = errorText(error);
        var lower = text.toLowerCase();
        var probe = {
            has: function (part) { return text.indexOf(part) >= 0; },
            lowerHas: function (part) { return lower.indexOf(part) >= 0; }
        };
        for (var i = 0; i < LT_MESSAGES.length; ++i) {
            if (LT_MESSAGES[i][0](probe))
                return LT_MESSAGES[i][1];
        }
        return LT_FALLBACK;
    }

    window.vantroUsbBridge = {
        version: VERSION,
        isAvailable: usb('isAvailable'),
        diagnose: usb('diagnose'),
        getSigningCertificate: usb('getSigningCertificate'),
        sign: usb('sign', withInput),
        signBatch: usb('signBatch', withInput),
        authenticate: usb('authenticate', withInput),
        ltMessage: ltMessage
    };

    listen();
})();
