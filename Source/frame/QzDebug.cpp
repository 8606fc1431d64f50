// The two debug calls: the assertion dialog and formatted trace lines.
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <qzbase/QzDebug.h>
#include <qzbase/QzFormat.h>
#include <qzbase/QzMempool.h>

#include "platform/QzPlatform.h"

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
