// qzbase: the library's one exception type.
//
// The library throws QzException by value in three situations only: a string
// cannot get memory for a block (code 0x8007000E), a critical section cannot
// be created, and a file stream has no usable file. Every other failure comes
// back as a result code or a null pointer. Catch it as QzException, or as
// QzBase.
//
// Result codes (HRESULT, 32-bit on every platform): 0 is success, negative is
// failure. A system error e above 0 becomes 0x80070000 | (e & 0xFFFF).
//
// Ownership: the exception holds its text as a shared string; copying an
// exception shares the text, and the last copy releases it.
// Threads: an exception object belongs to the thread handling it.
#ifndef QZBASE_QZEXCEPTION_H
#define QZBASE_QZEXCEPTION_H

#include <qzbase/QzTypes.h>
#include <qzbase/QzString.h>

// Common base of the library's exceptions; no data, no virtual operations.
class QZ_API QzBase {};

class QZ_API QzException : public QzBase {
 public:
  // The text is the system's message for `code`, without trailing white
  // space; empty when there is none or when memory for it ran out. The code
  // itself is not kept. Never throws.
  explicit QzException(HRESULT code);
  QzException(const QzException& other);
  QzException& operator=(const QzException& other);
  virtual ~QzException();
  // The message text: never null, possibly "". Valid while the exception lives.
  virtual const char* GetText() const;

 private:
  QzStringT<char> m_text;
};

#endif  // QZBASE_QZEXCEPTION_H
