// Wave files over the RIFF layer. Sample bytes move through the layer's
// buffer by direct access: one mmioAdvance per buffer, not a call per byte.
#include <qzbase/QzWaveFile.h>
#include <qzbase/QzLog.h>
#include <qzbase/QzMempool.h>
#include <qzbase/QzString.h>

#include "platform/QzPlatform.h"

#include <stdio.h>
#include <string.h>

using namespace qzsys;

// The records are file layouts: any padding would corrupt what is written.
static_assert(sizeof(tWAVEFORMATEX) == 18, "WAVEFORMATEX is 18 bytes, packed");
static_assert(sizeof(PCMWAVEFORMAT) == 16, "PCMWAVEFORMAT is 16 bytes, packed");
static_assert(sizeof(MMCKINFO) == 20, "MMCKINFO is five 32-bit words");

namespace {

constexpr FOURCC kWave = mmioFOURCC('W', 'A', 'V', 'E');
constexpr FOURCC kFmt = mmioFOURCC('f', 'm', 't', ' ');
constexpr FOURCC kFact = mmioFOURCC('f', 'a', 'c', 't');
constexpr FOURCC kData = mmioFOURCC('d', 'a', 't', 'a');

HRESULT Fail(const char* line) {
  QZ_LOG_WRITE_STRING(QZ_LOG_ERROR, QzStringT<char>(line));
  return E_FAIL;
}

// Open's way out after the file was opened: closed again, with its line.
HRESULT Abandon(HMMIO* mmio, HRESULT hr, const char* line) {
  mmioClose(*mmio, 0);
  *mmio = nullptr;
  QZ_LOG_WRITE_STRING(QZ_LOG_ERROR, QzStringT<char>(line));
  return hr;
}

}  // namespace

QzWaveFile::QzWaveFile()
    : m_pwfx(nullptr), mmio(nullptr), size(0), fromMemory(0), memoryStart(nullptr), memoryCursor(nullptr),
      memorySize(0) {
  // `flag` stays unset on purpose: nothing reads it before Open.
  memset(&dataChunk, 0, sizeof dataChunk);
  memset(&riffChunk, 0, sizeof riffChunk);
  memset(&writeInfo, 0, sizeof writeInfo);
}

QzWaveFile::~QzWaveFile() {
  Close();
  // A writer whose patching failed still gives its file back.
  if (mmio != nullptr) mmioClose(mmio, 0);
  if (!fromMemory && m_pwfx != nullptr) Qz_MempoolFree(nullptr, m_pwfx);
}

HRESULT QzWaveFile::Open(const char* path, tWAVEFORMATEX* format, OpenFlag openFlag) {
  // A file still open is finished first rather than lost.
  if (mmio != nullptr) Close();
  // The format of an earlier OpenFromMemory is the caller's: it is dropped,
  // never freed, and never taken for one of ours.
  if (fromMemory) m_pwfx = nullptr;
  fromMemory = 0;
  // No pointer into an earlier file's buffer may survive for Write to follow.
  memset(&writeInfo, 0, sizeof writeInfo);
  flag = openFlag;
  if (openFlag == QZ_WAVE_READ) {
    if (path == nullptr) return E_INVALIDARG;
    if (m_pwfx != nullptr) {
      Qz_MempoolFree(nullptr, m_pwfx);
      m_pwfx = nullptr;
    }
    mmio = mmioOpenA(const_cast<char*>(path), nullptr, MMIO_ALLOCBUF);
    if (mmio == nullptr) return E_FAIL;
    HRESULT hr = ReadMMIO();
    if (FAILED(hr)) return Abandon(&mmio, hr, "QzWaveFile::Open: ReadMMIO failed");
    hr = ResetFile();
    if (FAILED(hr)) return Abandon(&mmio, hr, "QzWaveFile::Open: ResetFile failed");
    size = dataChunk.cksize;
    return S_OK;
  }
  if (format == nullptr) return E_INVALIDARG;
  mmio = mmioOpenA(const_cast<char*>(path), nullptr, MMIO_ALLOCBUF | MMIO_CREATE | MMIO_READWRITE);
  if (mmio == nullptr) return Fail("QzWaveFile::Open: mmioOpen failed");
  HRESULT hr = WriteMMIO(format);
  if (FAILED(hr)) return Abandon(&mmio, hr, "QzWaveFile::Open: WriteMMIO failed");
  hr = ResetFile();
  if (FAILED(hr)) return Abandon(&mmio, hr, "QzWaveFile::Open: ResetFile failed");
  return S_OK;
}

