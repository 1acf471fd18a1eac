#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>

#include "KSAssertionException.h"
#include "KSException.h"
#include "KSIOException.h"
#include "KSTimeoutException.h"

namespace {

// What print(FILE*) writes, read back through a temporary file.
std::string printedToFile(const KSException& e) {
    FILE* f = tmpfile();
    if (f == nullptr) return "<tmpfile failed>";
    e.print(f);
    rewind(f);
    char buf[4096] = {};
    size_t n = fread(buf, 1, sizeof buf - 1, f);
    fclose(f);
    return std::string(buf, n);
}

}  // namespace

TEST(KSExceptionTest, eachConstructorPrintsAsUnknownExceptionWithCodeAndMessage) {
    KSException e(7, "x %d", 3);
    EXPECT_EQ(e.toString(), "Unknown Exception: [7] x 3");
    EXPECT_EQ(printedToFile(e), "Unknown Exception: [7] x 3\n");
    EXPECT_EQ(KSException().toString(), "Unknown Exception: [1] Unknown exception");
    EXPECT_EQ(KSException(-4).toString(), "Unknown Exception: [-4] ");
    EXPECT_EQ(KSException("a %s b", "z").toString(), "Unknown Exception: [1] a z b");
    // The string constructor takes its text as is: no printf expansion, no length limit.
    std::string raw = "100% " + std::string(2000, 'r');
    EXPECT_EQ(KSException(9, raw).getMessage(), raw);
}

TEST(KSExceptionTest, formattedMessagesAreCutTo1023Characters) {
    std::string longText(5000, 'm');
    EXPECT_EQ(KSException("%s", longText.c_str()).getMessage(), std::string(1023, 'm'));
    EXPECT_EQ(KSException(3, "%s!", longText.c_str()).getMessage().size(), 1023u);
    KSAssertionException cut("x", 1, "file", "%s", longText.c_str());
    EXPECT_EQ(cut.getMessage(), std::string(1023, 'm'));
}

TEST(KSExceptionTest, derivedExceptionsPrintTheirOwnKindThroughTheBase) {
    EXPECT_EQ(printedToFile(KSTimeoutException(1, "Semaphore timed out")),
              "Timeout Exception: [1] Semaphore timed out\n");
    std::ostringstream s;
    KSIOException(13, "Creating semaphore failed").print(s);
    EXPECT_EQ(s.str(), "IO Exception: [13] Creating semaphore failed\n");
}

TEST(KSAssertionExceptionTest, assertionPrintsItsHeadlineThenTheMessageSoPlainOnesRepeatIt) {
    KSAssertionException e("filename", 83, "backend/imutils/src/KSProperties");
    const std::string headline =
        "ASSERT (filename) in backend/imutils/src/KSProperties at line 83.";
    EXPECT_EQ(e.getCode(), 1);
    EXPECT_EQ(e.toString(), headline + "\n" + headline);
    EXPECT_EQ(printedToFile(e), headline + "\n" + headline + "\n");
    EXPECT_EQ(KSAssertionException(nullptr, -1, nullptr).getMessage(), "ASSERT () in  at line -1.");

    KSAssertionException formatted("f", 120L, "backend/imutils/src/KSProperties",
                                   "could not open %s in KSProperties::write", "/x/y");
    EXPECT_EQ(formatted.toString(),
              "ASSERT (f) in backend/imutils/src/KSProperties at line 120.\n"
              "could not open /x/y in KSProperties::write");
}

TEST(KSAssertionExceptionTest, nullCheckMacroThrowsOnlyForNull) {
    const char* missing = nullptr;
    const char* present = "x";
    EXPECT_THROW(KS_ASSERT_NOT_NULL(missing, "f"), KSAssertionException);
    EXPECT_NO_THROW(KS_ASSERT_NOT_NULL(present, "f"));
}
