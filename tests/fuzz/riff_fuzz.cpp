// Walks any bytes as a RIFF tree in a memory file: descends into every chunk
// (and into RIFF and LIST forms, a few levels deep), reads some of each,
// searches for chunks by id, reads the rest by direct buffer access, and
// ascends again; then copies the tree into a growing memory file with
// mmioCreateChunk and mmioAscend and checks that the copy reads back the same.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "platform/QzPlatformMmio.h"

using namespace qzsys;

namespace {

struct Node {
  FOURCC id, type;
  DWORD size;
  int depth;
};

HMMIO OpenMemory(char* bytes, LONG size, DWORD grow) {
  MMIOINFO info;
  memset(&info, 0, sizeof info);
  info.fccIOProc = FOURCC_MEM;
  info.pchBuffer = bytes;
  info.cchBuffer = size;
  info.adwInfo[0] = grow;
  return mmioOpenA(nullptr, &info, MMIO_READWRITE);
}

void Walk(HMMIO m, const MMCKINFO* parent, int depth, std::vector<Node>* nodes) {
  for (int i = 0; i < 64; ++i) {
    MMCKINFO ck;
    memset(&ck, 0, sizeof ck);
    if (mmioDescend(m, &ck, parent, 0) != 0) return;
    nodes->push_back(Node{ck.ckid, ck.fccType, ck.cksize, depth});
    const bool form = ck.ckid == FOURCC_RIFF || ck.ckid == FOURCC_LIST;
    if (form && depth < 6) {
      Walk(m, &ck, depth + 1, nodes);
    } else {
      char head[40];
      LONG want = ck.cksize < sizeof head ? LONG(ck.cksize) : LONG(sizeof head);
      if (mmioRead(m, head, want) < 0) abort();
    }
    if (mmioAscend(m, &ck, 0) != 0) return;
  }
}

void DirectRead(HMMIO m) {
  MMIOINFO info;
  if (mmioGetInfo(m, &info, 0) != 0) abort();
  unsigned sum = 0;
  for (int i = 0; i < 4096; ++i) {
    if (info.pchNext == info.pchEndRead) {
      if (mmioAdvance(m, &info, MMIO_READ) != 0 || info.pchNext == info.pchEndRead) break;
    }
    sum += static_cast<unsigned char>(*info.pchNext++);
  }
  if (mmioSetInfo(m, &info, 0) != 0) abort();
  (void)sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  std::vector<char> bytes(data, data + size);
  HMMIO m = OpenMemory(bytes.empty() ? nullptr : bytes.data(), LONG(size), 0);
  if (m == nullptr) return 0;
  std::vector<Node> nodes;
  Walk(m, nullptr, 0, &nodes);

  if (mmioSeek(m, 0, SEEK_SET) == 0) {
    MMCKINFO riff, found;
    memset(&riff, 0, sizeof riff);
    if (mmioDescend(m, &riff, nullptr, 0) == 0) {
      for (FOURCC id : {mmioFOURCC('f', 'm', 't', ' '), mmioFOURCC('d', 'a', 't', 'a')}) {
        mmioSeek(m, LONG(riff.dwDataOffset + 4), SEEK_SET);
        memset(&found, 0, sizeof found);
        found.ckid = id;
        if (mmioDescend(m, &found, &riff, MMIO_FINDCHUNK) == 0) DirectRead(m);
      }
    }
  }
  mmioClose(m, 0);

  // The same top-level chunks, bodies zeroed, rebuilt and read back.
  HMMIO copy = OpenMemory(nullptr, 0, 64);
  if (copy == nullptr) abort();
  std::vector<Node> top;
  for (const Node& n : nodes)
    if (n.depth == 0 && n.id != FOURCC_RIFF && n.id != FOURCC_LIST && n.size < 4096) top.push_back(n);
  std::vector<char> zeros(4096, 0);
  for (const Node& n : top) {
    MMCKINFO ck;
    memset(&ck, 0, sizeof ck);
    ck.ckid = n.id;
    if (mmioCreateChunk(copy, &ck, 0) != 0 || mmioWrite(copy, zeros.data(), LONG(n.size)) != LONG(n.size) ||
        mmioAscend(copy, &ck, 0) != 0)
      abort();
  }
  mmioSeek(copy, 0, SEEK_SET);
  for (const Node& n : top) {
    MMCKINFO ck;
    memset(&ck, 0, sizeof ck);
    if (mmioDescend(copy, &ck, nullptr, 0) != 0 || ck.ckid != n.id || ck.cksize != n.size ||
        mmioAscend(copy, &ck, 0) != 0)
      abort();
  }
  mmioClose(copy, 0);
  return 0;
}
