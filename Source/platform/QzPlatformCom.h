// Platform layer, component area: the one component the library uses, the
// multi-language converter, reached as on Windows through CoGetClassObject,
// its class factory and IMLangConvertCharset (declared in <qzbase/QzConvert.h>).
//
// On POSIX the component is built in: its conversions run on the C library's
// iconv. Each converter object keeps a few iconv descriptors of its own and
// lends one to each DoConversion, so that threads sharing an object never
// share a descriptor and never wait for each other. There is no component
// runtime to initialise; every thread may call at any time.
//
// The failure switch QZ_FAULT_CONVERTER makes CoGetClassObject fail with
// REGDB_E_CLASSNOTREG, as on a system without the component.
#ifndef QZBASE_PLATFORM_QZPLATFORMCOM_H
#define QZBASE_PLATFORM_QZPLATFORMCOM_H

#include <qzbase/QzConvert.h>

#include "platform/QzWinTypes.h"

namespace qzsys {

typedef ::QzGuid GUID;
typedef GUID IID;
typedef GUID CLSID;
typedef const GUID& REFIID;
typedef const GUID& REFCLSID;
typedef ::IQzUnknown IUnknown;
typedef uint32_t ULONG;

inline bool IsEqualGUID(const GUID& a, const GUID& b) {
  if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3) return false;
  for (int i = 0; i < 8; ++i)
    if (a.Data4[i] != b.Data4[i]) return false;
  return true;
}

extern const CLSID CLSID_CMLangConvertCharset;  // {D66D6F99-CDAA-11D0-B822-00C04FC9B31F}
extern const IID IID_IMLangConvertCharset;      // {D66D6F98-CDAA-11D0-B822-00C04FC9B31F}
extern const IID IID_IClassFactory;             // {00000001-0000-0000-C000-000000000046}
extern const IID IID_IUnknown;                  // {00000000-0000-0000-C000-000000000046}

constexpr DWORD CLSCTX_INPROC_SERVER = 0x1;
constexpr DWORD CLSCTX_INPROC_HANDLER = 0x2;
constexpr DWORD CLSCTX_LOCAL_SERVER = 0x4;

constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002u);
constexpr HRESULT CLASS_E_NOAGGREGATION = static_cast<HRESULT>(0x80040110u);
constexpr HRESULT REGDB_E_CLASSNOTREG = static_cast<HRESULT>(0x80040154u);
// What the converter gives for bad input and for a destination too small.
constexpr HRESULT QZ_E_NO_UNICODE_TRANSLATION = static_cast<HRESULT>(0x80070459u);
constexpr HRESULT QZ_E_INSUFFICIENT_BUFFER = static_cast<HRESULT>(0x8007007Au);

struct IClassFactory : IUnknown {
  // A new object of the class: E_POINTER for a null `object`,
  // CLASS_E_NOAGGREGATION with an outer object, E_OUTOFMEMORY, E_NOINTERFACE.
  virtual HRESULT CreateInstance(IUnknown* outer, REFIID iid, void** object) = 0;
  virtual HRESULT LockServer(BOOL lock) = 0;

 protected:
  ~IClassFactory() {}
};

// The class object of `clsid` as interface `iid` (IID_IClassFactory or
// IID_IUnknown), with one reference for the caller. Only the converter class
// exists: another class, a context without CLSCTX_INPROC_SERVER, or the
// failure switch give REGDB_E_CLASSNOTREG; a null `object` E_INVALIDARG. On
// failure *object is null.
HRESULT CoGetClassObject(REFCLSID clsid, DWORD context, void* serverInfo, REFIID iid, void** object);

// The iconv name of a code page the converter knows, or null.
const char* QzIconvName(UINT codePage);

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMCOM_H