HRESULT QzWaveFile::OpenFromMemory(unsigned char* data, DWORD bytes, tWAVEFORMATEX* format, OpenFlag openFlag) {
  if (mmio != nullptr) Close();
  if (!fromMemory && m_pwfx != nullptr) Qz_MempoolFree(nullptr, m_pwfx);
  m_pwfx = format;
  fromMemory = 1;
  memorySize = bytes;
  memoryStart = data;
  memoryCursor = data;
  return openFlag == QZ_WAVE_READ ? S_OK : E_NOTIMPL;
}

HRESULT QzWaveFile::ReadMMIO() {
  m_pwfx = nullptr;
  if (mmioDescend(mmio, &riffChunk, nullptr, 0) != 0) return Fail("QzWaveFile::ReadMMIO: mmioDescend failed");
  if (riffChunk.ckid != FOURCC_RIFF || riffChunk.fccType != kWave)
    return Fail("QzWaveFile::ReadMMIO: mmioFOURCC failed");
  MMCKINFO local;
  memset(&local, 0, sizeof local);
  local.ckid = kFmt;
  if (mmioDescend(mmio, &local, &riffChunk, MMIO_FINDCHUNK) != 0)
    return Fail("QzWaveFile::ReadMMIO: mmioDescend failed");
  if (local.cksize < sizeof(PCMWAVEFORMAT)) {
    QZ_LOG_WRITE_STRING(QZ_LOG_ERROR, QzStringT<char>::CreateFormatted(
                                          "QzWaveFile::ReadMMIO: ckIn.cksize(%u) < sizeof(PCMWAVEFORMAT)", local.cksize));
    return E_FAIL;
  }
  PCMWAVEFORMAT pcm;
  if (mmioRead(mmio, reinterpret_cast<char*>(&pcm), sizeof pcm) != static_cast<LONG>(sizeof pcm))
    return Fail("QzWaveFile::ReadMMIO: mmioRead failed");
  uint16_t extra = 0;
  // A 16-byte chunk has no cbSize (older writers of non-PCM files), and no
  // format may read past its chunk into the next one.
  if (pcm.wf.wFormatTag != WAVE_FORMAT_PCM && local.cksize >= sizeof(tWAVEFORMATEX) &&
      (mmioRead(mmio, reinterpret_cast<char*>(&extra), sizeof extra) != static_cast<LONG>(sizeof extra) ||
       sizeof(tWAVEFORMATEX) + extra > local.cksize))
    return Fail("QzWaveFile::ReadMMIO: mmioRead failed");
  m_pwfx = static_cast<tWAVEFORMATEX*>(Qz_MempoolAlloc(nullptr, sizeof(tWAVEFORMATEX) + extra));
  if (m_pwfx == nullptr) return Fail("QzWaveFile::ReadMMIO: failed to allocate memery for m_pwfx");
  memcpy(m_pwfx, &pcm, sizeof pcm);
  m_pwfx->cbSize = extra;
  if (extra != 0 && mmioRead(mmio, reinterpret_cast<char*>(m_pwfx + 1), extra) != extra) {
    Qz_MempoolFree(nullptr, m_pwfx);
    m_pwfx = nullptr;
    return Fail("QzWaveFile::ReadMMIO: mmioRead failed");
  }
  if (mmioAscend(mmio, &local, 0) != 0) {
    Qz_MempoolFree(nullptr, m_pwfx);
    m_pwfx = nullptr;
    return Fail("QzWaveFile::ReadMMIO: mmioAscend failed");
  }
  return S_OK;
}

