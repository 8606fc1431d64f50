// Platform layer, multimedia files: buffered RIFF files on disk or in memory,
// with the Windows mmio calls' names, results and records (QzWaveFormat.h).
//
// A file is always buffered (MMIO_ALLOCBUF or not; cchBuffer of the MMIOINFO
// given to mmioOpenA picks the size, MMIO_DEFAULTBUFFER otherwise), so direct
// access through mmioGetInfo, mmioAdvance and mmioSetInfo always works.
// Offsets are 32-bit as on Windows: a file cannot grow past 2 GiB.
//
// A memory file: mmioOpenA with no path and an MMIOINFO whose fccIOProc is
// FOURCC_MEM; its bytes are pchBuffer[0 .. cchBuffer). With pchBuffer null
// the layer allocates (and frees) cchBuffer zeroed bytes itself, and then a
// write past the end grows the file by adwInfo[0] bytes at a time when that
// is not 0; a caller's buffer never grows.
//
// Chunks: mmioDescend reads "ckid, cksize" (and the form type of RIFF and
// LIST) at the position. With a parent, a chunk whose data would run past
// the end of the file is refused with MMIOERR_CHUNKNOTFOUND like a missing
// one, so that a reader never trusts a length that the bytes do not back.
// mmioAscend writes back the size of a chunk made by mmioCreateChunk when its
// data length differs, adds the pad byte after odd-sized data, and moves past
// the chunk's end.
//
// An HMMIO belongs to one thread at a time. QZ_FAULT_MMIO makes mmioOpenA
// fail with MMIOERR_OUTOFMEMORY.
#ifndef QZBASE_PLATFORM_QZPLATFORMMMIO_H
#define QZBASE_PLATFORM_QZPLATFORMMMIO_H

#include "platform/QzWinTypes.h"
#include <qzbase/QzWaveFormat.h>

#include <stdio.h>  // SEEK_SET, SEEK_CUR, SEEK_END for mmioSeek

namespace qzsys {

typedef UINT MMRESULT;

// Opens `path` (MMIO_READ, MMIO_WRITE or MMIO_READWRITE; MMIO_CREATE makes or
// empties it) or a memory file. Null on failure, with the reason in
// info->wErrorRet when `info` is given (MMIOERR_FILENOTFOUND, _ACCESSDENIED,
// _PATHNOTFOUND, _OUTOFMEMORY, _CANNOTOPEN).
HMMIO mmioOpenA(LPSTR path, ::MMIOINFO* info, DWORD flags);
// Writes the buffer out and closes. MMIOERR_CANNOTWRITE when the buffer could
// not be written (the file is closed all the same).
MMRESULT mmioClose(HMMIO mmio, UINT flags);
// Bytes read (0 at the end), or -1.
LONG mmioRead(HMMIO mmio, HPSTR buffer, LONG size);
// Bytes written, or -1.
LONG mmioWrite(HMMIO mmio, const char* buffer, LONG size);
// SEEK_SET, SEEK_CUR, SEEK_END (0, 1, 2). The new position, or -1 for a
// position below 0 (or past the end of a memory file).
LONG mmioSeek(HMMIO mmio, LONG offset, int origin);
// MMIO_FINDCHUNK looks for ck->ckid, MMIO_FINDRIFF and MMIO_FINDLIST for a RIFF
// or LIST chunk of form ck->fccType, from the position up to the parent's end.
// 0, or MMIOERR_CHUNKNOTFOUND (the position is then undefined).
MMRESULT mmioDescend(HMMIO mmio, ::MMCKINFO* ck, const ::MMCKINFO* parent, UINT flags);
MMRESULT mmioAscend(HMMIO mmio, ::MMCKINFO* ck, UINT flags);
// Writes a chunk header at the position (MMIO_CREATERIFF, MMIO_CREATELIST set
// ckid) and marks ck MMIO_DIRTY.
MMRESULT mmioCreateChunk(HMMIO mmio, ::MMCKINFO* ck, UINT flags);
MMRESULT mmioGetInfo(HMMIO mmio, ::MMIOINFO* info, UINT flags);
// Takes pchNext back (MMIOERR_CANNOTSEEK when it lies outside the buffer) and,
// with MMIO_DIRTY in info->dwFlags, the bytes written up to it.
MMRESULT mmioSetInfo(HMMIO mmio, const ::MMIOINFO* info, UINT flags);
// Takes the state from `info` (as mmioSetInfo), writes a dirty buffer out and
// moves the buffer to the position: filled from the file for MMIO_READ (at the
// end pchNext stays equal to pchEndRead), empty for MMIO_WRITE. `info` is
// then filled as by mmioGetInfo.
MMRESULT mmioAdvance(HMMIO mmio, ::MMIOINFO* info, UINT flags);

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMMMIO_H
