// Result codes, QzException and the text of a code.
#include "frame/QzException.h"
#include "StringTestUtil.h"

using namespace strtest;

namespace {

const char kNoMemory[] = "Not enough memory resources are available to complete this operation.";

std::string Narrow(const QzStringT<unsigned short>& w) {
  std::string r;
  for (unsigned i = 0; i < w.length(); ++i) r.push_back(static_cast<char>(w.c_str()[i]));
  return r;
}

}  // namespace

TEST(ResultCodes, SystemErrorsMapAndNothingLooksLikeSuccess) {
  EXPECT_EQ(QzHresultFromWin32Error(5), static_cast<HRESULT>(0x80070005u));
  EXPECT_EQ(QzHresultFromWin32Error(0x12345), static_cast<HRESULT>(0x80072345u));
  EXPECT_EQ(QzHresultFromWin32Error(0x8007000Eu), static_cast<HRESULT>(0x8007000Eu));
  EXPECT_EQ(QzHresultFromWin32Error(0), static_cast<HRESULT>(0x8000FFFFu));
  qzsys::SetLastError(0);
  EXPECT_EQ(QzHresultFromLastError(), static_cast<HRESULT>(0x8000FFFFu));
  qzsys::SetLastError(qzsys::ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(QzHresultFromLastError(), static_cast<HRESULT>(0x80070002u));
}

TEST(GetWin32Error, TextWithoutItsLineEndInBothWidths) {
  QzStringT<char> ok = QzStringT<char>::GetWin32Error(0);
  EXPECT_STREQ(ok.c_str(), "The operation completed successfully.");
  EXPECT_EQ(Narrow(QzStringT<unsigned short>::GetWin32Error(0)), "The operation completed successfully.");
  EXPECT_STREQ(QzStringT<char>::GetWin32Error(static_cast<HRESULT>(0x8007000Eu)).c_str(), kNoMemory);
  EXPECT_STREQ(QzStringT<char>::GetWin32Error(14).c_str(), kNoMemory);
  for (HRESULT code : {qzsys::E_NOTIMPL, qzsys::E_POINTER, qzsys::E_FAIL, qzsys::E_UNEXPECTED,
                       qzsys::DISP_E_BUFFERTOOSMALL, qzsys::CO_E_NOTINITIALIZED, qzsys::E_INVALIDARG,
                       qzsys::HRESULT_TIMEOUT}) {
    QzStringT<char> text = QzStringT<char>::GetWin32Error(code);
    EXPECT_GT(text.length(), 5u) << std::hex << code;
    EXPECT_EQ(text.c_str()[text.length() - 1], '.') << std::hex << code;
    EXPECT_EQ(Narrow(QzStringT<unsigned short>::GetWin32Error(code)), std::string(text.c_str()));
  }
}

TEST(GetWin32Error, NoTextGivesTheEmptyStringAndNoMemoryThrows) {
  EXPECT_TRUE(OnEmptyRecord(QzStringT<char>::GetWin32Error(0x12345678)));
  EXPECT_TRUE(OnEmptyRecord(QzStringT<unsigned short>::GetWin32Error(static_cast<HRESULT>(0x8007FFFFu))));
  {
    qztest::FaultScope noBuffer(qzsys::QZ_FAULT_FORMAT_MESSAGE);
    EXPECT_TRUE(OnEmptyRecord(QzStringT<char>::GetWin32Error(0)));
  }
  FailNextAlloc f;
  EXPECT_OUT_OF_MEMORY(QzStringT<char>::GetWin32Error(5));
}

TEST(FormatMessage, SystemLineEndAndTheBufferPointerLeftAloneWhenThereIsNoText) {
  char* buffer = nullptr;
  char* const out = reinterpret_cast<char*>(&buffer);
  DWORD n = qzsys::FormatMessageA(0x1100, nullptr, 0, 0x400, out, 0, nullptr);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(std::string(buffer), "The operation completed successfully.\r\n");
  EXPECT_EQ(n, strlen(buffer));
  qzsys::LocalFree(buffer);
  buffer = nullptr;
  EXPECT_EQ(qzsys::FormatMessageA(0x1100, nullptr, 0xDEAD, 0x400, out, 0, nullptr), 0u);
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(qzsys::GetLastError(), qzsys::ERROR_MR_MID_NOT_FOUND);
  char small[8];
  EXPECT_EQ(qzsys::FormatMessageA(0x1000, nullptr, 0, 0x400, small, sizeof small, nullptr), 0u);
  EXPECT_EQ(qzsys::GetLastError(), qzsys::ERROR_INSUFFICIENT_BUFFER);
  unsigned short wide[128];
  n = qzsys::FormatMessageW(0x1000, nullptr, 0x80070057u, 0x400, wide, 128, nullptr);
  ASSERT_GT(n, 2u);
  EXPECT_EQ(std::basic_string<unsigned short>(wide + n - 2, 3), L<unsigned short>("\r\n\0", 3));
}

TEST(Exception, CaughtAsEitherClassWithATextNeverNullThatCopiesShare) {
  try {
    throw QzException(static_cast<HRESULT>(0x8007000Eu));
  } catch (const QzBase&) {
    // destroyed through the base: text included (sanitizer builds check)
  }
  try {
    throw QzException(static_cast<HRESULT>(0x8007000Eu));
  } catch (const QzException& e) {
    EXPECT_STREQ(e.GetText(), kNoMemory);
  }
  QzException none(0x12345678);
  ASSERT_NE(none.GetText(), nullptr);
  EXPECT_STREQ(none.GetText(), "");
  QzException a(0);
  QzException b(a);
  EXPECT_EQ(a.GetText(), b.GetText());
  EXPECT_EQ(qzstr::Header(a.GetText())->refCount, 2);
  none = a;
  EXPECT_EQ(none.GetText(), a.GetText());
  EXPECT_EQ(qzstr::Header(a.GetText())->refCount, 3);
}
