// Results, the exception class, the text of a system error, and the two
// debug calls.
#include "QzException.h"

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <qzbase/QzDebug.h>
#include <qzbase/QzFormat.h>
#include <qzbase/QzMempool.h>

#include "QzString.h"
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

// ---- Debug support -------------------------------------------------------------------------------

namespace {
// Text to debug output with a line feed at its end, added if it has none.
void SendLine(const char* text) {
  size_t n = strlen(text);
  if (n != 0 && text[n - 1] == '\n') {
    qzsys::OutputDebugStringA(text);
    return;
  }
  char small[256];
  char* line = n + 2 <= sizeof small ? small : static_cast<char*>(Qz_MempoolAlloc(0, n + 2));
  if (line == nullptr) {
    qzsys::OutputDebugStringA(text);
    qzsys::OutputDebugStringA("\n");
    return;
  }
  memcpy(line, text, n);
  line[n] = '\n';
  line[n + 1] = 0;
  qzsys::OutputDebugStringA(line);
  if (line != small) Qz_MempoolFree(0, line);
}

const char kAssertFormat[] =
    "Assert Failure!\n\nProgram: %s\nFile: %s\nLine: %d\nExpression: %s\n\n"
    "Press Retry to debug the application!";
}  // namespace

extern "C" QZ_API int Qz_DebugAssert(const char* file, int line, const char* expression,
                                     const char* message) {
  char program[260];
  if (qzsys::GetModuleFileNameA(nullptr, program, sizeof program) == 0)
    strcpy(program, "<No Program Name>");
  if (file == nullptr) file = "";
  if (expression == nullptr) expression = "";

  int n = QZ_SNPRINTF_A(nullptr, 0, kAssertFormat, program, file, line, expression);
  char small[1024];
  char* text = small;
  unsigned int room = sizeof small;
  if (n >= static_cast<int>(sizeof small)) {
    char* big = static_cast<char*>(Qz_MempoolAlloc(0, static_cast<size_t>(n) + 1));
    if (big != nullptr) {
      text = big;
      room = static_cast<unsigned int>(n) + 1;
    }  // else the dialog shows the text cut to the small buffer
  }
  QZ_SNPRINTF_A(text, room, kAssertFormat, program, file, line, expression);

  if (message != nullptr && message[0] != 0) SendLine(message);

  int answer = qzsys::MessageBoxA(nullptr, text, "Debug Message",
                                  qzsys::MB_ABORTRETRYIGNORE | qzsys::MB_ICONHAND |
                                      qzsys::MB_SYSTEMMODAL | qzsys::MB_SETFOREGROUND);
  if (text != small) Qz_MempoolFree(0, text);
  if (answer == qzsys::IDABORT) exit(3);
  return answer == qzsys::IDRETRY ? 1 : 0;
}

extern "C" QZ_API void Qz_DebugTrace(const char* format, ...) {
  if (format == nullptr) format = "";
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int n = QZ_VSNPRINTF_A(nullptr, 0, format, args);
  va_end(args);
  if (n >= 0) {
    size_t size = static_cast<size_t>(n) + 2;
    char* buffer = static_cast<char*>(Qz_MempoolAlloc(0, size));
    if (buffer != nullptr) {  // no memory: nothing can be said, nothing is
      memset(buffer, 0, size);
      QZ_VSNPRINTF_A(buffer, static_cast<unsigned int>(n) + 1, format, again);
      if (n == 0 || buffer[n - 1] != '\n') buffer[n] = '\n';
      qzsys::OutputDebugStringA(buffer);
      Qz_MempoolFree(0, buffer);
    }
  }
  va_end(again);
}
