#include "FmApi/FmApi.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Trace/Trace.h"

using testing::ElementsAre;

TEST(FmApi, StatusConstantsAreOkAndInvalidArgument) {
  EXPECT_EQ(FmApi::statusOk, 0);
  EXPECT_EQ(FmApi::statusInvalidArgument, 2);
}

TEST(FmApiError, CarriesStatusFunctionAndMessage) {
  static const char function[] = "fmReadUINT64Mult";
  const FmApi::FmError error(5, function, "fmReadUINT64Mult( 0, 0x160000, 1, 0x1 ): status 5 (x)");
  EXPECT_EQ(error.status, 5);
  EXPECT_EQ(error.function, function);
  EXPECT_STREQ(error.what(), "fmReadUINT64Mult( 0, 0x160000, 1, 0x1 ): status 5 (x)");
}

TEST(FmApiError, IsARuntimeException) {
  try {
    throw FmApi::FmError(2, "fmGetLogicalPortGlort", "message");
  } catch (const Kiln::Exception& e) {
    EXPECT_EQ(e.text(), "message");
    return;
  }
  FAIL() << "not caught as Kiln::Exception";
}

TEST(FmApiTrace, TraceOneFormatsUnderTheChipApiHandleAtTheChipCallLevel) {
  Trace::Capture capture;
  FmApi::trace1("initHandler", "fmGetLogicalPortGlort( %d, %d, %p )", 0, 65532,
                reinterpret_cast<void*>(0x1234));
  EXPECT_THAT(capture.lines(),
              ElementsAre(Trace::Line{"FmApi", Trace::chipCallLevel,
                                      "initHandler: fmGetLogicalPortGlort( 0, 65532, 0x1234 )"}));
  EXPECT_EQ(Trace::chipCallLevel, 7);
}

TEST(FmApiTrace, TraceOneHandlesLongAndEmptyTexts) {
  Trace::Capture capture;
  const std::string longText(1000, 'x');
  FmApi::trace1("caller", "%s", longText.c_str());
  FmApi::trace1("caller", "%s", "");
  EXPECT_THAT(capture.texts(Trace::chipCallLevel), ElementsAre("caller: " + longText, "caller: "));
}
