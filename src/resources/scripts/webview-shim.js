// Gives the page the embedded-browser message channel it expects: window.chrome.webview with
// postMessage(value) and "message" events whose `data` is the parsed answer. Underneath it is a
// QWebChannel to the native "vantroHost" object. Runs at document creation in the main frame only.
(function () {
    'use strict';

    var transport = window.qt && window.qt.webChannelTransport;
    if (!transport || (window.chrome && window.chrome.webview))
        return;

    // Qt's client library, kept local so that none of its names reach the page.
    var QWebChannel = (function () {
        var module = undefined;
        /*@QWEBCHANNEL_JS@*/
        return QWebChannel;
    })();

    // Captured now, before any page script can replace them.
    var stringify = JSON.stringify.bind(JSON);
    var parse = JSON.parse.bind(JSON);
    var MessageEventType = window.MessageEvent;

    var host = null;
    var queued = [];
    var listeners = [];

    function send(text) {
        host.postMessage(text);
    }

    function makeEvent(data) {
        try {
            return new MessageEventType('message', { data: data });
        } catch (e) {
            return { type: 'message', data: data };
        }
    }

    function deliver(text) {
        var data;
        try {
            data = parse(text);
        } catch (e) {
            return;
        }
        var event = makeEvent(data);
        listeners.slice().forEach(function (listener) {
            try {
                listener.call(webview, event);
            } catch (error) {
                // A failing listener must not keep the message from the others.
                setTimeout(function () { throw error; }, 0);
            }
        });
    }

    var webview = {
        postMessage: function (value) {
            var text = stringify(value === undefined ? null : value);
            if (host)
                send(text);
            else
                queued.push(text);
        },
        addEventListener: function (type, listener) {
            if (type === 'message' && typeof listener === 'function'
                && listeners.indexOf(listener) < 0)
                listeners.push(listener);
        },
        removeEventListener: function (type, listener) {
            var index = type === 'message' ? listeners.indexOf(listener) : -1;
            if (index >= 0)
                listeners.splice(index, 1);
        }
    };
    Object.freeze(webview);

    var chrome = window.chrome || {};
    Object.defineProperty(chrome, 'webview', { value: webview, enumerable: true });
    if (!window.chrome)
        Object.defineProperty(window, 'chrome', { value: chrome, enumerable: true });

    new QWebChannel(transport, function (channel) {
        host = channel.objects.vantroHost;
        host.message.connect(deliver);
        var pending = queued;
        queued = [];
        pending.forEach(send);
    });

    // The browser delivers native messages through qt.webChannelTransport.onmessage, looked up
    // by name, so the object has to stay; its receiver is pinned so no page script replaces it.
    try {
        Object.defineProperty(transport, 'onmessage', {
            value: transport.onmessage, writable: false, configurable: false
        });
    } catch (e) {
    }
})();
