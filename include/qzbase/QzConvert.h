// qzbase: conversion between the ANSI code page, UTF-8 and UTF-16, converter
// objects for any pair of code pages, and character set names.
//
// The ANSI code page is the process's narrow encoding: 65001 (UTF-8) unless
// the environment variable QZ_ACP names another page when the library first
// needs it (see docs/TEXT.md). UTF-16 is code page 1200, little-endian.
//
// ---- The six conversions ------------------------------------------------------
// Each takes the four arguments of IMLangConvertCharset::DoConversion, with
// sizes counted as the names say: the UTF-16 side in 16-bit units, every
// other side in bytes.
//
//   source, *sourceSize       the text; *sourceSize 0xFFFFFFFF means up to
//                             its terminator (a 0 byte, or a 0 unit for
//                             UTF-16), which is not converted. On success
//                             *sourceSize becomes the amount consumed.
//   destination,              where the text goes. Measure first by passing a
//   *destinationSize          null destination and *destinationSize 0: on
//                             success *destinationSize is the size needed.
//                             Otherwise *destinationSize is the room there
//                             and becomes the amount written. Nothing is
//                             ever written outside it, and no terminator is
//                             added.
//
// Results (HRESULT; negative is failure, 0 and above success):
//   S_OK (0)                  converted, the whole text kept:
//                             - a bad sequence of the source (a byte that
//                               starts no character, text cut inside a
//                               character, a lone surrogate) becomes U+FFFD
//                               toward UTF-16 or UTF-8, and '?' toward the
//                               ANSI code page;
//                             - a character the destination page lacks
//                               becomes its default character '?' (no
//                               best-fit mapping).
//                             Measuring gives exactly what converting then
//                             writes, substitutes included.
//   0x80070459                half a 16-bit unit (an odd byte count given to
//                             a converter object): a wrong size, not text.
//   0x8007007A                the destination is too small: the characters
//                             that fit are written and both sizes say how
//                             much was consumed and written.
//   E_INVALIDARG              a null size pointer, or a null text with a
//                             size that is not 0.
//   other negative values     the converter component is unavailable
//                             (0x80040154) or out of memory (E_OUTOFMEMORY).
// After a failure the caller's size on the UTF-16 side is left as it was; the
// other size is what the component left there. A UTF-16 size is doubled for
// the component in 32 bits: from 0x80000000 up it wraps (0x80000001 units
// pass as 2 bytes), so less is converted or admitted than was said, never
// more; 0xFFFFFFFF passes unchanged.
//
// Ownership: the library keeps one converter object per conversion, made at
// the conversion's first use and kept until Qz_TerminateLibrary; a later call
// makes it again. Conversions with the ANSI side take the code page in force
// when their object is made.
//
// Threads: any thread, any number at once; first use from several threads
// leaves one object. Qz_TerminateLibrary must not run during a conversion.
#ifndef QZBASE_QZCONVERT_H
#define QZBASE_QZCONVERT_H

#include <qzbase/QzTypes.h>

#if defined(_WIN32)
#  include <mlang.h>
#else
// ---- Converter objects ----------------------------------------------------------
// The interfaces of the multi-language converter component, laid out as on
// Windows (the methods in the Windows order, so a host's code written for the
// component works unchanged).

// A 128-bit interface or class id.
struct QzGuid {
  uint32_t Data1;
  uint16_t Data2;
  uint16_t Data3;
  uint8_t Data4[8];
};

// Base of every component interface: reference counting and interface
// queries. An object lives while its count is above 0; Release returns the
// count that remains. QueryInterface gives E_NOINTERFACE (0x80004002) and a
// null pointer for an interface the object lacks.
struct IQzUnknown {
  virtual HRESULT QueryInterface(const QzGuid& iid, void** object) = 0;
  virtual uint32_t AddRef() = 0;
  virtual uint32_t Release() = 0;

 protected:
  ~IQzUnknown() {}
};

