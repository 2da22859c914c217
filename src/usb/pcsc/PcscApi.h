#pragma once

// The PC/SC headers with the narrow-string entry points under one set of names: pcsclite has
// only those, WinSCard picks wide ones when UNICODE is defined.
#include <QtGlobal>

#ifdef Q_OS_WIN
#include <windows.h>
#include <winscard.h>
#define VANTRO_SCardListReaders SCardListReadersA
#define VANTRO_SCardConnect SCardConnectA
#define VANTRO_SCardStatus SCardStatusA
#define VANTRO_SCardGetStatusChange SCardGetStatusChangeA
using VantroReaderState = SCARD_READERSTATEA;
#else
#include <pcsclite.h>
#include <winscard.h>
#define VANTRO_SCardListReaders SCardListReaders
#define VANTRO_SCardConnect SCardConnect
#define VANTRO_SCardStatus SCardStatus
#define VANTRO_SCardGetStatusChange SCardGetStatusChange
using VantroReaderState = SCARD_READERSTATE;
#endif

#include "usb/pcsc/Readers.h"

namespace vantro::pcsc {

// An established user-scope context, released on destruction. Throws PcscError.
class Context
{
public:
    Context();
    ~Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    SCARDCONTEXT handle() const { return m_handle; }

private:
    SCARDCONTEXT m_handle = 0;
};

// Reader names; an empty list when no reader is attached. Throws PcscError.
QStringList listReaders(const Context& context);

} // namespace vantro::pcsc
