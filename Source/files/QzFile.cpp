// Files and temporary files. (Placeholder until the family lands.)
#include <qzbase/QzFile.h>

QzFile::~QzFile() {}
HRESULT QzFile::Open(const char*, unsigned int) { return static_cast<HRESULT>(0x80004001u); }
QzTemporaryFile::QzTemporaryFile() : access(0) {}
QzTemporaryFile::~QzTemporaryFile() {}
HRESULT QzTemporaryFile::Create(const QzStringT<char>&, DWORD) { return static_cast<HRESULT>(0x80004001u); }
HRESULT QzTemporaryFile::HandsOff() { return 0; }
HRESULT QzTemporaryFile::HandsOn() { return static_cast<HRESULT>(0x80004001u); }
HRESULT QzTemporaryFile::Close(const QzStringT<char>&) { return static_cast<HRESULT>(0x80004001u); }
