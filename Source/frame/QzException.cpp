// Results, the exception class and the text of a system error.
#include "frame/QzException.h"

#include "strings/QzString.h"
#include "platform/QzPlatform.h"

// ---- Result codes ------------------------------------------------------------------------------

HRESULT QzHresultFromWin32Error(DWORD error) {
  HRESULT result = qzsys::HRESULT_FROM_WIN32(error);
  return result >= 0 ? qzsys::E_UNEXPECTED : result;
}

HRESULT QzHresultFromLastError() { return QzHresultFromWin32Error(qzsys::GetLastError()); }

void QzThrow(HRESULT code) { throw QzException(code); }

// ---- The text of a code ----------------------------------------------------------------------

namespace {
// The system hands out its own buffer; it goes back even if the string
// cannot be made.
template <typename C>
struct LocalText {
  C* text = nullptr;
  ~LocalText() { qzsys::LocalFree(text); }
};

DWORD FormatSystemMessage(HRESULT code, char** buffer) {
  return qzsys::FormatMessageA(qzsys::FORMAT_MESSAGE_ALLOCATE_BUFFER | qzsys::FORMAT_MESSAGE_FROM_SYSTEM,
                               nullptr, static_cast<DWORD>(code), qzsys::LANG_SYSTEM_DEFAULT_NEUTRAL,
                               reinterpret_cast<char*>(buffer), 0, nullptr);
}
DWORD FormatSystemMessage(HRESULT code, unsigned short** buffer) {
  return qzsys::FormatMessageW(qzsys::FORMAT_MESSAGE_ALLOCATE_BUFFER | qzsys::FORMAT_MESSAGE_FROM_SYSTEM,
                               nullptr, static_cast<DWORD>(code), qzsys::LANG_SYSTEM_DEFAULT_NEUTRAL,
                               reinterpret_cast<unsigned short*>(buffer), 0, nullptr);
}
}  // namespace

template <typename T>
QzStringT<T> QzStringBaseT<T>::GetWin32Error(HRESULT code) {
  LocalText<T> buffer;
  FormatSystemMessage(code, &buffer.text);  // only the pointer tells
  if (buffer.text == nullptr) return QzStringT<T>();
  QzStringT<T> text(buffer.text);
  text.selfTrimWhiteSpaceRight();
  return text;
}

template QzStringT<char> QzStringBaseT<char>::GetWin32Error(HRESULT);
template QzStringT<unsigned short> QzStringBaseT<unsigned short>::GetWin32Error(HRESULT);

// ---- QzException ---------------------------------------------------------------------------------

namespace {
// Set while this thread builds an exception's text: an exception thrown from
// inside that (memory has run out) gets an empty text instead of building its
// own, so the nesting ends at depth two.
thread_local bool t_buildingText = false;
}  // namespace

QzException::QzException(HRESULT code) : m_text() {
  if (t_buildingText) return;
  t_buildingText = true;
  try {
    m_text = QzStringT<char>::GetWin32Error(code);
  } catch (...) {
    // An empty text is a valid text.
  }
  t_buildingText = false;
}

QzException::QzException(const QzException& other) : QzBase(other), m_text(other.m_text) {}

QzException& QzException::operator=(const QzException& other) {
  m_text = other.m_text;
  return *this;
}

QzException::~QzException() {}

const char* QzException::GetText() const { return m_text.c_str(); }
