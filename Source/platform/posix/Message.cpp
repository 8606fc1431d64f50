// POSIX implementation of the message area: the library's own message texts
// and a message box on standard error.
#include "platform/QzPlatformMessage.h"
#include "platform/QzPlatformSync.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <atomic>

#include "platform/QzPlatformBase.h"
#include "platform/QzPlatformFaults.h"

namespace qzsys {

namespace {

struct MessageText {
  DWORD code;
  const char* text;
};

// Win32 error values, as a result code 0x8007xxxx also reads them.
const MessageText kErrors[] = {
    {ERROR_SUCCESS, "The operation completed successfully."},
    {ERROR_INVALID_FUNCTION, "The function is not supported here."},
    {ERROR_FILE_NOT_FOUND, "The file could not be found."},
    {ERROR_PATH_NOT_FOUND, "The path could not be found."},
    {ERROR_TOO_MANY_OPEN_FILES, "Too many files are open."},
    {ERROR_ACCESS_DENIED, "Access is denied."},
    {ERROR_INVALID_HANDLE, "The handle is not valid."},
    {ERROR_NOT_ENOUGH_MEMORY, "There is not enough memory to run this command."},
    {ERROR_OUTOFMEMORY, "Not enough memory resources are available to complete this operation."},
    {ERROR_INVALID_DRIVE, "The drive could not be found."},
    {ERROR_NO_MORE_FILES, "There are no more files."},
    {ERROR_WRITE_PROTECT, "The medium is write-protected."},
    {ERROR_SHARING_VIOLATION, "The file is in use by another process."},
    {ERROR_LOCK_VIOLATION, "A part of the file is locked by another process."},
    {ERROR_HANDLE_EOF, "The end of the file has been reached."},
    {ERROR_NOT_SUPPORTED, "The request is not supported."},
    {ERROR_FILE_EXISTS, "The file already exists."},
    {ERROR_INVALID_PARAMETER, "A parameter is not valid."},
    {ERROR_BROKEN_PIPE, "The pipe has been closed."},
    {ERROR_DISK_FULL, "There is not enough space on the disk."},
    {ERROR_INSUFFICIENT_BUFFER, "The data area passed is too small."},
    {ERROR_INVALID_NAME, "The file name, directory name or volume label is not valid."},
    {ERROR_NEGATIVE_SEEK, "The file pointer cannot be moved before the start of the file."},
    {ERROR_DIR_NOT_EMPTY, "The directory is not empty."},
    {ERROR_BUSY, "The resource is in use."},
    {ERROR_ALREADY_EXISTS, "The object already exists."},
    {ERROR_FILENAME_EXCED_RANGE, "The file name or path is too long."},
    {ERROR_TOO_MANY_POSTS, "Too many posts were made to a semaphore."},
    {ERROR_INVALID_ADDRESS, "The address is not valid."},
    {ERROR_ARITHMETIC_OVERFLOW, "The result is too large for its type."},
    {ERROR_NO_UNICODE_TRANSLATION, "The text has no mapping in the target character set."},
    {ERROR_IO_DEVICE, "The device reported an input or output error."},
    {ERROR_NOT_FOUND, "The element could not be found."},
    {ERROR_TIMEOUT, "The operation did not complete before its time-out."},
};

// Result codes of other facilities.
const MessageText kResults[] = {
    {0x80004001u, "The operation is not implemented."},
    {0x80004003u, "The pointer is not valid."},
    {0x80004005u, "The operation failed for an unspecified reason."},
    {0x8000FFFFu, "The operation failed unexpectedly."},
    {0x80020013u, "The buffer is too small."},
    {0x800401F0u, "The component has not been initialised."},
};

const char* Lookup(DWORD code) {
  if ((code & 0xFFFF0000u) == 0x80070000u) code &= 0xFFFFu;  // HRESULT_FROM_WIN32
  if (code <= 0xFFFFu) {
    for (const MessageText& m : kErrors)
      if (m.code == code) return m.text;
    return nullptr;
  }
  for (const MessageText& m : kResults)
    if (m.code == code) return m.text;
  return nullptr;
}

// The whole text with the system's line end, in units of C.
template <typename C>
DWORD Format(DWORD flags, DWORD messageId, C* buffer, DWORD size) {
  if ((flags & FORMAT_MESSAGE_FROM_SYSTEM) == 0 || buffer == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  const char* text = Lookup(messageId);
  if (text == nullptr) {
    SetLastError(ERROR_MR_MID_NOT_FOUND);
    return 0;
  }
  size_t n = strlen(text) + 2;  // "\r\n"
  C* out;
  if (flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) {
    if (QzFaultHit(QZ_FAULT_FORMAT_MESSAGE)) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return 0;
    }
    out = static_cast<C*>(malloc((n + 1) * sizeof(C)));
    if (out == nullptr) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return 0;
    }
    *reinterpret_cast<C**>(buffer) = out;
  } else {
    if (size < n + 1) {
      SetLastError(ERROR_INSUFFICIENT_BUFFER);
      return 0;
    }
    out = buffer;
  }
  size_t i = 0;
  for (; text[i]; ++i) out[i] = static_cast<C>(static_cast<unsigned char>(text[i]));
  out[i++] = '\r';
  out[i++] = '\n';
  out[i] = 0;
  return static_cast<DWORD>(n);
}

std::atomic<QzMessageBoxHook> g_boxHook{nullptr};
std::atomic<void*> g_boxHookContext{nullptr};

int AnswerFromWord(const char* word) {
  while (*word == ' ' || *word == '\t') ++word;
  if (strncasecmp(word, "abort", 5) == 0 || strcasecmp(word, "a") == 0) return IDABORT;
  if (strncasecmp(word, "retry", 5) == 0 || strcasecmp(word, "r") == 0) return IDRETRY;
  if (strncasecmp(word, "ignore", 6) == 0 || strcasecmp(word, "i") == 0) return IDIGNORE;
  return 0;
}

}  // namespace