// A converter between two code pages. Initialize once, before any other
// call: S_OK, or S_FALSE when the library cannot convert between the two
// pages (every later DoConversion then gives S_FALSE and converts nothing).
// Code page 0 stands for the ANSI code page. `property` is kept and given
// back; it changes nothing.
//
// DoConversion counts bytes on both sides and behaves as the six conversions
// above. DoConversionToUnicode converts from the source page to UTF-16 and
// DoConversionFromUnicode from UTF-16 to the destination page, whatever the
// other page is; their UTF-16 side counts 16-bit units.
//
// Threads: after Initialize, any number of threads may convert with one
// object at once.
struct IMLangConvertCharset : IQzUnknown {
  virtual HRESULT Initialize(unsigned int sourceCodePage, unsigned int destinationCodePage,
                             DWORD property) = 0;
  virtual HRESULT GetSourceCodePage(unsigned int* codePage) = 0;
  virtual HRESULT GetDestinationCodePage(unsigned int* codePage) = 0;
  virtual HRESULT GetProperty(DWORD* property) = 0;
  virtual HRESULT DoConversion(unsigned char* source, unsigned int* sourceSize,
                               unsigned char* destination, unsigned int* destinationSize) = 0;
  virtual HRESULT DoConversionToUnicode(char* source, unsigned int* sourceSize,
                                        unsigned short* destination, unsigned int* destinationSize) = 0;
  virtual HRESULT DoConversionFromUnicode(unsigned short* source, unsigned int* sourceSize,
                                          char* destination, unsigned int* destinationSize) = 0;

 protected:
  ~IMLangConvertCharset() {}
};

// {00000000-0000-0000-C000-000000000046} and
// {D66D6F98-CDAA-11D0-B822-00C04FC9B31F}.
static const QzGuid QZ_IID_IUnknown = {0x00000000, 0x0000, 0x0000,
                                       {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
static const QzGuid QZ_IID_IMLangConvertCharset = {0xD66D6F98, 0xCDAA, 0x11D0,
                                                   {0xB8, 0x22, 0x00, 0xC0, 0x4F, 0xC9, 0xB3, 0x1F}};
#endif  // !_WIN32

extern "C" {

QZ_API HRESULT QZ_MBCHAR_TO_UTF16(char* source, unsigned int* sourceSize, unsigned short* destination,
                                  unsigned int* destinationSize);
QZ_API HRESULT QZ_MBCHAR_TO_UTF8(char* source, unsigned int* sourceSize, char* destination,
                                 unsigned int* destinationSize);
QZ_API HRESULT QZ_UTF16_TO_MBCHAR(unsigned short* source, unsigned int* sourceSize, char* destination,
                                  unsigned int* destinationSize);
QZ_API HRESULT QZ_UTF16_TO_UTF8(unsigned short* source, unsigned int* sourceSize, char* destination,
                                unsigned int* destinationSize);
QZ_API HRESULT QZ_UTF8_TO_MBCHAR(char* source, unsigned int* sourceSize, char* destination,
                                 unsigned int* destinationSize);
QZ_API HRESULT QZ_UTF8_TO_UTF16(char* source, unsigned int* sourceSize, unsigned short* destination,
                                unsigned int* destinationSize);

// Makes a new converter from sourceCodePage to destinationCodePage for the
// caller, who owns it and ends it with Release. Result: that of Initialize on
// success (S_OK, or S_FALSE for a pair of pages the library cannot convert);
// on failure a negative value and *converter null. A null `converter` gives
// E_POINTER.
QZ_API HRESULT Qz_CreateMLangConvertor(IMLangConvertCharset** converter, unsigned int sourceCodePage,
                                       unsigned int destinationCodePage, DWORD property);

// The Windows code page number of a MIME character set name ("utf-8",
// "ISO-8859-2", "shift_jis", "latin1" ...), matched without regard to case
// and following aliases. A null name gives the ANSI code page; a name the
// library does not know gives 0xFFFFFFFF. Any thread; no shared state.
QZ_API unsigned int Qz_CharsetToCodepage(const char* charset);

}  // extern "C"

#endif  // QZBASE_QZCONVERT_H
