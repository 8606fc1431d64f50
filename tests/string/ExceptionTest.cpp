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
  EXPECT_EQ(QzHresultFromWin32Error(0x8007000Eu), static_cast<HRESULT>(0x8007000Eu));
  EXPECT_EQ(QzHresultFromWin32Error(0), static_cast<HRESULT>(0x8000FFFFu));
  qzsys::SetLastError(qzsys::ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(QzHresultFromLastError(), static_cast<HRESULT>(0x80070002u));
}

TEST(GetWin32Error, TextWithoutItsLineEndInBothWidths) {
  EXPECT_EQ(Narrow(QzStringT<unsigned short>::GetWin32Error(0)), "The operation completed successfully.");
  EXPECT_STREQ(QzStringT<char>::GetWin32Error(14).c_str(), kNoMemory);
  for (HRESULT code : {qzsys::E_NOTIMPL, qzsys::E_POINTER, qzsys::E_FAIL, qzsys::E_UNEXPECTED,
                       qzsys::DISP_E_BUFFERTOOSMALL, qzsys::CO_E_NOTINITIALIZED, qzsys::HRESULT_TIMEOUT}) {
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

TEST(Exception, CaughtAsEitherClassWithATextNeverNullThatCopiesShare) {
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
}
