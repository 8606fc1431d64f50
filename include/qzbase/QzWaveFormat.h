// qzbase: the records and values of RIFF and wave files.
//
// For hosts without the Windows multimedia headers: the chunk record
// (MMCKINFO), the buffer record of the multimedia file calls (MMIOINFO), the
// wave formats (WAVEFORMATEX, PCMWAVEFORMAT) and the flag values, with the
// Windows names, values and layouts (the wave formats are packed: 18 and 16
// bytes). On Windows the system's headers provide them. Define
// QZ_NO_WIN_TYPES when the host already declares them itself.
#ifndef QZBASE_QZWAVEFORMAT_H
#define QZBASE_QZWAVEFORMAT_H

#include <qzbase/QzTypes.h>

#if defined(_WIN32)
#  include <mmsystem.h>
#  include <mmreg.h>
#elif !defined(QZ_NO_WIN_TYPES)

typedef uint32_t FOURCC;
typedef char* HPSTR;
// The handle of an open multimedia file: opaque.
typedef struct HMMIO__* HMMIO;
typedef long (*LPMMIOPROC)(char* mmioinfo, unsigned int message, long param1, long param2);

#define mmioFOURCC(c0, c1, c2, c3)                                                   \
  ((FOURCC)(unsigned char)(c0) | ((FOURCC)(unsigned char)(c1) << 8) |                \
   ((FOURCC)(unsigned char)(c2) << 16) | ((FOURCC)(unsigned char)(c3) << 24))

#define FOURCC_RIFF mmioFOURCC('R', 'I', 'F', 'F')
#define FOURCC_LIST mmioFOURCC('L', 'I', 'S', 'T')
#define FOURCC_DOS mmioFOURCC('D', 'O', 'S', ' ')
#define FOURCC_MEM mmioFOURCC('M', 'E', 'M', ' ')

// One chunk: its id, data length, form type (RIFF and LIST), the file offset
// of its data (for RIFF and LIST, of the form type), and MMIO_DIRTY for a
// chunk made by mmioCreateChunk.
typedef struct _MMCKINFO {
  FOURCC ckid;
  DWORD cksize;
  FOURCC fccType;
  DWORD dwDataOffset;
  DWORD dwFlags;
} MMCKINFO, *LPMMCKINFO;

// The state of a multimedia file's buffer, for direct access: bytes stand
// from pchBuffer; the next one is pchNext; reading may go up to pchEndRead and
// writing up to pchEndWrite; lBufOffset is the file offset of pchBuffer.
typedef struct _MMIOINFO {
  DWORD dwFlags;
  FOURCC fccIOProc;
  LPMMIOPROC pIOProc;
  unsigned int wErrorRet;
  void* htask;
  LONG cchBuffer;
  HPSTR pchBuffer;
  HPSTR pchNext;
  HPSTR pchEndRead;
  HPSTR pchEndWrite;
  LONG lBufOffset;
  LONG lDiskOffset;
  DWORD adwInfo[3];
  DWORD dwReserved1;
  DWORD dwReserved2;
  HMMIO hmmio;
} MMIOINFO, *LPMMIOINFO;

#pragma pack(push, 1)
typedef struct tWAVEFORMATEX {
  uint16_t wFormatTag;
  uint16_t nChannels;
  DWORD nSamplesPerSec;
  DWORD nAvgBytesPerSec;
  uint16_t nBlockAlign;
  uint16_t wBitsPerSample;
  uint16_t cbSize;  // bytes of format data after these 18
} WAVEFORMATEX, *LPWAVEFORMATEX;

typedef struct waveformat_tag {
  uint16_t wFormatTag;
  uint16_t nChannels;
  DWORD nSamplesPerSec;
  DWORD nAvgBytesPerSec;
  uint16_t nBlockAlign;
} WAVEFORMAT;

typedef struct pcmwaveformat_tag {
  WAVEFORMAT wf;
  uint16_t wBitsPerSample;
} PCMWAVEFORMAT;
#pragma pack(pop)

#define WAVE_FORMAT_PCM 1
#define WAVE_FORMAT_IEEE_FLOAT 3
#define WAVE_FORMAT_EXTENSIBLE 0xFFFE

// mmioOpen
#define MMIO_READ 0x00000000
#define MMIO_WRITE 0x00000001
#define MMIO_READWRITE 0x00000002
#define MMIO_CREATE 0x00001000
#define MMIO_ALLOCBUF 0x00010000
#define MMIO_DEFAULTBUFFER 8192
// mmioAdvance
#define MMIO_DIRTY 0x10000000
// mmioDescend, mmioCreateChunk
#define MMIO_FINDCHUNK 0x0010
#define MMIO_FINDRIFF 0x0020
#define MMIO_FINDLIST 0x0040
#define MMIO_CREATERIFF 0x0020
#define MMIO_CREATELIST 0x0040

// Results of the multimedia file calls (0 is success).
#define MMIOERR_BASE 256
#define MMIOERR_FILENOTFOUND (MMIOERR_BASE + 1)
#define MMIOERR_OUTOFMEMORY (MMIOERR_BASE + 2)
#define MMIOERR_CANNOTOPEN (MMIOERR_BASE + 3)
#define MMIOERR_CANNOTCLOSE (MMIOERR_BASE + 4)
#define MMIOERR_CANNOTREAD (MMIOERR_BASE + 5)
#define MMIOERR_CANNOTWRITE (MMIOERR_BASE + 6)
#define MMIOERR_CANNOTSEEK (MMIOERR_BASE + 7)
#define MMIOERR_CANNOTEXPAND (MMIOERR_BASE + 8)
#define MMIOERR_CHUNKNOTFOUND (MMIOERR_BASE + 9)
#define MMIOERR_UNBUFFERED (MMIOERR_BASE + 10)
#define MMIOERR_PATHNOTFOUND (MMIOERR_BASE + 11)
#define MMIOERR_ACCESSDENIED (MMIOERR_BASE + 12)
#define MMIOERR_SHARINGVIOLATION (MMIOERR_BASE + 13)
#define MMIOERR_TOOMANYOPENFILES (MMIOERR_BASE + 15)
#define MMIOERR_INVALIDFILE (MMIOERR_BASE + 16)

#endif

#endif  // QZBASE_QZWAVEFORMAT_H