HRESULT QzWaveFile::WriteMMIO(tWAVEFORMATEX* format) {
  riffChunk.fccType = kWave;
  riffChunk.cksize = 0;
  if (mmioCreateChunk(mmio, &riffChunk, MMIO_CREATERIFF) != 0)
    return Fail("QzWaveFile::WriteMMIO: mmioCreateChunk failed");
  dataChunk.ckid = kFmt;
  dataChunk.cksize = sizeof(PCMWAVEFORMAT);
  if (mmioCreateChunk(mmio, &dataChunk, 0) != 0) return Fail("QzWaveFile::WriteMMIO: mmioCreateChunk failed");
  LONG length = format->wFormatTag == WAVE_FORMAT_PCM ? static_cast<LONG>(sizeof(PCMWAVEFORMAT))
                                                        : static_cast<LONG>(sizeof(tWAVEFORMATEX) + format->cbSize);
  if (mmioWrite(mmio, reinterpret_cast<const char*>(format), length) != length)
    return Fail("QzWaveFile::WriteMMIO: mmioWrite failed");
  if (mmioAscend(mmio, &dataChunk, 0) != 0) return Fail("QzWaveFile::WriteMMIO: mmioAscend failed");
  MMCKINFO local;
  memset(&local, 0, sizeof local);
  local.ckid = kFact;
  if (mmioCreateChunk(mmio, &local, 0) != 0) return Fail("QzWaveFile::WriteMMIO: mmioCreateChunk failed");
  const DWORD unknown = 0xFFFFFFFFu;
  if (mmioWrite(mmio, reinterpret_cast<const char*>(&unknown), sizeof unknown) != static_cast<LONG>(sizeof unknown))
    return Fail("QzWaveFile::WriteMMIO: mmioWrite failed");
  if (mmioAscend(mmio, &local, 0) != 0) return Fail("QzWaveFile::WriteMMIO: mmioAscend failed");
  return S_OK;
}

HRESULT QzWaveFile::ResetFile() {
  if (fromMemory) {
    memoryCursor = memoryStart;
    return S_OK;
  }
  if (mmio == nullptr) return CO_E_NOTINITIALIZED;
  if (flag == QZ_WAVE_READ) {
    if (mmioSeek(mmio, static_cast<LONG>(riffChunk.dwDataOffset + 4), SEEK_SET) == -1)
      return Fail("QzWaveFile::ResetFile: mmioSeek failed");
    dataChunk.ckid = kData;
    if (mmioDescend(mmio, &dataChunk, &riffChunk, MMIO_FINDCHUNK) != 0)
      return Fail("QzWaveFile::ResetFile: mmioDescend failed");
    return S_OK;
  }
  dataChunk.ckid = kData;
  dataChunk.cksize = 0;
  if (mmioCreateChunk(mmio, &dataChunk, 0) != 0) return Fail("QzWaveFile::ResetFile: mmioCreateChunk failed");
  if (mmioGetInfo(mmio, &writeInfo, 0) != 0) return Fail("QzWaveFile::ResetFile: mmioGetInfo failed");
  return S_OK;
}

HRESULT QzWaveFile::Read(unsigned char* buffer, DWORD bytes, DWORD* bytesRead) {
  if (buffer == nullptr || bytesRead == nullptr) return E_INVALIDARG;
  if (fromMemory) {
    if (memoryCursor == nullptr) return CO_E_NOTINITIALIZED;
    DWORD left = memorySize - static_cast<DWORD>(memoryCursor - memoryStart);
    DWORD n = bytes < left ? bytes : left;
    memcpy(buffer, memoryCursor, n);
    memoryCursor += n;
    *bytesRead = n;
    return S_OK;
  }
  if (mmio == nullptr) return CO_E_NOTINITIALIZED;
  *bytesRead = 0;
  MMIOINFO local;
  if (mmioGetInfo(mmio, &local, 0) != 0) return Fail("QzWaveFile::Read: mmioGetInfo failed");
  DWORD n = bytes < dataChunk.cksize ? bytes : dataChunk.cksize;
  dataChunk.cksize -= n;
  // Whole runs of the buffer at a time: the same bytes as one by one.
  for (DWORD done = 0; done < n;) {
    if (local.pchNext == local.pchEndRead) {
      if (mmioAdvance(mmio, &local, MMIO_READ) != 0) return Fail("QzWaveFile::Read: mmioAdvance failed");
      if (local.pchNext == local.pchEndRead)
        return Fail("QzWaveFile::Read: mmioinfoIn.pchNext == mmioinfoIn.pchEndRead");
    }
    DWORD run = static_cast<DWORD>(local.pchEndRead - local.pchNext);
    if (run > n - done) run = n - done;
    memcpy(buffer + done, local.pchNext, run);
    local.pchNext += run;
    done += run;
  }
  if (mmioSetInfo(mmio, &local, 0) != 0) return Fail("QzWaveFile::Read: mmioSetInfo failed");
  *bytesRead = n;
  return S_OK;
}