DWORD FormatMessageA(DWORD flags, LPCVOID, DWORD messageId, DWORD, LPSTR buffer, DWORD size, void*) {
  return Format<char>(flags, messageId, buffer, size);
}

DWORD FormatMessageW(DWORD flags, LPCVOID, DWORD messageId, DWORD, LPWSTR buffer, DWORD size, void*) {
  return Format<WCHAR>(flags, messageId, buffer, size);
}

HLOCAL LocalFree(HLOCAL memory) {
  free(memory);
  return nullptr;
}

void QzSetMessageBoxHook(QzMessageBoxHook hook, void* context) {
  g_boxHookContext.store(context, std::memory_order_release);
  g_boxHook.store(hook, std::memory_order_release);
}

int MessageBoxA(HWND, LPCSTR text, LPCSTR caption, UINT type) {
  if (text == nullptr) text = "";
  if (caption == nullptr) caption = "Error";
  QzMessageBoxHook hook = g_boxHook.load(std::memory_order_acquire);
  if (hook != nullptr) return hook(g_boxHookContext.load(std::memory_order_acquire), text, caption, type);

  fprintf(stderr, "\n==== %s ====\n%s\n", caption, text);
  if ((type & 0xF) != MB_ABORTRETRYIGNORE) {
    fflush(stderr);
    return IDOK;
  }
  const char* env = getenv("QZ_ASSERT_ANSWER");
  if (env != nullptr && *env != 0) {
    int answer = AnswerFromWord(env);
    if (answer != 0) {
      fprintf(stderr, "[answered %s by QZ_ASSERT_ANSWER]\n", env);
      fflush(stderr);
      return answer;
    }
  }
  if (isatty(STDIN_FILENO) && isatty(STDERR_FILENO)) {
    char line[64];
    for (;;) {
      fprintf(stderr, "(a)bort, (r)etry = debug, (i)gnore? ");
      fflush(stderr);
      if (fgets(line, sizeof line, stdin) == nullptr) break;
      line[strcspn(line, "\r\n")] = 0;
      int answer = AnswerFromWord(line);
      if (answer != 0) return answer;
    }
  }
  fprintf(stderr, "[no answer: abort]\n");
  fflush(stderr);
  return IDABORT;
}

}  // namespace qzsys
