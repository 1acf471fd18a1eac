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
    std::string out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
    fclose(f);
    return out;
}

std::string printedToStream(const KSException& e) {
    std::ostringstream s;
    e.print(s);
    return s.str();
}

}  // namespace

TEST(KSExceptionTest, formattedMessageWithCodePrintsAsUnknownException) {
    KSException e(7, "x %d", 3);
    EXPECT_EQ(e.getCode(), 7);
    EXPECT_EQ(e.toString(), "Unknown Exception: [7] x 3");
    EXPECT_EQ(printedToFile(e), "Unknown Exception: [7] x 3\n");
    EXPECT_EQ(printedToStream(e), "Unknown Exception: [7] x 3\n");
}

TEST(KSExceptionTest, eachConstructorSetsItsCodeAndMessage) {
    EXPECT_EQ(KSException().toString(), "Unknown Exception: [1] Unknown exception");
    EXPECT_EQ(KSException(-4).toString(), "Unknown Exception: [-4] ");
    EXPECT_EQ(KSException("a %s b", "z").toString(), "Unknown Exception: [1] a z b");
    // The string constructor takes its text as is: no printf expansion, no length limit.
    std::string raw = "100% " + std::string(2000, 'r');
    KSException fromString(9, raw);
    EXPECT_EQ(fromString.getCode(), 9);
    EXPECT_EQ(fromString.getMessage(), raw);
}

TEST(KSExceptionTest, formattedMessagesAreCutTo1023Characters) {
    std::string longText(5000, 'm');
    KSException e("%s", longText.c_str());
    EXPECT_EQ(e.getMessage(), std::string(1023, 'm'));
    KSException withCode(3, "%s!", longText.c_str());
    EXPECT_EQ(withCode.getMessage().size(), 1023u);
}

TEST(KSExceptionTest, derivedExceptionsPrintTheirOwnKindThroughABaseReference) {
    try {
        throw KSTimeoutException(1, "Semaphore timed out");
    } catch (const KSException& e) {
        EXPECT_EQ(e.toString(), "Timeout Exception: [1] Semaphore timed out");
        EXPECT_EQ(printedToFile(e), "Timeout Exception: [1] Semaphore timed out\n");
    }
    try {
        throw KSIOException(13, "Creating semaphore failed: x [Permission denied]");
    } catch (const KSException& e) {
        std::string out;
        e.toString(out);
        EXPECT_EQ(out, "IO Exception: [13] Creating semaphore failed: x [Permission denied]");
    }
}

TEST(KSAssertionExceptionTest, plainAssertionPrintsItsHeadlineTwice) {
    KSAssertionException e("filename", 83, "backend/imutils/src/KSProperties");
    const std::string headline =
        "ASSERT (filename) in backend/imutils/src/KSProperties at line 83.";
    EXPECT_EQ(e.getCode(), 1);
    EXPECT_EQ(e.getMessage(), headline);
    EXPECT_EQ(e.toString(), headline + "\n" + headline);
    EXPECT_EQ(printedToStream(e), headline + "\n" + headline + "\n");
    EXPECT_EQ(e.getExpression(), "filename");
    EXPECT_EQ(e.getFile(), "backend/imutils/src/KSProperties");
    EXPECT_EQ(e.getLine(), 83);
}

TEST(KSAssertionExceptionTest, formattedAssertionPrintsHeadlineThenCutMessage) {
    KSAssertionException e("f", 120L, "backend/imutils/src/KSProperties",
                           "could not open %s in KSProperties::write", "/x/y");
    EXPECT_EQ(e.getCode(), 1);
    EXPECT_EQ(e.toString(),
              "ASSERT (f) in backend/imutils/src/KSProperties at line 120.\n"
              "could not open /x/y in KSProperties::write");

    std::string longText(3000, 'q');
    KSAssertionException cut("x", 1, "file", "%s", longText.c_str());
    EXPECT_EQ(cut.getMessage(), std::string(1023, 'q'));
}

TEST(KSAssertionExceptionTest, nullTextsAndTheNullCheckMacroGiveUsableExceptions) {
    KSAssertionException e(nullptr, -1, nullptr);
    EXPECT_EQ(e.getMessage(), "ASSERT () in  at line -1.");

    const char* name = nullptr;
    try {
        KS_ASSERT_NOT_NULL(name, "tests/unit/imutils_exception_test");
        FAIL() << "a null argument must throw";
    } catch (const KSAssertionException& thrown) {
        EXPECT_EQ(thrown.getExpression(), "name");
        EXPECT_EQ(thrown.getFile(), "tests/unit/imutils_exception_test");
        EXPECT_GT(thrown.getLine(), 0);
    }
    const char* present = "x";
    EXPECT_NO_THROW(KS_ASSERT_NOT_NULL(present, "f"));
}
