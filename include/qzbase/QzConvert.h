// qzbase: conversion between the ANSI code page, UTF-8 and UTF-16, and
// character set names.
//
// The six conversions take the arguments of the converter component's
// DoConversion: sizes in bytes that are read and written; a null destination
// with *destinationSize 0 measures and reports the size needed. A source size
// of 0xFFFFFFFF means up to the terminator. The result is an HRESULT: negative
// on failure, 0 or above on success.
//
// Threads: any thread. The converter objects are made at first use and cached
// until Qz_TerminateLibrary.
#ifndef QZBASE_QZCONVERT_H
#define QZBASE_QZCONVERT_H

#include <qzbase/QzTypes.h>

struct IMLangConvertCharset;

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

}  // extern "C"

#endif  // QZBASE_QZCONVERT_H
