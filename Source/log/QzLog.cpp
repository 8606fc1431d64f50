// The process log. (Placeholder: lines go to debug output until the family lands.)
#include <qzbase/QzLog.h>

#include "platform/QzPlatform.h"

void QZ_LOG_WRITE_A(QzLogLevelValues, const char* format, ...) { qzsys::OutputDebugStringA(format ? format : ""); }
void QZ_LOG_WRITE_W(QzLogLevelValues, const unsigned short*, ...) {}
void QZ_LOG_WRITE_STRING(QzLogLevelValues, const QzStringT<char>& text) { qzsys::OutputDebugStringA(text.c_str()); }
void QZ_LOG_WRITE_STRING(QzLogLevelValues, const QzStringT<unsigned short>&) {}
void QZ_LOG_WRITE_B(QzLogLevelValues, const void*, unsigned int) {}
void QZ_DBGLOG_WRITE_API_ERROR_IMPL(const char*, int, const char* expression, HRESULT) { qzsys::OutputDebugStringA(expression); }
int QZ_CREATE_FILE_LOG(const char*) { return 0; }
void QZ_DISABLE_LOG() {}
