// Conversion family, internal side: the cached converter objects.
//
// Seven process-wide slots, each holding one reference: the converter class
// factory and one converter per conversion. A slot is filled at the first
// successful use, with a compare-and-swap so that threads racing on first use
// leave exactly one initialised object (the losers release theirs), and is
// emptied by QzReleaseConverters. No lock is taken on the conversion path.
#ifndef QZBASE_QZCONVERT_INTERNAL_H
#define QZBASE_QZCONVERT_INTERNAL_H

#include <qzbase/QzConvert.h>

extern "C" {
// Releases the six converters and then the factory, emptying their slots.
// Called first by Qz_TerminateLibrary; no conversion may be running.
void QzReleaseConverters();
}

// The converter in a slot now, or null (tests look at the slots).
enum QzConversion {
  QZ_CONV_UTF8_TO_UTF16,
  QZ_CONV_UTF16_TO_UTF8,
  QZ_CONV_UTF8_TO_MBCHAR,
  QZ_CONV_MBCHAR_TO_UTF8,
  QZ_CONV_UTF16_TO_MBCHAR,
  QZ_CONV_MBCHAR_TO_UTF16,
  QZ_CONV_COUNT
};
IMLangConvertCharset* QzCachedConverter(QzConversion which);
// Tests only: puts `converter` (with the reference the caller had) into a
// slot and returns what was there (with its reference), so that a test can
// watch what the component is given.
IMLangConvertCharset* QzSwapCachedConverter(QzConversion which, IMLangConvertCharset* converter);

#endif  // QZBASE_QZCONVERT_INTERNAL_H