HRESULT QzWaveFile::Write(unsigned int bytes, unsigned char* data, DWORD* bytesWritten) {
  if (fromMemory) return E_NOTIMPL;
  if (mmio == nullptr) return CO_E_NOTINITIALIZED;
  if (bytesWritten == nullptr || data == nullptr) return E_INVALIDARG;
  *bytesWritten = 0;
  for (unsigned int done = 0; done < bytes;) {
    if (writeInfo.pchNext == writeInfo.pchEndWrite) {
      writeInfo.dwFlags |= MMIO_DIRTY;
      if (mmioAdvance(mmio, &writeInfo, MMIO_WRITE) != 0) return Fail("QzWaveFile::Write: mmioAdvance failed");
    }
    unsigned int run = static_cast<unsigned int>(writeInfo.pchEndWrite - writeInfo.pchNext);
    if (run > bytes - done) run = bytes - done;
    memcpy(writeInfo.pchNext, data + done, run);
    writeInfo.pchNext += run;
    done += run;
    *bytesWritten = done;
  }
  return S_OK;
}

HRESULT QzWaveFile::Close() {
  if (mmio == nullptr) return CO_E_NOTINITIALIZED;
  if (flag == QZ_WAVE_READ) {
    mmioClose(mmio, 0);
    mmio = nullptr;
    return S_OK;
  }
  writeInfo.dwFlags |= MMIO_DIRTY;
  if (mmioSetInfo(mmio, &writeInfo, 0) != 0) return Fail("QzWaveFile::Close: mmioSetInfo failed");
  if (mmioAscend(mmio, &dataChunk, 0) != 0) return Fail("QzWaveFile::Close: mmioAscend failed");
  if (mmioAscend(mmio, &riffChunk, 0) != 0) return Fail("QzWaveFile::Close: mmioAscend failed");
  mmioSeek(mmio, 0, SEEK_SET);
  if (mmioDescend(mmio, &riffChunk, nullptr, 0) != 0) return Fail("QzWaveFile::Close: mmioDescend failed");
  dataChunk.ckid = kFact;
  if (mmioDescend(mmio, &dataChunk, &riffChunk, MMIO_FINDCHUNK) == 0) {
    const DWORD zero = 0;
    mmioWrite(mmio, reinterpret_cast<const char*>(&zero), sizeof zero);
    mmioAscend(mmio, &dataChunk, 0);
  }
  if (mmioAscend(mmio, &riffChunk, 0) != 0) return Fail("QzWaveFile::Close: mmioAscend failed");
  mmioClose(mmio, 0);
  mmio = nullptr;
  memset(&writeInfo, 0, sizeof writeInfo);
  return S_OK;
}

int QzWaveFile::IsValid() { return mmio != nullptr ? 1 : 0; }

tWAVEFORMATEX* QzWaveFile::GetFormat() { return m_pwfx; }

DWORD QzWaveFile::GetSize() { return size; }

QzWaveFile& QzWaveFile::operator=(const QzWaveFile& other) {
  if (this == &other) return *this;
  // A copy of an owned format first: when that fails, nothing has changed.
  tWAVEFORMATEX* format = other.m_pwfx;
  if (!other.fromMemory && format != nullptr) {
    size_t bytes = sizeof(tWAVEFORMATEX) + (format->wFormatTag == WAVE_FORMAT_PCM ? 0 : format->cbSize);
    format = static_cast<tWAVEFORMATEX*>(Qz_MempoolAlloc(nullptr, bytes));
    if (format == nullptr) return *this;
    memcpy(format, other.m_pwfx, bytes);
  }
  if (mmio != nullptr) Close();
  if (mmio != nullptr) mmioClose(mmio, 0);
  if (!fromMemory && m_pwfx != nullptr) Qz_MempoolFree(nullptr, m_pwfx);
  m_pwfx = format;
  mmio = other.mmio;
  other.mmio = nullptr;
  size = other.size;
  flag = other.flag;
  fromMemory = other.fromMemory;
  memoryStart = other.memoryStart;
  memoryCursor = other.memoryCursor;
  memorySize = other.memorySize;
  dataChunk = other.dataChunk;
  riffChunk = other.riffChunk;
  writeInfo = other.writeInfo;
  return *this;
}

int Qz_SetWaveFormat(tWAVEFORMATEX* format, int channels, int samplesPerSecond, int bitsPerSample) {
  format->wFormatTag = WAVE_FORMAT_PCM;
  format->nChannels = static_cast<uint16_t>(channels);
  format->nSamplesPerSec = static_cast<DWORD>(samplesPerSecond);
  format->wBitsPerSample = static_cast<uint16_t>(bitsPerSample);
  format->nBlockAlign = static_cast<uint16_t>(channels * ((bitsPerSample + 7) / 8));
  format->nAvgBytesPerSec = static_cast<DWORD>(format->nBlockAlign) * static_cast<DWORD>(samplesPerSecond);
  format->cbSize = 0;
  return 1;
}
